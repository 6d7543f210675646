/* Limit records and global records in their key/value form.
 *
 * Each record has a key table built on the record in hand; the table walkers
 * here turn any such table into a string hash and back, and serve the status
 * record as well.  The unsigned converters live here for the same reason. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include "common/bandwidth_parm.h"
#include "vesk_hash.h"
#include "vesk_log.h"

/* The walkers log as the module whose table they walk. */
#define PARM_LOG(szFile, fmt, ...) syslog(LOG_ERR, "%s:%d " fmt, szFile, __LINE__, ##__VA_ARGS__)

#define PARM_NAME_SIZE 256
#define PARM_VALUE_SIZE 4096

namespace {

/* Every converter needs its field and its text. */
bool ConverterArgsOk(const void *private_data, const char *str)
{
    return VESK_ARG_OK(((void *)0) != private_data) && VESK_ARG_OK(NULL != str);
}

/* Text that a number parse has to consume whole. */
int WholeTextParsed(const char *szEnd)
{
    if ('\0' != *szEnd) {
        VESK_ERR_SET(BW_ERR_BAD_VALUE);
        return -1;
    }
    return 0;
}

/* The text of one table entry for the hash.  1: szValue holds it; 0: the
 * enumeration value has no name and the key is left out; -1: failure. */
int ParmToText(const VESK_BW_PARM *pParm, int iIndex, char *szValue, size_t cbValue, const char *szFile)
{
    if (NULL != pParm->pEnumList) {
        int iValue;
        memcpy(&iValue, pParm->pData, sizeof(iValue));
        szValue[0] = '\0';
        int iRet = VESKBandwidthEnumToName(pParm->pEnumList, iValue, szValue, (int)cbValue);
        if (iRet < 1 || '\0' == szValue[0]) {
            PARM_LOG(szFile, "Unknown value [%d] for [%s]", iValue, pParm->szKey);
            return 0;
        }
        return 1;
    }
    if (NULL != pParm->ToHashStr) {
        if (pParm->ToHashStr(pParm->pData, szValue, cbValue - 1) < 0) {
            PARM_LOG(szFile, "parm_table[%d].ToHashStr failed.", iIndex);
            return -1;
        }
        return 1;
    }
    const char *szText = (const char *)pParm->pData;
    snprintf(szValue, cbValue, "%.*s", (int)strnlen(szText, pParm->cbData), szText);
    return 1;
}

/* Sets the field of one table entry from its text: 0 / -1. */
int ParmFromText(const VESK_BW_PARM *pParm, int iIndex, const char *szText, const char *szFile)
{
    if (NULL != pParm->pEnumList) {
        int iValue = VESKBandwidthEnumToValue(pParm->pEnumList, szText);
        if (iValue < 0) {
            PARM_LOG(szFile, "Unknown string value [%s] for [%s]", szText, pParm->szKey);
        } else {
            memcpy(pParm->pData, &iValue, sizeof(iValue));
        }
        return 0;
    }
    if (NULL != pParm->fnFromHashStr) {
        if (pParm->fnFromHashStr(pParm->pData, szText) < 0) {
            PARM_LOG(szFile, "parm_table[%d].fnFromHashStr failed.", iIndex);
            return -1;
        }
        return 0;
    }
    snprintf((char *)pParm->pData, pParm->cbData, "%s", szText);
    return 0;
}

/* Key tables of the two records, with room for the closing entry. */
struct ConfParmTable {
    VESK_BW_PARM entry[10];
};

struct GlobalConfParmTable {
    VESK_BW_PARM entry[6];
};

ConfParmTable ConfTable(VESK_BANDWIDTH_CONF *pConf)
{
    return {{
        {"id", &pConf->id, 0, NULL, ULToHashStr, ULFromHashStr},
        {"state", &pConf->iState, 0, VESK_BW_LIMIT_STATE_NAMES, NULL, NULL},
        {"owner type", &pConf->iOwnerType, 0, VESK_BW_OWNER_TYPE_NAMES, NULL, NULL},
        {"protocol type", &pConf->iProtocol, 0, VESK_BW_PROTOCOL_TYPE_NAMES, NULL, NULL},
        {"upload rate", &pConf->ullRate[VESK_BW_TRANSFER_UPLOAD], 0, NULL, ULLToHashStr, ULLFromHashStr},
        {"download rate", &pConf->ullRate[VESK_BW_TRANSFER_DOWNLOAD], 0, NULL, ULLToHashStr, ULLFromHashStr},
        {"upload rate custom", &pConf->ullCustomRate[VESK_BW_TRANSFER_UPLOAD], 0, NULL, ULLToHashStr,
         ULLFromHashStr},
        {"download rate custom", &pConf->ullCustomRate[VESK_BW_TRANSFER_DOWNLOAD], 0, NULL, ULLToHashStr,
         ULLFromHashStr},
        {"schedule plan", pConf->szSchedulePlan, sizeof(pConf->szSchedulePlan), NULL, NULL, NULL},
        {NULL, NULL, 0, NULL, NULL, NULL},
    }};
}

GlobalConfParmTable GlobalConfTable(VESK_BANDWIDTH_GLOBAL_CONF *pConf)
{
    return {{
        {"state", &pConf->iState, 0, VESK_BW_LIMIT_STATE_NAMES, NULL, NULL},
        {"user-group policy", &pConf->iUserGroupPolicy, 0, VESK_BW_USER_GROUP_POLICY_NAMES, NULL, NULL},
        {"inter-group policy", &pConf->iInterGroupPolicy, 0, VESK_BW_INTER_GROUP_POLICY_NAMES, NULL, NULL},
        {"occupy policy", &pConf->iOccupyPolicy, 0, VESK_BW_OCCUPY_POLICY_NAMES, NULL, NULL},
        {"schedule plan", pConf->szSchedulePlan, sizeof(pConf->szSchedulePlan), NULL, NULL, NULL},
        {NULL, NULL, 0, NULL, NULL, NULL},
    }};
}

/* The two conversions of a limit or global record, given the builder of its table. */
template <typename Record, typename Table>
int HashFromRecord(VLIBC_SZHASH **ppHash, const Record *pConf, Table (*BuildTable)(Record *))
{
    if (!VESK_ARG_OK(((void *)0) != ppHash) || !VESK_ARG_OK(((void *)0) != *ppHash) ||
        !VESK_ARG_OK(NULL != pConf)) {
        return -1;
    }
    /* The table only reads the record on this path. */
    Table table = BuildTable(const_cast<Record *>(pConf));
    return VESKBandwidthParmTableToHash(table.entry, ppHash, __FILE_NAME__);
}

template <typename Record, typename Table>
int RecordFromHash(Record *pConf, const VLIBC_SZHASH *pHash, Table (*BuildTable)(Record *))
{
    if (!VESK_ARG_OK(((void *)0) != pHash) || !VESK_ARG_OK(NULL != pConf)) {
        return -1;
    }
    Table table = BuildTable(pConf);
    return VESKBandwidthParmTableFromHash(table.entry, pHash, __FILE_NAME__);
}

}  // namespace

int ULLToHashStr(const void *private_data, char *str, size_t cbStr)
{
    if (!ConverterArgsOk(private_data, str)) {
        return -1;
    }
    snprintf(str, cbStr, "%llu", (unsigned long long)*(const uint64_t *)private_data);
    return 0;
}

int ULLFromHashStr(void *private_data, const char *str)
{
    if (!ConverterArgsOk(private_data, str)) {
        return -1;
    }
    char *szEnd = NULL;
    *(uint64_t *)private_data = strtoull(str, &szEnd, 10);
    return WholeTextParsed(szEnd);
}

int ULToHashStr(const void *private_data, char *str, size_t cbStr)
{
    if (!ConverterArgsOk(private_data, str)) {
        return -1;
    }
    snprintf(str, cbStr, "%lu", (unsigned long)*(const uint32_t *)private_data);
    return 0;
}

int ULFromHashStr(void *private_data, const char *str)
{
    if (!ConverterArgsOk(private_data, str)) {
        return -1;
    }
    char *szEnd = NULL;
    *(uint32_t *)private_data = (uint32_t)strtoul(str, &szEnd, 10);
    return WholeTextParsed(szEnd);
}

int VESKBandwidthParmTableToHash(const VESK_BW_PARM *pTable, VLIBC_SZHASH **ppHash, const char *szFile)
{
    VLIBCHashRemoveAll(*ppHash);
    char szValue[PARM_VALUE_SIZE];
    for (int i = 0; NULL != pTable[i].szKey; ++i) {
        /* Names go through a buffer of their own size; other values use the large one. */
        size_t cbValue = NULL != pTable[i].pEnumList ? PARM_NAME_SIZE : sizeof(szValue);
        int iRet = ParmToText(&pTable[i], i, szValue, cbValue, szFile);
        if (iRet < 0) {
            return -1;
        }
        if (0 == iRet) {
            continue;
        }
        if (VLIBCSzHashSetValue(ppHash, pTable[i].szKey, szValue) < 0) {
            PARM_LOG(szFile, "Set hash value failed. key:[%s], val:[%s]. [0x%04X %s:%d]", pTable[i].szKey,
                     szValue, VESK_ERR_ARGS);
            return -1;
        }
    }
    return 0;
}

int VESKBandwidthParmTableFromHash(const VESK_BW_PARM *pTable, const VLIBC_SZHASH *pHash, const char *szFile)
{
    for (int i = 0; NULL != pTable[i].szKey; ++i) {
        const char *szText = VLIBCSzHashGetValue(pHash, pTable[i].szKey);
        if (NULL != szText && ParmFromText(&pTable[i], i, szText, szFile) < 0) {
            return -1;
        }
    }
    return 0;
}

int VESKBandwidthInitHashFromConf(VLIBC_SZHASH **ppHash, const VESK_BANDWIDTH_CONF *pConf)
{
    return HashFromRecord(ppHash, pConf, ConfTable);
}

int VESKBandwidthInitConfFromHash(VESK_BANDWIDTH_CONF *pConf, const VLIBC_SZHASH *pHash)
{
    return RecordFromHash(pConf, pHash, ConfTable);
}

int VESKBandwidthInitHashFromGlobalConf(VLIBC_SZHASH **ppHash, const VESK_BANDWIDTH_GLOBAL_CONF *pConf)
{
    return HashFromRecord(ppHash, pConf, GlobalConfTable);
}

int VESKBandwidthInitGlobalConfFromHash(VESK_BANDWIDTH_GLOBAL_CONF *pConf, const VLIBC_SZHASH *pHash)
{
    return RecordFromHash(pConf, pHash, GlobalConfTable);
}

// The walkers of the key tables, shared by the limit, global and status record
// conversions.  Every line they log names the module whose table they walk.
#include "bandwidth_parm.h"

#include <stdio.h>
#include <string.h>

#include "vesk_hash.h"

namespace {

// Names go through a buffer of their own size; other values use the large one.
constexpr size_t kNameSize = 256;
constexpr size_t kValueSize = 4096;

// The text of one table entry for the hash.  1: szValue holds it; 0: the
// enumeration value has no name and the key is left out; -1: failure.
int ParmToText(const VESK_BW_PARM *pParm, int iIndex, char *szValue, VeskSite site)
{
    if (pParm->pEnumList != nullptr) {
        int iValue;
        memcpy(&iValue, pParm->pData, sizeof(iValue));
        szValue[0] = '\0';
        int iRet = VESKBandwidthEnumToName(pParm->pEnumList, iValue, szValue, (int)kNameSize);
        if (iRet < 1 || '\0' == szValue[0]) {
            VESK_LOG_AT(site, "Unknown value [%d] for [%s]", iValue, pParm->szKey);
            return 0;
        }
        return 1;
    }
    if (pParm->ToHashStr != nullptr) {
        if (pParm->ToHashStr(pParm->pData, szValue, kValueSize - 1) < 0) {
            VESK_LOG_AT(site, "parm_table[%d].ToHashStr failed.", iIndex);
            return -1;
        }
        return 1;
    }
    const char *szText = (const char *)pParm->pData;
    snprintf(szValue, kValueSize, "%.*s", (int)strnlen(szText, pParm->cbData), szText);
    return 1;
}

// Sets the field of one table entry from its text: 0 / -1.
int ParmFromText(const VESK_BW_PARM *pParm, int iIndex, const char *szText, VeskSite site)
{
    if (pParm->pEnumList != nullptr) {
        int iValue = VESKBandwidthEnumToValue(pParm->pEnumList, szText);
        if (iValue < 0) {
            VESK_LOG_AT(site, "Unknown string value [%s] for [%s]", szText, pParm->szKey);
        } else {
            memcpy(pParm->pData, &iValue, sizeof(iValue));
        }
        return 0;
    }
    if (pParm->fnFromHashStr != nullptr) {
        if (pParm->fnFromHashStr(pParm->pData, szText) < 0) {
            VESK_LOG_AT(site, "parm_table[%d].fnFromHashStr failed.", iIndex);
            return -1;
        }
        return 0;
    }
    snprintf((char *)pParm->pData, pParm->cbData, "%s", szText);
    return 0;
}

}  // namespace

bool BandwidthParmConverterArgsOk(const void *private_data, const char *str, VeskSite site)
{
    return VESK_ARG_CHECK_AT(site, private_data != nullptr, "((void *)0) != private_data") &&
           VESK_ARG_CHECK_AT(site, str != nullptr, "NULL != str");
}

int BandwidthParmTableToHash(const VESK_BW_PARM *pTable, VLIBC_SZHASH **ppHash, VeskSite site)
{
    VLIBCHashRemoveAll(*ppHash);
    char szValue[kValueSize];
    for (int i = 0; pTable[i].szKey != nullptr; ++i) {
        int iRet = ParmToText(&pTable[i], i, szValue, site);
        if (iRet < 0) {
            return -1;
        }
        if (0 == iRet) {
            continue;
        }
        if (VLIBCSzHashSetValue(ppHash, pTable[i].szKey, szValue) < 0) {
            VESK_LOG_AT(site, "Set hash value failed. key:[%s], val:[%s]. [0x%04X %s:%d]", pTable[i].szKey, szValue,
                        VESK_ERR_ARGS);
            return -1;
        }
    }
    return 0;
}

int BandwidthParmTableFromHash(const VESK_BW_PARM *pTable, const VLIBC_SZHASH *pHash, VeskSite site)
{
    for (int i = 0; pTable[i].szKey != nullptr; ++i) {
        const char *szText = VLIBCSzHashGetValue(pHash, pTable[i].szKey);
        if (szText != nullptr && ParmFromText(&pTable[i], i, szText, site) < 0) {
            return -1;
        }
    }
    return 0;
}

// Limit records and global records in their key/value form, through the key
// table built on the record in hand.  The unsigned converters, which the
// status record uses as well, belong to this module.
#include <stdio.h>
#include <stdlib.h>

#include "common/bandwidth_parm.h"
#include "vesk_log.h"

namespace {

// Text that a number parse has to consume whole.
int WholeTextParsed(const char *szEnd)
{
    if ('\0' != *szEnd) {
        VESK_ERR_SET(BW_ERR_BAD_VALUE);
        return -1;
    }
    return 0;
}

// Key tables of the two records, with room for the closing entry.
struct ConfParmTable {
    VESK_BW_PARM entry[10];
};

struct GlobalConfParmTable {
    VESK_BW_PARM entry[6];
};

ConfParmTable ConfTable(VESK_BANDWIDTH_CONF *pConf)
{
    return {{
        {"id", &pConf->id, 0, nullptr, ULToHashStr, ULFromHashStr},
        {"state", &pConf->iState, 0, VESK_BW_LIMIT_STATE_NAMES, nullptr, nullptr},
        {"owner type", &pConf->iOwnerType, 0, VESK_BW_OWNER_TYPE_NAMES, nullptr, nullptr},
        {"protocol type", &pConf->iProtocol, 0, VESK_BW_PROTOCOL_TYPE_NAMES, nullptr, nullptr},
        {"upload rate", &pConf->ullRate[VESK_BW_TRANSFER_UPLOAD], 0, nullptr, ULLToHashStr, ULLFromHashStr},
        {"download rate", &pConf->ullRate[VESK_BW_TRANSFER_DOWNLOAD], 0, nullptr, ULLToHashStr, ULLFromHashStr},
        {"upload rate custom", &pConf->ullCustomRate[VESK_BW_TRANSFER_UPLOAD], 0, nullptr, ULLToHashStr,
         ULLFromHashStr},
        {"download rate custom", &pConf->ullCustomRate[VESK_BW_TRANSFER_DOWNLOAD], 0, nullptr, ULLToHashStr,
         ULLFromHashStr},
        {"schedule plan", pConf->szSchedulePlan, sizeof(pConf->szSchedulePlan), nullptr, nullptr, nullptr},
        {nullptr, nullptr, 0, nullptr, nullptr, nullptr},
    }};
}

GlobalConfParmTable GlobalConfTable(VESK_BANDWIDTH_GLOBAL_CONF *pConf)
{
    return {{
        {"state", &pConf->iState, 0, VESK_BW_LIMIT_STATE_NAMES, nullptr, nullptr},
        {"user-group policy", &pConf->iUserGroupPolicy, 0, VESK_BW_USER_GROUP_POLICY_NAMES, nullptr, nullptr},
        {"inter-group policy", &pConf->iInterGroupPolicy, 0, VESK_BW_INTER_GROUP_POLICY_NAMES, nullptr, nullptr},
        {"occupy policy", &pConf->iOccupyPolicy, 0, VESK_BW_OCCUPY_POLICY_NAMES, nullptr, nullptr},
        {"schedule plan", pConf->szSchedulePlan, sizeof(pConf->szSchedulePlan), nullptr, nullptr, nullptr},
        {nullptr, nullptr, 0, nullptr, nullptr, nullptr},
    }};
}

// The two conversions of a limit or global record, given the builder of its table.
template <typename Record, typename Table>
int HashFromRecord(VLIBC_SZHASH **ppHash, const Record *pConf, Table (*BuildTable)(Record *))
{
    if (!VESK_ARG_CHECK(ppHash != nullptr, "((void *)0) != ppHash") ||
        !VESK_ARG_CHECK(*ppHash != nullptr, "((void *)0) != *ppHash") ||
        !VESK_ARG_CHECK(pConf != nullptr, "NULL != pConf")) {
        return -1;
    }
    // The table only reads the record on this path.
    Table table = BuildTable(const_cast<Record *>(pConf));
    return BandwidthParmTableToHash(table.entry, ppHash, VESK_SITE);
}

template <typename Record, typename Table>
int RecordFromHash(Record *pConf, const VLIBC_SZHASH *pHash, Table (*BuildTable)(Record *))
{
    if (!VESK_ARG_CHECK(pHash != nullptr, "((void *)0) != pHash") ||
        !VESK_ARG_CHECK(pConf != nullptr, "NULL != pConf")) {
        return -1;
    }
    Table table = BuildTable(pConf);
    return BandwidthParmTableFromHash(table.entry, pHash, VESK_SITE);
}

}  // namespace

int ULLToHashStr(const void *private_data, char *str, size_t cbStr)
{
    if (!BandwidthParmConverterArgsOk(private_data, str, VESK_SITE)) {
        return -1;
    }
    snprintf(str, cbStr, "%llu", (unsigned long long)*(const uint64_t *)private_data);
    return 0;
}

int ULLFromHashStr(void *private_data, const char *str)
{
    if (!BandwidthParmConverterArgsOk(private_data, str, VESK_SITE)) {
        return -1;
    }
    char *szEnd = nullptr;
    *(uint64_t *)private_data = strtoull(str, &szEnd, 10);
    return WholeTextParsed(szEnd);
}

int ULToHashStr(const void *private_data, char *str, size_t cbStr)
{
    if (!BandwidthParmConverterArgsOk(private_data, str, VESK_SITE)) {
        return -1;
    }
    snprintf(str, cbStr, "%lu", (unsigned long)*(const uint32_t *)private_data);
    return 0;
}

int ULFromHashStr(void *private_data, const char *str)
{
    if (!BandwidthParmConverterArgsOk(private_data, str, VESK_SITE)) {
        return -1;
    }
    char *szEnd = nullptr;
    *(uint32_t *)private_data = (uint32_t)strtoul(str, &szEnd, 10);
    return WholeTextParsed(szEnd);
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

// The status record of a running transfer in its key/value form, the form in
// which it lives as a section of a status file.  Signed fields ("pid",
// "timestamp") are read leniently: text after the digits is ignored.
#include <stdio.h>
#include <stdlib.h>

#include "common/bandwidth_parm.h"
#include "vesk_log.h"

namespace {

int LToHashStr(const void *private_data, char *str, size_t cbStr)
{
    if (!BandwidthParmConverterArgsOk(private_data, str, VESK_SITE)) {
        return -1;
    }
    snprintf(str, cbStr, "%ld", (long)*(const int64_t *)private_data);
    return 0;
}

int LFromHashStr(void *private_data, const char *str)
{
    if (!BandwidthParmConverterArgsOk(private_data, str, VESK_SITE)) {
        return -1;
    }
    *(int64_t *)private_data = strtol(str, nullptr, 10);
    return 0;
}

int IToHashStr(const void *private_data, char *str, size_t cbStr)
{
    if (!BandwidthParmConverterArgsOk(private_data, str, VESK_SITE)) {
        return -1;
    }
    snprintf(str, cbStr, "%ld", (long)*(const int32_t *)private_data);
    return 0;
}

int IFromHashStr(void *private_data, const char *str)
{
    if (!BandwidthParmConverterArgsOk(private_data, str, VESK_SITE)) {
        return -1;
    }
    *(int32_t *)private_data = (int32_t)strtol(str, nullptr, 10);
    return 0;
}

// The twelve keys of a status record, with room for the closing entry.
struct StatusParmTable {
    VESK_BW_PARM entry[13];
};

StatusParmTable StatusTable(VESK_BANDWIDTH_STATUS *pStatus)
{
    return {{
        {"pid", &pStatus->pid, 0, nullptr, IToHashStr, IFromHashStr},
        {"id", &pStatus->id, 0, nullptr, ULToHashStr, ULFromHashStr},
        {"uid", &pStatus->uid, 0, nullptr, ULToHashStr, ULFromHashStr},
        {"active", &pStatus->active, 0, nullptr, ULToHashStr, ULFromHashStr},
        {"timestamp", &pStatus->timestamp, 0, nullptr, LToHashStr, LFromHashStr},
        {"current speed", &pStatus->current_speed, 0, nullptr, ULLToHashStr, ULLFromHashStr},
        {"expect speed", &pStatus->expect_speed, 0, nullptr, ULLToHashStr, ULLFromHashStr},
        {"filename", pStatus->filename, sizeof(pStatus->filename), nullptr, nullptr, nullptr},
        {"owner type", &pStatus->owner_type, 0, VESK_BW_OWNER_TYPE_NAMES, nullptr, nullptr},
        {"protocol type", &pStatus->protocol_type, 0, VESK_BW_PROTOCOL_TYPE_NAMES, nullptr, nullptr},
        {"transfer type", &pStatus->transfer_type, 0, VESK_BW_TRANSFER_TYPE_NAMES, nullptr, nullptr},
        {"progress", &pStatus->progress, 0, nullptr, ULToHashStr, ULFromHashStr},
        {nullptr, nullptr, 0, nullptr, nullptr, nullptr},
    }};
}

}  // namespace

int VESKBandwidthInitHashFromStatus(VLIBC_SZHASH **ppHash, const VESK_BANDWIDTH_STATUS *pStatus)
{
    if (!VESK_ARG_CHECK(ppHash != nullptr, "((void *)0) != ppHash") ||
        !VESK_ARG_CHECK(*ppHash != nullptr, "((void *)0) != *ppHash") ||
        !VESK_ARG_CHECK(pStatus != nullptr, "NULL != pStatus")) {
        return -1;
    }
    // The table only reads the record on this path.
    StatusParmTable table = StatusTable(const_cast<VESK_BANDWIDTH_STATUS *>(pStatus));
    return BandwidthParmTableToHash(table.entry, ppHash, VESK_SITE);
}

int VESKBandwidthInitStatusFromHash(VESK_BANDWIDTH_STATUS *pStatus, const VLIBC_SZHASH *pHash)
{
    if (!VESK_ARG_CHECK(pHash != nullptr, "((void *)0) != pHash") ||
        !VESK_ARG_CHECK(pStatus != nullptr, "NULL != pStatus")) {
        return -1;
    }
    StatusParmTable table = StatusTable(pStatus);
    return BandwidthParmTableFromHash(table.entry, pHash, VESK_SITE);
}

// The path rule of the configuration files: one limit file per protocol and
// the global file, all in the configuration directory.
#include <stdio.h>

#include "bandwidth_conf_store.h"
#include "common/bandwidth_enum_name.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

int VESKBandwidthConfPath(int protocol_type, char *szConfPath, size_t cbConfPath)
{
    if (!VESK_ARG_CHECK(szConfPath != nullptr, "((void *)0) != szConfPath")) {
        return -1;
    }
    char szName[kConfNameSize] = "global";
    if (VESK_BW_PROTOCOL_ALL != protocol_type &&
        !BandwidthEnumName(VESK_BW_PROTOCOL_TYPE_NAMES, protocol_type, szName, sizeof(szName))) {
        VESK_LOG("Failed to get protocol for protocol_type [%d] [0x%04X %s:%d]", protocol_type, VESK_ERR_ARGS);
        return -1;
    }
    snprintf(szConfPath, cbConfPath, "%s%s%s%s", kConfDir, "bandwidth.", szName, ".conf");
    return 0;
}

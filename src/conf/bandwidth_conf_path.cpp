/* The path rule of the configuration files: one limit file per protocol and
 * the global file, all in the configuration directory. */
#include <stdio.h>

#include "bandwidth_conf_store.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

bool BandwidthConfEnumName(const VESK_BW_ENUM_ENTRY *pTable, int iValue, char *szName)
{
    szName[0] = '\0';
    return VESKBandwidthEnumToName(pTable, iValue, szName, BW_CONF_NAME_SIZE) >= 1 && '\0' != szName[0];
}

int VESKBandwidthConfPath(int protocol_type, char *szConfPath, size_t cbConfPath)
{
    if (!VESK_ARG_OK(((void *)0) != szConfPath)) {
        return -1;
    }
    char szName[BW_CONF_NAME_SIZE] = "global";
    if (VESK_BW_PROTOCOL_ALL != protocol_type &&
        !BandwidthConfEnumName(VESK_BW_PROTOCOL_TYPE_NAMES, protocol_type, szName)) {
        VESK_LOG("Failed to get protocol for protocol_type [%d] [0x%04X %s:%d]", protocol_type, VESK_ERR_ARGS);
        return -1;
    }
    snprintf(szConfPath, cbConfPath, "%s%s%s%s", BW_CONF_DIR, "bandwidth.", szName, ".conf");
    return 0;
}

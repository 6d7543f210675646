// Reads the global record of one protocol from the global configuration file.
#include <string.h>

#include "bandwidth_conf_store.h"
#include "common/bandwidth_enum_name.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

namespace {

// What a protocol without a stored global record reads as.
void GlobalConfDefaultsSet(VESK_BANDWIDTH_GLOBAL_CONF *pConf, int protocol_type)
{
    pConf->iCurState = VESK_BW_STATE_DISABLED;
    pConf->iState = VESK_BW_STATE_NOTEXISTED;
    pConf->iProtocol = (VESK_BW_PROTOCOL_TYPE)protocol_type;
    pConf->iUserGroupPolicy = VESK_BW_POLICY_USER_FIRST;
    pConf->iInterGroupPolicy = VESK_BW_POLICY_MAX;
    pConf->iOccupyPolicy = VESK_BW_OCCUPY_MAX;
    memset(pConf->szSchedulePlan, 0, sizeof(pConf->szSchedulePlan));
}

}  // namespace

int VESKBandwidthGlobalConfGet(int protocol_type, VESK_BANDWIDTH_GLOBAL_CONF *pConf)
{
    if (!VESK_ARG_CHECK(VESK_BW_PROTOCOL_ALL != protocol_type, "(0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type") ||
        !VESK_ARG_CHECK(pConf != nullptr, "NULL != pConf")) {
        return -1;
    }
    char szPath[kConfPathSize];
    if (VESKBandwidthConfPath(VESK_BW_PROTOCOL_ALL, szPath, sizeof(szPath) - 1) < 0) {
        VESK_LOG("VESKBandwidthConfPath failed for global config [0x%04X %s:%d]", VESK_ERR_ARGS);
        return -1;
    }
    BwHash hash(1024);
    if (!hash) {
        return -1;
    }
    GlobalConfDefaultsSet(pConf, protocol_type);

    char szProtocol[kConfNameSize];  // also the section name
    if (!BandwidthEnumName(VESK_BW_PROTOCOL_TYPE_NAMES, protocol_type, szProtocol, sizeof(szProtocol))) {
        VESK_LOG("VESKBandwidthEnumToName failed, protocol_type=%d", protocol_type);
        return -1;
    }
    return BandwidthConfSectionRead(szPath, szProtocol, hash, VESKBandwidthInitGlobalConfFromHash, pConf, VESK_SITE);
}

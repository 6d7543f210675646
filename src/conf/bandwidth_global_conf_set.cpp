// Stores the global record of one protocol and tells the simulators to reload.
#include "bandwidth_conf_store.h"
#include "common/bandwidth_enum_name.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

int VESKBandwidthGlobalConfSet(VESK_BANDWIDTH_GLOBAL_CONF *pConf)
{
    if (!VESK_ARG_CHECK(pConf != nullptr, "((void *)0) != pConf")) {
        return -1;
    }
    char szPath[kConfPathSize];
    if (VESKBandwidthConfPath(VESK_BW_PROTOCOL_ALL, szPath, sizeof(szPath) - 1) < 0) {
        VESK_LOG("VESKBandwidthConfPath failed for global config [0x%04X %s:%d]", VESK_ERR_ARGS);
        return -1;
    }
    char szProtocol[kConfNameSize];  // also the section name
    if (!BandwidthEnumName(VESK_BW_PROTOCOL_TYPE_NAMES, pConf->iProtocol, szProtocol, sizeof(szProtocol))) {
        VESK_LOG("VESKBandwidthEnumToName failed, protocol=%d", pConf->iProtocol);
        return -1;
    }

    BwHash hash(1024);
    // A stored global record never says NotExisted.
    if (VESK_BW_STATE_NOTEXISTED == pConf->iState) {
        pConf->iState = VESK_BW_STATE_DISABLED;
    }
    if (BandwidthConfHashFill(hash, VESKBandwidthInitHashFromGlobalConf, pConf, VESK_SITE) < 0 ||
        BandwidthConfSectionStore(szPath, szProtocol, hash.Get(), VESK_SITE) < 0) {
        return -1;
    }
    // The simulators reload on their own time; whether killall found any is of no concern here.
    (void)VESKBandwidthHupSimulator();
    return 0;
}

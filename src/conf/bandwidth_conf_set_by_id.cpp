// Stores the limit of one user or group for one protocol in its limit file.
#include <stdio.h>

#include "bandwidth_conf_store.h"
#include "common/bandwidth_enum_name.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

int VESKBandwidthConfSetByID(const VESK_BANDWIDTH_CONF *pConf)
{
    if (!VESK_ARG_CHECK(pConf != nullptr, "((void *)0) != pConf")) {
        return -1;
    }
    char szPath[kConfPathSize];
    if (VESKBandwidthConfPath(pConf->iProtocol, szPath, sizeof(szPath) - 1) < 0) {
        VESK_LOG("VESKBandwidthConfPath failed for protocol [%d] [0x%04X %s:%d]", pConf->iProtocol, VESK_ERR_ARGS);
        return -1;
    }
    BwHash hash(1024);
    if (BandwidthConfHashFill(hash, VESKBandwidthInitHashFromConf, pConf, VESK_SITE) < 0) {
        return -1;
    }
    char szOwner[kConfNameSize];
    if (!BandwidthEnumName(VESK_BW_OWNER_TYPE_NAMES, pConf->iOwnerType, szOwner, sizeof(szOwner))) {
        // The fixed text says "protocol=" although it prints the owner type.
        VESK_LOG("VESKBandwidthEnumToName failed, protocol=%d", pConf->iOwnerType);
        return -1;
    }
    char szSection[kConfSectionSize];
    snprintf(szSection, sizeof(szSection), "%s-%u", szOwner, pConf->id);
    return BandwidthConfSectionStore(szPath, szSection, hash.Get(), VESK_SITE);
}

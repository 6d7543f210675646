// Reads the limit of one user or group for one protocol from its limit file.
#include <stdio.h>
#include <string.h>

#include "bandwidth_conf_store.h"
#include "common/bandwidth_enum_name.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

namespace {

// What a limit that was never stored reads as.  Slots 0 and 3 of the rate
// arrays carry nothing and are left alone.
void ConfDefaultsSet(VESK_BANDWIDTH_CONF *pConf, int owner_type, unsigned int id, int protocol_type)
{
    pConf->id = id;
    pConf->iCurState = VESK_BW_STATE_NOTEXISTED;
    pConf->iState = VESK_BW_STATE_NOTEXISTED;
    pConf->iProtocol = (VESK_BW_PROTOCOL_TYPE)protocol_type;
    pConf->iOwnerType = (VESK_BW_OWNER_TYPE)owner_type;
    for (int i = VESK_BW_TRANSFER_UPLOAD; i <= VESK_BW_TRANSFER_DOWNLOAD; i++) {
        pConf->ullCurRate[i] = 0;
        pConf->ullRate[i] = 0;
        pConf->ullCustomRate[i] = 0;
    }
    memset(pConf->szSchedulePlan, 0, sizeof(pConf->szSchedulePlan));
}

}  // namespace

int VESKBandwidthConfGetByID(int owner_type, unsigned int id, int protocol_type, VESK_BANDWIDTH_CONF *pConf)
{
    if (!VESK_ARG_CHECK(VESK_BW_PROTOCOL_ALL != protocol_type, "(0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type") ||
        !VESK_ARG_CHECK(pConf != nullptr, "NULL != pConf")) {
        return -1;
    }
    char szPath[kConfPathSize];
    if (VESKBandwidthConfPath(protocol_type, szPath, sizeof(szPath) - 1) < 0) {
        VESK_LOG("VESKBandwidthConfPath failed for protocol [%d] [0x%04X %s:%d]", protocol_type, VESK_ERR_ARGS);
        return -1;
    }
    BwHash hash(1024);
    if (!hash) {
        VESK_LOG("malloc failed");
        return -1;
    }
    ConfDefaultsSet(pConf, owner_type, id, protocol_type);

    char szOwner[kConfNameSize];
    if (!BandwidthEnumName(VESK_BW_OWNER_TYPE_NAMES, owner_type, szOwner, sizeof(szOwner))) {
        // The fixed text says "id=" although it prints the owner type.
        VESK_LOG("VESKBandwidthEnumToName failed, id=%d", owner_type);
        return -1;
    }
    char szSection[kConfSectionSize];
    snprintf(szSection, sizeof(szSection), "%s-%u", szOwner, id);

    return BandwidthConfSectionRead(szPath, szSection, hash, VESKBandwidthInitConfFromHash, pConf, VESK_SITE);
}

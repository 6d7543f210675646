// Prints limit records as fixed-width text rows, with names for the
// enumerations and the owner's account name.
#include <stdio.h>

#include "bandwidth_conf_store.h"
#include "common/bandwidth_user_groups.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

namespace {

// Looks the record's owner up by its owner type: 0, or -1 (logged).
int ConfDumpOwnerGet(const VESK_BANDWIDTH_CONF *pConf, BwOwnerAccount &owner)
{
    switch (pConf->iOwnerType) {
    case VESK_BW_OWNER_USER:
        if (!owner.User(pConf->id)) {
            VESK_LOG("Get User failed. id:[%u] [0x%04X %s:%d]", pConf->id, VESK_ERR_ARGS);
            return -1;
        }
        return 0;
    case VESK_BW_OWNER_GROUP:
        if (!owner.Group(pConf->id)) {
            VESK_LOG("Get Group failed. id:[%u] [0x%04X %s:%d]", pConf->id, VESK_ERR_ARGS);
            return -1;
        }
        return 0;
    default:
        VESK_LOG("Unknown conf type. id:[%u] ", pConf->id);
        VESK_ERR_SET(BW_ERR_UNKNOWN_CONF_TYPE);
        return -1;
    }
}

}  // namespace

int VESKBandwidthConfDumpHeader(FILE *fp)
{
    if (!VESK_ARG_CHECK(fp != nullptr, "((void *)0) != fp")) {
        return -1;
    }
    fprintf(fp, "%10s %20s %5s %20s %10s %10s\n", "State", "Protocol", "Type", "Name", "U/L rate(KB/s)",
            "D/L rate(KB/s)");
    return 0;
}

int VESKBandwidthConfDump(FILE *fp, const VESK_BANDWIDTH_CONF *pConf)
{
    if (!VESK_ARG_CHECK(fp != nullptr, "((void *)0) != fp") || !VESK_ARG_CHECK(pConf != nullptr, "NULL != pConf")) {
        return -1;
    }
    BwOwnerAccount owner;
    if (ConfDumpOwnerGet(pConf, owner) < 0) {
        return -1;
    }
    BwHash hash(1024);
    if (BandwidthConfHashFill(hash, VESKBandwidthInitHashFromConf, pConf, VESK_SITE) < 0) {
        return -1;
    }
    char szState[32], szProtocol[32], szOwnerType[32];
    fprintf(fp, "%10s %20s %5s %20s %10llu %10llu\n",
            BandwidthConfDumpText(hash.Get(), "state", pConf->iState, szState, sizeof(szState)),
            BandwidthConfDumpText(hash.Get(), "protocol type", pConf->iProtocol, szProtocol, sizeof(szProtocol)),
            BandwidthConfDumpText(hash.Get(), "owner type", pConf->iOwnerType, szOwnerType, sizeof(szOwnerType)),
            owner.Name(), (unsigned long long)pConf->ullCurRate[VESK_BW_TRANSFER_UPLOAD],
            (unsigned long long)pConf->ullCurRate[VESK_BW_TRANSFER_DOWNLOAD]);
    return 0;
}

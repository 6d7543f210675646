// Prints global records as fixed-width text rows, with names for the
// enumerations and the schedule plan in full.
#include <stdio.h>

#include "bandwidth_conf_store.h"
#include "common/bandwidth_enum_name.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

namespace {

constexpr char kRowFormat[] = "%10s %20s %15s %15s %15s %15s\n";

}  // namespace

int VESKBandwidthGlobalConfDumpHeader(FILE *fp)
{
    if (!VESK_ARG_CHECK(fp != nullptr, "((void *)0) != fp")) {
        return -1;
    }
    fprintf(fp, kRowFormat, "State", "Protocol", "UserGroupPolicy", "InterGroupPolicy", "OccupyPolicy", "SchedulePlan");
    return 0;
}

int VESKBandwidthGlobalConfDump(FILE *fp, const VESK_BANDWIDTH_GLOBAL_CONF *pConf)
{
    if (!VESK_ARG_CHECK(fp != nullptr, "((void *)0) != fp") || !VESK_ARG_CHECK(pConf != nullptr, "NULL != pConf")) {
        return -1;
    }
    BwHash hash(1024);
    if (BandwidthConfHashFill(hash, VESKBandwidthInitHashFromGlobalConf, pConf, VESK_SITE) < 0) {
        return -1;
    }
    char szProtocol[kConfNameSize];
    if (!BandwidthEnumName(VESK_BW_PROTOCOL_TYPE_NAMES, pConf->iProtocol, szProtocol, sizeof(szProtocol))) {
        VESK_LOG("VESKBandwidthEnumToName failed, protocol=%d", pConf->iProtocol);
        return -1;
    }
    // The plan is a text field: the conversion always stores it.
    const char *szPlan = VLIBCSzHashGetValue(hash.Get(), "schedule plan");
    char szState[32], szUserGroup[32], szInterGroup[32], szOccupy[32];
    fprintf(fp, kRowFormat, BandwidthConfDumpText(hash.Get(), "state", pConf->iState, szState, sizeof(szState)),
            szProtocol,
            BandwidthConfDumpText(hash.Get(), "user-group policy", pConf->iUserGroupPolicy, szUserGroup,
                                  sizeof(szUserGroup)),
            BandwidthConfDumpText(hash.Get(), "inter-group policy", pConf->iInterGroupPolicy, szInterGroup,
                                  sizeof(szInterGroup)),
            BandwidthConfDumpText(hash.Get(), "occupy policy", pConf->iOccupyPolicy, szOccupy, sizeof(szOccupy)),
            szPlan != nullptr ? szPlan : "");
    return 0;
}

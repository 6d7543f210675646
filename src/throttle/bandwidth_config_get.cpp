// The throttle configuration of one transfer: the protocol's global record
// and the limits of the user and the user's groups, with their schedules
// resolved for one hour of the week.
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "veskbandwidth.h"
#include "vesk_log.h"

namespace {

// Hour of the week (0 = Sunday 00:00 .. 167) of a time in microseconds, 0 meaning now.
int ScheduleSlot(int64_t llTimeUs)
{
    time_t tNow = (0 != llTimeUs) ? (time_t)(llTimeUs / 1000000) : time(nullptr);
    struct tm tmNow;

    memset(&tmNow, 0, sizeof(tmNow));
    localtime_r(&tNow, &tmNow);
    return tmNow.tm_wday * 24 + tmNow.tm_hour;
}

// Global schedule: "1" turns limiting on for the hour, anything else off.
int ResolveGlobal(VESK_BANDWIDTH_GLOBAL_CONF *pGlobal, int iSlot)
{
    pGlobal->iCurState = pGlobal->iState;
    if (VESK_BW_STATE_SCHEDULE != pGlobal->iState) {
        return 0;
    }
    pGlobal->iCurState = ('1' == pGlobal->szSchedulePlan[iSlot]) ? VESK_BW_STATE_ENABLED : VESK_BW_STATE_DISABLED;
    return 1;
}

void UseRates(VESK_BANDWIDTH_LIMIT *pLimit, const uint64_t *pullRate)
{
    pLimit->ullCurRate[VESK_BW_TRANSFER_UPLOAD] = pullRate[VESK_BW_TRANSFER_UPLOAD];
    pLimit->ullCurRate[VESK_BW_TRANSFER_DOWNLOAD] = pullRate[VESK_BW_TRANSFER_DOWNLOAD];
}

// Limit schedule: "0" off for the hour, "1" the normal rates, anything else
// the custom rates.  1 when a schedule was evaluated.
int ResolveLimit(VESK_BANDWIDTH_LIMIT *pLimit, int iSlot)
{
    if (VESK_BW_STATE_NOTEXISTED == pLimit->iCurState) {
        pLimit->iCurState = pLimit->iState;
    }
    if (VESK_BW_STATE_ENABLED == pLimit->iState) {
        UseRates(pLimit, pLimit->ullRate);
        return 0;
    }
    if (VESK_BW_STATE_SCHEDULE != pLimit->iState) {
        return 0;
    }
    char chHour = pLimit->szSchedulePlan[iSlot];
    if ('0' == chHour) {
        pLimit->iCurState = VESK_BW_STATE_DISABLED;
    } else {
        pLimit->iCurState = VESK_BW_STATE_ENABLED;
        UseRates(pLimit, ('1' == chHour) ? pLimit->ullRate : pLimit->ullCustomRate);
    }
    return 1;
}

}  // namespace

int VESKBandwidthConfigGet(uid_t uid, int protocol_type, VESK_BANDWIDTH_CONFIG *pConfig)
{
    if (!VESK_ARG_CHECK(UID_ERR != uid, "(uid_t)((uid_t) -1) != uid") ||
        !VESK_ARG_CHECK(VESK_BW_PROTOCOL_ALL != protocol_type, "(0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type") ||
        !VESK_ARG_CHECK(pConfig != nullptr, "NULL != pConfig")) {
        return -1;
    }
    pConfig->uid = uid;
    if (VESKBandwidthGlobalConfGet(protocol_type, &pConfig->globalConf) < 0) {
        VESK_LOG("VESKBandwidthGlobalConfGet failed. uid:[%u] type:[%d] [0x%04X %s:%d]", uid, protocol_type,
                 VESK_ERR_ARGS);
        return -1;
    }
    if (VESK_BW_STATE_DISABLED == pConfig->globalConf.iState) {
        pConfig->iLimitCount = 0;
        pConfig->pLimit = nullptr;
    } else {
        pConfig->iLimitCount = VESKBandwidthLimitInit(uid, &pConfig->globalConf, &pConfig->pLimit,
                                                      &pConfig->blUserConfExist, &pConfig->blGroupConfExist);
        if (pConfig->iLimitCount < 0) {
            // The fixed text names VESKBandwidthLimitGet; the call is VESKBandwidthLimitInit.
            VESK_LOG("VESKBandwidthLimitGet failed. uid:[%u] [0x%04X %s:%d]", uid, VESK_ERR_ARGS);
            return -1;
        }
    }
    VESKBandwidthInitConfig(pConfig, 0);
    return 0;
}

int VESKBandwidthInitConfig(VESK_BANDWIDTH_CONFIG *pConfig, int64_t llTimeUs)
{
    int iSlot = ScheduleSlot(llTimeUs);
    int blScheduled = ResolveGlobal(&pConfig->globalConf, iSlot);

    for (int i = 0; i < pConfig->iLimitCount; i++) {
        blScheduled |= ResolveLimit(&pConfig->pLimit[i], iSlot);
    }
    return blScheduled;
}

int VESKBandwidthConfCheckEnabled(const VESK_BANDWIDTH_CONFIG *pConfig)
{
    return (pConfig != nullptr && VESK_BW_STATE_DISABLED != pConfig->globalConf.iCurState && 0 != pConfig->iLimitCount)
               ? 1
               : 0;
}

int VESKBandwidthIsUserGroupLimitEnable(const VESK_BANDWIDTH_CONFIG *pConfig)
{
    if (pConfig == nullptr) {
        return 0;
    }
    for (int i = 0; i < pConfig->iLimitCount; i++) {
        if (VESK_BW_STATE_ENABLED == pConfig->pLimit[i].iCurState) {
            return 1;
        }
    }
    return 0;
}

void VESKBandwidthConfigFree(VESK_BANDWIDTH_CONFIG *pConfig)
{
    if (pConfig == nullptr) {
        return;
    }
    free(pConfig->pLimit);
    memset(pConfig, 0, sizeof(*pConfig));
}

// The sleep loop: one pass after every chunk of a throttled transfer.  It
// decides whether the transfer is limited at this hour, works out the speed it
// may have among the other transfers under the same limits, sleeps long
// enough to keep to it, measures the speed reached and publishes the
// transfer's status.  Also the home of the occupied-groups query.
#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "veskbandwidth.h"
#include "vesk_log.h"

namespace {

// Time of the last pass that reached the throttle decision, 0 before the
// first.  It only serves to notice a change of the local hour, so that the
// schedules are not re-resolved on every pass.  One thread per process uses
// the library, hence no lock.
int64_t g_llLastPassTimeUs = 0;

// The longest wait that one usleep call can be given.
const int64_t kSleepPieceMaxUs = UINT32_MAX;

int LocalHour(int64_t llTimeUs)
{
    time_t tTime = (time_t)(llTimeUs / 1000000);
    struct tm tmLocal;

    memset(&tmLocal, 0, sizeof(tmLocal));
    localtime_r(&tTime, &tmLocal);
    return tmLocal.tm_hour;
}

// True when the global record or any limit record follows a schedule.
bool ScheduleInvolved(const VESK_BANDWIDTH_CONFIG *pConfig)
{
    if (VESK_BW_STATE_SCHEDULE == pConfig->globalConf.iState) {
        return true;
    }
    for (int i = 0; i < pConfig->iLimitCount; ++i) {
        if (VESK_BW_STATE_SCHEDULE == pConfig->pLimit[i].iState) {
            return true;
        }
    }
    return false;
}

// True when the protocol limits at this hour and some limit record is in force.
bool LimitInForce(const VESK_BANDWIDTH_CONFIG *pConfig)
{
    return VESK_BW_STATE_DISABLED != pConfig->globalConf.iCurState && 1 == VESKBandwidthIsUserGroupLimitEnable(pConfig);
}

// Re-resolves the schedules on the first pass of the process and whenever
// the local hour (the hour field alone) differs from that of the last pass.
// False when limiting has just ended: the transfer's entries are then taken
// out of the status files and the pass stops, leaving the last-pass time
// alone so that the next pass resolves again.
bool ScheduleRefresh(VESK_BANDWIDTH_CONFIG *pConfig, const VESK_BANDWIDTH_STATUS *pStatus, int64_t llNow)
{
    if (0 != g_llLastPassTimeUs && LocalHour(llNow) == LocalHour(g_llLastPassTimeUs)) {
        return true;
    }
    VESKBandwidthInitConfig(pConfig, llNow);
    if (LimitInForce(pConfig)) {
        return true;
    }
    if (0 != VESKBandwidthStatusRemove(pConfig, pStatus->transfer_type)) {
        VESK_LOG("(%u)(%d)===============> remove status failed", (unsigned int)getpid(), (int)pStatus->transfer_type);
    }
    return false;
}

// The transfer's expected speed into pStatus->expect_speed, each limit at its
// configured rate (blShare 0) or shared among the running transfers (1).
int ExpectSpeed(VESK_BANDWIDTH_CONFIG *pConfig, VESK_BANDWIDTH_STATUS *pStatus, int blShare)
{
    if (0 !=
        VESKBandwidthExpectSpeedEstimateByPolicy(pStatus->transfer_type, pConfig, &pStatus->expect_speed, blShare)) {
        VESK_LOG("VESKBandwidthExpectSpeedEstimateByPolicy failed. uid:[%u] [0x%04X %s:%d]", pStatus->id,
                 VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

// Waits llUs microseconds in pieces that fit usleep's 32-bit count, so that
// a wait longer than about 71 minutes is not cut short.  0, or -1 with errno
// of the usleep that failed; a signal thus ends the whole wait.
int SleepUs(int64_t llUs)
{
    while (llUs > 0) {
        int64_t llPiece = llUs < kSleepPieceMaxUs ? llUs : kSleepPieceMaxUs;
        if (0 != usleep((useconds_t)llPiece)) {
            return -1;
        }
        llUs -= llPiece;
    }
    return 0;
}

// Sleeps as long as cbTransferred bytes require at the expected speed, then
// records the speed reached and the time of the pass into *pllNow.  A signal
// that cuts the sleep short records the expected speed as the speed reached.
void SleepAndMeasure(VESK_BANDWIDTH_STATUS *pStatus, uint64_t cbTransferred, int64_t llTimeLast, int64_t *pllNow)
{
    int64_t llSleepUs = VESKBandwidthSleepEstimate(*pllNow - llTimeLast, cbTransferred, (int64_t)pStatus->expect_speed);
    bool blInterrupted = false;

    if (llSleepUs > 0 && 0 != SleepUs(llSleepUs)) {
        int iErrno = errno;
        VESK_LOG("usleep failed. %m");
        blInterrupted = (EINTR == iErrno);
    }
    *pllNow = VESKBandwidthCurrTimeGet();
    pStatus->timestamp = (int64_t)time(nullptr);
    pStatus->current_speed =
        blInterrupted ? pStatus->expect_speed : VESKBandwidthSpeedEstimate(*pllNow - llTimeLast, cbTransferred);
}

// Writes the transfer's entries anew: takes its copies out of the groups it
// occupied, stops when another process has switched the transfer off, and
// saves the user entry and the group copies of the current shares.
int StatusPublish(const VESK_BANDWIDTH_CONFIG *pConfig, VESK_BANDWIDTH_STATUS *pStatus, const uint32_t *pGroups,
                  int iOccGroups)
{
    if (iOccGroups > 0 && 0 != VESKBandwidthStatusRemoveByOccGroups(pGroups, iOccGroups, pStatus->transfer_type)) {
        // The fixed text names VESKBandwidthStatusRemove for the removal from the occupied groups.
        VESK_LOG("VESKBandwidthStatusRemove failed. uid:[%u] [0x%04X %s:%d]", pStatus->id, VESK_ERR_ARGS);
        return -1;
    }
    VESK_BANDWIDTH_STATUS own;
    memset(&own, 0, sizeof(own));
    // A missing entry (collected as stale by another process) is no failure:
    // the save below writes it again.
    if (0 == VESKBandwidthStatusGet(VESK_BW_OWNER_USER, pStatus->id, pStatus->transfer_type, &own) && 0 == own.active) {
        VESK_ERR_SET(BW_ERR_DEACTIVATED);
        return -1;
    }
    if (0 != VESKBandwidthStatusSave(pStatus->id, pConfig, pStatus)) {
        VESK_LOG("save info failed. [%u] [0x%04X %s:%d]", pStatus->id, VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

}  // namespace

// Collection stops at BW_OCC_GROUPS_MAX gids, the size of the array that
// every caller passes: a configuration that occupies more groups has the rest
// left out, which is logged once per call.
int VESKBandwidthOccGroupsGet(uint32_t *pGroups, int *piOccGroups, const VESK_BANDWIDTH_CONFIG *pConfig)
{
    if (!VESK_ARG_CHECK(piOccGroups != nullptr, "((void *)0) != piOccGroups") ||
        !VESK_ARG_CHECK(pConfig != nullptr, "NULL != pConfig")) {
        return -1;
    }
    *piOccGroups = 0;
    if (0 == pConfig->blGroupConfExist || pConfig->iLimitCount < 1) {
        return 0;
    }
    for (int i = 0; i < pConfig->iLimitCount; ++i) {
        const VESK_BANDWIDTH_LIMIT *pLimit = &pConfig->pLimit[i];
        if (VESK_BW_OWNER_USER == pLimit->iOwnerType || 0 == pLimit->ullOccupyShare) {
            continue;
        }
        if (BW_OCC_GROUPS_MAX == *piOccGroups) {
            VESK_LOG("more than %d occupied groups, gid [%u] and later left out. uid:[%u]", BW_OCC_GROUPS_MAX,
                     pLimit->id, (unsigned int)pConfig->uid);
            break;
        }
        pGroups[(*piOccGroups)++] = pLimit->id;
    }
    return 0;
}

int VESKBandwidthSleepInLoop(VESK_BANDWIDTH_CONFIG *pConfig, uint64_t cbTransferred, uint32_t progress,
                             int64_t *pTimeLast, VESK_BANDWIDTH_STATUS *pStatus)
{
    if (!VESK_ARG_CHECK(pConfig != nullptr, "((void *)0) != pConfig") ||
        !VESK_ARG_CHECK(pTimeLast != nullptr, "((void *)0) != pTimeLast") ||
        !VESK_ARG_CHECK(pStatus != nullptr, "NULL != pStatus")) {
        return -1;
    }
    if (VESK_BW_STATE_NOTEXISTED == pConfig->globalConf.iState) {
        return 0;
    }
    int64_t llNow = VESKBandwidthCurrTimeGet();
    if (ScheduleInvolved(pConfig) && !ScheduleRefresh(pConfig, pStatus, llNow)) {
        return 0;
    }
    g_llLastPassTimeUs = llNow;

    if (!LimitInForce(pConfig)) {
        if (0 != VESKBandwidthStatusRemove(pConfig, pStatus->transfer_type)) {
            VESK_LOG("VESKBandwidthStatusRemove failed. uid:[%u] [0x%04X %s:%d]", pStatus->id, VESK_ERR_ARGS);
            return -1;
        }
        return 0;
    }
    if (0 != ExpectSpeed(pConfig, pStatus, 0)) {
        return -1;
    }
    if (0 == pStatus->expect_speed) {
        return 0;
    }
    uint32_t groups[BW_OCC_GROUPS_MAX];
    int iOccGroups = 0;
    if (0 != VESKBandwidthOccGroupsGet(groups, &iOccGroups, pConfig)) {
        VESK_LOG("VESKBandwidthOccGroupsGet failed. uid:[%u] [0x%04X %s:%d]", pStatus->id, VESK_ERR_ARGS);
        return -1;
    }
    if (0 != ExpectSpeed(pConfig, pStatus, 1)) {
        return -1;
    }

    SleepAndMeasure(pStatus, cbTransferred, *pTimeLast, &llNow);
    pStatus->progress = progress;
    if (0 != StatusPublish(pConfig, pStatus, groups, iOccGroups)) {
        return -1;
    }
    *pTimeLast = llNow;
    return 0;
}

/* The part of one limit that a transfer may use: the limit is split equally
 * among the users transferring under it and, within the user's part, among
 * the user's transfers; but a transfer may also take whatever the others,
 * by their last saved speeds, leave unused. */
#include "veskbandwidth.h"
#include "vesk_log.h"

#include "bandwidth_limit_rate.h"

namespace {

/* True when an entry before pEntry in the list belongs to the same user. */
bool UserSeenBefore(const VESK_BANDWIDTH_STATUS *pList, const VESK_BANDWIDTH_STATUS *pEntry)
{
    for (const VESK_BANDWIDTH_STATUS *p = pList; p != pEntry; p = p->pNext) {
        if (p->uid == pEntry->uid) {
            return true;
        }
    }
    return false;
}

/* Shares the limit ullLimit among the transfers listed, the caller's own
 * process and inactive transfers left out. */
uint64_t LimitShare(uint64_t ullLimit, const VESK_BANDWIDTH_STATUS *pList, uid_t uid, pid_t pid)
{
    uint64_t ullTransfers = 1;  /* of this user, this one included */
    uint64_t ullUsers = 1;      /* this user included */
    uint64_t ullLeft = ullLimit;

    for (const VESK_BANDWIDTH_STATUS *p = pList; NULL != p; p = p->pNext) {
        if (0 == p->active || pid == p->pid) {
            continue;
        }
        if (uid == p->uid) {
            ullTransfers++;
        } else if (!UserSeenBefore(pList, p)) {
            ullUsers++;
        }
        ullLeft = (p->current_speed > ullLeft) ? 0 : ullLeft - p->current_speed;
    }
    uint64_t ullFair = ullLimit / (ullTransfers * ullUsers);
    return (ullLeft > ullFair) ? ullLeft : ullFair;
}

}  // namespace

int VESKBandwidthExpectSpeedEstimate(uid_t uid, const VESK_BANDWIDTH_LIMIT *pConf, int transfer_type,
                                     uint64_t *pMaxSpeedBps, pid_t pid)
{
    if (!VESK_ARG_OK(((void *)0) != pConf) || !VESK_ARG_OK(((void *)0) != pMaxSpeedBps) ||
        !VESK_ARG_OK(VESK_BW_TRANSFER_ALL != transfer_type)) {
        return -1;
    }
    uint64_t ullLimit = BandwidthLimitRateBps(pConf, transfer_type);
    if (0 == ullLimit) {
        *pMaxSpeedBps = 0;
        return 0;
    }
    VESK_BANDWIDTH_STATUS *pList = NULL;
    if (VESKBandwidthStatusGetAll(pConf->iOwnerType, pConf->id, pConf->iProtocol, transfer_type, &pList) < 0) {
        VESK_LOG("VESKBandwidthStatusGetAll failed. id:[%u] [0x%04X %s:%d]", pConf->id, VESK_ERR_ARGS);
        VESKBandwidthStatusListFree(&pList);
        return -1;
    }
    *pMaxSpeedBps = LimitShare(ullLimit, pList, uid, pid);
    VESKBandwidthStatusListFree(&pList);
    return 0;
}

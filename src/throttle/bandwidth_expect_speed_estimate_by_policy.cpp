// The speed that a transfer may use under its protocol's policies: the
// inter-group policy joins the group limits, the user-group policy joins the
// user's limit with them, and the occupy policy decides against which groups
// the transfer's own speed is booked.
#include <unistd.h>

#include "veskbandwidth.h"
#include "vesk_log.h"

#include "bandwidth_limit_rate.h"

namespace {

const uint64_t kWholeShare = 10000;

// What one pass over the limit records in force gathers.
struct PolicyPass {
    bool blHaveUser = false;
    uint64_t ullUserSpeed = 0;
    bool blHaveGroup = false;
    uint64_t ullGroupSpeed = 0;
    uint64_t ullGroupSum = 0;
    uint64_t ullZeroCount = 0;  // unlimited group records
    int iMinIdx = 0;
    int iMaxIdx = 0;
};

// The speed of one record: its part of the limit among the running
// transfers when sharing, else its configured rate.
int RecordSpeed(const VESK_BANDWIDTH_CONFIG *pConfig, VESK_BANDWIDTH_LIMIT *pLimit, int transfer_type, int blShare)
{
    if (1 == blShare) {
        uint64_t *pSpeedBps = &pLimit->ullMaxSpeedBps;
        if (VESKBandwidthExpectSpeedEstimate(pConfig->uid, pLimit, transfer_type, pSpeedBps, getpid()) < 0) {
            VESK_LOG("VESKBandwidthExpectSpeedEstimate failed. [0x%04X %s:%d]", VESK_ERR_ARGS);
            return -1;
        }
        return 0;
    }
    pLimit->ullMaxSpeedBps = BandwidthLimitRateBps(pLimit, transfer_type);
    return 0;
}

// Joins a later group's speed into the pass by the inter-group policy.
int GroupJoin(PolicyPass *pPass, const VESK_BANDWIDTH_LIMIT *pLimits, int i, int iInterGroupPolicy)
{
    uint64_t ullSpeed = pLimits[i].ullMaxSpeedBps;

    if (VESKBandwidthIsLessThan(ullSpeed, pLimits[pPass->iMinIdx].ullMaxSpeedBps)) {
        pPass->iMinIdx = i;
    }
    if (VESKBandwidthIsLargerThan(ullSpeed, pLimits[pPass->iMaxIdx].ullMaxSpeedBps)) {
        pPass->iMaxIdx = i;
    }
    pPass->ullGroupSum = VESKBandwidthSum(pPass->ullGroupSum, ullSpeed);
    switch (iInterGroupPolicy) {
    case VESK_BW_POLICY_MIN:
        if (VESKBandwidthIsLessThan(ullSpeed, pPass->ullGroupSpeed)) {
            pPass->ullGroupSpeed = ullSpeed;
        }
        return 0;
    case VESK_BW_POLICY_MAX:
        if (VESKBandwidthIsLargerThan(ullSpeed, pPass->ullGroupSpeed)) {
            pPass->ullGroupSpeed = ullSpeed;
        }
        return 0;
    case VESK_BW_POLICY_SUM:
        pPass->ullGroupSpeed = VESKBandwidthSum(ullSpeed, pPass->ullGroupSpeed);
        return 0;
    default:
        VESK_LOG("unknown inter_group_policy [%d] ", iInterGroupPolicy);
        return -1;
    }
}

// Takes a group record's speed into the pass.
int GroupAdd(PolicyPass *pPass, VESK_BANDWIDTH_LIMIT *pLimits, int i, const VESK_BANDWIDTH_GLOBAL_CONF *pGlobal)
{
    VESK_BANDWIDTH_LIMIT *pLimit = &pLimits[i];

    pLimit->ullOccupyShare = (VESK_BW_OCCUPY_ALL == pGlobal->iOccupyPolicy) ? kWholeShare : 0;
    if (0 == pLimit->ullMaxSpeedBps) {
        pPass->ullZeroCount++;
    }
    if (pPass->blHaveGroup) {
        return GroupJoin(pPass, pLimits, i, pGlobal->iInterGroupPolicy);
    }
    pPass->blHaveGroup = true;
    pPass->ullGroupSpeed = pLimit->ullMaxSpeedBps;
    pPass->ullGroupSum = pLimit->ullMaxSpeedBps;
    pPass->iMinIdx = i;
    pPass->iMaxIdx = i;
    return 0;
}

// Evaluates every record in force (those disabled by their schedule skipped).
int RecordsPass(VESK_BANDWIDTH_CONFIG *pConfig, int transfer_type, int blShare, PolicyPass *pPass)
{
    for (int i = 0; i < pConfig->iLimitCount; i++) {
        VESK_BANDWIDTH_LIMIT *pLimit = &pConfig->pLimit[i];
        if (VESK_BW_STATE_DISABLED == pLimit->iCurState) {
            continue;
        }
        if (RecordSpeed(pConfig, pLimit, transfer_type, blShare) < 0) {
            return -1;
        }
        if (VESK_BW_OWNER_USER == pLimit->iOwnerType) {
            pPass->ullUserSpeed = pLimit->ullMaxSpeedBps;
            pPass->blHaveUser = true;
        } else if (GroupAdd(pPass, pConfig->pLimit, i, &pConfig->globalConf) < 0) {
            return -1;
        }
    }
    return 0;
}

// The tighter and the looser of two speeds, where 0 is unlimited.
uint64_t Tighter(uint64_t a, uint64_t b)
{
    return VESKBandwidthIsLessThan(a, b) ? a : b;
}

uint64_t Looser(uint64_t a, uint64_t b)
{
    return VESKBandwidthIsLargerThan(a, b) ? a : b;
}

// Joins the user's and the groups' speeds by the user-group policy.
int UserGroupJoin(const PolicyPass &pass, int iUserGroupPolicy, uint64_t *pSpeedBps)
{
    bool blBoth = pass.blHaveUser && pass.blHaveGroup;
    uint64_t ullOne = pass.blHaveUser ? pass.ullUserSpeed : pass.ullGroupSpeed;

    switch (iUserGroupPolicy) {
    case VESK_BW_POLICY_USER_ONLY:
        *pSpeedBps = pass.blHaveUser ? pass.ullUserSpeed : 0;
        return 0;
    case VESK_BW_POLICY_GROUP_ONLY:
        *pSpeedBps = pass.blHaveGroup ? pass.ullGroupSpeed : 0;
        return 0;
    case VESK_BW_POLICY_USER_FIRST:
        *pSpeedBps = pass.blHaveUser ? pass.ullUserSpeed : pass.ullGroupSpeed;
        return 0;
    case VESK_BW_POLICY_GROUP_FIRST:
        *pSpeedBps = pass.blHaveGroup ? pass.ullGroupSpeed : pass.ullUserSpeed;
        return 0;
    case VESK_BW_POLICY_MIN:
        *pSpeedBps = blBoth ? Tighter(pass.ullGroupSpeed, pass.ullUserSpeed) : ullOne;
        return 0;
    case VESK_BW_POLICY_MAX:
        *pSpeedBps = blBoth ? Looser(pass.ullGroupSpeed, pass.ullUserSpeed) : ullOne;
        return 0;
    case VESK_BW_POLICY_SUM:
        *pSpeedBps = !blBoth ? ullOne : VESKBandwidthSum(pass.ullUserSpeed, pass.ullGroupSpeed);
        return 0;
    default:
        VESK_LOG("unknown group policy [%d] ", iUserGroupPolicy);
        return -1;
    }
}

// Weighted occupation: unlimited groups, when there are any, take the
// transfer's whole speed in equal parts; else the limited groups take it in
// proportion to their speeds.
void OccupyWeighted(VESK_BANDWIDTH_CONFIG *pConfig, const PolicyPass &pass)
{
    uint64_t ullBase = (0 != pass.ullZeroCount) ? kWholeShare / pass.ullZeroCount : 0;

    for (int i = 0; i < pConfig->iLimitCount; i++) {
        VESK_BANDWIDTH_LIMIT *pLimit = &pConfig->pLimit[i];
        if (VESK_BW_OWNER_USER == pLimit->iOwnerType) {
            continue;
        }
        if (0 == pLimit->ullMaxSpeedBps) {
            pLimit->ullOccupyShare = ullBase;
        } else if (0 == pass.ullZeroCount && 0 != pass.ullGroupSum) {
            pLimit->ullOccupyShare = pLimit->ullMaxSpeedBps * kWholeShare / pass.ullGroupSum;
        }
    }
}

// Books the transfer's speed against the groups by the occupy policy.
void Occupy(VESK_BANDWIDTH_CONFIG *pConfig, const PolicyPass &pass)
{
    switch (pConfig->globalConf.iOccupyPolicy) {
    case VESK_BW_OCCUPY_NONE:
    case VESK_BW_OCCUPY_ALL:
        break;
    case VESK_BW_OCCUPY_MIN:
        pConfig->pLimit[pass.iMinIdx].ullOccupyShare = kWholeShare;
        break;
    case VESK_BW_OCCUPY_MAX:
        pConfig->pLimit[pass.iMaxIdx].ullOccupyShare = kWholeShare;
        break;
    default:
        OccupyWeighted(pConfig, pass);
        break;
    }
}

}  // namespace

int VESKBandwidthExpectSpeedEstimateByPolicy(int transfer_type, VESK_BANDWIDTH_CONFIG *pConfig, uint64_t *pSpeedBps,
                                             int blShare)
{
    if (!VESK_ARG_OK(VESK_BW_TRANSFER_ALL != transfer_type) ||
        !VESK_ARG_CHECK(pConfig != nullptr, "((void *)0) != pConfig") ||
        !VESK_ARG_CHECK(pSpeedBps != nullptr, "NULL != pSpeedBps")) {
        return -1;
    }
    if (0 == pConfig->iLimitCount) {
        *pSpeedBps = 0;
        return 0;
    }
    PolicyPass pass;
    if (RecordsPass(pConfig, transfer_type, blShare, &pass) < 0 ||
        UserGroupJoin(pass, pConfig->globalConf.iUserGroupPolicy, pSpeedBps) < 0) {
        return -1;
    }
    if (pass.blHaveGroup) {
        Occupy(pConfig, pass);
    }
    return 0;
}

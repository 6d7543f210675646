// The limit records that apply to one user for one protocol: the user's own
// limit first, then the limits of the user's groups in the order of the
// user's group list, keeping only those that are enabled or scheduled.
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "common/bandwidth_user_groups.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

namespace {

static_assert(offsetof(VESK_BANDWIDTH_LIMIT, ullMaxSpeedBps) >= sizeof(VESK_BANDWIDTH_CONF),
              "a limit record begins with a whole VESK_BANDWIDTH_CONF");

using LimitArray = std::unique_ptr<VESK_BANDWIDTH_LIMIT[], BwFree>;

// A limit takes part when it is neither missing nor switched off.
bool IsRetained(const VESK_BANDWIDTH_LIMIT &limit)
{
    return VESK_BW_STATE_NOTEXISTED != limit.iState && VESK_BW_STATE_DISABLED != limit.iState;
}

// A zeroed array of iCount limit records; logs and records the failure.
LimitArray LimitArrayAlloc(int iCount)
{
    LimitArray pArray((VESK_BANDWIDTH_LIMIT *)calloc(iCount > 0 ? iCount : 1, sizeof(VESK_BANDWIDTH_LIMIT)));
    if (!pArray) {
        VESK_LOG("malloc VESK_BANDWIDTH_LIMIT failed.");
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
    }
    return pArray;
}

// Reads one owner's limit into a zeroed limit record: 0 / -1.
int LimitRead(int owner_type, unsigned int id, int protocol_type, VESK_BANDWIDTH_LIMIT *pLimit)
{
    VESK_BANDWIDTH_CONF conf;

    memset(&conf, 0, sizeof(conf));
    if (VESKBandwidthConfGetByID(owner_type, id, protocol_type, &conf) < 0) {
        return -1;
    }
    memcpy(pLimit, &conf, sizeof(conf));
    return 0;
}

// The retained records of the working array, in order, as a new array
// handed to *ppLimit: their count, or -1.  *pblGroupConfExist (when given)
// is set when a group record is kept.
int LimitListKeep(const VESK_BANDWIDTH_LIMIT *pWork, int iWork, VESK_BANDWIDTH_LIMIT **ppLimit,
                  uint32_t *pblGroupConfExist)
{
    int iKept = 0;
    for (int i = 0; i < iWork; i++) {
        iKept += IsRetained(pWork[i]) ? 1 : 0;
    }
    if (0 == iKept) {
        *ppLimit = nullptr;
        return 0;
    }
    LimitArray pKept = LimitArrayAlloc(iKept);
    if (!pKept) {
        return -1;
    }
    for (int i = 0, j = 0; i < iWork; i++) {
        if (!IsRetained(pWork[i])) {
            continue;
        }
        pKept[j++] = pWork[i];
        if (pblGroupConfExist != nullptr && VESK_BW_OWNER_GROUP == pWork[i].iOwnerType) {
            *pblGroupConfExist = 1;
        }
    }
    *ppLimit = pKept.release();
    return iKept;
}

// The user's record (when retained) followed by the limits of every group of
// the user: the count kept in *ppLimit, or -1.
int LimitListWithGroups(uid_t uid, int protocol_type, const VESK_BANDWIDTH_LIMIT *pUserLimit,
                        VESK_BANDWIDTH_LIMIT **ppLimit, uint32_t *pblGroupConfExist)
{
    BwUserPtr pUser = BandwidthUserGetByUID(uid, VESK_SITE);
    if (!pUser) {
        return -1;
    }
    BwSzListPtr pGroups = BandwidthGroupListGet(pUser->szName, VESK_SITE);
    if (!pGroups) {
        return -1;
    }
    int iGroups = VLIBCSzListCount(pGroups.get());
    int iWork = (pUserLimit != nullptr) ? 1 : 0;
    LimitArray pWork = LimitArrayAlloc(iGroups + iWork);
    if (!pWork) {
        return -1;
    }
    if (pUserLimit != nullptr) {
        pWork[0] = *pUserLimit;
    }
    for (int i = 0; i < iGroups; i++, iWork++) {
        gid_t gid = 0;
        if (BandwidthGroupListGid(pGroups.get(), i, &gid, VESK_SITE) < 0) {
            return -1;
        }
        if (LimitRead(VESK_BW_OWNER_GROUP, gid, protocol_type, &pWork[iWork]) < 0) {
            VESK_LOG("VESKBandwidthConfGetByID failed. gid:[%u] [0x%04X %s:%d]", gid, VESK_ERR_ARGS);
            return -1;
        }
    }
    return LimitListKeep(pWork.get(), iWork, ppLimit, pblGroupConfExist);
}

}  // namespace

int VESKBandwidthLimitInit(uid_t uid, const VESK_BANDWIDTH_GLOBAL_CONF *pGlobalConf, VESK_BANDWIDTH_LIMIT **ppLimit,
                           uint32_t *pblUserConfExist, uint32_t *pblGroupConfExist)
{
    if (!VESK_ARG_CHECK(UID_ERR != uid, "((uid_t) -1) != uid") ||
        !VESK_ARG_CHECK(pGlobalConf != nullptr, "((void *)0) != pGlobalConf") ||
        !VESK_ARG_CHECK(ppLimit != nullptr, "((void *)0) != ppLimit") ||
        !VESK_ARG_CHECK(pblUserConfExist != nullptr, "((void *)0) != pblUserConfExist") ||
        !VESK_ARG_CHECK(pblGroupConfExist != nullptr, "NULL != pblGroupConfExist")) {
        return -1;
    }
    *pblUserConfExist = 0;
    *pblGroupConfExist = 0;

    VESK_BANDWIDTH_LIMIT userLimit;
    memset(&userLimit, 0, sizeof(userLimit));
    if (LimitRead(VESK_BW_OWNER_USER, uid, pGlobalConf->iProtocol, &userLimit) < 0) {
        VESK_LOG("VESKBandwidthConfGetByID failed. uid:[%u] [0x%04X %s:%d]", uid, VESK_ERR_ARGS);
        return -1;
    }
    bool blUserRetained = IsRetained(userLimit);
    if (blUserRetained) {
        *pblUserConfExist = 1;
    }
    if (VESK_BW_POLICY_USER_ONLY == pGlobalConf->iUserGroupPolicy) {
        return LimitListKeep(&userLimit, 1, ppLimit, nullptr);
    }
    return LimitListWithGroups(uid, pGlobalConf->iProtocol, blUserRetained ? &userLimit : nullptr, ppLimit,
                               pblGroupConfExist);
}

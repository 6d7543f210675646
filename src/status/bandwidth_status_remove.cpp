// Takes a transfer's sections out of the status files of its user and its
// groups, and switches a transfer off from outside.
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/bandwidth_user_groups.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

#include "bandwidth_status_file.h"
#include "bandwidth_status_path.h"

namespace {

// Removes the sections of process pid, for every direction in the
// transfer-type mask, from the status file of one owner.  A missing file or
// section is no failure.
int VESKBandwidthIStatusRemove(int owner_type, unsigned int id, pid_t pid, unsigned int transfer_type)
{
    char szPath[kStatusPathSize] = {0};

    if (!VESK_ARG_CHECK(pid != -1, "(pid_t)-1 != pid")) {
        return -1;
    }
    if (BandwidthStatusFilePath(owner_type, id, szPath, sizeof(szPath), VESK_SITE) < 0) {
        return -1;
    }
    vesk_section::Dir dir;
    int iOpen = vesk_status::OpenStatusDir(VESK_SITE, false, &dir);
    if (iOpen <= 0) {
        return iOpen;
    }
    const char *szName = szPath + sizeof(kStatusDir) - 1;
    for (const VESK_BW_ENUM_ENTRY *pRow = VESK_BW_TRANSFER_TYPE_NAMES; pRow->szName != nullptr; pRow++) {
        if (((unsigned int)pRow->iValue & transfer_type) == 0) {
            continue;
        }
        char szSection[kStatusSectionSize] = {0};
        BandwidthStatusSectionName(pid, pRow->iValue, szSection, sizeof(szSection));
        struct stat st;
        if (fstatat(dir.Fd(), szName, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            vesk_status::RemoveStatusSection(dir, szName, szSection) < 0) {
            VESK_LOG("Remove section [%s] from [%s] failed. [0x%04X %s:%d]", szSection, szPath, VESK_ERR_ARGS);
            return -1;
        }
    }
    return 0;
}

// Removes the sections of process pid from the file of group gid.
int GroupStatusRemove(gid_t gid, pid_t pid, unsigned int transfer_type)
{
    if (VESKBandwidthIStatusRemove(VESK_BW_OWNER_GROUP, gid, pid, transfer_type) < 0) {
        VESK_LOG("VESKBandwidthIStatusRemove failed. gid:[%u] [0x%04X %s:%d]", gid, VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

// Removes the sections of process pid from the file of user uid.
int UserStatusRemove(uid_t uid, pid_t pid, unsigned int transfer_type)
{
    if (VESKBandwidthIStatusRemove(VESK_BW_OWNER_USER, uid, pid, transfer_type) < 0) {
        VESK_LOG("VESKBandwidthIStatusRemove failed. uid:[%u] [0x%04X %s:%d]", uid, VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

// The user's file, then the file of every group the user belongs to,
// whether or not the transfer occupies it.
int VESKBandwidthIStatusForceRemoveAll(const char *szUserName, uid_t uid, unsigned int transfer_type, pid_t pid)
{
    if (!VESK_ARG_CHECK(szUserName != nullptr, "((void *)0) != szUserName") ||
        !VESK_ARG_CHECK(uid != UID_ERR, "UID_ERR != uid")) {
        return -1;
    }
    if (UserStatusRemove(uid, pid, transfer_type) < 0) {
        return -1;
    }
    BwSzListPtr pGroups = BandwidthGroupListGet(szUserName, VESK_SITE);
    if (!pGroups) {
        return -1;
    }
    int iGroups = VLIBCSzListCount(pGroups.get());
    for (int i = 0; i < iGroups; i++) {
        gid_t gid = 0;
        if (BandwidthGroupListGid(pGroups.get(), i, &gid, VESK_SITE) < 0 ||
            GroupStatusRemove(gid, pid, transfer_type) < 0) {
            return -1;
        }
    }
    return 0;
}

// The forced removal for the user of a platform user record.
int UserForceRemoveAll(const VESK_USER *pUser, unsigned int transfer_type, pid_t pid)
{
    if (VESKBandwidthIStatusForceRemoveAll(pUser->szName, pUser->uid, transfer_type, pid) < 0) {
        VESK_LOG("VESKBandwidthIStatusForceRemoveAll failed. name:[%s] [0x%04X %s:%d]", pUser->szName, VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

// The platform's record of the named user; empty (logged) when it fails.
BwUserPtr UserByName(const char *szUserName)
{
    VESK_USER *pUser = nullptr;
    if (VESKUserGet(szUserName, &pUser) < 0) {
        VESK_LOG("VESKUserGet failed. name:[%s] [0x%04X %s:%d]", szUserName, VESK_ERR_ARGS);
        return BwUserPtr();
    }
    return BwUserPtr(pUser);
}

}  // namespace

int VESKBandwidthStatusRemove(const VESK_BANDWIDTH_CONFIG *pConfig, unsigned int transfer_type)
{
    pid_t pid = getpid();

    if (!VESK_ARG_CHECK(pConfig != nullptr, "((void *)0) != pConfig")) {
        return -1;
    }
    if (UserStatusRemove(pConfig->uid, pid, transfer_type) < 0) {
        return -1;
    }
    if (pConfig->blGroupConfExist == 0) {
        return 0;
    }
    for (int i = 0; i < pConfig->iLimitCount; i++) {
        const VESK_BANDWIDTH_LIMIT *pLimit = &pConfig->pLimit[i];
        if (pLimit->iOwnerType == VESK_BW_OWNER_USER || pLimit->ullOccupyShare == 0) {
            continue;
        }
        if (GroupStatusRemove(pLimit->id, pid, transfer_type) < 0) {
            return -1;
        }
    }
    return 0;
}

int VESKBandwidthStatusRemoveByOccGroups(const unsigned int *pGroups, int iCount, unsigned int transfer_type)
{
    pid_t pid = getpid();

    for (int i = 0; i < iCount; i++) {
        if (GroupStatusRemove(pGroups[i], pid, transfer_type) < 0) {
            return -1;
        }
    }
    return 0;
}

int VESKBandwidthStatusForceRemoveAllByUserName(const char *szUserName, unsigned int transfer_type, pid_t pid)
{
    if (!VESK_ARG_CHECK(szUserName != nullptr, "((void *)0) != szUserName")) {
        return -1;
    }
    BwUserPtr pUser = UserByName(szUserName);
    if (!pUser) {
        return -1;
    }
    return UserForceRemoveAll(pUser.get(), transfer_type, pid);
}

int VESKBandwidthStatusForceRemoveAllByUID(uid_t uid, unsigned int transfer_type)
{
    BwUserPtr pUser = BandwidthUserGetByUID(uid, VESK_SITE);
    if (!pUser) {
        return -1;
    }
    return UserForceRemoveAll(pUser.get(), transfer_type, getpid());
}

int VESKBandwidthStatusSetActiveByUserName(const char *szUserName, int transfer_type, pid_t pid, unsigned int active)
{
    if (!VESK_ARG_CHECK(szUserName != nullptr, "((void *)0) != szUserName")) {
        return -1;
    }
    BwUserPtr pUser = UserByName(szUserName);
    if (!pUser) {
        return -1;
    }
    VESK_BANDWIDTH_STATUS status;
    memset(&status, 0, sizeof(status));
    if (VESKBandwidthIStatusGet(VESK_BW_OWNER_USER, pUser->uid, pid, transfer_type, &status) < 0) {
        VESK_LOG("VESKBandwidthStatusGet failed. name:[%s] [0x%04X %s:%d]", szUserName, VESK_ERR_ARGS);
        return -1;
    }
    status.active = active;
    if (VESKBandwidthStatusSave(pUser->uid, nullptr, &status) < 0) {
        VESK_LOG("VESKBandwidthStatusSave failed. name:[%s] [0x%04X %s:%d]", szUserName, VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

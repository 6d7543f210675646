// Accounts and group lists, through the system's user and group database.
//
// The reentrant lookups get their buffers from sysconf and grow them while
// the database answers ERANGE.  Records handed out are one malloc'ed block:
// the record followed by its name.
#include "vesk_account.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <unordered_set>
#include <vector>

#include "vesk_log.h"

namespace {

// Calls lookup(buffer, size) -> error number with a buffer that grows while
// the answer is ERANGE.  0 when found, -1 with the error state set otherwise
// (BW_ERR_NOT_FOUND when the database has no such entry).
template <typename Lookup>
int WithBuffer(int iSizeName, Lookup lookup)
{
    long cbStart = sysconf(iSizeName);
    size_t cb = cbStart > 0 ? static_cast<size_t>(cbStart) : 16384;
    for (;;) {
        char *buffer = static_cast<char *>(malloc(cb));
        if (buffer == nullptr) {
            VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
            return -1;
        }
        int iErr = lookup(buffer, cb);
        free(buffer);
        if (iErr == 0) {
            return 0;
        }
        if (iErr != ERANGE || cb > (SIZE_MAX >> 1)) {
            VESK_ERR_SET(iErr == ENOMEM ? BW_ERR_OUT_OF_MEMORY : BW_ERR_NOT_FOUND);
            return -1;
        }
        cb *= 2;
    }
}

// The error number of a getpwnam_r-style call: ENOENT when absent.
int LookupResult(int iRet, const void *pFound)
{
    if (iRet != 0) {
        return iRet;
    }
    return pFound == nullptr ? ENOENT : 0;
}

// A record of type T, with its name copied behind it; NULL when out of memory.
template <typename T>
T *NewRecord(const char *szName)
{
    size_t cbName = strlen(szName) + 1;
    T *pRecord = static_cast<T *>(malloc(sizeof(T) + cbName));
    if (pRecord == nullptr) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return nullptr;
    }
    pRecord->szName = reinterpret_cast<char *>(pRecord + 1);
    memcpy(pRecord->szName, szName, cbName);
    return pRecord;
}

// Looks the user up by name (szName) or uid, and hands a new record to *ppUser.
int GetUser(const char *szName, uid_t uid, VESK_USER **ppUser)
{
    VESK_USER *pUser = nullptr;
    int iRet = WithBuffer(_SC_GETPW_R_SIZE_MAX, [&](char *buffer, size_t cb) {
        struct passwd pw;
        struct passwd *pFound = nullptr;
        int iErr = szName != nullptr ? getpwnam_r(szName, &pw, buffer, cb, &pFound)
                                     : getpwuid_r(uid, &pw, buffer, cb, &pFound);
        iErr = LookupResult(iErr, pFound);
        if (iErr == 0 && (pUser = NewRecord<VESK_USER>(pw.pw_name)) != nullptr) {
            pUser->uid = pw.pw_uid;
            pUser->gid = pw.pw_gid;
        }
        return iErr == 0 && pUser == nullptr ? ENOMEM : iErr;
    });
    if (iRet != 0) {
        return -1;
    }
    *ppUser = pUser;
    return 0;
}

// The gids of the user's groups as getgrouplist gives them (primary first).
int GetGroupList(const char *szUserName, gid_t gidPrimary, std::vector<gid_t> *pGids)
{
    int count = 64;
    for (;;) {
        pGids->resize(static_cast<size_t>(count));
        int wanted = count;
        if (getgrouplist(szUserName, gidPrimary, pGids->data(), &wanted) >= 0) {
            pGids->resize(static_cast<size_t>(wanted));
            return 0;
        }
        if (wanted <= count) {
            VESK_ERR_SET(BW_ERR_NOT_FOUND);
            return -1;
        }
        count = wanted;  // the group database may grow meanwhile: retry
    }
}

// The gids in decimal, each once, in order.
VLIBC_SZLIST *GidsToList(const std::vector<gid_t> &gids)
{
    VLIBC_SZLIST *pList = VLIBCSzListAlloc(static_cast<int>(gids.size()));
    if (pList == nullptr) {
        return nullptr;
    }
    std::unordered_set<gid_t> seen;
    for (gid_t gid : gids) {
        if (seen.insert(gid).second && VLIBCSzListPush(&pList, std::to_string(gid).c_str()) < 0) {
            VLIBCSzListFree(pList);
            return nullptr;
        }
    }
    return pList;
}

}  // namespace

int VESKUserGet(const char *szName, VESK_USER **ppUser)
{
    if (!VESK_ARG_OK(szName != nullptr) || !VESK_ARG_OK(ppUser != nullptr)) {
        return -1;
    }
    return GetUser(szName, 0, ppUser);
}

int VESKUserGetByUID(uid_t uid, VESK_USER **ppUser)
{
    if (!VESK_ARG_OK(ppUser != nullptr)) {
        return -1;
    }
    return GetUser(nullptr, uid, ppUser);
}

int VESKUserGetUGID(const char *szName, uid_t *pUid, gid_t *pGid)
{
    VESK_USER *pUser = nullptr;
    if (!VESK_ARG_OK(pUid != nullptr) || VESKUserGet(szName, &pUser) != 0) {
        return -1;
    }
    *pUid = pUser->uid;
    if (pGid != nullptr) {
        *pGid = pUser->gid;
    }
    VESKUserFree(pUser);
    return 0;
}

void VESKUserFree(VESK_USER *pUser)
{
    free(pUser);
}

int VESKGroupGetByGID(gid_t gid, VESK_GROUP **ppGroup)
{
    if (!VESK_ARG_OK(ppGroup != nullptr)) {
        return -1;
    }
    VESK_GROUP *pGroup = nullptr;
    int iRet = WithBuffer(_SC_GETGR_R_SIZE_MAX, [&](char *buffer, size_t cb) {
        struct group gr;
        struct group *pFound = nullptr;
        int iErr = getgrgid_r(gid, &gr, buffer, cb, &pFound);
        iErr = LookupResult(iErr, pFound);
        if (iErr == 0 && (pGroup = NewRecord<VESK_GROUP>(gr.gr_name)) != nullptr) {
            pGroup->gid = gr.gr_gid;
        }
        return iErr == 0 && pGroup == nullptr ? ENOMEM : iErr;
    });
    if (iRet != 0) {
        return -1;
    }
    *ppGroup = pGroup;
    return 0;
}

void VESKGroupFree(VESK_GROUP *pGroup)
{
    free(pGroup);
}

VLIBC_SZLIST *VLIBGroupInfoListGet(const char *szUserName, int iFlags)
{
    (void)iFlags;
    uid_t uid = 0;
    gid_t gid = 0;
    if (VESKUserGetUGID(szUserName, &uid, &gid) != 0) {
        return nullptr;
    }
    try {
        std::vector<gid_t> gids;
        return GetGroupList(szUserName, gid, &gids) == 0 ? GidsToList(gids) : nullptr;
    } catch (...) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return nullptr;
    }
}

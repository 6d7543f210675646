// Accounts and group lists, read through the system's user and group database.
#include "vesk_account.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "vesk_log.h"

namespace {

// Runs a getpwnam_r-style lookup with a buffer that grows on ERANGE.
// 0 found, -1 with BW_ERR_NOT_FOUND (absent) or BW_ERR_OUT_OF_MEMORY.
template <typename Record, typename Lookup>
int LookUp(Record *record, std::vector<char> *buffer, Lookup lookup)
{
    long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
    size_t size = hint > 0 ? static_cast<size_t>(hint) : 1024;
    for (;;) {
        try {
            buffer->resize(size);
        } catch (const std::exception &) {
            VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
            return -1;
        }
        Record *result = nullptr;
        int rc = lookup(record, buffer->data(), buffer->size(), &result);
        if (rc == ERANGE) {
            size *= 2;
            continue;
        }
        if (rc != 0 || result == nullptr) {
            VESK_ERR_SET(BW_ERR_NOT_FOUND);
            return -1;
        }
        return 0;
    }
}

int NewUser(const struct passwd &pw, VESK_USER **ppUser)
{
    VESK_USER *user = static_cast<VESK_USER *>(std::calloc(1, sizeof(VESK_USER)));
    char *name = strdup(pw.pw_name);
    if (user == nullptr || name == nullptr) {
        std::free(user);
        std::free(name);
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
    user->szName = name;
    user->uid = pw.pw_uid;
    user->gid = pw.pw_gid;
    *ppUser = user;
    return 0;
}

int UserByName(const char *szName, struct passwd *pw, std::vector<char> *buffer)
{
    if (szName == nullptr) {
        VESK_ERR_SET(BW_ERR_BAD_PARAMETERS);
        return -1;
    }
    return LookUp(pw, buffer, [&](struct passwd *r, char *b, size_t n, struct passwd **out) {
        return getpwnam_r(szName, r, b, n, out);
    });
}

// The gids as decimal texts: the primary group first, then the others in the
// order given, each once.
VLIBC_SZLIST *GidList(gid_t primary, const std::vector<gid_t> &gids)
{
    std::vector<gid_t> ordered{primary};
    for (gid_t gid : gids) {
        if (std::find(ordered.begin(), ordered.end(), gid) == ordered.end()) {
            ordered.push_back(gid);
        }
    }
    VLIBC_SZLIST *list = VLIBCSzListAlloc(static_cast<int>(ordered.size()));
    for (gid_t gid : ordered) {
        char text[16];
        std::snprintf(text, sizeof text, "%u", static_cast<unsigned>(gid));
        if (list == nullptr || VLIBCSzListPush(&list, text) < 0) {
            VLIBCSzListFree(list);
            return nullptr;
        }
    }
    return list;
}

}  // namespace

int VESKUserGet(const char *szName, VESK_USER **ppUser)
{
    struct passwd pw;
    std::vector<char> buffer;
    if (ppUser == nullptr) {
        VESK_ERR_SET(BW_ERR_BAD_PARAMETERS);
        return -1;
    }
    return UserByName(szName, &pw, &buffer) < 0 ? -1 : NewUser(pw, ppUser);
}

int VESKUserGetByUID(uid_t uid, VESK_USER **ppUser)
{
    struct passwd pw;
    std::vector<char> buffer;
    if (ppUser == nullptr) {
        VESK_ERR_SET(BW_ERR_BAD_PARAMETERS);
        return -1;
    }
    int rc = LookUp(&pw, &buffer, [&](struct passwd *r, char *b, size_t n, struct passwd **out) {
        return getpwuid_r(uid, r, b, n, out);
    });
    return rc < 0 ? -1 : NewUser(pw, ppUser);
}

int VESKUserGetUGID(const char *szName, uid_t *pUid, gid_t *pGid)
{
    struct passwd pw;
    std::vector<char> buffer;
    if (pUid == nullptr) {
        VESK_ERR_SET(BW_ERR_BAD_PARAMETERS);
        return -1;
    }
    if (UserByName(szName, &pw, &buffer) < 0) {
        return -1;
    }
    *pUid = pw.pw_uid;
    if (pGid != nullptr) {
        *pGid = pw.pw_gid;
    }
    return 0;
}

void VESKUserFree(VESK_USER *pUser)
{
    if (pUser != nullptr) {
        std::free(pUser->szName);
        std::free(pUser);
    }
}

int VESKGroupGetByGID(gid_t gid, VESK_GROUP **ppGroup)
{
    struct group gr;
    std::vector<char> buffer;
    if (ppGroup == nullptr) {
        VESK_ERR_SET(BW_ERR_BAD_PARAMETERS);
        return -1;
    }
    int rc = LookUp(&gr, &buffer, [&](struct group *r, char *b, size_t n, struct group **out) {
        return getgrgid_r(gid, r, b, n, out);
    });
    if (rc < 0) {
        return -1;
    }
    VESK_GROUP *group = static_cast<VESK_GROUP *>(std::calloc(1, sizeof(VESK_GROUP)));
    char *name = strdup(gr.gr_name);
    if (group == nullptr || name == nullptr) {
        std::free(group);
        std::free(name);
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
    group->szName = name;
    group->gid = gr.gr_gid;
    *ppGroup = group;
    return 0;
}

void VESKGroupFree(VESK_GROUP *pGroup)
{
    if (pGroup != nullptr) {
        std::free(pGroup->szName);
        std::free(pGroup);
    }
}

VLIBC_SZLIST *VLIBGroupInfoListGet(const char *szUserName, int iFlags)
{
    (void)iFlags;
    struct passwd pw;
    std::vector<char> buffer;
    if (UserByName(szUserName, &pw, &buffer) < 0) {
        return nullptr;
    }
    try {
        std::vector<gid_t> gids(64);
        int count = static_cast<int>(gids.size());
        while (getgrouplist(pw.pw_name, pw.pw_gid, gids.data(), &count) < 0) {
            gids.resize(static_cast<size_t>(count) > gids.size() ? static_cast<size_t>(count) : gids.size() * 2);
            count = static_cast<int>(gids.size());
        }
        gids.resize(static_cast<size_t>(count));
        return GidList(pw.pw_gid, gids);
    } catch (const std::exception &) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return nullptr;
    }
}

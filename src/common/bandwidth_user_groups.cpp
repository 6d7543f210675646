// Accounts as the library uses them.
#include "bandwidth_user_groups.h"

#include <stdlib.h>

BwUserPtr BandwidthUserGetByUID(uid_t uid, VeskSite site)
{
    VESK_USER *pUser = nullptr;
    if (VESKUserGetByUID(uid, &pUser) < 0) {
        VESK_LOG_AT(site, "VESKUserGetByUID failed. uid:[%u] [0x%04X %s:%d]", uid, VESK_ERR_ARGS);
        return BwUserPtr();
    }
    return BwUserPtr(pUser);
}

BwSzListPtr BandwidthGroupListGet(const char *szUserName, VeskSite site)
{
    BwSzListPtr pList(VLIBGroupInfoListGet(szUserName, 0));
    if (!pList) {
        VESK_LOG_AT(site, "VLIBGroupInfoListGet failed. name:[%s] [0x%04X %s:%d]", szUserName, VESK_ERR_ARGS);
    }
    return pList;
}

int BandwidthGroupListGid(const VLIBC_SZLIST *pList, int i, gid_t *pGid, VeskSite site)
{
    const char *szEntry = VLIBCSzListGet(pList, i);
    char *pEnd = nullptr;
    unsigned long ulGid = strtoul(szEntry, &pEnd, 10);

    if ('\0' != *pEnd) {
        VESK_LOG_AT(site, "invalid gid [%s]", szEntry);
        VESK_ERR_SET_AT(site, BW_ERR_BAD_VALUE);
        return -1;
    }
    *pGid = (gid_t)ulGid;
    return 0;
}

bool BwOwnerAccount::User(uid_t uid)
{
    VESK_USER *pUser = nullptr;
    bool found = VESKUserGetByUID(uid, &pUser) >= 0 && pUser != nullptr;
    user_.reset(pUser);
    return found;
}

bool BwOwnerAccount::Group(gid_t gid)
{
    VESK_GROUP *pGroup = nullptr;
    bool found = VESKGroupGetByGID(gid, &pGroup) >= 0 && pGroup != nullptr;
    group_.reset(pGroup);
    return found;
}

const char *BwOwnerAccount::Name() const
{
    return user_ ? user_->szName : group_ ? group_->szName : "";
}

// Accounts as the library uses them: a user's platform record and group list
// as owned handles, the list's entries read as gids, and the account that
// names an owner.  Internal to the library; helpers that log take their
// caller's site, so that every message names the module that asked.
#ifndef BANDWIDTH_USER_GROUPS_H
#define BANDWIDTH_USER_GROUPS_H

#include <sys/types.h>

#include "common/bandwidth_handles.h"
#include "vesk_account.h"
#include "vesk_hash.h"
#include "vesk_log.h"

// The platform's record of user uid; empty (logged) when it cannot be had.
BwUserPtr BandwidthUserGetByUID(uid_t uid, VeskSite site);

// The groups of the named user, one decimal gid per entry; empty (logged)
// when the platform cannot list them.
BwSzListPtr BandwidthGroupListGet(const char *szUserName, VeskSite site);

// Entry i of a group list as a gid (base 10; an empty entry is gid 0): 0, or
// -1 when text follows the digits, with "invalid gid [entry]" logged and
// BW_ERR_BAD_VALUE set.
int BandwidthGroupListGid(const VLIBC_SZLIST *pList, int i, gid_t *pGid, VeskSite site);

// The account of an owner, user or group, for its name.  The lookups log
// nothing: false leaves the platform's error.
class BwOwnerAccount {
public:
    bool User(uid_t uid);
    bool Group(gid_t gid);
    const char *Name() const;

private:
    BwUserPtr user_;
    BwGroupPtr group_;
};

#endif

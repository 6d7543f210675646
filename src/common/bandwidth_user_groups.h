/* A user's platform record and group list as the library uses them: owned
 * handles, and the list's entries read as gids.  Internal to the library;
 * the helpers that log take the file name and line of their caller, so that
 * every message names the module that asked. */
#ifndef BANDWIDTH_USER_GROUPS_H
#define BANDWIDTH_USER_GROUPS_H

#include <sys/types.h>

#include <memory>

#include "common/bandwidth_handles.h"
#include "vesk_account.h"
#include "vesk_hash.h"


/* The platform's record of user uid; empty (logged) when it cannot be had. */
BwUserPtr BandwidthUserGetByUID(uid_t uid, const char *szFile, int iLine);
#define BW_USER_GET_BY_UID(uid) BandwidthUserGetByUID((uid), __FILE_NAME__, __LINE__)


/* The groups of the named user, one decimal gid per entry; empty (logged)
 * when the platform cannot list them. */
BwSzListPtr BandwidthGroupListGet(const char *szUserName, const char *szFile, int iLine);
#define BW_GROUP_LIST_GET(szUserName) BandwidthGroupListGet((szUserName), __FILE_NAME__, __LINE__)

/* Entry i of a group list as a gid (base 10; an empty entry is gid 0): 0, or
 * -1 when text follows the digits, with "invalid gid [entry]" logged and
 * BW_ERR_BAD_VALUE set. */
int BandwidthGroupListGid(const VLIBC_SZLIST *pList, int i, gid_t *pGid, const char *szFile, int iLine);
#define BW_GROUP_LIST_GID(pList, i, pGid) BandwidthGroupListGid((pList), (i), (pGid), __FILE_NAME__, __LINE__)

#endif

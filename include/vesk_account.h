/* Accounts and group lists, through the system's user and group database. */
#ifndef VESK_ACCOUNT_H
#define VESK_ACCOUNT_H

#include <sys/types.h>

#include "vesk_export.h"
#include "vesk_hash.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct _VESK_USER {
    char *szName;
    uid_t uid;
    gid_t gid;
} VESK_USER;
typedef struct _VESK_GROUP {
    char *szName;
    gid_t gid;
} VESK_GROUP;

VESK_API int VESKUserGet(const char *szName, VESK_USER **ppUser); /* <0 failure */
VESK_API int VESKUserGetByUID(uid_t uid, VESK_USER **ppUser);
VESK_API int VESKUserGetUGID(const char *szName, uid_t *pUid, gid_t *pGid); /* pGid may be NULL */
VESK_API void VESKUserFree(VESK_USER *pUser);
VESK_API int VESKGroupGetByGID(gid_t gid, VESK_GROUP **ppGroup);
VESK_API void VESKGroupFree(VESK_GROUP *pGroup);
/* The user's gids in decimal, as getgrouplist(3) gives them: primary group
 * first, then the others in the order of the group database, each once;
 * NULL on failure. */
VESK_API VLIBC_SZLIST *VLIBGroupInfoListGet(const char *szUserName, int iFlags);

#ifdef __cplusplus
}
#endif

#endif

/* A user's platform record and groups. */
#include "bandwidth_user_groups.h"

#include <stdlib.h>
#include <syslog.h>

#include "vesk_error.h"

BwUserPtr BandwidthUserGetByUID(uid_t uid, const char *szFile, int iLine)
{
    VESK_USER *pUser = NULL;
    if (VESKUserGetByUID(uid, &pUser) < 0) {
        syslog(LOG_ERR, "%s:%d VESKUserGetByUID failed. uid:[%u] [0x%04X %s:%d]", szFile, iLine, uid, VLIBCErrGet(),
               VLIBCErrorGetFile(), VLIBCErrorGetLine());
        return BwUserPtr();
    }
    return BwUserPtr(pUser);
}

BwSzListPtr BandwidthGroupListGet(const char *szUserName, const char *szFile, int iLine)
{
    BwSzListPtr pList(VLIBGroupInfoListGet(szUserName, 0));
    if (!pList) {
        syslog(LOG_ERR, "%s:%d VLIBGroupInfoListGet failed. name:[%s] [0x%04X %s:%d]", szFile, iLine, szUserName,
               VLIBCErrGet(), VLIBCErrorGetFile(), VLIBCErrorGetLine());
    }
    return pList;
}

int BandwidthGroupListGid(const VLIBC_SZLIST *pList, int i, gid_t *pGid, const char *szFile, int iLine)
{
    const char *szEntry = VLIBCSzListGet(pList, i);
    char *pEnd = NULL;
    unsigned long ulGid = strtoul(szEntry, &pEnd, 10);

    if ('\0' != *pEnd) {
        syslog(LOG_ERR, "%s:%d invalid gid [%s]", szFile, iLine, szEntry);
        VLIBCErrSetEx(BW_ERR_BAD_VALUE, szFile, iLine);
        return -1;
    }
    *pGid = (gid_t)ulGid;
    return 0;
}

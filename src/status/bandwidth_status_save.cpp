/* Saves a transfer's status: into its user's status file, and as a scaled
 * copy into the status file of every group whose limit it occupies. */
#include <errno.h>
#include <sys/stat.h>

#include "veskbandwidth.h"
#include "vesk_log.h"
#include "vesk_file.h"
#include "vesk_system.h"

#include "bandwidth_status_path.h"

namespace {

/* Creates the status directory, mode 0777, when it is missing or is not a directory. */
int StatusDirEnsure()
{
    struct stat st;

    if (0 != stat(BW_STATUS_DIR, &st)) {
        if (ENOTDIR != errno && ENOENT != errno) {
            VESK_LOG("stat [%s] failed. %m", BW_STATUS_DIR);
            VESK_ERR_SET(BW_ERR_STAT_FAILED);
            return -1;
        }
    } else if (S_ISDIR(st.st_mode)) {
        return 0;
    }
    if (VESKFSMkdirP(BW_STATUS_DIR, 0, 1, (uid_t)-1, (gid_t)-1, 0777) < 0) {
        VESK_LOG("VESKFSMkdirP failed. [%s] [0x%04X %s:%d]", BW_STATUS_DIR, VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

/* Puts one section into the status file of one owner, replacing the
 * section of that name or appending it. */
int StatusSaveToOwner(int owner_type, unsigned int id, const char *szSection, const VLIBC_SZHASH *pHash)
{
    BwUmaskScope mask(0);
    char szPath[BW_STATUS_PATH_SIZE] = {0};

    if (!VESK_ARG_OK(((void *)0) != szSection) || !VESK_ARG_OK(NULL != pHash)) {
        return -1;
    }
    if (StatusDirEnsure() < 0 || BW_STATUS_FILE_PATH(owner_type, id, szPath) < 0) {
        return -1;
    }
    if (VLIBCFileTouch(szPath) < 0) {
        VESK_LOG("VLIBCFileTouch [%s] failed. [0x%04X %s:%d]", szPath, VESK_ERR_ARGS);
        return -1;
    }
    int iReplaced = VESKBandwidthStatusSetSection(szPath, szSection, pHash);
    if (iReplaced < 0) {
        VESK_LOG("Save section [%s] to [%s] failed. [0x%04X %s:%d]", szSection, szPath, VESK_ERR_ARGS);
        return -1;
    }
    if (0 == iReplaced && VESKBandwidthStatusAddSection(szPath, szSection, pHash) < 0) {
        VESK_LOG("Add section [%s] to [%s] failed. [0x%04X %s:%d]", szSection, szPath, VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

/* Converts the record and saves it to one owner's file. */
int StatusRecordSave(uid_t uid, int owner_type, unsigned int id, const char *szSection,
                     const VESK_BANDWIDTH_STATUS *pStatus, VLIBC_SZHASH **ppHash)
{
    if (VESKBandwidthInitHashFromStatus(ppHash, pStatus) < 0) {
        VESK_LOG("Init hash from status failed. [0x%04X %s:%d]", VESK_ERR_ARGS);
        return -1;
    }
    if (StatusSaveToOwner(owner_type, id, szSection, *ppHash) < 0) {
        VESK_LOG("Save record for uid: [%u], section:[%s] failed. [0x%04X %s:%d]", uid, szSection, VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

/* The group copies: the record filed under each occupied group, its current
 * speed scaled by the group's share and its expected speed the group's. */
int StatusGroupCopiesSave(uid_t uid, const VESK_BANDWIDTH_CONFIG *pConfig, const char *szSection,
                          VESK_BANDWIDTH_STATUS *pStatus, VLIBC_SZHASH **ppHash)
{
    const uint64_t ullCurrent = pStatus->current_speed;

    pStatus->owner_type = VESK_BW_OWNER_GROUP;
    for (int i = 0; i < pConfig->iLimitCount; i++) {
        const VESK_BANDWIDTH_LIMIT *pLimit = &pConfig->pLimit[i];
        if (VESK_BW_OWNER_USER == pLimit->iOwnerType || 0 == pLimit->ullOccupyShare) {
            continue;
        }
        pStatus->id = pLimit->id;
        pStatus->current_speed = ullCurrent * pLimit->ullOccupyShare / 10000;
        pStatus->expect_speed = pLimit->ullMaxSpeedBps;
        if (StatusRecordSave(uid, VESK_BW_OWNER_GROUP, pLimit->id, szSection, pStatus, ppHash) < 0) {
            return -1;
        }
    }
    return 0;
}

}  // namespace

int VESKBandwidthStatusSave(uid_t uid, const VESK_BANDWIDTH_CONFIG *pConfig, VESK_BANDWIDTH_STATUS *pStatus)
{
    if (!VESK_ARG_OK((uid_t)((uid_t) -1) != uid) || !VESK_ARG_OK(NULL != pStatus)) {
        return -1;
    }
    BwHash hash;
    if (!hash) {
        VESK_LOG("VLIBCSzHashAlloc failed.[0x%04X %s:%d]", VESK_ERR_ARGS);
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
    char szSection[BW_STATUS_SECTION_SIZE] = {0};
    BandwidthStatusSectionName(pStatus->pid, pStatus->transfer_type, szSection, sizeof(szSection));
    if (StatusRecordSave(uid, VESK_BW_OWNER_USER, uid, szSection, pStatus, hash.Addr()) < 0) {
        return -1;
    }
    if (NULL == pConfig || 0 == pConfig->blGroupConfExist) {
        return 0;
    }
    const uint64_t ullCurrent = pStatus->current_speed;
    const uint64_t ullExpect = pStatus->expect_speed;
    int iResult = StatusGroupCopiesSave(uid, pConfig, szSection, pStatus, hash.Addr());
    pStatus->owner_type = VESK_BW_OWNER_USER;
    pStatus->id = uid;
    pStatus->current_speed = ullCurrent;
    pStatus->expect_speed = ullExpect;
    return iResult;
}

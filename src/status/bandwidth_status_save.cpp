// Saves a transfer's status: into its user's status file, and as a scaled
// copy into the status file of every group whose limit it occupies.
#include "veskbandwidth.h"
#include "vesk_log.h"

#include "bandwidth_status_file.h"
#include "bandwidth_status_path.h"

namespace {

// Puts one section into the status file of one owner, replacing the section
// of that name or appending it.  The status directory is opened once (and
// created when missing); the file is created, rewritten and appended to
// through it.
int StatusSaveToOwner(int owner_type, unsigned int id, const char *szSection, const VLIBC_SZHASH *pHash)
{
    BwUmaskScope mask(0);
    char szPath[kStatusPathSize] = {0};

    if (!VESK_ARG_CHECK(szSection != nullptr, "((void *)0) != szSection") ||
        !VESK_ARG_CHECK(pHash != nullptr, "NULL != pHash")) {
        return -1;
    }
    vesk_section::Dir dir;
    if (vesk_status::OpenStatusDir(VESK_SITE, true, &dir) < 0 ||
        BandwidthStatusFilePath(owner_type, id, szPath, sizeof(szPath), VESK_SITE) < 0) {
        return -1;
    }
    const char *szName = szPath + sizeof(kStatusDir) - 1;
    int iCode = vesk_section::CreateIfMissing(dir, szName);
    if (iCode != 0) {
        VESK_ERR_SET(iCode);
        VESK_LOG("VLIBCFileTouch [%s] failed. [0x%04X %s:%d]", szPath, VESK_ERR_ARGS);
        return -1;
    }
    int iReplaced = vesk_status::ReplaceStatusSection(dir, szName, szSection, pHash);
    if (iReplaced < 0) {
        VESK_LOG("Save section [%s] to [%s] failed. [0x%04X %s:%d]", szSection, szPath, VESK_ERR_ARGS);
        return -1;
    }
    if (iReplaced == 0 && vesk_status::AppendStatusSection(dir, szName, szSection, pHash) < 0) {
        VESK_LOG("Add section [%s] to [%s] failed. [0x%04X %s:%d]", szSection, szPath, VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

// Converts the record and saves it to one owner's file.
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

// The group copies: the record filed under each occupied group, its current
// speed scaled by the group's share and its expected speed the group's.
int StatusGroupCopiesSave(uid_t uid, const VESK_BANDWIDTH_CONFIG *pConfig, const char *szSection,
                          VESK_BANDWIDTH_STATUS *pStatus, VLIBC_SZHASH **ppHash)
{
    const uint64_t ullCurrent = pStatus->current_speed;

    pStatus->owner_type = VESK_BW_OWNER_GROUP;
    for (int i = 0; i < pConfig->iLimitCount; i++) {
        const VESK_BANDWIDTH_LIMIT *pLimit = &pConfig->pLimit[i];
        if (pLimit->iOwnerType == VESK_BW_OWNER_USER || pLimit->ullOccupyShare == 0) {
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
    if (!VESK_ARG_CHECK(uid != UID_ERR, "(uid_t)((uid_t) -1) != uid") ||
        !VESK_ARG_CHECK(pStatus != nullptr, "NULL != pStatus")) {
        return -1;
    }
    BwHash hash;
    if (!hash) {
        VESK_LOG("VLIBCSzHashAlloc failed.[0x%04X %s:%d]", VESK_ERR_ARGS);
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
    char szSection[kStatusSectionSize] = {0};
    BandwidthStatusSectionName(pStatus->pid, pStatus->transfer_type, szSection, sizeof(szSection));
    if (StatusRecordSave(uid, VESK_BW_OWNER_USER, uid, szSection, pStatus, hash.Addr()) < 0) {
        return -1;
    }
    if (pConfig == nullptr || pConfig->blGroupConfExist == 0) {
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

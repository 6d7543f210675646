// Reads one transfer's status record back from an owner's status file.
#include <errno.h>
#include <time.h>
#include <unistd.h>

#include "veskbandwidth.h"
#include "vesk_log.h"

#include "bandwidth_status_file.h"
#include "bandwidth_status_path.h"

namespace {

// Fills the hash with the pairs of the section of the status file szPath: 1,
// 0 when the file is absent, -1 when the section cannot be read (code set).
int ReadSection(const char *szPath, const char *szSection, VLIBC_SZHASH **ppHash)
{
    vesk_section::Dir dir;
    int iOpen = vesk_status::OpenStatusDir(VESK_SITE, false, &dir);
    if (iOpen <= 0) {
        return iOpen;
    }
    vesk_status::StatusFile status;
    int iCode = vesk_status::LoadStatusFile(VESK_SITE, dir, szPath + sizeof(kStatusDir) - 1, time(nullptr), &status);
    if (iCode == BW_ERR_FILE_OPEN && errno == ENOENT) {
        return 0;
    }
    const vesk_section::Section *pSection = iCode == 0 ? status.file->Find(szSection) : nullptr;
    if (iCode == 0 && pSection == nullptr) {
        iCode = BW_ERR_NOT_FOUND;
    }
    try {
        if (iCode == 0 && status.file->FillHash(*pSection, ppHash) == 0) {
            return 1;
        }
    } catch (...) {
        iCode = BW_ERR_OUT_OF_MEMORY;
    }
    if (iCode != 0) {
        VESK_ERR_SET(iCode);
    }
    return -1;
}

}  // namespace

int VESKBandwidthIStatusGet(int owner_type, unsigned int id, pid_t pid, int transfer_type,
                            VESK_BANDWIDTH_STATUS *pStatus)
{
    if (!VESK_ARG_CHECK(pid != -1, "(pid_t)-1 != pid") ||
        !VESK_ARG_CHECK(transfer_type != VESK_BW_TRANSFER_ALL, "VESK_BW_TRANSFER_ALL != transfer_type") ||
        !VESK_ARG_CHECK(pStatus != nullptr, "NULL != pStatus")) {
        return -1;
    }
    BwHash hash;
    if (!hash) {
        return -1;
    }
    char szSection[kStatusSectionSize] = {0};
    char szPath[kStatusPathSize] = {0};
    BandwidthStatusSectionName(pid, transfer_type, szSection, sizeof(szSection));
    if (BandwidthStatusFilePath(owner_type, id, szPath, sizeof(szPath), VESK_SITE) < 0) {
        return -1;
    }
    int iRead = ReadSection(szPath, szSection, hash.Addr());
    if (iRead == 0) {
        VESK_LOG("File [%s] doesn't exist. [0x%04X %s:%d]", szPath, VESK_ERR_ARGS);
        return -1;
    }
    if (iRead < 0) {
        VESK_LOG("Get section [%s] from [%s] failed. [0x%04X %s:%d]", szSection, szPath, VESK_ERR_ARGS);
        return -1;
    }
    if (VESKBandwidthInitStatusFromHash(pStatus, hash.Get()) < 0) {
        VESK_LOG("Init status from hash failed. [0x%04X %s:%d]", VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

int VESKBandwidthStatusGet(int owner_type, unsigned int id, int transfer_type, VESK_BANDWIDTH_STATUS *pStatus)
{
    return VESKBandwidthIStatusGet(owner_type, id, getpid(), transfer_type, pStatus);
}

/* Reads one transfer's status record back from an owner's status file. */
#include <unistd.h>

#include "veskbandwidth.h"
#include "vesk_file.h"
#include "vesk_log.h"

#include "bandwidth_status_path.h"

int VESKBandwidthIStatusGet(int owner_type, unsigned int id, pid_t pid, int transfer_type,
                            VESK_BANDWIDTH_STATUS *pStatus)
{
    if (!VESK_ARG_OK((pid_t)-1 != pid) || !VESK_ARG_OK(VESK_BW_TRANSFER_ALL != transfer_type) ||
        !VESK_ARG_OK(NULL != pStatus)) {
        return -1;
    }
    BwHash hash;
    if (!hash) {
        return -1;
    }
    char szSection[BW_STATUS_SECTION_SIZE] = {0};
    char szPath[BW_STATUS_PATH_SIZE] = {0};
    BandwidthStatusSectionName(pid, transfer_type, szSection, sizeof(szSection));
    if (BW_STATUS_FILE_PATH(owner_type, id, szPath) < 0) {
        return -1;
    }
    if (!VLIBCFileExist(szPath)) {
        VESK_LOG("File [%s] doesn't exist. [0x%04X %s:%d]", szPath, VESK_ERR_ARGS);
        return -1;
    }
    if (VLIBCFileGetSection(szPath, szSection, hash.Addr()) <= 0) {
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

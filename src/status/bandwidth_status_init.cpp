// Registers a new transfer of the calling process: fills its status record
// and, when the transfer is limited, saves it for the first time.
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include "veskbandwidth.h"
#include "vesk_log.h"

namespace {

void StatusFill(const VESK_BANDWIDTH_CONFIG *pConfig, int transfer_type, const char *szFileName,
                VESK_BANDWIDTH_STATUS *pStatus)
{
    pStatus->protocol_type = pConfig->globalConf.iProtocol;
    pStatus->id = pConfig->uid;
    pStatus->uid = pConfig->uid;
    pStatus->transfer_type = (VESK_BW_TRANSFER_TYPE)transfer_type;
    snprintf(pStatus->filename, sizeof(pStatus->filename), "%s", szFileName);
    pStatus->owner_type = VESK_BW_OWNER_USER;
    pStatus->pid = getpid();
    pStatus->active = 1;
}

}  // namespace

int VESKBandwidthStatusInit(VESK_BANDWIDTH_CONFIG *pConfig, int transfer_type, const char *szFileName, int64_t *pTime,
                            VESK_BANDWIDTH_STATUS *pStatus)
{
    if (!VESK_ARG_CHECK(szFileName != nullptr, "((void *)0) != szFileName") ||
        !VESK_ARG_CHECK(pTime != nullptr, "((void *)0) != pTime") ||
        !VESK_ARG_CHECK(pStatus != nullptr, "NULL != pStatus")) {
        return -1;
    }
    StatusFill(pConfig, transfer_type, szFileName, pStatus);
    if (pConfig->globalConf.iState == VESK_BW_STATE_DISABLED || pConfig->iLimitCount == 0) {
        return 0;
    }
    if (VESKBandwidthExpectSpeedEstimateByPolicy(transfer_type, pConfig, &pStatus->expect_speed, 1) < 0) {
        VESK_LOG("VESKBandwidthExpectSpeedEstimateByPolicy failed. uid:[%u] [0x%04X %s:%d]", pConfig->uid,
                 VESK_ERR_ARGS);
        return -1;
    }
    if (pStatus->expect_speed == 0) {
        return 0;
    }
    pStatus->timestamp = time(nullptr);
    pStatus->progress = 0;
    pStatus->current_speed = pStatus->expect_speed;
    if (VESKBandwidthStatusSave(pConfig->uid, pConfig, pStatus) < 0) {
        VESK_LOG("save info failed. [%u] [0x%04X %s:%d]", pConfig->uid, VESK_ERR_ARGS);
        return -1;
    }
    *pTime = VESKBandwidthCurrTimeGet();
    return 0;
}

// The upload and download speeds that a user would get on a protocol at the
// current hour, for administration tools, from the configured rates alone.
#include <string.h>

#include "veskbandwidth.h"
#include "vesk_log.h"

namespace {

// Evaluates the policies of a freshly built configuration for both
// directions into pSpeedsBps[1] and [2]; the caller releases the configuration.
int PreviewSpeeds(uid_t uid, int protocol_type, VESK_BANDWIDTH_CONFIG *pConfig, uint64_t *pSpeedsBps)
{
    if (0 != VESKBandwidthConfigGet(uid, protocol_type, pConfig)) {
        VESK_LOG("VESKBandwidthConfigGet failed. uid:[%u] protocol_type:[%d] [0x%04X %s:%d]", (unsigned int)uid,
                 protocol_type, VESK_ERR_ARGS);
        return -1;
    }
    const int directions[] = {VESK_BW_TRANSFER_UPLOAD, VESK_BW_TRANSFER_DOWNLOAD};
    for (int iDirection : directions) {
        if (0 != VESKBandwidthExpectSpeedEstimateByPolicy(iDirection, pConfig, &pSpeedsBps[iDirection], 0)) {
            VESK_LOG("VESKBandwidthExpectSpeedEstimateByPolicy failed. uid:[%u],  [0x%04X %s:%d]", (unsigned int)uid,
                     VESK_ERR_ARGS);
            return -1;
        }
    }
    return 0;
}

}  // namespace

int VESKBandwidthPreview(uid_t uid, int protocol_type, uint64_t *pSpeedsBps)
{
    VESK_BANDWIDTH_CONFIG config;
    memset(&config, 0, sizeof(config));
    int iRet = PreviewSpeeds(uid, protocol_type, &config, pSpeedsBps);
    VESKBandwidthConfigFree(&config);
    return iRet;
}

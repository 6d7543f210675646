// How many bytes a transferring service moves before its next sleep-loop
// pass: at most five seconds of data at the speed that the limits allow, so
// that one chunk never outlasts a change of the shared speeds for long.
#include "veskbandwidth.h"
#include "vesk_log.h"

namespace {

// The span of data that one chunk may hold, in microseconds.
const uint64_t kChunkSpanUs = 5000000;

}  // namespace

int VESKBandwidthTransferSizeEstimate(const VESK_BANDWIDTH_CONFIG *pConfig, int transfer_type, uint64_t ullRequestBytes,
                                      uint64_t *pTransferBytes)
{
    if (!VESK_ARG_CHECK(pConfig != nullptr, "((void *)0) != pConfig") ||
        !VESK_ARG_CHECK(pTransferBytes != nullptr, "((void *)0) != pTransferBytes")) {
        return -1;
    }
    uint64_t ullBytes = ullRequestBytes;
    if (VESK_BW_STATE_DISABLED != pConfig->globalConf.iCurState) {
        uint64_t ullSpeedBps = 0;
        // The policy evaluation only rewrites the run-time fields of the
        // limit records, which every sleep-loop pass computes afresh.
        VESK_BANDWIDTH_CONFIG *pEvaluated = const_cast<VESK_BANDWIDTH_CONFIG *>(pConfig);
        if (0 != VESKBandwidthExpectSpeedEstimateByPolicy(transfer_type, pEvaluated, &ullSpeedBps, 0)) {
            VESK_LOG("VESKBandwidthExpectSpeedEstimateByPolicy failed. [0x%04X %s:%d]", VESK_ERR_ARGS);
            return -1;
        }
        if (0 != ullSpeedBps) {
            uint64_t ullCap = ullSpeedBps * kChunkSpanUs / 1000000;
            ullBytes = ullRequestBytes < ullCap ? ullRequestBytes : ullCap;
        }
    }
    *pTransferBytes = ullBytes;
    return 0;
}

// The rate that a limit record allows now, in bytes per second.  Internal.
#ifndef BANDWIDTH_LIMIT_RATE_H
#define BANDWIDTH_LIMIT_RATE_H

#include <stdint.h>

#include "veskbandwidth.h"

// ullCurRate of the direction (KB/s) times 1024; 0 means unlimited.  The rate
// array has a slot per transfer-type value 0 to 3; any other direction has no
// configured rate and reads as unlimited.
inline uint64_t BandwidthLimitRateBps(const VESK_BANDWIDTH_LIMIT *pLimit, int transfer_type)
{
    if (transfer_type < 0 || transfer_type > VESK_BW_TRANSFER_ALL) {
        return 0;
    }
    return pLimit->ullCurRate[transfer_type] << 10;
}

#endif

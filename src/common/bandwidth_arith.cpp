// Rate and time arithmetic of the throttle.  Times are microseconds, speeds
// bytes per second, and a speed of 0 means unlimited: looser than any other
// speed and absorbing in a sum.  Runs per chunk, so no allocation and no
// system call besides the clock.
#include <sys/time.h>

#include "veskbandwidth.h"

namespace {

constexpr int64_t kUsPerSecond = 1000000;

// An interval of zero or less counts as one microsecond.
int64_t AtLeastOneUs(int64_t llElapsedUs)
{
    return llElapsedUs > 0 ? llElapsedUs : 1;
}

}  // namespace

int64_t VESKBandwidthCurrTimeGet(void)
{
    struct timeval tv = {0, 0};
    gettimeofday(&tv, nullptr);
    return (int64_t)tv.tv_sec * kUsPerSecond + tv.tv_usec;
}

uint64_t VESKBandwidthSpeedEstimate(int64_t llElapsedUs, uint64_t cbTransferred)
{
    return cbTransferred * kUsPerSecond / (uint64_t)AtLeastOneUs(llElapsedUs);
}

int64_t VESKBandwidthSleepEstimate(int64_t llElapsedUs, uint64_t cbTransferred, int64_t llSpeedBps)
{
    if (0 == llSpeedBps) {
        return 0;
    }
    int64_t llElapsed = AtLeastOneUs(llElapsedUs);
    // The time the bytes should have taken at the allowed speed.
    int64_t llDueUs = (int64_t)(cbTransferred * kUsPerSecond) / llSpeedBps;
    return llDueUs > llElapsed ? llDueUs - llElapsed : 0;
}

int VESKBandwidthIsLessThan(uint64_t a, uint64_t b)
{
    if (0 == a || a == b) {
        return 0;
    }
    if (0 == b) {
        return 1;
    }
    return a < b ? 1 : 0;
}

int VESKBandwidthIsLargerThan(uint64_t a, uint64_t b)
{
    if (a == b || 0 == b) {
        return 0;
    }
    if (0 == a) {
        return 1;
    }
    return a > b ? 1 : 0;
}

uint64_t VESKBandwidthSum(uint64_t a, uint64_t b)
{
    return (0 == a || 0 == b) ? 0 : a + b;
}

// The deadline pacer of transfer sessions and its monotonic clock.
#include "session/bandwidth_session_pacer.h"

#include <errno.h>
#include <time.h>

namespace {

constexpr int64_t kNsPerSecond = 1000000000;

// Idle credit: a caller that falls behind by more than this much time is not
// allowed to make it up.  Late wake-ups within it are repaid.
constexpr int64_t kBurstNs = 5000000;

// The longest time computed from bytes and a rate: beyond any real wait and
// far from the end of the 64-bit range.
constexpr int64_t kTimeMaxNs = INT64_MAX / 4;

}  // namespace

int64_t BwMonotonicNs()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * kNsPerSecond + ts.tv_nsec;
}

void BwSleepUntil(int64_t llDeadlineNs)
{
    struct timespec ts = {(time_t)(llDeadlineNs / kNsPerSecond), (long)(llDeadlineNs % kNsPerSecond)};
    while (EINTR == clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr)) {
    }
}

int64_t BwBytesTimeNs(uint64_t cb, uint64_t ullRateBps)
{
    unsigned __int128 ns = ((unsigned __int128)cb * kNsPerSecond + ullRateBps - 1) / ullRateBps;
    return ns > (unsigned __int128)kTimeMaxNs ? kTimeMaxNs : (int64_t)ns;
}

void BwPacer::Restart(uint64_t ullRateBps, int64_t llStartNs, uint64_t cbCounted)
{
    ullRateBps_ = ullRateBps;
    llStartNs_ = llStartNs;
    cbCounted_ = cbCounted;
}

void BwPacer::Count(uint64_t cb, int64_t llNowNs)
{
    if (0 == ullRateBps_) {
        return;
    }
    if (Due() < llNowNs - kBurstNs) {
        Restart(ullRateBps_, llNowNs - kBurstNs);
    }
    cbCounted_ += cb;
}

int64_t BwPacer::Due() const
{
    return 0 == ullRateBps_ ? llStartNs_ : llStartNs_ + BwBytesTimeNs(cbCounted_, ullRateBps_);
}

uint64_t BwPacer::Pending(int64_t llNowNs) const
{
    int64_t llAheadNs = Due() - llNowNs;
    if (0 == ullRateBps_ || llAheadNs <= 0) {
        return 0;
    }
    unsigned __int128 cb = ((unsigned __int128)llAheadNs * ullRateBps_ + kNsPerSecond - 1) / kNsPerSecond;
    return cb > cbCounted_ ? cbCounted_ : (uint64_t)cb;
}

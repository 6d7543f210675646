// The figures of transfer sessions, taken beside the per-chunk ones: how
// exactly a session holds a limit and at what CPU cost (with pv -L at the
// same rates as the reference), how three users share a group limit when one
// joins late, and the library's share of a core at 10 GbE.
#ifndef VBW_BENCH_SESSION_SCENARIOS_H
#define VBW_BENCH_SESSION_SCENARIOS_H

#include "bench_support.h"

#include <cstdint>

namespace vbw::bench {

constexpr int kSharingUsers = 3;

// One stream of bytes at a limit, as its reader saw it.
struct StreamResult {
    uint64_t limitBps;
    double ratio;        // bytes / (end of stream - first byte), over the limit
    double cpuMsPerMiB;  // CPU time of the sending process per MiB sent
    double win100Min;    // lowest and highest 100-ms window after the first
    double win100Max;    // second, over the limit
};

// One user's download through a session: read from /dev/zero, written to a
// pipe, paced; the reader is the benchmark.
StreamResult MeasureSessionStream(uint64_t limitKBps, double seconds);
// pv -L at the same rate, reading /dev/zero.  False when pv is not installed.
bool PvInstalled();
StreamResult MeasurePvStream(uint64_t limitKBps, double seconds);

struct SessionSharingResult {
    uint64_t limitBps;
    double userBps[kSharingUsers];  // over the time all of them ran
    double ratio;                   // their sum over the limit
    double jain;
    double newcomerSeconds;  // until the last user got its share
};
// Two users start under one group limit and a third joins after
// joinSeconds; all run for `seconds` after that.
SessionSharingResult MeasureSessionSharing(uint64_t limitKBps, double joinSeconds, double seconds);

// The CPU share of one core that a session costs at 1.25 GB/s: a loop that
// moves no data, only asks for the next chunk and paces it.
double MeasureSessionCpuShare10g(double seconds);

}  // namespace vbw::bench

#endif

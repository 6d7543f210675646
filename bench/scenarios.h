// The four measurements of vbw-bench: how closely one transfer holds its
// limit, how fairly four users share a group limit, what one sleep-loop pass
// costs as a group's status file grows, and how fast one limited transfer can
// go through the library at all.
#ifndef VBW_BENCH_SCENARIOS_H
#define VBW_BENCH_SCENARIOS_H

#include "bench_support.h"

#include <cstdint>

namespace vbw::bench {

// How long each scenario runs; --quick shortens all of them.
struct Durations {
    double accuracySeconds;
    double sharingSeconds;
    double sharingWindowSeconds;  // the last part of the sharing run that counts
    double passCostCpuSeconds;    // per entry count, for passes and again for the floor
    double ceilingCpuSeconds;
    int rounds;            // CPU measurements are medians of this many rounds
    double streamSeconds;  // each session and pv stream
    double joinSeconds;    // before the third user of the session sharing joins
    double joinedSeconds;  // how long all three run together
    double cpuShareSeconds;
};
Durations DurationsFor(bool quick);

struct AccuracyResult {
    uint64_t limitBps;
    uint64_t bytes;
    double wallSeconds;
    double achievedBps;
    double ratio;
    double lostUsPerPass;  // how much longer a pass took than its chunk's time at the limit
};
AccuracyResult MeasureAccuracy(uint64_t limitKBps, double seconds);

struct SharingResult {
    uint64_t limitBps;
    double windowSeconds;
    double userBps[kUserCount];
    double aggregateBps;
    double ratio;
    double jain;
};
SharingResult MeasureSharing(uint64_t limitKBps, double seconds, double windowSeconds);

struct PassCostResult {
    int entries;
    double passUs;
    double floorUs;
    double ratio;
};
PassCostResult MeasurePassCost(int entries, double cpuSeconds, int rounds);

struct CeilingResult {
    double passUs;       // CPU time of one pass that does not sleep
    double wallPassUs;   // its wall time
    double bps;          // 64 KiB per pass CPU time
    double cpuShare1g;   // at 125 MB/s
    double cpuShare10g;  // at 1.25 GB/s
};
CeilingResult MeasureCeiling(double cpuSeconds, int rounds);

// Jain's fairness index: 1 when all are equal, 1/n when one has everything.
double JainIndex(const double *values, int count);

// Bytes moved by `time` on the line through the (time, bytes) samples; the
// samples are in time order.
double BytesAt(const double *times, const double *bytes, int count, double time);

}  // namespace vbw::bench

#endif

#include "scenarios.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace vbw::bench {

namespace {

constexpr int kWarmUpPasses = 10;

uint32_t Progress(double elapsed, double total)
{
    return static_cast<uint32_t>(std::min(10000.0, elapsed / total * 10000.0));
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Microseconds of CPU time per call of `step`, run until `cpuSeconds` are spent.
template <typename Step>
double CpuMicrosecondsPerCall(double cpuSeconds, Step step)
{
    double start = ProcessCpuSeconds();
    long calls = 0;
    double spent = 0;
    do {
        step();
        ++calls;
        spent = ProcessCpuSeconds() - start;
    } while (spent < cpuSeconds);
    return spent * 1e6 / static_cast<double>(calls);
}

int FreshTransfersInGroupFile()
{
    VESK_BANDWIDTH_STATUS *list = nullptr;
    int count = VESKBandwidthStatusGetAll(VESK_BW_OWNER_GROUP, kGroup, kProtocol, kDirection, &list);
    VESKBandwidthStatusListFree(&list);
    if (count < 0) {
        throw Failure(LibraryError("VESKBandwidthStatusGetAll"));
    }
    return count;
}

struct UserShare {
    double windowBytes;
};

// One of the sharing users: registers at the common start and moves chunks
// until the run ends; reports the bytes it moved within the window.
UserShare ShareOneUser(uid_t uid, StartSignal &start, double seconds, double windowSeconds)
{
    Transfer transfer(uid);
    double startTime = start.Await();
    transfer.Register();
    std::vector<double> times{MonotonicSeconds()};
    std::vector<double> bytes{0};
    double end = startTime + seconds;
    for (double now = times.back(); now < end; now = times.back()) {
        transfer.Pass(Progress(now - startTime, seconds));
        times.push_back(MonotonicSeconds());
        bytes.push_back(bytes.back() + kChunkBytes);
    }
    int n = static_cast<int>(times.size());
    return {BytesAt(times.data(), bytes.data(), n, end) - BytesAt(times.data(), bytes.data(), n, end - windowSeconds)};
}

}  // namespace

Durations DurationsFor(bool quick)
{
    if (quick) {
        return {1.0, 1.25, 1.0, 0.15, 0.15, 3, 1.5, 1.0, 1.5, 0.5};
    }
    return {10.0, 10.0, 8.0, 2.0, 2.0, 5, 10.0, 2.0, 10.0, 3.0};
}

double JainIndex(const double *values, int count)
{
    double sum = 0;
    double squares = 0;
    for (int i = 0; i < count; ++i) {
        sum += values[i];
        squares += values[i] * values[i];
    }
    return squares > 0 ? sum * sum / (count * squares) : 0;
}

double BytesAt(const double *times, const double *bytes, int count, double time)
{
    if (time <= times[0]) {
        return bytes[0];
    }
    for (int i = 1; i < count; ++i) {
        if (time <= times[i]) {
            double part = (time - times[i - 1]) / (times[i] - times[i - 1]);
            return bytes[i - 1] + part * (bytes[i] - bytes[i - 1]);
        }
    }
    return bytes[count - 1];
}

AccuracyResult MeasureAccuracy(uint64_t limitKBps, double seconds)
{
    ClearStatusFiles();
    ConfigureUserLimit(kUsers[0], limitKBps);
    AccuracyResult result = RunInChild<AccuracyResult>([&] {
        Transfer transfer(kUsers[0]);
        transfer.Register();
        AccuracyResult r{};
        double start = MonotonicSeconds();
        double elapsed = 0;
        while (elapsed < seconds) {
            transfer.Pass(Progress(elapsed, seconds));
            r.bytes += kChunkBytes;
            elapsed = MonotonicSeconds() - start;
        }
        r.wallSeconds = elapsed;
        return r;
    });
    result.limitBps = limitKBps * 1024;
    result.achievedBps = static_cast<double>(result.bytes) / result.wallSeconds;
    result.ratio = result.achievedBps / static_cast<double>(result.limitBps);
    double passes = static_cast<double>(result.bytes / kChunkBytes);
    double chunkUs = static_cast<double>(kChunkBytes) * 1e6 / static_cast<double>(result.limitBps);
    result.lostUsPerPass = result.wallSeconds * 1e6 / passes - chunkUs;
    return result;
}

SharingResult MeasureSharing(uint64_t limitKBps, double seconds, double windowSeconds)
{
    ClearStatusFiles();
    ConfigureGroupLimit(kGroup, limitKBps);
    StartSignal start;
    std::vector<std::unique_ptr<ChildProcess>> users;
    std::vector<UserShare> shares(kUserCount);
    for (int i = 0; i < kUserCount; ++i) {
        uid_t uid = kUsers[i];
        users.push_back(std::make_unique<ChildProcess>(
            [&, uid](void *out) {
                UserShare share = ShareOneUser(uid, start, seconds, windowSeconds);
                std::memcpy(out, &share, sizeof share);
            },
            sizeof(UserShare)));
    }
    // A moment for every user to read its configuration before the start.
    start.Release(MonotonicSeconds() + 0.2, kUserCount);
    for (int i = 0; i < kUserCount; ++i) {
        users[i]->Wait(&shares[i]);
    }
    SharingResult result{};
    result.limitBps = limitKBps * 1024;
    result.windowSeconds = windowSeconds;
    for (int i = 0; i < kUserCount; ++i) {
        result.userBps[i] = shares[i].windowBytes / windowSeconds;
        result.aggregateBps += result.userBps[i];
    }
    result.ratio = result.aggregateBps / static_cast<double>(result.limitBps);
    result.jain = JainIndex(result.userBps, kUserCount);
    return result;
}

PassCostResult MeasurePassCost(int entries, double cpuSeconds, int rounds)
{
    ClearStatusFiles();
    ConfigureGroupLimit(kGroup, kUnreachableKBps);
    SaveOtherTransfers(kGroup, entries - 1);
    PassCostResult result = RunInChild<PassCostResult>([&] {
        Transfer transfer(kUsers[0]);
        transfer.Register();
        for (int i = 0; i < kWarmUpPasses; ++i) {
            transfer.Pass(0);
        }
        if (FreshTransfersInGroupFile() != entries) {
            throw Failure("the group status file does not hold " + std::to_string(entries) + " fresh transfers");
        }
        std::string groupFile = StatusFilePath("group", kGroup);
        std::vector<double> passes;
        std::vector<double> floors;
        // Alternating rounds, so that a disturbance of the machine hits both alike.
        for (int r = 0; r < rounds; ++r) {
            passes.push_back(CpuMicrosecondsPerCall(cpuSeconds / rounds, [&] { transfer.Pass(0); }));
            floors.push_back(CpuMicrosecondsPerCall(cpuSeconds / rounds, [&] { PlainReadAndRewrite(groupFile); }));
        }
        PassCostResult r{};
        r.passUs = Median(passes);
        r.floorUs = Median(floors);
        return r;
    });
    result.entries = entries;
    result.ratio = result.passUs / result.floorUs;
    return result;
}

CeilingResult MeasureCeiling(double cpuSeconds, int rounds)
{
    ClearStatusFiles();
    ConfigureUserLimit(kUsers[0], kUnreachableKBps);
    CeilingResult result = RunInChild<CeilingResult>([&] {
        Transfer transfer(kUsers[0]);
        transfer.Register();
        for (int i = 0; i < kWarmUpPasses; ++i) {
            transfer.Pass(0);
        }
        std::vector<double> cpu;
        std::vector<double> wall;
        for (int r = 0; r < rounds; ++r) {
            double start = MonotonicSeconds();
            long passes = 0;
            cpu.push_back(CpuMicrosecondsPerCall(cpuSeconds / rounds, [&] {
                transfer.Pass(0);
                ++passes;
            }));
            wall.push_back((MonotonicSeconds() - start) * 1e6 / static_cast<double>(passes));
        }
        CeilingResult r{};
        r.passUs = Median(cpu);
        r.wallPassUs = Median(wall);
        return r;
    });
    result.bps = static_cast<double>(kChunkBytes) * 1e6 / result.passUs;
    result.cpuShare1g = 125e6 / result.bps;
    result.cpuShare10g = 1.25e9 / result.bps;
    return result;
}

}  // namespace vbw::bench

// vbw-microbench: the hot calls of every sleep-loop pass (reading one
// section, enumerating a status file, saving a record) as a user's status
// file grows from 1 to 256 sections, with the plain read and atomic rewrite
// of the same file as the floor, and whole passes as a group's file grows.  Runs itself in the private sandbox; takes
// Google Benchmark's options (--benchmark_filter=..., --benchmark_format=json).
#include "bench_support.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

namespace {

using namespace vbw::bench;

const uid_t kUid = kUsers[0];

// A user status file of `sections` fresh downloads; returns the record of the
// last one, the section that a reader finds last.
VESK_BANDWIDTH_STATUS FillUserFile(int sections)
{
    ClearStatusFiles();
    VESK_BANDWIDTH_STATUS status{};
    for (int i = 0; i < sections; ++i) {
        status = OtherTransfer(i, kUid);
        CheckLibrary(VESKBandwidthStatusSave(kUid, nullptr, &status), "VESKBandwidthStatusSave");
    }
    return status;
}

// Runs `call` per iteration; a failure of the library ends the benchmark.
template <typename Call>
void RunOnFile(benchmark::State &state, Call call)
{
    int sections = static_cast<int>(state.range(0));
    try {
        VESK_BANDWIDTH_STATUS last = FillUserFile(sections);
        for (auto _ : state) {
            call(last, sections);
        }
    } catch (const std::exception &e) {
        state.SkipWithError(e.what());
    }
    state.SetComplexityN(sections);
}

void BM_ReadSection(benchmark::State &state)
{
    RunOnFile(state, [](const VESK_BANDWIDTH_STATUS &last, int) {
        VESK_BANDWIDTH_STATUS record{};
        CheckLibrary(VESKBandwidthIStatusGet(VESK_BW_OWNER_USER, kUid, last.pid, kDirection, &record),
                     "VESKBandwidthIStatusGet");
    });
}

void BM_EnumerateFile(benchmark::State &state)
{
    RunOnFile(state, [](const VESK_BANDWIDTH_STATUS &, int sections) {
        VESK_BANDWIDTH_STATUS *list = nullptr;
        int count = VESKBandwidthStatusGetAll(VESK_BW_OWNER_USER, kUid, kProtocol, kDirection, &list);
        VESKBandwidthStatusListFree(&list);
        if (count != sections) {
            throw Failure(LibraryError("VESKBandwidthStatusGetAll listed " + std::to_string(count) + " records; it"));
        }
    });
}

void BM_SaveRecord(benchmark::State &state)
{
    RunOnFile(state, [](const VESK_BANDWIDTH_STATUS &last, int) {
        VESK_BANDWIDTH_STATUS record = last;
        CheckLibrary(VESKBandwidthStatusSave(kUid, nullptr, &record), "VESKBandwidthStatusSave");
    });
}

void BM_PlainReadAndRewrite(benchmark::State &state)
{
    std::string path = StatusFilePath("user", kUid);
    RunOnFile(state, [&path](const VESK_BANDWIDTH_STATUS &, int) { PlainReadAndRewrite(path); });
}

// A whole sleep-loop pass that does not sleep, with `entries` fresh transfers
// in the group status file (as vbw-bench's pass cost).
void BM_SleepLoopPass(benchmark::State &state)
{
    int entries = static_cast<int>(state.range(0));
    try {
        ClearStatusFiles();
        ConfigureGroupLimit(kGroup, kUnreachableKBps);
        SaveOtherTransfers(kGroup, entries - 1);
        Transfer transfer(kUid);
        transfer.Register();
        for (auto _ : state) {
            transfer.Pass(0);
        }
    } catch (const std::exception &e) {
        state.SkipWithError(e.what());
    }
    state.SetComplexityN(entries);
}

#define VBW_FILE_SIZES RangeMultiplier(4)->Range(1, 256)->Complexity()
BENCHMARK(BM_ReadSection)->VBW_FILE_SIZES;
BENCHMARK(BM_EnumerateFile)->VBW_FILE_SIZES;
BENCHMARK(BM_SaveRecord)->VBW_FILE_SIZES;
BENCHMARK(BM_PlainReadAndRewrite)->VBW_FILE_SIZES;
BENCHMARK(BM_SleepLoopPass)->VBW_FILE_SIZES;

}  // namespace

int main(int argc, char **argv)
{
    std::string error;
    if (!EnterBenchSandbox(&error)) {
        std::fprintf(stderr, "vbw-microbench: cannot enter the sandbox: %s\n", error.c_str());
        return 125;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

// Many transfers of several users under one group limit, in the whole transfer
// rhythm for a few seconds: every listing parses, the transfers see each other
// in nearly every pass, no temporary file stays, the limit holds.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "vbw_throttle_fixture.h"

namespace {

using namespace vbw;

const int kProcesses = 32;
const uid_t kUids[] = {1026, 1027, 1028, 1031};  // alice, bob, carol, frank: all in group users (100)
const uint64_t kGroupLimitKBps = 1024, kChunkBytes = 16384;
// The limit and the sightings are judged once the start has settled (every
// transfer registered; first sections lost to concurrent rewrites saved again).
const int64_t kRunMs = 4000, kSettleMs = 1000;

// What one transfer saw, written by its own process only.
struct Report {
    std::atomic<int> failed;                    // 0, else 1 registration, 2 sleep loop, 3 listing, 4 removal
    std::atomic<uint64_t> bytes, settledBytes;  // moved in all, and by the first pass once settled
    std::atomic<int64_t> settledUs, lastUs;     // the end of that pass, and of the last one
    std::atomic<uint64_t> expected, seen;       // once settled: other transfers live around a listing, and listed
};

// Shared by the test and its children (anonymous shared mapping).
struct Shared {
    std::atomic<int64_t> deadlineMs;      // 0 until every child is forked
    std::atomic<pid_t> live[kProcesses];  // pid while the transfer is registered, else 0
    Report report[kProcesses];
};

std::vector<pid_t> Live(const Shared &shared)
{
    std::vector<pid_t> pids;
    for (const auto &pid : shared.live) {
        pids.push_back(pid.load());
    }
    return pids;
}

// One transfer: registers, runs the sleep loop until the deadline, listing
// the group's file after every pass, and removes itself.
void RunTransfer(Shared &shared, int self)
{
    Report &report = shared.report[self];
    VESK_BANDWIDTH_CONFIG config = {};
    VESK_BANDWIDTH_STATUS status = {};
    int64_t lastUs = 0;
    while (shared.deadlineMs.load() == 0) {
        usleep(1000);
    }
    const int64_t deadlineMs = shared.deadlineMs.load();
    report.failed = VESKBandwidthConfigGet(kUids[self % 4], kFtp, &config) != 0 ||
                    VESKBandwidthStatusInit(&config, kDown, "/share/stress", &lastUs, &status) != 0;
    shared.live[self] = report.failed == 0 ? getpid() : 0;
    while (report.failed == 0 && NowMs() < deadlineMs) {
        if (VESKBandwidthSleepInLoop(&config, kChunkBytes, 0, &lastUs, &status) != 0) {
            report.failed = 2;
        }
        report.bytes += kChunkBytes;
        report.lastUs = lastUs;
        if (report.settledUs == 0 && NowMs() >= deadlineMs - kRunMs + kSettleMs) {
            report.settledUs = lastUs;
            report.settledBytes = report.bytes.load();
        }
        const std::vector<pid_t> before = Live(shared);
        VESK_BANDWIDTH_STATUS *list = nullptr;
        int count = VESKBandwidthStatusGetAll(VESK_BW_OWNER_GROUP, kUsers, kFtp, kDown, &list);
        const std::vector<pid_t> after = Live(shared);
        const bool counts = report.settledUs != 0 && before == after;  // no transfer came or went meanwhile
        for (VESK_BANDWIDTH_STATUS *p = list; p != nullptr; p = p->pNext, --count) {
            report.seen += counts && p->pid != getpid() && std::count(before.begin(), before.end(), p->pid) == 1;
        }
        report.expected += counts ? kProcesses - 1 - std::count(before.begin(), before.end(), 0) : 0;
        VESKBandwidthStatusListFree(&list);
        report.failed = report.failed != 0 ? report.failed.load() : count != 0 ? 3 : 0;
    }
    shared.live[self] = 0;
    if (report.failed != 1 && VESKBandwidthStatusRemove(&config, kDown) != 0) {
        report.failed = 4;
    }
    VESKBandwidthConfigFree(&config);
}

class ReliabilityStress : public SandboxTest {};

TEST_F(ReliabilityStress, SharedFilesUnderManyTransfers)
{
    InstallKillallStandIn();
    StoreUsersGroupLimit(kGroupLimitKBps);  // every transfer books its whole speed in the group's file
    auto *shared =
        static_cast<Shared *>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, (void *)shared);
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i) {
        children.push_back(Fork([shared, i] {
            RunTransfer(*shared, i);
            return 0;
        }));
    }
    shared->deadlineMs = NowMs() + kRunMs;
    for (pid_t pid : children) {
        EXPECT_EQ(0, WaitExit(pid, kRunMs + 60000));
    }
    uint64_t expected = 0, seen = 0;
    double aggregateBps = 0;  // the sum of the transfers' speeds once settled
    for (const Report &r : shared->report) {
        EXPECT_EQ(0, r.failed.load());
        ASSERT_LT(r.settledUs.load(), r.lastUs.load());
        expected += r.expected;
        seen += r.seen;
        aggregateBps += (double)(r.bytes - r.settledBytes) * 1e6 / (double)(r.lastUs - r.settledUs);
    }
    munmap(shared, sizeof(Shared));
    const double fraction = (double)seen / (double)expected, ratio = aggregateBps / (kGroupLimitKBps * 1024.0);
    std::printf("stress: %d transfers; once settled, other transfers seen in the group file %.4f (%llu); "
                "aggregate %.3f of the limit\n",
                kProcesses, fraction, (unsigned long long)expected, ratio);
    EXPECT_EQ(0, log.Count("Init status from hash failed")) << log.Dump();
    // Each transfer's group section is removed and appended again on every
    // pass, and appends can be lost to concurrent rewrites until the next pass.
    EXPECT_GT(fraction, 0.85);
    // Each transfer may take the part of the limit that the others did not
    // use at their last save, and counts only the transfers it sees.
    EXPECT_LT(ratio, 1.25);
    EXPECT_EQ(
        (std::vector<std::string>{"/tmp/bandwidth/group-100", "/tmp/bandwidth/user-1026", "/tmp/bandwidth/user-1027",
                                  "/tmp/bandwidth/user-1028", "/tmp/bandwidth/user-1031"}),
        Paths("/tmp/bandwidth/*"));
}

}  // namespace

// Many transfers of several users under one shared group limit, through the
// library's whole transfer rhythm, saving and enumerating the same status
// files for a few seconds: every enumeration parses, the transfers see each
// other in nearly every pass, no temporary file stays, the limit holds.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <string>
#include <vector>

#include "vbw_throttle_fixture.h"

namespace {

using namespace vbw;

const int kProcesses = 32;
const uid_t kUids[] = {1026, 1027, 1028, 1031};  // alice, bob, carol, frank: all in group users (100)
const int kUserCount = sizeof(kUids) / sizeof(kUids[0]);
const uint64_t kGroupLimitKBps = 1024;
const uint64_t kChunkBytes = 16384;
const int64_t kRunMs = 4000;
// The limit and the sightings are judged once the start has settled (every
// transfer registered; first sections lost to concurrent rewrites saved again).
const int64_t kSettleMs = 1000;

// What one transfer saw, written by its own process only.
struct TransferReport {
    std::atomic<int> failed;       // 0, else the step that failed: 1 registration, 2 sleep loop, 3 enumeration, 4 removal
    std::atomic<uint64_t> passes;  // complete passes of the sleep loop
    std::atomic<uint64_t> bytes;   // bytes moved in those passes
    std::atomic<uint64_t> settledBytes;      // bytes moved by the end of the first pass after settling
    std::atomic<int64_t> settledUs, lastUs;  // the end of that pass, and of the last pass
    std::atomic<uint64_t> groupExpected, groupSeen;  // once settled: other live transfers, and those listed
    std::atomic<uint64_t> userExpected, userSeen;    // the same for the user's own file
};

// Shared by the test and its children (anonymous shared mapping).
struct Shared {
    std::atomic<int64_t> deadlineMs;  // 0 until every child is forked
    std::atomic<pid_t> live[kProcesses];  // pid while the transfer is registered, else 0
    TransferReport report[kProcesses];
};

// The live transfers other than `self`, of one user when uid is given.
std::vector<pid_t> LiveOthers(const Shared &shared, int self, uid_t uid = (uid_t)-1)
{
    std::vector<pid_t> pids;
    for (int i = 0; i < kProcesses; ++i) {
        pid_t pid = shared.live[i].load();
        if (i != self && pid != 0 && ((uid_t)-1 == uid || kUids[i % kUserCount] == uid)) {
            pids.push_back(pid);
        }
    }
    return pids;
}

bool Contains(const std::vector<pid_t> &pids, pid_t pid)
{
    return std::find(pids.begin(), pids.end(), pid) != pids.end();
}

// Enumerates one status file and, when `count` is set, counts which of the
// transfers live both before and after the enumeration it listed.  false
// when it did not parse.
bool Sighting(const Shared &shared, int self, int ownerType, unsigned id, uid_t uid, bool count,
              std::atomic<uint64_t> &expected, std::atomic<uint64_t> &seen)
{
    std::vector<pid_t> before = LiveOthers(shared, self, uid);
    VESK_BANDWIDTH_STATUS *list = nullptr;
    int listedCount = VESKBandwidthStatusGetAll(ownerType, id, kFtp, kDown, &list);
    std::vector<pid_t> after = LiveOthers(shared, self, uid);
    std::vector<pid_t> listed;
    for (VESK_BANDWIDTH_STATUS *p = list; p != nullptr; p = p->pNext) {
        listed.push_back(p->pid);
    }
    VESKBandwidthStatusListFree(&list);
    for (pid_t pid : before) {
        if (count && Contains(after, pid)) {
            ++expected;
            seen += Contains(listed, pid) ? 1 : 0;
        }
    }
    return listedCount >= 0 && listedCount == (int)listed.size();
}

// One transfer: registers, runs the sleep loop until the deadline, looking at
// the shared files after every pass, and removes itself; failures are reported.
void RunTransfer(Shared &shared, int self)
{
    TransferReport &report = shared.report[self];
    const uid_t uid = kUids[self % kUserCount];
    VESK_BANDWIDTH_CONFIG config;
    memset(&config, 0, sizeof(config));
    VESK_BANDWIDTH_STATUS status;
    memset(&status, 0, sizeof(status));
    int64_t lastUs = 0;
    while (shared.deadlineMs.load() == 0) {
        usleep(1000);
    }
    const int64_t deadlineMs = shared.deadlineMs.load();
    std::string file = "/share/stress-" + std::to_string(self);
    if (VESKBandwidthConfigGet(uid, kFtp, &config) != 0 ||
        VESKBandwidthStatusInit(&config, kDown, file.c_str(), &lastUs, &status) != 0) {
        report.failed = 1;
        VESKBandwidthConfigFree(&config);
        return;
    }
    shared.live[self] = getpid();
    while (NowMs() < deadlineMs && report.failed == 0) {
        if (VESKBandwidthSleepInLoop(&config, kChunkBytes, 0, &lastUs, &status) != 0) {
            report.failed = 2;
            break;
        }
        ++report.passes;
        report.bytes += kChunkBytes;
        report.lastUs = lastUs;
        if (report.settledUs == 0 && NowMs() >= deadlineMs - kRunMs + kSettleMs) {
            report.settledUs = lastUs;
            report.settledBytes = report.bytes.load();
        }
        const bool settled = report.settledUs != 0;
        if (!Sighting(shared, self, VESK_BW_OWNER_GROUP, kUsers, (uid_t)-1, settled, report.groupExpected,
                      report.groupSeen) ||
            !Sighting(shared, self, VESK_BW_OWNER_USER, uid, uid, settled, report.userExpected, report.userSeen)) {
            report.failed = 3;
        }
    }
    shared.live[self] = 0;
    if (VESKBandwidthStatusRemove(&config, kDown) != 0) {
        report.failed = 4;
    }
    VESKBandwidthConfigFree(&config);
}

class ReliabilityStress : public SandboxTest {};

TEST_F(ReliabilityStress, SharedFilesUnderManyTransfers)
{
    InstallKillallStandIn();
    StoreUsersGroupLimit(kGroupLimitKBps);  // every transfer books its whole speed in the group's file

    auto *shared = static_cast<Shared *>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
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

    uint64_t passes = 0, groupExpected = 0, groupSeen = 0, userExpected = 0, userSeen = 0;
    double aggregateBps = 0;  // the sum of the transfers' speeds once settled
    for (int i = 0; i < kProcesses; ++i) {
        const TransferReport &r = shared->report[i];
        EXPECT_EQ(0, r.failed.load()) << "transfer " << i;
        EXPECT_LT(0u, r.passes.load()) << "transfer " << i;
        passes += r.passes;
        groupExpected += r.groupExpected;
        groupSeen += r.groupSeen;
        userExpected += r.userExpected;
        userSeen += r.userSeen;
        ASSERT_LT(r.settledUs.load(), r.lastUs.load()) << "transfer " << i;
        aggregateBps += (double)(r.bytes - r.settledBytes) * 1e6 / (double)(r.lastUs - r.settledUs);
    }
    munmap(shared, sizeof(Shared));
    const double groupFraction = (double)groupSeen / (double)groupExpected;
    const double userFraction = (double)userSeen / (double)userExpected;
    const double limitBps = (double)(kGroupLimitKBps * 1024);
    std::printf("stress: %d transfers, %llu passes, each enumerating the group's and the user's file; once "
                "settled, other transfers seen in the group file "
                "%.4f (%llu/%llu), in the user file %.4f (%llu/%llu); aggregate %.0f B/s = %.3f of the limit; "
                "%d sections listed but gone when read\n",
                kProcesses, (unsigned long long)passes, groupFraction,
                (unsigned long long)groupSeen, (unsigned long long)groupExpected, userFraction,
                (unsigned long long)userSeen, (unsigned long long)userExpected, aggregateBps,
                aggregateBps / limitBps, log.Count("Get section ["));
    RecordProperty("group_seen_fraction", std::to_string(groupFraction));
    RecordProperty("user_seen_fraction", std::to_string(userFraction));
    RecordProperty("aggregate_over_limit", std::to_string(aggregateBps / limitBps));

    EXPECT_EQ(0, log.Count("Init status from hash failed")) << log.Dump();
    // A user's file only ever has its sections replaced.  A group's file has
    // each transfer's section removed and appended again on every pass, and
    // appends can be lost to concurrent rewrites until the next pass.
    EXPECT_GT(userFraction, 0.95);
    EXPECT_GT(groupFraction, 0.85);
    // Each transfer may take the part of the limit that the others did not
    // use at their last save, and counts only the transfers it sees: the
    // aggregate overshoots the limit by about the share of missed sightings.
    EXPECT_LT(aggregateBps, limitBps * 1.25);
    // Every transfer removed itself; no writer left a temporary file.
    EXPECT_EQ((std::vector<std::string>{"/tmp/bandwidth/group-100", "/tmp/bandwidth/user-1026",
                                        "/tmp/bandwidth/user-1027", "/tmp/bandwidth/user-1028",
                                        "/tmp/bandwidth/user-1031"}),
              Paths("/tmp/bandwidth/*"));
}

}  // namespace

// The sleep loop and the occupied-groups query.
#include <errno.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <numeric>
#include <vector>

#include "transfer_support.h"

namespace {

// The library's waits land in this usleep.  Normally it waits like the real
// one; a test can make it record the requested counts without waiting, and
// fail at one of them.
struct SleepRecorder {
    bool active = false;
    std::vector<useconds_t> pieces;
    size_t failAt = 0;  // 1-based call that fails, 0 none
    int failErrno = 0;
} g_sleep;

}  // namespace

// Exported, so that the library binds to it rather than to the C library.
extern "C" __attribute__((visibility("default"))) int usleep(useconds_t us) noexcept
{
    if (!g_sleep.active) {
        struct timespec ts = {(time_t)(us / 1000000), (long)(us % 1000000) * 1000};
        return nanosleep(&ts, NULL);
    }
    g_sleep.pieces.push_back(us);
    if (g_sleep.pieces.size() == g_sleep.failAt) {
        errno = g_sleep.failErrno;
        return -1;
    }
    return 0;
}

namespace {

using namespace vbw;

int LocalHourNow()
{
    time_t now = time(NULL);
    struct tm local;
    localtime_r(&now, &local);
    return local.tm_hour;
}

class OccGroupsTest : public ConfigTest {
protected:
    // One limit record per id: alice's own first, then groups, each with a share.
    void Occupy(const std::vector<std::pair<unsigned, uint64_t>> &shares)
    {
        std::vector<VESK_BANDWIDTH_LIMIT> limits;
        for (const auto &share : shares) {
            limits.push_back(Limit(kAlice == share.first ? VESK_BW_OWNER_USER : VESK_BW_OWNER_GROUP, share.first, 0, 100));
            limits.back().ullOccupyShare = share.second;
        }
        Use(limits);
        config.blGroupConfExist = 1;
    }
};

TEST_F(OccGroupsTest, ListsOccupiedGroupsInOrder)
{
    Occupy({{kAlice, 10000}, {100, 0}, {101, 2500}, {103, 7500}});
    uint32_t groups[BW_OCC_GROUPS_MAX] = {};
    int count = -1;
    ASSERT_EQ(0, VESKBandwidthOccGroupsGet(groups, &count, &config));
    ASSERT_EQ(2, count);
    EXPECT_EQ(101u, groups[0]);
    EXPECT_EQ(103u, groups[1]);

    config.blGroupConfExist = 0;  // no group limit in force: nothing occupied
    ASSERT_EQ(0, VESKBandwidthOccGroupsGet(groups, &count, &config));
    EXPECT_EQ(0, count);
}

TEST_F(OccGroupsTest, StopsAtCapacityAndLogsOnce)
{
    std::vector<std::pair<unsigned, uint64_t>> shares;
    for (unsigned i = 0; i < BW_OCC_GROUPS_MAX + 76; ++i) {
        shares.emplace_back(5000 + i, 1);
    }
    Occupy(shares);
    std::vector<uint32_t> groups(BW_OCC_GROUPS_MAX + 1, 0xDEADBEEF);
    int count = 0;
    ASSERT_EQ(0, VESKBandwidthOccGroupsGet(groups.data(), &count, &config));
    EXPECT_EQ(BW_OCC_GROUPS_MAX, count);
    EXPECT_EQ(5000u, groups[0]);
    EXPECT_EQ(5000u + BW_OCC_GROUPS_MAX - 1, groups[BW_OCC_GROUPS_MAX - 1]);
    EXPECT_EQ(0xDEADBEEF, groups[BW_OCC_GROUPS_MAX]);
    EXPECT_EQ(1, log.Count("more than 1024 occupied groups")) << log.Dump();
}

// A transfer of alice (ftp download) registered under the limits stored by the test.
class SleepLoopTest : public ConfigTest {
protected:
    // Global record enabled (user-first), alice's own download limit.
    void Start(uint64_t downKBps, int state = VESK_BW_STATE_ENABLED, const std::string &plan = "")
    {
        ASSERT_NO_FATAL_FAILURE(StoreGlobal(kFtp, GlobalSpec()));
        ASSERT_NO_FATAL_FAILURE(StoreLimit(VESK_BW_OWNER_USER, kAlice, kFtp, 0, downKBps, state, plan));
        ASSERT_EQ(0, VESKBandwidthConfigGet(kAlice, kFtp, &config));
        ASSERT_EQ(0, VESKBandwidthStatusInit(&config, kDown, "/volume1/public/f", &timeLast, &status));
    }

    int Pass(uint64_t cb, uint32_t progress)
    {
        return VESKBandwidthSleepInLoop(&config, cb, progress, &timeLast, &status);
    }

    std::map<std::string, std::string> Entry()
    {
        return ReadSection(StatusFile("user", kAlice), SectionName(getpid(), kDown));
    }

    VESK_BANDWIDTH_STATUS status = {};
    int64_t timeLast = 0;
};

// The schedules are re-resolved on the first pass of the process and after a
// pass that found the limits ended; otherwise only when the hour changes.
// Defined before every test that completes a pass, since the time of the last
// pass belongs to the process.
TEST_F(SleepLoopTest, SchedulesAreResolvedAgainOnlyWhenNeeded)
{
    ASSERT_NO_FATAL_FAILURE(Start(128, VESK_BW_STATE_SCHEDULE, WeekPlan('1')));
    ASSERT_FALSE(Entry().empty());
    auto plan = [&](char c) {
        snprintf(config.pLimit[0].szSchedulePlan, sizeof(config.pLimit[0].szSchedulePlan), "%s",
                 WeekPlan(c).c_str());
    };
    int hour = LocalHourNow();

    plan('0');  // the plan of a later hour: limits off
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(0, Pass(65536, 100));
        EXPECT_TRUE(Entry().empty());
        EXPECT_EQ(VESK_BW_STATE_DISABLED, config.pLimit[0].iCurState);
    }

    plan('1');  // limits back: the next pass resolves again and saves
    timeLast = VESKBandwidthCurrTimeGet() - 600000;
    EXPECT_EQ(0, Pass(65536, 200));
    EXPECT_EQ("200", Entry()["progress"]);

    plan('0');  // same hour as the last complete pass: not resolved again
    timeLast = VESKBandwidthCurrTimeGet() - 600000;
    EXPECT_EQ(0, Pass(65536, 300));
    if (hour != LocalHourNow()) {
        GTEST_SKIP() << "the hour changed during the test";
    }
    EXPECT_EQ("300", Entry()["progress"]);
    EXPECT_EQ(VESK_BW_STATE_ENABLED, config.pLimit[0].iCurState);
}

TEST_F(SleepLoopTest, ThrottledPassSleepsMeasuresAndSaves)
{
    ASSERT_NO_FATAL_FAILURE(Start(128));

    // 64 KiB at 128 KiB/s take 500 ms, of which 250 ms have passed.
    timeLast = VESKBandwidthCurrTimeGet() - 250000;
    int64_t start = NowMs();
    ASSERT_EQ(0, Pass(65536, 4321)) << log.Dump();
    int64_t tookMs = NowMs() - start;
    EXPECT_GE(tookMs, 200);
    EXPECT_LE(tookMs, 1500);
    EXPECT_EQ(131072u, status.expect_speed);
    EXPECT_LE(status.current_speed, 131072u);
    EXPECT_GE(status.current_speed, 35000u);
    EXPECT_GE(timeLast, VESKBandwidthCurrTimeGet() - 1000000);
    std::map<std::string, std::string> entry = Entry();
    EXPECT_EQ("4321", entry["progress"]);
    EXPECT_EQ(std::to_string(status.current_speed), entry["current speed"]);
    EXPECT_LE(llabs(strtoll(entry["timestamp"].c_str(), NULL, 10) - (long long)time(NULL)), 2);

    // 600 ms for the same chunk: no sleep, about 109,226 bytes/s.  The entry,
    // collected meanwhile by another process, is written again.
    ASSERT_EQ(0, unlink(StatusFile("user", kAlice).c_str()));
    timeLast = VESKBandwidthCurrTimeGet() - 600000;
    start = NowMs();
    ASSERT_EQ(0, Pass(65536, 5000));
    EXPECT_LT(NowMs() - start, 200);
    EXPECT_LE(status.current_speed, 109226u);
    EXPECT_GE(status.current_speed, 80000u);
    EXPECT_EQ("5000", Entry()["progress"]);
}

TEST_F(SleepLoopTest, DeactivatedTransferEndsWithoutSaving)
{
    ASSERT_NO_FATAL_FAILURE(Start(128));
    ASSERT_EQ(0, VESKBandwidthStatusSetActiveByUserName("alice", kDown, getpid(), 0));
    log.Clear();

    timeLast = VESKBandwidthCurrTimeGet() - 400000;
    int64_t before = timeLast;
    EXPECT_EQ(-1, Pass(65536, 777));
    EXPECT_EQ(BW_ERR_DEACTIVATED, VLIBCErrGet());
    EXPECT_EQ(before, timeLast);
    std::map<std::string, std::string> entry = Entry();
    EXPECT_EQ("0", entry["active"]);
    EXPECT_EQ("0", entry["progress"]);
    EXPECT_EQ(0, log.Count("bandwidth_sleep_in_loop.cpp")) << log.Dump();
}

// 16 MiB at 1 KB/s take 16,384 s, far more than one usleep count can hold.
TEST_F(SleepLoopTest, LongWaitIsSleptInPieces)
{
    ASSERT_NO_FATAL_FAILURE(Start(1));
    const uint64_t cb = 16u << 20;
    const uint64_t waitUs = 16384ull * 1000000;

    auto recordedPass = [&](size_t failAt, int failErrno, uint32_t progress) {
        g_sleep = SleepRecorder{true, {}, failAt, failErrno};
        timeLast = VESKBandwidthCurrTimeGet();
        EXPECT_EQ(0, Pass(cb, progress));
        g_sleep.active = false;
    };

    recordedPass(0, 0, 10);
    ASSERT_GE(g_sleep.pieces.size(), 4u);
    uint64_t total = std::accumulate(g_sleep.pieces.begin(), g_sleep.pieces.end(), (uint64_t)0);
    EXPECT_LE(total, waitUs);
    EXPECT_GE(total, waitUs - 2000000);

    // A signal during the second piece ends the whole wait.
    recordedPass(2, EINTR, 20);
    EXPECT_EQ(2u, g_sleep.pieces.size());
    EXPECT_EQ(1024u, status.current_speed);
    EXPECT_TRUE(log.Contains("usleep failed. Interrupted system call")) << log.Dump();

    // Any other failure ends the wait too, and the speed reached is measured.
    recordedPass(1, EINVAL, 30);
    EXPECT_EQ(1u, g_sleep.pieces.size());
    EXPECT_GT(status.current_speed, 1024u * 1000);
    EXPECT_TRUE(log.Contains("usleep failed. Invalid argument")) << log.Dump();
    EXPECT_EQ("30", Entry()["progress"]);
}

}  // namespace

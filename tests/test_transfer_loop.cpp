// A transfer between two chunks: the sleep loop, the hangup receiver that
// rebuilds its configuration, and the transfer-size estimate.
#include <errno.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <numeric>
#include <vector>

#include "vbw_throttle_fixture.h"

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

// A transfer of alice (ftp download) registered under the limits stored by the test.
class SleepLoopTest : public ConfigTest {
protected:
    // Global record enabled (user-first unless given), alice's own download limit.
    void Start(uint64_t downKBps, int state = VESK_BW_STATE_ENABLED, const std::string &plan = "",
               const GlobalSettings &global = GlobalSettings())
    {
        ASSERT_NO_FATAL_FAILURE(StoreGlobal(kFtp, global));
        ASSERT_NO_FATAL_FAILURE(StoreLimit(VESK_BW_OWNER_USER, kAlice, kFtp, 0, downKBps, state, plan));
        Register();
    }
    void Register()
    {
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
    // 64 KiB at 128 KiB/s take 500 ms, of which 250 ms have passed: a wait of at least 250 ms.
    timeLast = VESKBandwidthCurrTimeGet() - 250000;
    int64_t start = NowMs();
    ASSERT_EQ(0, Pass(65536, 4321)) << log.Dump();
    EXPECT_GE(NowMs() - start, 240);
    EXPECT_EQ(131072u, status.expect_speed);
    EXPECT_LE(status.current_speed, 131072u);
    std::map<std::string, std::string> entry = Entry();
    EXPECT_EQ("4321", entry["progress"]);
    EXPECT_EQ(std::to_string(status.current_speed), entry["current speed"]);

    // The entry, collected meanwhile by another process, is written again.
    ASSERT_EQ(0, unlink(StatusFile("user", kAlice).c_str()));
    timeLast = VESKBandwidthCurrTimeGet() - 600000;
    ASSERT_EQ(0, Pass(65536, 5000));
    EXPECT_LE(status.current_speed, 109226u);  // no wait: the chunk took 600 ms
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
    EXPECT_EQ("0", Entry()["progress"]);
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
    EXPECT_GT(status.current_speed, 1024u * 1000);
    EXPECT_EQ("30", Entry()["progress"]);
}

// Alice's own limit of 512 KB/s and the limit of group users of 256 KB/s,
// which her transfer occupies, under the min policy.
class HupRecvTest : public SleepLoopTest {
protected:
    void SetUp() override
    {
        SleepLoopTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(StoreLimit(VESK_BW_OWNER_GROUP, kUsers, kFtp, 0, 256));
        ASSERT_NO_FATAL_FAILURE(Start(512, VESK_BW_STATE_ENABLED, "", Policies(VESK_BW_POLICY_MIN)));
        ASSERT_EQ(2, config.iLimitCount);
        ASSERT_TRUE(HasEntry("user", kAlice, getpid()) && HasEntry("group", kUsers, getpid()));
    }
    static GlobalSettings Policies(int userGroupPolicy, int state = VESK_BW_STATE_ENABLED)
    {
        return {state, userGroupPolicy, VESK_BW_POLICY_MIN, VESK_BW_OCCUPY_ALL, ""};
    }
    // Reloads and checks that the time base was reset to the reload.
    int Reload()
    {
        timeLast = 0;
        int64_t before = VESKBandwidthCurrTimeGet();
        int rc = VESKBandwidthHupRecv(&config, &status, &timeLast);
        EXPECT_GE(timeLast, before);
        EXPECT_LE(timeLast, VESKBandwidthCurrTimeGet());
        return rc;
    }
};

TEST_F(HupRecvTest, UnchangedLimitsDropOnlyTheGroupCopies)
{
    config.pLimit[1].ullCustomRate[0] = 4242;  // a mark that only the old configuration carries
    ASSERT_EQ(0, Reload()) << log.Dump();
    EXPECT_FALSE(HasEntry("group", kUsers, getpid()));
    EXPECT_TRUE(HasEntry("user", kAlice, getpid()));
    ASSERT_EQ(2, config.iLimitCount);
    EXPECT_EQ(0u, config.pLimit[1].ullCustomRate[0]);  // the new configuration
    EXPECT_EQ(256u, config.pLimit[1].ullCurRate[kDown]);
}

// A user limit of 0 (unlimited) ends the limiting under user-first, but not
// under min, where the group still limits.
TEST_F(HupRecvTest, UnlimitedUserRateRemovesTheUserEntryOnlyWhenNothingLimits)
{
    ASSERT_NO_FATAL_FAILURE(StoreLimit(VESK_BW_OWNER_USER, kAlice, kFtp, 300, 0));
    ASSERT_EQ(0, Reload()) << log.Dump();
    EXPECT_TRUE(HasEntry("user", kAlice, getpid()));
    ASSERT_NO_FATAL_FAILURE(StoreGlobal(kFtp, Policies(VESK_BW_POLICY_USER_FIRST)));
    ASSERT_EQ(0, Reload()) << log.Dump();
    EXPECT_FALSE(HasEntry("user", kAlice, getpid()));
    EXPECT_EQ(2, config.iLimitCount);
}

TEST_F(HupRecvTest, FailedRebuildKeepsTheOldConfiguration)
{
    const std::string path = "/usr/vesk/etc/bandwidth/bandwidth.ftp.conf";
    std::string text = ReadFile(path);
    size_t at = text.find("download rate=512");
    ASSERT_NE(std::string::npos, at) << text;
    WriteFile(path, text.replace(at, strlen("download rate=512"), "download rate=12k"));
    VESK_BANDWIDTH_LIMIT *oldLimits = config.pLimit;
    EXPECT_EQ(-1, Reload());
    EXPECT_EQ(oldLimits, config.pLimit);
    EXPECT_EQ(2, config.iLimitCount);
    EXPECT_EQ(10000u, config.pLimit[1].ullOccupyShare);
    EXPECT_TRUE(log.Contains("VESKBandwidthConfigGet failed. uid:[1026]")) << log.Dump();
    // The group copies were withdrawn before the rebuild and stay withdrawn.
    EXPECT_FALSE(HasEntry("group", kUsers, getpid()));
    EXPECT_TRUE(HasEntry("user", kAlice, getpid()));
}

// A configuration in memory: alice's own download limit of 128 KB/s, user-first.
class SizeEstimateTest : public ConfigTest {
protected:
    void SetUp() override
    {
        ConfigTest::SetUp();
        Use({Limit(VESK_BW_OWNER_USER, kAlice, 0, 128)});
        config.blUserConfExist = 1;
        config.globalConf = GlobalConf(kFtp);
        config.globalConf.iCurState = VESK_BW_STATE_ENABLED;
    }
    uint64_t Estimate(uint64_t request, int transferType = kDown)
    {
        uint64_t bytes = 4242;
        EXPECT_EQ(0, VESKBandwidthTransferSizeEstimate(&config, transferType, request, &bytes)) << log.Dump();
        return bytes;
    }
};

TEST_F(SizeEstimateTest, ChunkHoldsAtMostFiveSecondsOfData)
{
    EXPECT_EQ(655360u, Estimate(1048576));
    EXPECT_EQ(65536u, Estimate(65536));
    // Unlimited, or the protocol off (the policies are then not evaluated): the whole request.
    const uint64_t big = 1ull << 40;
    config.pLimit[0].ullCurRate[kDown] = 0;
    EXPECT_EQ(big, Estimate(big));
    config.pLimit[0].ullCurRate[kDown] = 128;
    config.globalConf.iCurState = VESK_BW_STATE_DISABLED;
    EXPECT_EQ(big, Estimate(big, VESK_BW_TRANSFER_ALL));
}

}  // namespace

// A transfer between two chunks: the sleep loop and the hangup receiver that
// rebuilds its configuration; and simulated transfers sharing a group limit.
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <vector>

#include "vbw_throttle_fixture.h"

namespace {

using namespace vbw;

int LocalHourNow()
{
    time_t now = time(nullptr);
    return localtime(&now)->tm_hour;
}

void NoteSignal(int) {}

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
        snprintf(config.pLimit[0].szSchedulePlan, sizeof(config.pLimit[0].szSchedulePlan), "%s", WeekPlan(c).c_str());
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
    ASSERT_EQ(0, Pass(65536, 5000));
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

// 16 MiB at 1 KB/s take 16,384 s, more than one usleep count can hold; a
// signal ends the whole wait, and the pass records the expected speed.
TEST_F(SleepLoopTest, SignalEndsALongWait)
{
    ASSERT_NO_FATAL_FAILURE(Start(1));
    struct sigaction action = {};
    action.sa_handler = NoteSignal;
    ASSERT_EQ(0, sigaction(SIGALRM, &action, nullptr));
    alarm(1);
    timeLast = VESKBandwidthCurrTimeGet();
    EXPECT_EQ(0, Pass(16u << 20, 10));
    EXPECT_EQ(1024u, status.current_speed);
    EXPECT_EQ("10", Entry()["progress"]);
    EXPECT_TRUE(log.Contains("usleep failed. Interrupted system call")) << log.Dump();
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

class SimulateTest : public SandboxTest {};

// Three users under one group limit of 768 KB/s move 512 KiB each.  Alone at
// the whole limit each would take 0.67 s; sharing it, together they need about
// 2 s.  The bound leaves room for transient overshoot.
TEST_F(SimulateTest, TransfersUnderOneGroupShareItsLimit)
{
    ASSERT_NO_FATAL_FAILURE(StoreUsersGroupLimit(768));
    int64_t start = NowMs();
    std::vector<pid_t> children;
    for (const char *user : {"alice", "bob", "carol"}) {
        children.push_back(ForkSimulator(user, kFtp, kDown, 512));
    }
    for (pid_t child : children) {
        EXPECT_EQ(0, WaitExit(child, 30000));
    }
    EXPECT_GE(NowMs() - start, 1000);
    for (pid_t child : children) {
        EXPECT_FALSE(HasEntry("group", kUsers, child));
    }
}

}  // namespace

// The transfer simulator: a group limit shared by several simulators, and
// limits switched off while it runs (a reload through killall).
#include <unistd.h>

#include <vector>

#include "vbw_throttle_fixture.h"

namespace {

using namespace vbw;

class SimulateTest : public SandboxTest {
protected:
    // Global ftp record with alice's own download limit.
    void LimitAlice(uint64_t downKBps)
    {
        ASSERT_NO_FATAL_FAILURE(StoreGlobal(kFtp, GlobalSettings()));
        ASSERT_NO_FATAL_FAILURE(StoreLimit(VESK_BW_OWNER_USER, kAlice, kFtp, 0, downKBps));
    }
};

TEST_F(SimulateTest, UnknownUserOrEmptyTransfer)
{
    ASSERT_NO_FATAL_FAILURE(LimitAlice(64));
    EXPECT_EQ(-1, VESKBandwidthSimulate("nosuchuser", kFtp, kDown, 64));
    EXPECT_TRUE(log.Contains("VESKUserGetUGID failed. user:[nosuchuser]")) << log.Dump();
    EXPECT_FALSE(Exists("/tmp/bandwidth"));

    // Size 0: registered, then removed at once.
    EXPECT_EQ(0, VESKBandwidthSimulate("alice", kFtp, kDown, 0)) << log.Dump();
    EXPECT_TRUE(Exists(StatusFile("user", kAlice)));
    EXPECT_FALSE(HasEntry("user", kAlice, getpid()));
}

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

TEST_F(SimulateTest, LimitSwitchedOffByAdministrator)
{
    ASSERT_NO_FATAL_FAILURE(StoreUsersGroupLimit(256));
    InstallKillallStandIn();
    pid_t child = ForkSimulator("alice", kFtp, kDown, 64 * 40);  // ten seconds if left alone
    ASSERT_TRUE(WaitUntil([&] { return HasEntry("group", kUsers, child); }, 5000));
    ASSERT_TRUE(HasEntry("user", kAlice, child));

    VESK_BANDWIDTH_GLOBAL_CONF off;
    ASSERT_EQ(0, VESKBandwidthGlobalConfGet(kFtp, &off));
    off.iState = VESK_BW_STATE_DISABLED;
    ASSERT_EQ(0, VESKBandwidthGlobalConfSet(&off));
    EXPECT_EQ(0, WaitExit(child, 6000)) << log.Dump();
    EXPECT_FALSE(HasEntry("group", kUsers, child));
    EXPECT_FALSE(HasEntry("user", kAlice, child));
}

}  // namespace

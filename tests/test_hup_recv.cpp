// The hangup receiver: a transfer's configuration rebuilt between two chunks.
#include <unistd.h>

#include "transfer_support.h"

namespace {

using namespace vbw;

// Alice downloads over ftp under her own limit of 512 KB/s and the limit of
// group users of 256 KB/s, which her transfer occupies.
class HupRecvTest : public vbw::ConfigTest {
protected:
    void SetUp() override
    {
        ConfigTest::SetUp();
        ASSERT_NO_FATAL_FAILURE(StorePolicies(VESK_BW_POLICY_MIN));
        ASSERT_NO_FATAL_FAILURE(StoreLimit(VESK_BW_OWNER_USER, kAlice, kFtp, 0, 512));
        ASSERT_NO_FATAL_FAILURE(StoreLimit(VESK_BW_OWNER_GROUP, kUsers, kFtp, 0, 256));
        ASSERT_EQ(0, VESKBandwidthConfigGet(kAlice, kFtp, &config));
        ASSERT_EQ(2, config.iLimitCount);
        ASSERT_EQ(0, VESKBandwidthStatusInit(&config, kDown, "/volume1/public/f", &timeLast, &status));
        ASSERT_TRUE(HasEntry("user", kAlice));
        ASSERT_TRUE(HasEntry("group", kUsers));
    }
    void StorePolicies(int userGroupPolicy, int state = VESK_BW_STATE_ENABLED)
    {
        ASSERT_NO_FATAL_FAILURE(StoreGlobal(kFtp, {state, userGroupPolicy, VESK_BW_POLICY_MIN, VESK_BW_OCCUPY_ALL, ""}));
    }

    bool HasEntry(const std::string &owner, unsigned int id)
    {
        return HasSection(StatusFile(owner, id), SectionName(getpid(), kDown));
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

    VESK_BANDWIDTH_STATUS status = {};
    int64_t timeLast = 0;
};

TEST_F(HupRecvTest, UnchangedLimitsDropOnlyTheGroupCopies)
{
    config.pLimit[1].ullCustomRate[0] = 4242;  // a mark that only the old configuration carries
    ASSERT_EQ(0, Reload()) << log.Dump();
    EXPECT_FALSE(HasEntry("group", kUsers));
    EXPECT_TRUE(HasEntry("user", kAlice));
    ASSERT_EQ(2, config.iLimitCount);
    EXPECT_EQ(kAlice, config.uid);
    EXPECT_EQ(kUsers, config.pLimit[1].id);
    EXPECT_EQ(0u, config.pLimit[1].ullCustomRate[0]);
    EXPECT_EQ(256u, config.pLimit[1].ullCurRate[kDown]);
}

TEST_F(HupRecvTest, ProtocolSwitchedOffRemovesEveryEntry)
{
    ASSERT_NO_FATAL_FAILURE(StorePolicies(VESK_BW_POLICY_MIN, VESK_BW_STATE_DISABLED));
    ASSERT_EQ(0, Reload()) << log.Dump();
    EXPECT_FALSE(HasEntry("user", kAlice));
    EXPECT_FALSE(HasEntry("group", kUsers));
    EXPECT_EQ(0, config.iLimitCount);
    EXPECT_EQ(nullptr, config.pLimit);
    EXPECT_EQ(VESK_BW_STATE_DISABLED, config.globalConf.iCurState);
}

// A user limit of 0 (unlimited) ends the limiting under user-first, but not
// under min, where the group still limits.
TEST_F(HupRecvTest, UnlimitedUserRateRemovesTheUserEntryOnlyWhenNothingLimits)
{
    ASSERT_NO_FATAL_FAILURE(StoreLimit(VESK_BW_OWNER_USER, kAlice, kFtp, 300, 0));
    ASSERT_EQ(0, Reload()) << log.Dump();
    EXPECT_TRUE(HasEntry("user", kAlice));

    ASSERT_NO_FATAL_FAILURE(StorePolicies(VESK_BW_POLICY_USER_FIRST));
    ASSERT_EQ(0, Reload()) << log.Dump();
    EXPECT_FALSE(HasEntry("user", kAlice));
    EXPECT_EQ(2, config.iLimitCount);
}

TEST_F(HupRecvTest, FailedRebuildKeepsTheOldConfiguration)
{
    const std::string path = "/usr/vesk/etc/bandwidth/bandwidth.ftp.conf";
    std::string text = ReadFile(path);
    size_t at = text.find("download rate=512");
    ASSERT_NE(std::string::npos, at) << text;
    text.replace(at, strlen("download rate=512"), "download rate=12k");
    WriteFile(path, text);
    VESK_BANDWIDTH_LIMIT *oldLimits = config.pLimit;

    EXPECT_EQ(-1, Reload());
    EXPECT_EQ(oldLimits, config.pLimit);
    EXPECT_EQ(2, config.iLimitCount);
    EXPECT_EQ(10000u, config.pLimit[1].ullOccupyShare);
    EXPECT_TRUE(log.Contains("VESKBandwidthConfigGet failed. uid:[1026]")) << log.Dump();
    // The group copies were withdrawn before the rebuild and stay withdrawn.
    EXPECT_FALSE(HasEntry("group", kUsers));
    EXPECT_TRUE(HasEntry("user", kAlice));
}

}  // namespace

// The transfer-size estimate and the speed preview.
#include <stdlib.h>

#include "transfer_support.h"

namespace {

using namespace vbw;

// A configuration in memory: alice's own download limit, user-first.
class SizeEstimateTest : public vbw::SandboxTest {
protected:
    void SetUp() override
    {
        vbw::SandboxTest::SetUp();
        memset(&config, 0, sizeof(config));
        config.uid = kAlice;
        config.iLimitCount = 1;
        config.blUserConfExist = 1;
        config.pLimit = (VESK_BANDWIDTH_LIMIT *)calloc(1, sizeof(VESK_BANDWIDTH_LIMIT));
        config.pLimit[0] = vbw::Limit(VESK_BW_OWNER_USER, kAlice, 0, 128);
        config.pLimit[0].ullMaxSpeedBps = 777;
        config.globalConf.iCurState = config.globalConf.iState = VESK_BW_STATE_ENABLED;
        config.globalConf.iProtocol = VESK_BW_PROTOCOL_FTP;
        config.globalConf.iUserGroupPolicy = VESK_BW_POLICY_USER_FIRST;
        config.globalConf.iInterGroupPolicy = VESK_BW_POLICY_MAX;
        config.globalConf.iOccupyPolicy = VESK_BW_OCCUPY_MAX;
    }
    void TearDown() override { VESKBandwidthConfigFree(&config); }

    uint64_t Estimate(uint64_t request, int transferType = kDown)
    {
        uint64_t bytes = 4242;
        EXPECT_EQ(0, VESKBandwidthTransferSizeEstimate(&config, transferType, request, &bytes)) << log.Dump();
        return bytes;
    }

    VESK_BANDWIDTH_CONFIG config;
};

TEST_F(SizeEstimateTest, ChunkHoldsAtMostFiveSecondsOfData)
{
    EXPECT_EQ(655360u, Estimate(1048576));
    EXPECT_EQ(131072u, config.pLimit[0].ullMaxSpeedBps);
    EXPECT_EQ(65536u, Estimate(65536));

    uint64_t bytes = 4242;  // a transfer type the policies refuse
    EXPECT_EQ(-1, VESKBandwidthTransferSizeEstimate(&config, VESK_BW_TRANSFER_ALL, 1 << 20, &bytes));
    EXPECT_EQ(4242u, bytes);
    EXPECT_TRUE(log.Contains("bandwidth_transfer_size_estimate.cpp")) << log.Dump();
}

TEST_F(SizeEstimateTest, UnlimitedTransferGetsTheWholeRequest)
{
    const uint64_t big = 1ull << 40;
    config.pLimit[0].ullCurRate[kDown] = 0;
    EXPECT_EQ(big, Estimate(big));

    // With the protocol off now the policies are not even evaluated, so a
    // transfer type they would refuse passes as well.
    config.pLimit[0].ullCurRate[kDown] = 128;
    config.pLimit[0].ullMaxSpeedBps = 777;
    config.globalConf.iCurState = VESK_BW_STATE_DISABLED;
    EXPECT_EQ(big, Estimate(big, VESK_BW_TRANSFER_ALL));
    EXPECT_EQ(777u, config.pLimit[0].ullMaxSpeedBps);
}

class PreviewTest : public vbw::SandboxTest {
protected:
    void StoreGlobal(int protocol, int state, int userGroupPolicy, const std::string &plan = "")
    {
        vbw::GlobalSpec spec;
        spec.state = state;
        spec.userGroup = userGroupPolicy;
        spec.plan = plan;
        ASSERT_NO_FATAL_FAILURE(vbw::StoreGlobal(protocol, spec));
    }

    uint64_t speeds[3] = {99, 99, 99};
};

TEST_F(PreviewTest, ShowsTheSpeedsOfTheLimitsInForce)
{
    ASSERT_NO_FATAL_FAILURE(StoreGlobal(kFtp, VESK_BW_STATE_ENABLED, VESK_BW_POLICY_USER_FIRST));
    ASSERT_NO_FATAL_FAILURE(vbw::StoreLimit(VESK_BW_OWNER_USER, kAlice, kFtp, 512, 1024));
    ASSERT_EQ(0, VESKBandwidthPreview(kAlice, kFtp, speeds)) << log.Dump();
    EXPECT_EQ(99u, speeds[0]);
    EXPECT_EQ(524288u, speeds[1]);
    EXPECT_EQ(1048576u, speeds[2]);

}

// Only a disabled protocol hides the limits; an hour that the global schedule
// leaves off still shows them.
TEST_F(PreviewTest, GlobalStateDecidesWhetherLimitsAreRead)
{
    ASSERT_NO_FATAL_FAILURE(vbw::StoreLimit(VESK_BW_OWNER_USER, kAlice, kFtp, 512, 1024));
    ASSERT_NO_FATAL_FAILURE(
        StoreGlobal(kFtp, VESK_BW_STATE_SCHEDULE, VESK_BW_POLICY_USER_FIRST, vbw::WeekPlan('0')));
    ASSERT_EQ(0, VESKBandwidthPreview(kAlice, kFtp, speeds)) << log.Dump();
    EXPECT_EQ(524288u, speeds[1]);
    EXPECT_EQ(1048576u, speeds[2]);

    ASSERT_NO_FATAL_FAILURE(StoreGlobal(kFtp, VESK_BW_STATE_DISABLED, VESK_BW_POLICY_USER_FIRST));
    ASSERT_EQ(0, VESKBandwidthPreview(kAlice, kFtp, speeds)) << log.Dump();
    EXPECT_EQ(0u, speeds[1]);
    EXPECT_EQ(0u, speeds[2]);
}

TEST_F(PreviewTest, RefusedProtocolWritesNothing)
{
    EXPECT_EQ(-1, VESKBandwidthPreview(kAlice, VESK_BW_PROTOCOL_ALL, speeds));
    EXPECT_TRUE(log.Contains("VESKBandwidthConfigGet failed. uid:[1026] protocol_type:[15] [0x0D00")) << log.Dump();
    EXPECT_EQ(99u, speeds[1]);
    EXPECT_EQ(99u, speeds[2]);
}

}  // namespace

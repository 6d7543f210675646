// The transfer-size estimate and the speed preview.
#include "transfer_support.h"

namespace {

using namespace vbw;

// A configuration in memory: alice's own download limit of 128 KB/s, user-first.
class SizeEstimateTest : public ConfigTest {
protected:
    void SetUp() override
    {
        ConfigTest::SetUp();
        Use({Limit(VESK_BW_OWNER_USER, kAlice, 0, 128)});
        config.pLimit[0].ullMaxSpeedBps = 777;
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

class PreviewTest : public SandboxTest {
protected:
    int Preview(int state, int protocol = kFtp)
    {
        StoreGlobal(kFtp, {state, VESK_BW_POLICY_USER_FIRST, VESK_BW_POLICY_MAX, VESK_BW_OCCUPY_MAX, WeekPlan('0')});
        return VESKBandwidthPreview(kAlice, protocol, speeds);
    }
    uint64_t speeds[3] = {99, 99, 99};
};

// Only a disabled protocol hides the limits; an hour that the global schedule
// leaves off still shows them.
TEST_F(PreviewTest, ShowsTheSpeedsOfTheLimitsUnlessTheProtocolIsOff)
{
    ASSERT_NO_FATAL_FAILURE(StoreLimit(VESK_BW_OWNER_USER, kAlice, kFtp, 512, 1024));
    for (int state : {VESK_BW_STATE_ENABLED, VESK_BW_STATE_SCHEDULE}) {
        ASSERT_EQ(0, Preview(state)) << log.Dump();
        EXPECT_EQ(99u, speeds[0]);
        EXPECT_EQ(524288u, speeds[1]);
        EXPECT_EQ(1048576u, speeds[2]);
    }
    ASSERT_EQ(0, Preview(VESK_BW_STATE_DISABLED)) << log.Dump();
    EXPECT_EQ(0u, speeds[1]);
    EXPECT_EQ(0u, speeds[2]);

    // A refused protocol writes nothing.
    speeds[1] = speeds[2] = 99;
    EXPECT_EQ(-1, Preview(VESK_BW_STATE_ENABLED, VESK_BW_PROTOCOL_ALL));
    EXPECT_TRUE(log.Contains("VESKBandwidthConfigGet failed. uid:[1026] protocol_type:[15] [0x0D00")) << log.Dump();
    EXPECT_EQ(99u, speeds[1]);
    EXPECT_EQ(99u, speeds[2]);
}

}  // namespace

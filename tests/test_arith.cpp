// Speed and time arithmetic, where a speed of 0 means unlimited.
#include <cstdint>
#include <sys/time.h>

#include "vbw_test.h"
#include "veskbandwidth.h"

namespace {

class ArithTest : public vbw::SandboxTest {};

TEST_F(ArithTest, ZeroIsTheLoosestLimit)
{
    EXPECT_EQ(0, VESKBandwidthIsLessThan(0, 5));
    EXPECT_EQ(1, VESKBandwidthIsLessThan(5, 0));
    EXPECT_EQ(0, VESKBandwidthIsLessThan(0, 0));
    EXPECT_EQ(0, VESKBandwidthIsLessThan(7, 7));
    EXPECT_EQ(1, VESKBandwidthIsLessThan(3, 7));
    EXPECT_EQ(0, VESKBandwidthIsLessThan(7, 3));
    EXPECT_EQ(1, VESKBandwidthIsLessThan(UINT64_MAX, 0));

    EXPECT_EQ(1, VESKBandwidthIsLargerThan(0, 5));
    EXPECT_EQ(0, VESKBandwidthIsLargerThan(5, 0));
    EXPECT_EQ(0, VESKBandwidthIsLargerThan(0, 0));
    EXPECT_EQ(0, VESKBandwidthIsLargerThan(7, 7));
    EXPECT_EQ(1, VESKBandwidthIsLargerThan(9, 7));
    EXPECT_EQ(0, VESKBandwidthIsLargerThan(7, 9));
    EXPECT_EQ(1, VESKBandwidthIsLargerThan(0, UINT64_MAX));
}

TEST_F(ArithTest, ZeroAbsorbsASum)
{
    EXPECT_EQ(0u, VESKBandwidthSum(0, 5));
    EXPECT_EQ(0u, VESKBandwidthSum(5, 0));
    EXPECT_EQ(7u, VESKBandwidthSum(3, 4));
    // No saturation: the sum wraps.
    EXPECT_EQ(1u, VESKBandwidthSum(UINT64_MAX, 2));
}

TEST_F(ArithTest, SpeedEstimateTakesAtLeastOneMicrosecond)
{
    EXPECT_EQ(65536000000u, VESKBandwidthSpeedEstimate(0, 65536));
    EXPECT_EQ(65536000000u, VESKBandwidthSpeedEstimate(-5, 65536));
    EXPECT_EQ(131072u, VESKBandwidthSpeedEstimate(500000, 65536));
    EXPECT_EQ(0u, VESKBandwidthSpeedEstimate(1000000, 0));
    // Truncating division: 10 bytes in 3 s.
    EXPECT_EQ(3u, VESKBandwidthSpeedEstimate(3000000, 10));
}

TEST_F(ArithTest, SleepEstimateWaitsOnlyForTheRest)
{
    EXPECT_EQ(250000, VESKBandwidthSleepEstimate(250000, 65536, 131072));
    EXPECT_EQ(0, VESKBandwidthSleepEstimate(600000, 65536, 131072));
    EXPECT_EQ(0, VESKBandwidthSleepEstimate(500000, 65536, 131072));
    // Unlimited never waits, whatever was moved.
    EXPECT_EQ(0, VESKBandwidthSleepEstimate(0, 1u << 30, 0));
    EXPECT_EQ(0, VESKBandwidthSleepEstimate(-7, 0, 0));
    // No time elapsed counts as one microsecond.
    EXPECT_EQ(499999, VESKBandwidthSleepEstimate(0, 65536, 131072));
    EXPECT_EQ(499999, VESKBandwidthSleepEstimate(-100, 65536, 131072));
    // The due time is truncated, not rounded up: 1 byte at 3 B/s is 333333 us.
    EXPECT_EQ(333332, VESKBandwidthSleepEstimate(1, 1, 3));
}

TEST_F(ArithTest, ClockIsWallClockMicroseconds)
{
    struct timeval before = {0, 0};
    struct timeval after = {0, 0};
    gettimeofday(&before, nullptr);
    int64_t first = VESKBandwidthCurrTimeGet();
    int64_t second = VESKBandwidthCurrTimeGet();
    gettimeofday(&after, nullptr);
    EXPECT_GE(first, before.tv_sec * 1000000LL + before.tv_usec);
    EXPECT_LE(first, second);
    EXPECT_LE(second, after.tv_sec * 1000000LL + after.tv_usec);
}

}  // namespace

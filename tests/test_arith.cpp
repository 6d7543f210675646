// Speed and time arithmetic, where a speed of 0 means unlimited.
#include <cstdint>
#include <sys/time.h>

#include "vbw_test.h"
#include "veskbandwidth.h"

namespace {

class ArithTest : public vbw::SandboxTest {};

TEST_F(ArithTest, ZeroIsTheLoosestLimitAndAbsorbsASum)
{
    const struct {
        uint64_t a, b;
        int less, larger;
        uint64_t sum;
    } cases[] = {
        {0, 5, 0, 1, 0}, {5, 0, 1, 0, 0},     {0, 0, 0, 0, 0},          {7, 7, 0, 0, 14},
        {3, 7, 1, 0, 10}, {9, 7, 0, 1, 16},   {UINT64_MAX, 2, 0, 1, 1},  // the sum wraps
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.less, VESKBandwidthIsLessThan(c.a, c.b)) << c.a << " < " << c.b;
        EXPECT_EQ(c.larger, VESKBandwidthIsLargerThan(c.a, c.b)) << c.a << " > " << c.b;
        EXPECT_EQ(c.sum, VESKBandwidthSum(c.a, c.b)) << c.a << " + " << c.b;
    }
}

TEST_F(ArithTest, EstimatesTakeAtLeastOneMicrosecondAndTruncate)
{
    EXPECT_EQ(65536000000u, VESKBandwidthSpeedEstimate(0, 65536));
    EXPECT_EQ(65536000000u, VESKBandwidthSpeedEstimate(-5, 65536));
    EXPECT_EQ(131072u, VESKBandwidthSpeedEstimate(500000, 65536));
    EXPECT_EQ(3u, VESKBandwidthSpeedEstimate(3000000, 10));

    EXPECT_EQ(250000, VESKBandwidthSleepEstimate(250000, 65536, 131072));
    EXPECT_EQ(0, VESKBandwidthSleepEstimate(600000, 65536, 131072));
    EXPECT_EQ(0, VESKBandwidthSleepEstimate(0, 1u << 30, 0));  // unlimited never waits
    EXPECT_EQ(499999, VESKBandwidthSleepEstimate(-100, 65536, 131072));
    EXPECT_EQ(333332, VESKBandwidthSleepEstimate(1, 1, 3));  // 1 byte at 3 B/s is due after 333333 us
}

TEST_F(ArithTest, ClockIsWallClockMicroseconds)
{
    struct timeval before = {0, 0}, after = {0, 0};
    gettimeofday(&before, nullptr);
    int64_t first = VESKBandwidthCurrTimeGet();
    int64_t second = VESKBandwidthCurrTimeGet();
    gettimeofday(&after, nullptr);
    EXPECT_GE(first, before.tv_sec * 1000000LL + before.tv_usec);
    EXPECT_LE(first, second);
    EXPECT_LE(second, after.tv_sec * 1000000LL + after.tv_usec);
}

}  // namespace

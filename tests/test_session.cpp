// Transfer sessions: pacing by deadlines above the shared pass of the sleep
// loop, which publishes the speed, notices a switch-off, follows schedules
// and reloads changed limits.
#include <dlfcn.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "vbw_throttle_fixture.h"

namespace {

// The library's clocks land in these functions: the waits are counted and
// can be made to wake late, and the wall clock can be moved ahead.
struct ClockInjection {
    long lateNs = 0;
    int sleeps = 0;
    int64_t aheadUs = 0;
} g_clock;

template <typename Function>
Function Real(const char *name)
{
    return (Function)dlsym(RTLD_NEXT, name);
}

}  // namespace

// Exported, so that the library binds to them rather than to the C library.
extern "C" __attribute__((visibility("default"))) int
clock_nanosleep(clockid_t clock, int flags, const struct timespec *request, struct timespec *remain)
{
    static auto real = Real<int (*)(clockid_t, int, const struct timespec *, struct timespec *)>("clock_nanosleep");
    ++g_clock.sleeps;
    int rc = real(clock, flags, request, remain);
    struct timespec late = {0, g_clock.lateNs};
    nanosleep(&late, nullptr);
    return rc;
}

extern "C" __attribute__((visibility("default"))) int gettimeofday(struct timeval *tv, void *tz)
{
    static auto real = Real<int (*)(struct timeval *, void *)>("gettimeofday");
    int rc = real(tv, tz);
    tv->tv_sec += g_clock.aheadUs / 1000000;
    return rc;
}

namespace {

using namespace vbw;

const uint64_t kKiB = 1024;

// A download of alice under her own ftp limit.
class SessionTest : public SandboxTest {
protected:
    void TearDown() override
    {
        EXPECT_EQ(0, VESKBandwidthSessionClose(session));
        g_clock = ClockInjection();
    }
    static void Limit(uint64_t downKBps, int state = VESK_BW_STATE_ENABLED, const std::string &plan = "")
    {
        StoreGlobal(kFtp, GlobalSettings());
        StoreLimit(VESK_BW_OWNER_USER, kAlice, kFtp, 0, downKBps, state, plan);
    }
    int Open() { return VESKBandwidthSessionOpen(kAlice, kFtp, kDown, "/volume1/public/f", &session); }
    uint64_t Chunk()
    {
        uint64_t chunk = 0;
        EXPECT_EQ(0, VESKBandwidthSessionChunk(session, &chunk));
        return chunk;
    }
    // Moves up to `bytes` in the chunks the session asks for; the bytes
    // moved until a Pace ended the transfer, or all of them.
    uint64_t Move(uint64_t bytes)
    {
        uint64_t moved = 0;
        while (moved < bytes) {
            uint64_t chunk = std::min(Chunk(), bytes - moved);
            moved += chunk;
            if (0 != VESKBandwidthSessionPace(session, chunk)) {
                break;
            }
        }
        return moved;
    }
    // Moves chunks until `done` holds, at most `limit` bytes; the bytes moved.
    uint64_t MoveUntil(const std::function<bool()> &done, uint64_t limit)
    {
        uint64_t moved = 0;
        while (!done() && moved < limit) {
            moved += Move(Chunk());
        }
        return moved;
    }
    std::map<std::string, std::string> Entry()
    {
        return ReadSection(StatusFile("user", kAlice), SectionName(getpid(), kDown));
    }
    uint64_t ExpectSpeed() { return strtoull(Entry()["expect speed"].c_str(), nullptr, 10); }

    VESK_BANDWIDTH_SESSION *session = nullptr;
};

// Every wait wakes 2 ms late: 120 of them would add 240 ms if the lateness
// were not made up by the next wait.
TEST_F(SessionTest, LateWakeUpsAreRepaid)
{
    ASSERT_NO_FATAL_FAILURE(Limit(1024));
    ASSERT_EQ(0, Open()) << log.Dump();
    g_clock.lateNs = 2000000;
    int64_t start = NowMs();
    EXPECT_EQ(2048 * kKiB, Move(2048 * kKiB));
    int64_t tookMs = NowMs() - start;
    EXPECT_GE(g_clock.sleeps, 110);
    EXPECT_GE(tookMs, 1950);
    EXPECT_LE(tookMs, 2100);
}

TEST_F(SessionTest, SwitchedOffTransferEndsWithinOnePass)
{
    ASSERT_NO_FATAL_FAILURE(Limit(1024));
    ASSERT_EQ(0, Open()) << log.Dump();
    EXPECT_EQ(16 * kKiB, Move(16 * kKiB));
    ASSERT_EQ(1048576u, ExpectSpeed()) << log.Dump();
    ASSERT_EQ(0, VESKBandwidthStatusSetActiveByUserName("alice", kDown, getpid(), 0));

    // One pass interval at 1 MiB/s holds 205 KiB.
    EXPECT_LE(Move(8192 * kKiB), 240 * kKiB);
    EXPECT_EQ(BW_ERR_DEACTIVATED, VLIBCErrGet());
    EXPECT_EQ(-1, VESKBandwidthSessionPace(session, 0));
    EXPECT_EQ("0", Entry()["active"]);
}

// Alice's limit is on at every hour but those around 12 hours from now; the
// wall clock jumps into them, and on to an hour where the limit is on again.
TEST_F(SessionTest, ScheduleBoundaryLiftsAndRestoresTheLimit)
{
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    std::string plan = WeekPlan('1');
    for (int ahead : {11, 12, 13}) {
        plan[(local.tm_wday * 24 + local.tm_hour + ahead) % 168] = '0';
    }
    ASSERT_NO_FATAL_FAILURE(Limit(1024, VESK_BW_STATE_SCHEDULE, plan));
    ASSERT_EQ(0, Open()) << log.Dump();
    Move(16 * kKiB);
    ASSERT_FALSE(Entry().empty()) << log.Dump();

    g_clock.aheadUs = 12 * 3600 * 1000000LL;
    EXPECT_LE(MoveUntil([&] { return Entry().empty(); }, 1024 * kKiB), 240 * kKiB);
    ASSERT_EQ(16384 * kKiB, Chunk());
    g_clock.sleeps = 0;
    EXPECT_EQ(0, VESKBandwidthSessionPace(session, 16384 * kKiB));
    EXPECT_EQ(0, g_clock.sleeps);

    g_clock.aheadUs = 15 * 3600 * 1000000LL;
    for (int i = 0; i < 100 && Entry().empty(); ++i) {
        usleep(10000);
        EXPECT_EQ(0, VESKBandwidthSessionPace(session, 0));
    }
    EXPECT_EQ(1048576u, ExpectSpeed()) << log.Dump();
    EXPECT_EQ(1048576u / 60, Chunk());
}

TEST_F(SessionTest, ReloadTakesAChangedLimitAndSoDoesAChangedFile)
{
    ASSERT_NO_FATAL_FAILURE(Limit(1024));
    ASSERT_EQ(0, Open()) << log.Dump();
    Move(16 * kKiB);
    ASSERT_EQ(1048576u, ExpectSpeed()) << log.Dump();

    // Asked for: the next Pace already runs under the new limit.
    ASSERT_NO_FATAL_FAILURE(StoreLimit(VESK_BW_OWNER_USER, kAlice, kFtp, 0, 512));
    ASSERT_EQ(0, VESKBandwidthSessionReload(session)) << log.Dump();
    Move(Chunk());
    EXPECT_EQ(524288u, ExpectSpeed());
    EXPECT_EQ(524288u / 60, Chunk());

    // Noticed: within one pass interval (102 KiB at 512 KiB/s).
    ASSERT_NO_FATAL_FAILURE(StoreLimit(VESK_BW_OWNER_USER, kAlice, kFtp, 0, 256));
    EXPECT_LE(MoveUntil([&] { return 262144u == ExpectSpeed(); }, 1024 * kKiB), 140 * kKiB);
}

// Two processes of alice move 256 KiB each under her limit of 256 KiB/s:
// shared, they take two seconds; each at the whole limit, one.
TEST_F(SessionTest, TwoSessionsOfOneUserShareTheUserLimit)
{
    ASSERT_NO_FATAL_FAILURE(Limit(256));
    int64_t start = NowMs();
    pid_t other = Fork([&] {
        bool moved = 0 == Open() && 256 * kKiB == Move(256 * kKiB);
        return 0 == VESKBandwidthSessionClose(session) && moved ? 0 : 1;
    });
    ASSERT_EQ(0, Open()) << log.Dump();
    EXPECT_EQ(256 * kKiB, Move(256 * kKiB));
    EXPECT_EQ(0, WaitExit(other, 10000));
    EXPECT_GE(NowMs() - start, 1700) << log.Dump();
}

// A plain file where the status directory belongs: no entry can be written.
TEST_F(SessionTest, UnwritableSharedFilesKeepThePacing)
{
    ASSERT_NO_FATAL_FAILURE(Limit(512));
    rmdir("/tmp/bandwidth");
    WriteFile("/tmp/bandwidth", "");
    ASSERT_EQ(0, Open()) << log.Dump();
    int64_t start = NowMs();
    EXPECT_EQ(768 * kKiB, Move(768 * kKiB));
    EXPECT_GE(NowMs() - start, 1450);
    EXPECT_EQ(1, log.Count("shared pass failed")) << log.Dump();
    EXPECT_GE(log.Count("save info failed"), 1) << log.Dump();
}

}  // namespace

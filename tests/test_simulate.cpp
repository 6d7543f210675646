// The transfer simulator: its chunks, a group limit shared by several
// simulators, deactivation, reloads, and limits switched off while it runs.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <regex>
#include <vector>

#include "vbw_throttle_fixture.h"

namespace {

using namespace vbw;
const char kCallsFile[] = "/tmp/loop.calls";

void RecordCall(char call)
{
    int fd = open(kCallsFile, O_WRONLY | O_CREAT | O_APPEND, 0644);
    EXPECT_EQ(1, write(fd, &call, 1));
    close(fd);
}

template <typename Fn>
Fn Next(const char *name)
{
    return (Fn)dlsym(RTLD_NEXT, name);
}

}  // namespace

// The simulator's calls of the hangup receiver and of the sleep loop pass
// through these first: each is recorded in kCallsFile, R for a reload, S for
// a pass, by whichever process of the test makes it.
extern "C" __attribute__((visibility("default"))) int VESKBandwidthHupRecv(VESK_BANDWIDTH_CONFIG *pConfig,
                                                                           VESK_BANDWIDTH_STATUS *pStatus,
                                                                           int64_t *pTime)
{
    RecordCall('R');
    static auto real = Next<decltype(&VESKBandwidthHupRecv)>("VESKBandwidthHupRecv");
    return real(pConfig, pStatus, pTime);
}

extern "C" __attribute__((visibility("default"))) int VESKBandwidthSleepInLoop(VESK_BANDWIDTH_CONFIG *pConfig,
                                                                               uint64_t cbTransferred,
                                                                               uint32_t progress, int64_t *pTimeLast,
                                                                               VESK_BANDWIDTH_STATUS *pStatus)
{
    RecordCall('S');
    static auto real = Next<decltype(&VESKBandwidthSleepInLoop)>("VESKBandwidthSleepInLoop");
    return real(pConfig, cbTransferred, progress, pTimeLast, pStatus);
}

namespace {

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

// 1024 units are 16 chunks of 64 KiB; at 2 MiB/s they take half a second.
// A watcher sees the progress that each pass publishes.
TEST_F(SimulateTest, PlaysEveryChunkThroughTheSleepLoop)
{
    ASSERT_NO_FATAL_FAILURE(LimitAlice(2048));
    const std::string file = StatusFile("user", kAlice);
    const std::string section = SectionName(getpid(), kDown);
    std::atomic<bool> done(false);
    std::vector<int> seen;
    std::thread watcher([&] {
        while (!done) {
            std::map<std::string, std::string> entry = ReadSection(file, section);
            if (!entry.empty() && (seen.empty() || seen.back() != atoi(entry["progress"].c_str()))) {
                seen.push_back(atoi(entry["progress"].c_str()));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
        }
    });
    int64_t start = NowMs();
    int rc = VESKBandwidthSimulate("alice", kFtp, kDown, 1024);
    int64_t tookMs = NowMs() - start;
    done = true;
    watcher.join();

    EXPECT_EQ(0, rc) << log.Dump();
    EXPECT_GE(tookMs, 400);
    EXPECT_LE(tookMs, 3000);
    EXPECT_FALSE(HasEntry("user", kAlice, getpid()));
    EXPECT_GE(seen.size(), 4u);
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
    for (int progress : seen) {
        EXPECT_EQ(0, progress % 625) << progress;
        EXPECT_LE(progress, 10000);
    }
}

TEST_F(SimulateTest, DeactivatedTransferIsClosed)
{
    ASSERT_NO_FATAL_FAILURE(LimitAlice(128));
    pid_t child = ForkSimulator("alice", kFtp, kDown, 64 * 100);  // fifty seconds if left alone
    ASSERT_TRUE(WaitUntil([&] { return HasEntry("user", kAlice, child); }, 5000));

    // A save of the transfer overlapping ours can undo it; the next try heals that.
    int status = -1;
    for (int attempt = 0; attempt < 4 && -1 == status; ++attempt) {
        ASSERT_EQ(0, VESKBandwidthStatusSetActiveByUserName("alice", kDown, child, 0)) << log.Dump();
        status = WaitExit(child, attempt < 3 ? 1500 : 0);
    }
    EXPECT_EQ(1, status);
    EXPECT_EQ(1, log.Count("Connection was closed. user:[alice] file:[/volume1/public/" + std::to_string(child) +
                           "-4-2-6400] [0x0300"))
        << log.Dump();
}

TEST_F(SimulateTest, HangupMakesExactlyOneReload)
{
    ASSERT_NO_FATAL_FAILURE(LimitAlice(256));  // a pass every quarter of a second
    InstallKillallStandIn();
    pid_t child = ForkSimulator("alice", kFtp, kDown, 64 * 40);
    ASSERT_TRUE(WaitUntil([&] { return HasEntry("user", kAlice, child); }, 5000));
    ASSERT_TRUE(WaitUntil([] { return !ReadFile(kCallsFile).empty(); }, 2000))
        << "the library's own calls no longer reach the recording stand-ins";

    EXPECT_EQ(0, VESKBandwidthHupSimulator());
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    EXPECT_EQ(-1, WaitExit(child, 0));  // still transferring
    EXPECT_EQ("-sighup veskbandwidth\n", ReadFile("/tmp/killall.args"));
    std::string calls = ReadFile(kCallsFile);
    EXPECT_EQ(1, std::count(calls.begin(), calls.end(), 'R')) << calls;
    EXPECT_TRUE(std::regex_match(calls, std::regex("S+RS{2,}"))) << calls;
}

TEST_F(SimulateTest, TransfersUnderOneGroupShareItsLimit)
{
    const uint64_t fairBps = 256 * 1024;
    ASSERT_NO_FATAL_FAILURE(StoreUsersGroupLimit(3 * 256));
    std::vector<pid_t> children;
    for (const char *user : {"alice", "bob", "carol"}) {
        children.push_back(ForkSimulator(user, kFtp, kDown, 512));  // two seconds at the fair part
    }

    // Sample the group's file while the three run side by side.
    std::map<unsigned int, std::vector<uint64_t>> speeds;
    int samplesWithAll = 0;
    for (int64_t end = NowMs() + 1700; NowMs() < end;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        VESK_BANDWIDTH_STATUS *list = NULL;
        VESKBandwidthStatusGetAll(VESK_BW_OWNER_GROUP, kUsers, kFtp, kDown, &list);
        std::map<unsigned int, uint64_t> sample;
        for (VESK_BANDWIDTH_STATUS *p = list; NULL != p; p = p->pNext) {
            sample[p->uid] = p->current_speed;
        }
        VESKBandwidthStatusListFree(&list);
        if (3 == sample.size()) {
            ++samplesWithAll;
            for (const auto &entry : sample) {
                speeds[entry.first].push_back(entry.second);
            }
        }
    }
    for (pid_t child : children) {
        EXPECT_EQ(0, WaitExit(child, 10000));
    }
    EXPECT_GE(samplesWithAll, 3);
    ASSERT_EQ(3u, speeds.size());
    for (auto &[uid, samples] : speeds) {
        std::sort(samples.begin(), samples.end());
        uint64_t median = samples[samples.size() / 2];
        EXPECT_GE(median, fairBps / 2) << "uid " << uid;
        EXPECT_LE(median, fairBps * 3 / 2) << "uid " << uid;
    }
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
    EXPECT_EQ(0, WaitExit(child, 3000)) << log.Dump();
    EXPECT_FALSE(HasEntry("group", kUsers, child));
    EXPECT_FALSE(HasEntry("user", kAlice, child));
}

}  // namespace

// The three reload senders against real processes: web file manager workers,
// the WebDAV server's process group, and the simulators through killall.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "vbw_throttle_fixture.h"

namespace {

// A shell whose command line begins with the given arguments (its script
// follows the first one) that writes R to its log once ready, then H for
// every SIGHUP and U for every SIGUSR2 it receives; killed with its scope.
class Probe {
public:
    // pgid: -1 stays in the test's group, 0 leads a new group, else joins that group.
    explicit Probe(std::vector<std::string> args, pid_t pgid = -1, const char *exe = "/bin/sh")
    {
        static int serial = 0;
        log_ = "/tmp/probe-" + std::to_string(++serial);
        const std::string to = " >>" + log_;
        args.insert(args.begin() + 1, {"-c", "trap 'printf H" + to + "' HUP; trap 'printf U" + to + "' USR2; printf R" +
                                                 to + "; while :; do sleep 0.05; done"});
        pid_ = vbw::Fork([&] {
            if (pgid >= 0) {
                setpgid(0, pgid);
            }
            std::vector<char *> argv;
            for (const std::string &arg : args) {
                argv.push_back(const_cast<char *>(arg.c_str()));
            }
            argv.push_back(nullptr);
            execv(exe, argv.data());
            return 127;
        });
        if (pgid >= 0) {
            setpgid(pid_, pgid);  // either side may win the race; both ask the same
        }
        EXPECT_TRUE(vbw::WaitUntil([&] { return vbw::ReadFile(log_) == "R"; }, 5000)) << "probe did not start";
    }
    ~Probe() { Stop(); }
    Probe(const Probe &) = delete;
    Probe &operator=(const Probe &) = delete;

    pid_t Pid() const { return pid_; }
    void Stop()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
    }
    // The signals received since the last call, waiting a little for late ones.
    std::string Signals()
    {
        vbw::WaitUntil([&] { return vbw::ReadFile(log_).size() > seen_; }, 300);
        usleep(50000);
        std::string news = vbw::ReadFile(log_).substr(seen_);
        seen_ += news.size();
        return news;
    }

private:
    std::string log_;
    pid_t pid_ = -1;
    size_t seen_ = 1;  // after the R
};

class HupSenders : public vbw::SandboxTest {};

TEST_F(HupSenders, LanternpostSignalsWorkersByTheirFirstArgumentOnly)
{
    Probe download({"VESK.Lanternpost.Download"});
    Probe formUpload({"php-fpm: VESK.Lanternpost.FormUpload", "--worker"});
    Probe copyMove({"VESK.Lanternpost.CopyMove"});
    Probe secondArg({"/usr/bin/worker", "VESK.Lanternpost.Upload"});
    Probe unrelated({"VESK.Lanternpost.Other"});
    Probe farAway({std::string(130, 'x') + "VESK.Lanternpost.Upload"});  // past the 127 bytes searched
    VESKBandwidthHupLanternpost();
    for (Probe *worker : {&download, &formUpload, &copyMove}) {
        EXPECT_EQ("H", worker->Signals());
    }
    for (Probe *other : {&secondArg, &unrelated, &farAway}) {
        EXPECT_EQ("", other->Signals());
    }
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(HupSenders, WebDAVSendsUsr2ToTheWholeProcessGroupNamedInItsPidFile)
{
    Probe leader({"httpd"}, 0);
    Probe member({"httpd"}, leader.Pid());
    Probe outsider({"httpd"});  // in the test's own group, which a pid of 0 would name
    const char kPidFile[] = "/run/httpd/httpd-webdav.pid";
    EXPECT_EQ(-1, VESKBandwidthHupWebDAV()) << "missing pid file";
    vbw::MakeDirs("/run/httpd");
    for (const char *szContent : {"0\n", "-5\n"}) {
        vbw::WriteFile(kPidFile, szContent);
        EXPECT_EQ(-1, VESKBandwidthHupWebDAV()) << szContent;
    }
    EXPECT_EQ("", outsider.Signals());
    vbw::WriteFile(kPidFile, std::to_string(leader.Pid()) + "\n");
    EXPECT_EQ(0, VESKBandwidthHupWebDAV());
    EXPECT_EQ("U", leader.Signals());
    EXPECT_EQ("U", member.Signals());
    EXPECT_EQ("", outsider.Signals());

    // A group that no longer exists: killpg fails with ESRCH, passed on.
    pid_t gone = vbw::Fork([] { return 0; });
    ASSERT_EQ(0, vbw::WaitExit(gone, 5000));
    vbw::WriteFile(kPidFile, std::to_string(gone) + "\n");
    errno = 0;
    EXPECT_EQ(-1, VESKBandwidthHupWebDAV());
    EXPECT_EQ(ESRCH, errno);
}

TEST_F(HupSenders, SimulatorRunsKillallAndReturnsItsStatus)
{
    vbw::InstallKillallStandIn(3);
    ASSERT_EQ(0, symlink("/bin/sh", "/tmp/veskbandwidth"));  // a process named veskbandwidth
    Probe simulator({"veskbandwidth"}, -1, "/tmp/veskbandwidth");
    Probe other({"veskbandwidth"});
    EXPECT_EQ(3, VESKBandwidthHupSimulator());
    EXPECT_EQ("-sighup veskbandwidth\n", vbw::ReadFile("/tmp/killall.args"));
    EXPECT_EQ("H", simulator.Signals());
    EXPECT_EQ("", other.Signals());
}

}  // namespace

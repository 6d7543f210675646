// The three reload senders, against real processes: web file manager workers
// found by their first argument, the WebDAV server's process group, and the
// simulators reached through killall.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "vbw_test.h"
#include "veskbandwidth.h"
#include "vesk_system.h"

namespace {

const char kProbeFdEnv[] = "VBW_SIGNAL_PROBE_FD";
const char kProbeCommEnv[] = "VBW_SIGNAL_PROBE_COMM";

// A re-executed copy of this program that reports "R" once ready, then "H" for
// every SIGHUP and "U" for every SIGUSR2 it receives, and never runs the tests.
[[noreturn]] void ProbeMain(int fd)
{
    if (const char *szComm = getenv(kProbeCommEnv)) {
        prctl(PR_SET_NAME, szComm);
    }
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGHUP);
    sigaddset(&set, SIGUSR2);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    if (write(fd, "R", 1) != 1) {
        _exit(1);
    }
    for (;;) {
        int sig = 0;
        if (0 == sigwait(&set, &sig)) {
            const char c = SIGHUP == sig ? 'H' : 'U';
            if (write(fd, &c, 1) != 1) {
                _exit(1);
            }
        }
    }
}

__attribute__((constructor)) void ProbeStartIfAsked()
{
    if (const char *szFd = getenv(kProbeFdEnv)) {
        ProbeMain(atoi(szFd));
    }
}

// A running probe with the given command line; killed when it goes out of scope.
class Probe {
public:
    // pgid: -1 stays in the test's group, 0 leads a new group, else joins that group.
    explicit Probe(const std::vector<std::string> &args, pid_t pgid = -1, const char *szComm = nullptr)
    {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) {
            ADD_FAILURE() << "pipe2: " << strerror(errno);
            return;
        }
        pid_ = fork();
        if (0 == pid_) {
            if (pgid >= 0) {
                setpgid(0, pgid);
            }
            int fd = dup(fds[1]);  // without close-on-exec
            setenv(kProbeFdEnv, std::to_string(fd).c_str(), 1);
            if (nullptr != szComm) {
                setenv(kProbeCommEnv, szComm, 1);
            }
            std::vector<char *> argv;
            for (const std::string &arg : args) {
                argv.push_back(const_cast<char *>(arg.c_str()));
            }
            argv.push_back(nullptr);
            execv("/proc/self/exe", argv.data());
            _exit(127);
        }
        close(fds[1]);
        fd_ = fds[0];
        if (pgid >= 0) {
            setpgid(pid_, pgid);  // either side may win the race; both ask the same
        }
        EXPECT_EQ("R", Read(5000)) << "probe did not start";
    }
    ~Probe()
    {
        Stop();
        if (fd_ >= 0) {
            close(fd_);
        }
    }
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
        std::string got;
        for (std::string more; !(more = Read(300)).empty();) {
            got += more;
        }
        return got;
    }

private:
    // What the probe wrote within iWaitMs, or nothing.
    std::string Read(int iWaitMs)
    {
        struct pollfd pfd = {fd_, POLLIN, 0};
        char buf[16];
        ssize_t n = 0;
        if (poll(&pfd, 1, iWaitMs) > 0 && (n = read(fd_, buf, sizeof(buf))) > 0) {
            return std::string(buf, (size_t)n);
        }
        return "";
    }

    pid_t pid_ = -1;
    int fd_ = -1;
};

class HupSenders : public vbw::SandboxTest {};

TEST_F(HupSenders, LanternpostSignalsWorkersByTheirFirstArgumentOnly)
{
    Probe download({"VESK.Lanternpost.Download"});
    Probe upload({"VESK.Lanternpost.Upload", "--worker"});
    Probe formUpload({"php-fpm: VESK.Lanternpost.FormUpload"});
    Probe copyMove({"VESK.Lanternpost.CopyMove"});
    Probe both({"VESK.Lanternpost.Download+VESK.Lanternpost.CopyMove"});
    Probe secondArg({"/usr/bin/worker", "VESK.Lanternpost.Upload"});
    Probe unrelated({"VESK.Lanternpost.Other"});
    // Only the first 127 bytes of the command line are searched.
    Probe farAway({std::string(130, 'x') + "VESK.Lanternpost.Upload"});

    VESKBandwidthHupLanternpost();

    EXPECT_EQ("H", download.Signals());
    EXPECT_EQ("H", upload.Signals());
    EXPECT_EQ("H", formUpload.Signals());
    EXPECT_EQ("H", copyMove.Signals());
    EXPECT_EQ("H", both.Signals());
    EXPECT_EQ("", secondArg.Signals());
    EXPECT_EQ("", unrelated.Signals());
    EXPECT_EQ("", farAway.Signals());
    EXPECT_EQ(0, log.Lines().size()) << log.Dump();

    // Every call scans afresh: a worker is signalled again on the next call.
    VESKBandwidthHupLanternpost();
    EXPECT_EQ("H", download.Signals());
    EXPECT_EQ("", secondArg.Signals());
}

TEST_F(HupSenders, WebDAVSendsUsr2ToTheWholeProcessGroup)
{
    Probe leader({"httpd"}, 0);
    Probe member({"httpd"}, leader.Pid());
    Probe outsider({"httpd"});
    vbw::MakeDirs("/run/httpd");
    vbw::WriteFile("/run/httpd/httpd-webdav.pid", std::to_string(leader.Pid()) + "\n");

    EXPECT_EQ(0, VESKBandwidthHupWebDAV());

    EXPECT_EQ("U", leader.Signals());
    EXPECT_EQ("U", member.Signals());
    EXPECT_EQ("", outsider.Signals());
}

TEST_F(HupSenders, WebDAVWithoutAUsablePidSignalsNothing)
{
    // A probe in the test's own process group catches a signal sent to group 0.
    Probe sameGroup({"httpd"});

    // Whatever the pid file gives below 1 is passed on, and nothing is signalled.
    const char kPidFile[] = "/run/httpd/httpd-webdav.pid";
    EXPECT_LT(VESKBandwidthHupWebDAV(), 1) << "missing pid file";
    EXPECT_EQ(VLIBCReadPidFile(kPidFile), VESKBandwidthHupWebDAV());
    vbw::MakeDirs("/run/httpd");
    for (const char *szContent : {"0\n", "", "-5\n"}) {
        vbw::WriteFile(kPidFile, szContent);
        const pid_t pid = VLIBCReadPidFile(kPidFile);
        ASSERT_LT(pid, 1) << "pid file [" << szContent << "]";
        EXPECT_EQ(pid, VESKBandwidthHupWebDAV()) << "pid file [" << szContent << "]";
    }

    EXPECT_EQ("", sameGroup.Signals());
}

TEST_F(HupSenders, WebDAVPassesAFailedKillpgOn)
{
    // A group that no longer exists: killpg fails with ESRCH.
    Probe gone({"httpd"}, 0);
    const pid_t pgid = gone.Pid();
    gone.Stop();
    vbw::MakeDirs("/run/httpd");
    vbw::WriteFile("/run/httpd/httpd-webdav.pid", std::to_string(pgid) + "\n");

    errno = 0;
    EXPECT_EQ(-1, VESKBandwidthHupWebDAV());
    EXPECT_EQ(ESRCH, errno);
}

TEST_F(HupSenders, SimulatorRunsKillallAndReturnsItsStatus)
{
    // killall stand-in: records its arguments, signals the processes of that
    // name as the real one would, and exits with a status the test can see.
    vbw::WriteFile("/usr/bin/killall",
                   "#!/bin/sh\n"
                   "echo \"$#:$1:$2\" >> /tmp/killall.args\n"
                   "for d in /proc/[0-9]*; do\n"
                   "  [ \"$(cat $d/comm 2>/dev/null)\" = \"$2\" ] && kill -HUP \"${d#/proc/}\"\n"
                   "done\n"
                   "exit 3\n",
                   0755);
    Probe simulator({"veskbandwidth", "simulate"}, -1, "veskbandwidth");
    Probe other({"veskbandwidth-other"}, -1, "otherprocess");

    EXPECT_EQ(3, VESKBandwidthHupSimulator());

    EXPECT_EQ("2:-sighup:veskbandwidth\n", vbw::ReadFile("/tmp/killall.args"));
    EXPECT_EQ("H", simulator.Signals());
    EXPECT_EQ("", other.Signals());
}

}  // namespace

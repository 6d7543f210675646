// The web file manager's reload sender against real processes: workers are
// found by their first argument.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "vbw_throttle_fixture.h"

namespace {

// A shell whose command line begins with the given arguments (its script
// follows the first one) and that sleeps until a signal ends it.
class Probe {
public:
    explicit Probe(std::vector<std::string> args)
    {
        args.insert(args.begin() + 1, {"-c", "sleep 30"});
        std::vector<char *> argv;
        for (std::string &arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        pid_ = vbw::Fork([&] {
            execv("/bin/sh", argv.data());
            return 127;
        });
        const std::string cmdline = "/proc/" + std::to_string(pid_) + "/cmdline";
        EXPECT_TRUE(vbw::WaitUntil([&] { return vbw::ReadFile(cmdline).find(args[0]) == 0; }, 5000));
    }
    ~Probe() { kill(pid_, SIGKILL); }
    // Whether a SIGHUP ended it within waitMs.
    bool HungUp(int waitMs)
    {
        int status = 0;
        bool ended = vbw::WaitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, waitMs);
        return ended && WIFSIGNALED(status) && WTERMSIG(status) == SIGHUP;
    }

private:
    pid_t pid_;
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
        EXPECT_TRUE(worker->HungUp(5000));
    }
    for (Probe *other : {&secondArg, &unrelated, &farAway}) {
        EXPECT_FALSE(other->HungUp(200));
    }
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

}  // namespace

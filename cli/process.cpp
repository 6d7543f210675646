// Signals and processes: the hangup guard, the stop flag, the simulator
// hangup that reaches this machine, and small terminal and clock helpers.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>

#include "cli.h"

namespace cli {
namespace {

volatile sig_atomic_t g_stop = 0;

void NoOp(int) {}

void OnStop(int)
{
    g_stop = 1;
}

struct DirClose {
    void operator()(DIR *dir) const { closedir(dir); }
};

bool IsSimulatorName(const std::string &pid)
{
    std::ifstream comm("/proc/" + pid + "/comm");
    std::string name;
    return std::getline(comm, name) && name == "veskbandwidth";
}

}  // namespace

void IgnoreHangups()
{
    struct sigaction action = {};
    action.sa_handler = NoOp;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGHUP, &action, nullptr);
}

void CatchStopSignals()
{
    // No SA_RESTART: a blocking read or sleep returns so the flag is seen.
    struct sigaction action = {};
    action.sa_handler = OnStop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool StopRequested()
{
    return g_stop != 0;
}

void SleepUnlessStopped(int ms)
{
    const int kSliceMs = 50;
    for (int slept = 0; slept < ms && !StopRequested(); slept += kSliceMs) {
        int slice = ms - slept < kSliceMs ? ms - slept : kSliceMs;
        struct timespec pause = {0, slice * 1000000L};
        nanosleep(&pause, nullptr);
    }
}

int SignalSimulators()
{
    std::unique_ptr<DIR, DirClose> proc(opendir("/proc"));
    if (!proc) {
        return 0;
    }
    int signalled = 0;
    const pid_t self = getpid();
    while (const struct dirent *entry = readdir(proc.get())) {
        if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0]))) {
            continue;
        }
        pid_t pid = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        if (pid != self && IsSimulatorName(entry->d_name) && kill(pid, SIGHUP) == 0) {
            ++signalled;
        }
    }
    return signalled;
}

bool IsTerminal(int fd)
{
    return isatty(fd) == 1;
}

int64_t NowUs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

QuietStderr::QuietStderr() : saved_(dup(STDERR_FILENO))
{
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
        dup2(null, STDERR_FILENO);
        close(null);
    }
}

QuietStderr::~QuietStderr()
{
    if (saved_ >= 0) {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
}

}  // namespace cli

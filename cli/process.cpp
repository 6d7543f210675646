// Signals and processes: the hangup guard, the stop flag, the processes the
// reloads reach, and small terminal and clock helpers.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>

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

// The web API names in a worker's first argument that the library's hangup looks for.
const char *const kLanternpostApis[] = {"VESK.Lanternpost.Download", "VESK.Lanternpost.Upload",
                                        "VESK.Lanternpost.FormUpload", "VESK.Lanternpost.CopyMove"};

std::string ReadProcFile(pid_t pid, const char *name)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/" + name, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string MountNamespace(const std::string &pid)
{
    char target[64] = "";
    ssize_t length = readlink(("/proc/" + pid + "/ns/mnt").c_str(), target, sizeof target - 1);
    return length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
}

// The processes of /proc (but this one) for which `match` holds.
std::vector<pid_t> FindProcesses(const std::function<bool(pid_t)> &match)
{
    std::vector<pid_t> found;
    std::unique_ptr<DIR, DirClose> proc(opendir("/proc"));
    if (!proc) {
        return found;
    }
    const pid_t self = getpid();
    while (const struct dirent *entry = readdir(proc.get())) {
        if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0]))) {
            continue;
        }
        pid_t pid = static_cast<pid_t>(std::strtol(entry->d_name, nullptr, 10));
        if (pid != self && match(pid)) {
            found.push_back(pid);
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

bool IsSimulatorHere(pid_t pid, const std::string &ownNamespace)
{
    std::string comm = ReadProcFile(pid, "comm");
    return comm == "veskbandwidth\n" && !ownNamespace.empty() && MountNamespace(std::to_string(pid)) == ownNamespace;
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

std::vector<pid_t> SignalSimulators()
{
    // Other mount namespaces (containers, other sandboxes) have /tmp/bandwidth
    // files of their own; their processes are not ours to wake.
    const std::string ownNamespace = MountNamespace("self");
    return FindProcesses([&](pid_t pid) { return IsSimulatorHere(pid, ownNamespace) && kill(pid, SIGHUP) == 0; });
}

std::vector<pid_t> LanternpostWorkers()
{
    return FindProcesses([](pid_t pid) {
        // As the library reads it: one line of at most 127 bytes, up to the first argument's end.
        std::string first = ReadProcFile(pid, "cmdline").substr(0, 127);
        first = first.substr(0, first.find_first_of(std::string("\0\n", 2)));
        return std::any_of(std::begin(kLanternpostApis), std::end(kLanternpostApis),
                           [&first](const char *api) { return first.find(api) != std::string::npos; });
    });
}

std::vector<pid_t> ProcessGroupMembers(pid_t group)
{
    return FindProcesses([group](pid_t pid) { return getpgid(pid) == group; });
}

bool ProcessExists(pid_t pid)
{
    return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

std::string PidList(const std::vector<pid_t> &pids)
{
    std::string list;
    for (pid_t pid : pids) {
        list += (list.empty() ? "" : ", ") + std::to_string(pid);
    }
    return list;
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

bool WriteAll(int fd, const char *data, size_t size)
{
    for (size_t done = 0; done < size;) {
        ssize_t n = write(fd, data + done, size - done);
        if (n < 0 && errno != EINTR) {
            return false;
        }
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return true;
}

}  // namespace cli

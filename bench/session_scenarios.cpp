#include "session_scenarios.h"

#include "scenarios.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vbw::bench {

namespace {

constexpr double kMiB = 1024.0 * 1024.0;
constexpr size_t kReadSize = 1 << 20;
constexpr int kPipeSize = 1 << 20;      // the default pipe limit of an unprivileged process
constexpr double kSettleSeconds = 1.0;  // windows are counted after the first second
constexpr double kWindowSeconds = 0.1;
constexpr double kShareWindowSeconds = 0.2;  // a newcomer's rate is judged over one pass interval
constexpr double kShareReached = 0.9;
constexpr char kPv[] = "/usr/bin/pv";

// What the reader saw of one stream: the time of every read that brought
// data, the bytes received by then, and the time of the end of the stream.
struct Arrivals {
    std::vector<double> times;
    std::vector<double> bytes;
    double end = 0;

    // Bytes received by `time` (a read counts whole at its time).
    double By(double time) const
    {
        size_t n = std::upper_bound(times.begin(), times.end(), time) - times.begin();
        return n == 0 ? 0 : bytes[n - 1];
    }
    double Rate(double from, double to) const { return (By(to) - By(from)) / (to - from); }
};

// A child that writes into a pipe the benchmark reads: a function run in a
// forked child, or a program whose standard output is the pipe.
class Feeder {
public:
    explicit Feeder(const std::function<void(int fd)> &body)
    {
        Start([&](int fd) {
            int status = 0;
            try {
                body(fd);
            } catch (const std::exception &e) {
                std::fprintf(stderr, "vbw-bench: %s\n", e.what());
                status = 1;
            }
            _exit(status);
        });
    }
    explicit Feeder(std::vector<std::string> argv)
    {
        Start([&](int fd) {
            std::vector<char *> args;
            for (std::string &arg : argv) {
                args.push_back(&arg[0]);
            }
            args.push_back(nullptr);
            if (dup2(fd, STDOUT_FILENO) == STDOUT_FILENO) {
                execv(args[0], args.data());
            }
            _exit(127);
        });
    }
    ~Feeder()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
            }
        }
    }
    Feeder(const Feeder &) = delete;
    Feeder &operator=(const Feeder &) = delete;

    int ReadFd() const { return read_->fd; }

    // Waits for the child's end: the CPU seconds it used.
    double WaitCpuSeconds()
    {
        int status = 0;
        rusage usage{};
        while (wait4(pid_, &status, 0, &usage) < 0) {
            if (errno != EINTR) {
                throw Failure(Errno("wait4"));
            }
        }
        pid_ = -1;
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            throw Failure("a sending process failed (status " + std::to_string(status) + ")");
        }
        return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
    }

private:
    static double Seconds(const timeval &tv) { return static_cast<double>(tv.tv_sec) + tv.tv_usec * 1e-6; }

    void Start(const std::function<void(int)> &child)
    {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) {
            throw Failure(Errno("pipe"));
        }
        read_ = std::make_unique<Fd>(fds[0]);
        Fd write(fds[1]);
        fcntl(write.fd, F_SETPIPE_SZ, kPipeSize);  // best effort: fewer, larger reads
        std::fflush(nullptr);
        pid_ = fork();
        if (pid_ < 0) {
            throw Failure(Errno("fork"));
        }
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            child(write.fd);
        }
    }

    pid_t pid_ = -1;
    std::unique_ptr<Fd> read_;
};

// Reads the feeders' pipes to their ends, noting when what arrived.
std::vector<Arrivals> Receive(const std::vector<Feeder *> &feeders)
{
    std::vector<Arrivals> arrivals(feeders.size());
    std::vector<pollfd> polls;
    for (Feeder *feeder : feeders) {
        polls.push_back({feeder->ReadFd(), POLLIN, 0});
    }
    std::vector<char> buffer(kReadSize);
    for (size_t open = feeders.size(); open > 0;) {
        if (poll(polls.data(), polls.size(), -1) < 0 && errno != EINTR) {
            throw Failure(Errno("poll"));
        }
        for (size_t i = 0; i < polls.size(); ++i) {
            if (polls[i].fd < 0 || polls[i].revents == 0) {
                continue;
            }
            ssize_t n = read(polls[i].fd, buffer.data(), buffer.size());
            double now = MonotonicSeconds();
            if (n > 0) {
                Arrivals &a = arrivals[i];
                a.times.push_back(now);
                a.bytes.push_back((a.bytes.empty() ? 0 : a.bytes.back()) + static_cast<double>(n));
            } else if (n == 0 || errno != EINTR) {
                arrivals[i].end = now;
                polls[i].fd = -1;
                --open;
            }
        }
    }
    return arrivals;
}

// Moves `size` bytes from /dev/zero into fd the way pv does: splice(2), which
// copies nothing through user space, and read and write where the kernel
// cannot splice.  False on failure.
bool MoveZeros(int zero, int fd, std::vector<char> &buffer, size_t size)
{
    while (size > 0) {
        ssize_t n = splice(zero, nullptr, fd, nullptr, size, SPLICE_F_MORE);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno == EINVAL) {
            size_t piece = std::min(size, buffer.size());
            if (!ReadAll(zero, buffer.data(), piece) || !WriteAll(fd, buffer.data(), piece)) {
                return false;
            }
            n = static_cast<ssize_t>(piece);
        }
        if (n <= 0) {
            return false;
        }
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Sends `bytes` from /dev/zero into fd through a session of uid, in the
// chunks it asks for; stops early at `endTime` (monotonic seconds).
void SendThroughSession(uid_t uid, uint64_t bytes, double endTime, int fd)
{
    Fd zero(open("/dev/zero", O_RDONLY | O_CLOEXEC));
    VESK_BANDWIDTH_SESSION *session = nullptr;
    CheckLibrary(VESKBandwidthSessionOpen(uid, kProtocol, kDirection, "/volume1/public/bench", &session),
                 "VESKBandwidthSessionOpen");
    std::vector<char> buffer(4 << 20);
    for (uint64_t sent = 0; sent < bytes && MonotonicSeconds() < endTime;) {
        uint64_t chunk = 0;
        CheckLibrary(VESKBandwidthSessionChunk(session, &chunk), "VESKBandwidthSessionChunk");
        chunk = std::min<uint64_t>({chunk, buffer.size(), bytes - sent});
        if (!MoveZeros(zero.fd, fd, buffer, chunk)) {
            throw Failure(Errno("moving the data"));
        }
        sent += chunk;
        CheckLibrary(VESKBandwidthSessionPace(session, chunk), "VESKBandwidthSessionPace");
    }
    close(fd);  // the stream ends when its last bytes are due, before the entries are removed
    CheckLibrary(VESKBandwidthSessionClose(session), "VESKBandwidthSessionClose");
}

StreamResult Summarize(const Arrivals &a, double cpuSeconds, uint64_t limitBps)
{
    if (a.times.empty()) {
        throw Failure("a stream brought no data");
    }
    StreamResult r{};
    r.limitBps = limitBps;
    double limit = static_cast<double>(limitBps);
    r.ratio = a.bytes.back() / (a.end - a.times.front()) / limit;
    r.cpuMsPerMiB = cpuSeconds * 1e3 / (a.bytes.back() / kMiB);
    r.win100Min = r.win100Max = 0;
    bool first = true;
    for (double t = a.times.front() + kSettleSeconds; t + kWindowSeconds <= a.end; t += kWindowSeconds) {
        double w = a.Rate(t, t + kWindowSeconds) / limit;
        r.win100Min = first ? w : std::min(r.win100Min, w);
        r.win100Max = first ? w : std::max(r.win100Max, w);
        first = false;
    }
    return r;
}

StreamResult MeasureStream(uint64_t limitKBps, Feeder &feeder)
{
    Arrivals arrivals = Receive({&feeder})[0];
    double cpu = feeder.WaitCpuSeconds();
    return Summarize(arrivals, cpu, limitKBps * 1024);
}

// Seconds from `from` until the stream first moved at least `share` bytes/s
// over a window of one pass interval; `until` - `from` when it never did.
double SecondsToShare(const Arrivals &a, double from, double until, double share)
{
    constexpr double kStep = 0.01;
    for (double t = from; t + kShareWindowSeconds <= until; t += kStep) {
        if (a.Rate(t, t + kShareWindowSeconds) >= kShareReached * share) {
            return t - from;
        }
    }
    return until - from;
}

}  // namespace

StreamResult MeasureSessionStream(uint64_t limitKBps, double seconds)
{
    ClearStatusFiles();
    ConfigureUserLimit(kUsers[0], limitKBps);
    uint64_t bytes = static_cast<uint64_t>(static_cast<double>(limitKBps * 1024) * seconds);
    Feeder feeder([&](int fd) { SendThroughSession(kUsers[0], bytes, 1e300, fd); });
    return MeasureStream(limitKBps, feeder);
}

bool PvInstalled()
{
    return access(kPv, X_OK) == 0;
}

StreamResult MeasurePvStream(uint64_t limitKBps, double seconds)
{
    uint64_t bytes = static_cast<uint64_t>(static_cast<double>(limitKBps * 1024) * seconds);
    Feeder feeder(std::vector<std::string>{kPv, "-q", "-L", std::to_string(limitKBps * 1024), "-s",
                                           std::to_string(bytes), "-S", "/dev/zero"});
    return MeasureStream(limitKBps, feeder);
}

SessionSharingResult MeasureSessionSharing(uint64_t limitKBps, double joinSeconds, double seconds)
{
    ClearStatusFiles();
    ConfigureGroupLimit(kGroup, limitKBps);
    StartSignal start;
    std::vector<std::unique_ptr<Feeder>> feeders;
    for (int i = 0; i < kSharingUsers; ++i) {
        double delay = i == kSharingUsers - 1 ? joinSeconds : 0;
        feeders.push_back(std::make_unique<Feeder>([&, i, delay](int fd) {
            double startTime = start.Await();
            double end = startTime + joinSeconds + seconds;
            double begin = startTime + delay;
            while (MonotonicSeconds() < begin) {
                usleep(1000);
            }
            SendThroughSession(kUsers[i], UINT64_MAX, end, fd);
        }));
    }
    double startTime = MonotonicSeconds() + 0.2;  // a moment for every child to be ready
    start.Release(startTime, kSharingUsers);
    std::vector<Feeder *> readers;
    for (auto &feeder : feeders) {
        readers.push_back(feeder.get());
    }
    std::vector<Arrivals> arrivals = Receive(readers);
    for (auto &feeder : feeders) {
        feeder->WaitCpuSeconds();
    }

    SessionSharingResult result{};
    result.limitBps = limitKBps * 1024;
    const Arrivals &newcomer = arrivals[kSharingUsers - 1];
    double from = newcomer.times.front();
    double to = startTime + joinSeconds + seconds;
    double aggregate = 0;
    for (int i = 0; i < kSharingUsers; ++i) {
        result.userBps[i] = arrivals[i].Rate(from, to);
        aggregate += result.userBps[i];
    }
    result.ratio = aggregate / static_cast<double>(result.limitBps);
    result.jain = JainIndex(result.userBps, kSharingUsers);
    double share = static_cast<double>(result.limitBps) / kSharingUsers;
    result.newcomerSeconds = SecondsToShare(newcomer, from, to, share);
    return result;
}

double MeasureSessionCpuShare10g(double seconds)
{
    constexpr uint64_t kTenGigabitKBps = 1250000000 / 1024;
    ClearStatusFiles();
    ConfigureUserLimit(kUsers[0], kTenGigabitKBps);
    return RunInChild<double>([&] {
        VESK_BANDWIDTH_SESSION *session = nullptr;
        CheckLibrary(VESKBandwidthSessionOpen(kUsers[0], kProtocol, kDirection, "/volume1/public/bench", &session),
                     "VESKBandwidthSessionOpen");
        double cpuStart = ProcessCpuSeconds();
        double start = MonotonicSeconds();
        while (MonotonicSeconds() - start < seconds) {
            uint64_t chunk = 0;
            CheckLibrary(VESKBandwidthSessionChunk(session, &chunk), "VESKBandwidthSessionChunk");
            CheckLibrary(VESKBandwidthSessionPace(session, chunk), "VESKBandwidthSessionPace");
        }
        double share = (ProcessCpuSeconds() - cpuStart) / (MonotonicSeconds() - start);
        CheckLibrary(VESKBandwidthSessionClose(session), "VESKBandwidthSessionClose");
        return share;
    });
}

}  // namespace vbw::bench

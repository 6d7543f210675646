// What the benchmarks share: the sandbox with their own accounts, clocks,
// limits written through the library, a transfer driven the way a service
// drives it, and child processes that hand a result back.
#ifndef VBW_BENCH_SUPPORT_H
#define VBW_BENCH_SUPPORT_H

#include <veskbandwidth.h>

#include <sys/types.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>

namespace vbw::bench {

constexpr int kProtocol = VESK_BW_PROTOCOL_FTP;
constexpr int kDirection = VESK_BW_TRANSFER_DOWNLOAD;
constexpr uint64_t kChunkBytes = 65536;  // what the simulator reports per pass
constexpr gid_t kGroup = 100;
constexpr int kUserCount = 4;
extern const uid_t kUsers[kUserCount];  // all four in group kGroup only
// A rate (KB/s) far above anything one pass can reach: the loop never sleeps.
constexpr uint64_t kUnreachableKBps = uint64_t(1) << 30;

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A closed descriptor on every path out.
struct Fd {
    int fd;
    explicit Fd(int f) : fd(f) {}
    ~Fd();
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
};

// Writes or reads all `size` bytes, resuming after short counts and
// interruptions; false on failure or an early end of file.
bool WriteAll(int fd, const char *data, size_t size);
bool ReadAll(int fd, char *data, size_t size);

// "what: <text of errno>".
std::string Errno(const std::string &what);
// "what failed: error 0x0900 at file.cpp:42", from the platform's error state.
std::string LibraryError(const std::string &what);
// Throws that Failure when a library call did not return 0.
void CheckLibrary(int result, const char *what);

// Re-executes the program in a private sandbox holding the four benchmark
// users; returns false (with the reason) when the sandbox cannot be made.
bool EnterBenchSandbox(std::string *error);

double MonotonicSeconds();
double ProcessCpuSeconds();

// Limits, each replacing whatever an earlier scenario stored: one user's own
// limit under the user-only policy, or one group limit under the group-only
// policy with occupy max.  Rates in KB/s for both directions.
void ConfigureUserLimit(uid_t uid, uint64_t kbps);
void ConfigureGroupLimit(gid_t gid, uint64_t kbps);

// Removes every status file, so that a scenario starts with no transfers.
void ClearStatusFiles();
std::string StatusFilePath(const char *ownerType, unsigned id);

// A fresh download of another process (pid 3000000 + index) of user `uid`,
// as that process would save it.
VESK_BANDWIDTH_STATUS OtherTransfer(int index, uid_t uid);

// Saves `count` fresh transfers of other processes into the status file of
// `gid` (and their users' files), as their own processes would; they belong
// to the users after kUsers[0], whose own file they leave alone.
void SaveOtherTransfers(gid_t gid, int count);

// One throttled download, driven as a service drives it: configuration,
// registration, one sleep-loop pass per chunk, removal at the end.
class Transfer {
public:
    explicit Transfer(uid_t uid);
    ~Transfer();
    Transfer(const Transfer &) = delete;
    Transfer &operator=(const Transfer &) = delete;

    void Register();
    void Pass(uint32_t progress);

private:
    VESK_BANDWIDTH_CONFIG config_{};
    VESK_BANDWIDTH_STATUS status_{};
    int64_t lastPassUs_ = 0;
};

// The plain way to rewrite a file: read it whole, write it to a temporary
// file beside it, fsync, rename over it.
void PlainReadAndRewrite(const std::string &path);

// Lets forked children start together: each waits for the start time that
// the parent releases (a monotonic time, the same in every process).
class StartSignal {
public:
    StartSignal();
    ~StartSignal();
    StartSignal(const StartSignal &) = delete;
    StartSignal &operator=(const StartSignal &) = delete;

    void Release(double startTime, int waiters);
    double Await();

private:
    int fds_[2] = {-1, -1};
};

// A forked child that runs `body` and hands its result (a trivially copyable
// value) or its failure back through a pipe.
class ChildProcess {
public:
    ChildProcess(const std::function<void(void *)> &body, size_t resultSize);
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    void Wait(void *result);

private:
    pid_t pid_ = -1;
    int fd_ = -1;
    size_t resultSize_;
};

template <typename T>
T RunInChild(const std::function<T()> &body)
{
    ChildProcess child(
        [&](void *out) {
            T value = body();
            std::memcpy(out, &value, sizeof value);
        },
        sizeof(T));
    T result{};
    child.Wait(&result);
    return result;
}

}  // namespace vbw::bench

#endif

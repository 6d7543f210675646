#include "bench_support.h"

#include "sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

namespace vbw::bench {

const uid_t kUsers[kUserCount] = {1026, 1027, 1028, 1029};

namespace {

// The accounts inside the sandbox: four users whose only group is "users".
const char kPasswd[] = "root:x:0:0:root:/root:/bin/sh\n"
                       "alice:x:1026:100:Alice:/home/alice:/bin/sh\n"
                       "bob:x:1027:100:Bob:/home/bob:/bin/sh\n"
                       "carol:x:1028:100:Carol:/home/carol:/bin/sh\n"
                       "dave:x:1029:100:Dave:/home/dave:/bin/sh\n"
                       "nobody:x:65534:65534:nobody:/nonexistent:/usr/sbin/nologin\n";
const char kGroupFile[] = "root:x:0:\n"
                          "users:x:100:alice,bob,carol,dave\n"
                          "nogroup:x:65534:\n";

const char kStatusDir[] = "/tmp/bandwidth";

// Drops the stored limits of the benchmark's protocol, so that a scenario
// sees only the limit it writes.
void ForgetLimits()
{
    char path[4096];
    CheckLibrary(VESKBandwidthConfPath(kProtocol, path, sizeof path), "VESKBandwidthConfPath");
    if (unlink(path) != 0 && errno != ENOENT) {
        throw Failure(Errno(std::string("unlink ") + path));
    }
}

void StoreGlobal(VESK_BW_GROUP_POLICY userGroupPolicy)
{
    VESK_BANDWIDTH_GLOBAL_CONF global{};
    global.iState = VESK_BW_STATE_ENABLED;
    global.iProtocol = static_cast<VESK_BW_PROTOCOL_TYPE>(kProtocol);
    global.iUserGroupPolicy = userGroupPolicy;
    global.iInterGroupPolicy = VESK_BW_POLICY_MAX;
    global.iOccupyPolicy = VESK_BW_OCCUPY_MAX;
    CheckLibrary(VESKBandwidthGlobalConfSet(&global), "VESKBandwidthGlobalConfSet");
}

void StoreLimit(VESK_BW_OWNER_TYPE ownerType, unsigned id, uint64_t kbps)
{
    VESK_BANDWIDTH_CONF conf{};
    conf.id = id;
    conf.iState = VESK_BW_STATE_ENABLED;
    conf.iProtocol = static_cast<VESK_BW_PROTOCOL_TYPE>(kProtocol);
    conf.iOwnerType = ownerType;
    conf.ullRate[VESK_BW_TRANSFER_UPLOAD] = kbps;
    conf.ullRate[VESK_BW_TRANSFER_DOWNLOAD] = kbps;
    CheckLibrary(VESKBandwidthConfSetByID(&conf), "VESKBandwidthConfSetByID");
}

constexpr size_t kErrorSize = 256;

// Reads or writes (`io`) all `size` bytes, resuming after short counts and
// interruptions; false on failure or an early end of file.
template <typename Byte, typename Io>
bool TransferAll(int fd, Byte *data, size_t size, Io io)
{
    while (size > 0) {
        ssize_t n = io(fd, data, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

std::string Errno(const std::string &what)
{
    return what + ": " + std::strerror(errno);
}

Fd::~Fd()
{
    if (fd >= 0) {
        close(fd);
    }
}

bool WriteAll(int fd, const char *data, size_t size)
{
    return TransferAll(fd, data, size, write);
}

bool ReadAll(int fd, char *data, size_t size)
{
    return TransferAll(fd, data, size, read);
}

std::string LibraryError(const std::string &what)
{
    char text[512];
    const char *file = VLIBCErrorGetFile();
    std::snprintf(text, sizeof text, "%s failed: error 0x%04X at %s:%d", what.c_str(),
                  static_cast<unsigned>(VLIBCErrGet()), file ? file : "?", VLIBCErrorGetLine());
    return text;
}

void CheckLibrary(int result, const char *what)
{
    if (result != 0) {
        throw Failure(LibraryError(what));
    }
}

bool EnterBenchSandbox(std::string *error)
{
    SandboxOptions options;
    options.passwd = kPasswd;
    options.group = kGroupFile;
    return EnterSandbox(options, error);
}

double MonotonicSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double ProcessCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

void ConfigureUserLimit(uid_t uid, uint64_t kbps)
{
    ForgetLimits();
    StoreGlobal(VESK_BW_POLICY_USER_ONLY);
    StoreLimit(VESK_BW_OWNER_USER, uid, kbps);
}

void ConfigureGroupLimit(gid_t gid, uint64_t kbps)
{
    ForgetLimits();
    StoreGlobal(VESK_BW_POLICY_GROUP_ONLY);
    StoreLimit(VESK_BW_OWNER_GROUP, gid, kbps);
}

void ClearStatusFiles()
{
    DIR *dir = opendir(kStatusDir);
    if (dir == nullptr) {
        return;
    }
    while (dirent *entry = readdir(dir)) {
        if (entry->d_name[0] != '.') {
            unlink((std::string(kStatusDir) + "/" + entry->d_name).c_str());
        }
    }
    closedir(dir);
}

std::string StatusFilePath(const char *ownerType, unsigned id)
{
    return std::string(kStatusDir) + "/" + ownerType + "-" + std::to_string(id);
}

VESK_BANDWIDTH_STATUS OtherTransfer(int index, uid_t uid)
{
    VESK_BANDWIDTH_STATUS status{};
    status.pid = 3000000 + index;  // beyond the pids of the sandbox's processes
    status.id = uid;
    status.uid = uid;
    status.active = 1;
    status.timestamp = time(nullptr);
    status.current_speed = 1 << 20;
    status.expect_speed = 1 << 20;
    std::snprintf(status.filename, sizeof status.filename, "/volume1/public/other-%d", index);
    status.owner_type = VESK_BW_OWNER_USER;
    status.protocol_type = static_cast<VESK_BW_PROTOCOL_TYPE>(kProtocol);
    status.transfer_type = static_cast<VESK_BW_TRANSFER_TYPE>(kDirection);
    return status;
}

void SaveOtherTransfers(gid_t gid, int count)
{
    // The configuration such a transfer has: one group limit that it occupies whole.
    VESK_BANDWIDTH_LIMIT limit{};
    limit.id = gid;
    limit.iCurState = VESK_BW_STATE_ENABLED;
    limit.iState = VESK_BW_STATE_ENABLED;
    limit.iProtocol = static_cast<VESK_BW_PROTOCOL_TYPE>(kProtocol);
    limit.iOwnerType = VESK_BW_OWNER_GROUP;
    limit.ullMaxSpeedBps = 1 << 20;
    limit.ullOccupyShare = 10000;
    VESK_BANDWIDTH_CONFIG config{};
    config.iLimitCount = 1;
    config.blGroupConfExist = 1;
    config.pLimit = &limit;
    for (int i = 0; i < count; ++i) {
        uid_t uid = kUsers[1 + i % (kUserCount - 1)];
        VESK_BANDWIDTH_STATUS status = OtherTransfer(i, uid);
        CheckLibrary(VESKBandwidthStatusSave(uid, &config, &status), "VESKBandwidthStatusSave");
    }
}

Transfer::Transfer(uid_t uid)
{
    if (VESKBandwidthConfigGet(uid, kProtocol, &config_) != 0) {
        std::string error = LibraryError("VESKBandwidthConfigGet");
        VESKBandwidthConfigFree(&config_);
        throw Failure(error);
    }
}

Transfer::~Transfer()
{
    VESKBandwidthStatusRemove(&config_, kDirection);
    VESKBandwidthConfigFree(&config_);
}

void Transfer::Register()
{
    CheckLibrary(VESKBandwidthStatusInit(&config_, kDirection, "/volume1/public/bench", &lastPassUs_, &status_),
                 "VESKBandwidthStatusInit");
}

void Transfer::Pass(uint32_t progress)
{
    CheckLibrary(VESKBandwidthSleepInLoop(&config_, kChunkBytes, progress, &lastPassUs_, &status_),
                 "VESKBandwidthSleepInLoop");
}

void PlainReadAndRewrite(const std::string &path)
{
    std::vector<char> content;
    {
        Fd in(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        struct stat st {};
        if (in.fd < 0 || fstat(in.fd, &st) != 0) {
            throw Failure(Errno("read " + path));
        }
        content.resize(static_cast<size_t>(st.st_size));
        if (!ReadAll(in.fd, content.data(), content.size())) {
            throw Failure(Errno("read " + path));
        }
    }
    std::string temporary = path + ".XXXXXX";
    Fd out(mkstemp(&temporary[0]));
    if (out.fd < 0) {
        throw Failure(Errno("mkstemp " + temporary));
    }
    if (!WriteAll(out.fd, content.data(), content.size()) || fsync(out.fd) != 0 ||
        rename(temporary.c_str(), path.c_str()) != 0) {
        std::string error = Errno("rewrite " + path);
        unlink(temporary.c_str());
        throw Failure(error);
    }
}

StartSignal::StartSignal()
{
    if (pipe2(fds_, O_CLOEXEC) != 0) {
        throw Failure(Errno("pipe"));
    }
}

StartSignal::~StartSignal()
{
    close(fds_[0]);
    close(fds_[1]);
}

void StartSignal::Release(double startTime, int waiters)
{
    for (int i = 0; i < waiters; ++i) {
        if (!WriteAll(fds_[1], reinterpret_cast<const char *>(&startTime), sizeof startTime)) {
            throw Failure(Errno("releasing the start"));
        }
    }
}

double StartSignal::Await()
{
    double startTime = 0;
    if (!ReadAll(fds_[0], reinterpret_cast<char *>(&startTime), sizeof startTime)) {
        throw Failure(Errno("waiting for the start"));
    }
    return startTime;
}

ChildProcess::ChildProcess(const std::function<void(void *)> &body, size_t resultSize) : resultSize_(resultSize)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        throw Failure(Errno("pipe"));
    }
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0) {
        close(fds[0]);
        close(fds[1]);
        throw Failure(Errno("fork"));
    }
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(fds[0]);
        // The message: an error text (empty on success), then the result.
        std::vector<char> message(kErrorSize + resultSize, 0);
        try {
            body(message.data() + kErrorSize);
        } catch (const std::exception &e) {
            std::snprintf(message.data(), kErrorSize, "%s", e.what());
        }
        bool sent = WriteAll(fds[1], message.data(), message.size());
        _exit(sent ? 0 : 1);
    }
    close(fds[1]);
    fd_ = fds[0];
}

ChildProcess::~ChildProcess()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    if (fd_ >= 0) {
        close(fd_);
    }
}

void ChildProcess::Wait(void *result)
{
    std::vector<char> message(kErrorSize + resultSize_, 0);
    bool received = ReadAll(fd_, message.data(), message.size());
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    if (!received) {
        throw Failure("a benchmark process ended without a result (status " + std::to_string(status) + ")");
    }
    if (message[0] != '\0') {
        message[kErrorSize - 1] = '\0';
        throw Failure(message.data());
    }
    std::memcpy(result, message.data() + kErrorSize, resultSize_);
}

}  // namespace vbw::bench

#include "vbw_test.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace vbw {
namespace {

const char kDevLog[] = "/dev/log";

// "<11>Nov 22 22:29:00 tag[pid]: message" -> "message".
std::string StripSyslogPrefix(const std::string &datagram)
{
    size_t start = 0;
    if (!datagram.empty() && datagram[0] == '<') {
        size_t close = datagram.find('>');
        // The timestamp is "Mmm dd hh:mm:ss " (16 characters) after the priority.
        size_t tag = close == std::string::npos ? 0 : close + 1 + 16;
        size_t colon = datagram.find(": ", tag);
        if (colon != std::string::npos) {
            start = colon + 2;
        }
    }
    return datagram.substr(start);
}

}  // namespace

bool InSandbox()
{
    const char *flag = std::getenv("VBW_SANDBOX");
    if (flag == nullptr || std::strcmp(flag, "1") != 0) {
        return false;
    }
    std::ifstream comm("/proc/1/comm");
    std::string init;
    std::getline(comm, init);
    return init == "vbw-init";
}

LogCapture::LogCapture()
{
    if (!InSandbox()) {
        return;  // never touch the machine's /dev/log
    }
    unlink(kDevLog);
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, kDevLog, sizeof address.sun_path - 1);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        chmod(kDevLog, 0666) != 0 || pipe2(wakePipe_, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "cannot capture the log at /dev/log: " << std::strerror(errno);
        return;
    }
    // Children may log a lot; keep the socket drained so that they never block.
    reader_ = std::thread([this] {
        pollfd fds[2] = {{fd_, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
        while (poll(fds, 2, -1) >= 0 || errno == EINTR) {
            if (fds[1].revents != 0) {
                return;
            }
            std::lock_guard<std::mutex> lock(mutex_);
            Drain();
        }
    });
}

LogCapture::~LogCapture()
{
    if (reader_.joinable()) {
        (void)!write(wakePipe_[1], "x", 1);
        reader_.join();
    }
    for (int fd : {fd_, wakePipe_[0], wakePipe_[1]}) {
        if (fd >= 0) {
            close(fd);
        }
    }
    if (fd_ >= 0) {
        unlink(kDevLog);
    }
}

// Called with the mutex held: takes every datagram that is queued now.
void LogCapture::Drain()
{
    if (fd_ < 0) {
        return;
    }
    std::vector<char> buffer(1 << 16);
    for (;;) {
        ssize_t n = recv(fd_, buffer.data(), buffer.size(), 0);
        if (n < 0) {
            return;
        }
        lines_.push_back(StripSyslogPrefix(std::string(buffer.data(), static_cast<size_t>(n))));
    }
}

std::vector<std::string> LogCapture::Lines()
{
    std::lock_guard<std::mutex> lock(mutex_);
    Drain();
    return lines_;
}

void LogCapture::Clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    Drain();
    lines_.clear();
}

int LogCapture::Count(const std::string &substring)
{
    int count = 0;
    for (const std::string &line : Lines()) {
        count += line.find(substring) != std::string::npos ? 1 : 0;
    }
    return count;
}

std::string LogCapture::Dump()
{
    std::string all;
    for (const std::string &line : Lines()) {
        all += line;
        if (all.empty() || all.back() != '\n') {
            all += '\n';
        }
    }
    return all;
}

void SandboxTest::SetUp()
{
    if (!InSandbox()) {
        GTEST_FAIL() << "this test changes /usr/vesk, /tmp/bandwidth and /etc: run it through vbw-sandbox (ctest does)";
    }
}

std::string ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

void WriteFile(const std::string &path, const std::string &content, mode_t mode)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    ASSERT_TRUE(out.good()) << "cannot write " << path;
    ASSERT_EQ(0, chmod(path.c_str(), mode)) << path;
}

void MakeDirs(const std::string &path, mode_t mode)
{
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        std::string prefix = path.substr(0, slash);
        if (!prefix.empty() && mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) {
            ADD_FAILURE() << "mkdir " << prefix << ": " << std::strerror(errno);
            return;
        }
        if (slash == std::string::npos) {
            return;
        }
    }
}

bool Exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

}  // namespace vbw

#include "vbw_test.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <future>
#include <glob.h>
#include <poll.h>
#include <signal.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vbw {
namespace {

const char kDevLog[] = "/dev/log";

// "<11>Nov 22 22:29:00 tag[pid]: message" -> "message" (the date takes 16 characters).
std::string StripSyslogPrefix(const std::string &datagram)
{
    size_t close = datagram.compare(0, 1, "<") == 0 ? datagram.find('>') : std::string::npos;
    size_t colon = close == std::string::npos ? close : datagram.find(": ", close + 1 + 16);
    return colon == std::string::npos ? datagram : datagram.substr(colon + 2);
}

// Held by the log reader while it allocates and by Fork while it forks.
std::mutex &ForkMutex()
{
    static std::mutex forkMutex;
    return forkMutex;
}

}  // namespace

bool InSandbox()
{
    const char *flag = std::getenv("VBW_SANDBOX");
    return flag != nullptr && std::strcmp(flag, "1") == 0 && ReadFile("/proc/1/comm") == "vbw-init\n";
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
    // The reader allocates only while it holds the fork lock (see Fork), and
    // the constructor returns once the thread has started (its start-up
    // allocates too).
    std::promise<void> started;
    reader_ = std::thread([this, &started] {
        started.set_value();
        pollfd fds[2] = {{fd_, POLLIN, 0}, {wakePipe_[0], POLLIN, 0}};
        while (poll(fds, 2, -1) >= 0 || errno == EINTR) {
            if (fds[1].revents != 0) {
                return;
            }
            std::lock_guard<std::mutex> forkLock(ForkMutex());
            std::lock_guard<std::mutex> lock(mutex_);
            Drain();
        }
    });
    started.get_future().wait();
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
    std::vector<std::string> lines = Lines();
    return (int)std::count_if(lines.begin(), lines.end(),
                              [&](const std::string &line) { return Has(line, substring); });
}

bool LogCapture::From(const std::string &origin, const std::string &substring)
{
    std::vector<std::string> lines = Lines();
    return std::any_of(lines.begin(), lines.end(), [&](const std::string &line) {
        return line.compare(0, origin.size() + 1, origin + ":") == 0 && Has(line, substring);
    });
}

std::string LogCapture::Dump()
{
    std::string all;
    for (const std::string &line : Lines()) {
        all += !line.empty() && line.back() == '\n' ? line : line + "\n";
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

struct stat Stat(const std::string &path)
{
    struct stat st = {};
    EXPECT_EQ(0, lstat(path.c_str(), &st)) << path;
    return st;
}

void SetModified(const std::string &path, time_t when)
{
    struct timeval times[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(0, lutimes(path.c_str(), times)) << path;
}

int Occurrences(const std::string &text, const std::string &what)
{
    int count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++count;
    }
    return count;
}

std::vector<std::string> Paths(const std::string &pattern)
{
    std::vector<std::string> paths;
    glob_t found;
    if (0 == glob(pattern.c_str(), 0, nullptr, &found)) {
        paths.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    }
    globfree(&found);
    return paths;
}

std::string Printed(const std::function<int(FILE *)> &print, int result)
{
    char *buffer = nullptr;
    size_t size = 0;
    FILE *fp = open_memstream(&buffer, &size);
    EXPECT_EQ(result, print(fp));
    fclose(fp);
    std::string text(buffer, size);
    free(buffer);
    return text;
}

int64_t NowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

bool WaitUntil(const std::function<bool()> &cond, int timeoutMs)
{
    for (int64_t end = NowMs() + timeoutMs; NowMs() < end;) {
        if (cond()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return cond();
}

pid_t Fork(const std::function<int()> &body)
{
    // A child forked while the log reader is inside the allocator would find
    // its lock held forever (the sanitizer's allocator is not reset in the
    // child), so the reader is kept out of it for the moment of the fork.
    pid_t pid;
    {
        std::lock_guard<std::mutex> forkLock(ForkMutex());
        pid = fork();
    }
    if (0 == pid) {
        _exit(body());
    }
    EXPECT_LT(0, pid) << "fork: " << std::strerror(errno);
    return pid;
}

int WaitExit(pid_t pid, int timeoutMs)
{
    int status = 0;
    if (!WaitUntil([&] { return pid == waitpid(pid, &status, WNOHANG); }, timeoutMs)) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace vbw

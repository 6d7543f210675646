// Test support: every test runs inside vbw-sandbox; SandboxTest refuses to
// run outside it and captures the library's syslog lines.
#ifndef VBW_TEST_H
#define VBW_TEST_H

#include <gtest/gtest.h>

#include <stdio.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace vbw {

// Collects every syslog line of this process and its children at /dev/log,
// without the "<pri>date tag: " prefix: "bandwidth_enum.cpp:42 glob failed, iProtocol=7".
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<std::string> Lines();  // all lines received so far
    void Clear();
    int Count(const std::string &substring);  // lines that contain the text
    bool Contains(const std::string &substring) { return Count(substring) > 0; }
    // A line of the module `origin` ("bandwidth_enum.cpp") that contains the text.
    bool From(const std::string &origin, const std::string &substring);
    std::string Dump();  // all lines, for failure messages

private:
    void Drain();
    int fd_ = -1;
    int wakePipe_[2] = {-1, -1};
    std::thread reader_;
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

class SandboxTest : public ::testing::Test {
protected:
    void SetUp() override;
    LogCapture log;
};

bool InSandbox();

std::string ReadFile(const std::string &path);
void WriteFile(const std::string &path, const std::string &content, mode_t mode = 0644);
void MakeDirs(const std::string &path, mode_t mode = 0755);
bool Exists(const std::string &path);
struct stat Stat(const std::string &path);               // of the path itself (lstat), a failure when missing
void SetModified(const std::string &path, time_t when);  // of the path itself
int Occurrences(const std::string &text, const std::string &what);
inline bool Has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}
std::vector<std::string> Paths(const std::string &pattern);

// What print wrote to a stream of its own; its result must be `result`.
std::string Printed(const std::function<int(FILE *)> &print, int result = 0);

int64_t NowMs();  // monotonic
bool WaitUntil(const std::function<bool()> &cond, int timeoutMs);

pid_t Fork(const std::function<int()> &body);  // a child that exits with body's result
// The child's exit status; -1 when killed by a signal or, killed then, not ended within timeoutMs.
int WaitExit(pid_t pid, int timeoutMs);

}  // namespace vbw

#endif

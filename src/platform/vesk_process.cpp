// Processes: running a program and reading a pid file.
#include "vesk_system.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "vesk_log.h"

namespace {

bool IsBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// The positive decimal number that the text holds between blanks, or -1.
pid_t ParsePid(const char *text, size_t cb)
{
    size_t i = 0;
    while (i < cb && IsBlank(text[i])) {
        ++i;
    }
    long long value = 0;
    size_t first = i;
    for (; i < cb && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = value * 10 + (text[i] - '0');
        if (value > INT_MAX) {
            return -1;
        }
    }
    bool blDigits = i > first;
    while (i < cb && IsBlank(text[i])) {
        ++i;
    }
    return blDigits && i == cb && value > 0 ? static_cast<pid_t>(value) : -1;
}

// In a child about to run a program: its standard output and error go to
// /dev/null, so that what the program prints never lands on the caller's
// terminal or in the caller's own output (killall complains on stderr when
// it finds no process).  Only async-signal-safe calls.
void SilenceOutput()
{
    int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (fd >= 0) {
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
}

}  // namespace

int VLIBCExec(const char *szPath, const char *szArg1, const char *szArg2, const char *szArg3, const char *szArg4)
{
    if (!VESK_ARG_OK(szPath != nullptr)) {
        return -1;
    }
    // argv: the path, then the arguments up to the first NULL.
    const char *args[] = {szArg1, szArg2, szArg3, szArg4};
    char *argv[6] = {const_cast<char *>(szPath)};
    for (size_t i = 0; i < 4 && args[i] != nullptr; ++i) {
        argv[i + 1] = const_cast<char *>(args[i]);
    }
    pid_t pid = fork();
    if (pid < 0) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
    if (pid == 0) {
        SilenceOutput();
        execv(szPath, argv);
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

pid_t VLIBCReadPidFile(const char *szPath)
{
    if (!VESK_ARG_OK(szPath != nullptr)) {
        return -1;
    }
    int fd = open(szPath, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        VESK_ERR_SET(BW_ERR_FILE_OPEN);
        return -1;
    }
    // A pid file holds a few characters; a file that fills the buffer is malformed.
    char text[64];
    ssize_t cb;
    do {
        cb = read(fd, text, sizeof(text));
    } while (cb < 0 && errno == EINTR);
    close(fd);
    if (cb < 0) {
        VESK_ERR_SET(BW_ERR_FILE_READ);
        return -1;
    }
    pid_t pid = static_cast<size_t>(cb) < sizeof(text) ? ParsePid(text, static_cast<size_t>(cb)) : -1;
    if (pid < 0) {
        VESK_ERR_SET(BW_ERR_BAD_VALUE);
    }
    return pid;
}

// Processes: running a program without a shell, reading pid files.
#include "vesk_system.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

#include "vesk_log.h"

int VLIBCExec(const char *szPath, const char *szArg1, const char *szArg2, const char *szArg3, const char *szArg4)
{
    if (szPath == nullptr) {
        VESK_ERR_SET(BW_ERR_BAD_PARAMETERS);
        return -1;
    }
    // The arguments up to the first NULL.
    const char *argv[6] = {szPath, szArg1, szArg2, szArg3, szArg4, nullptr};
    for (int i = 1; i < 5; ++i) {
        if (argv[i] == nullptr) {
            for (int j = i; j < 5; ++j) {
                argv[j] = nullptr;
            }
            break;
        }
    }
    pid_t child = fork();
    if (child < 0) {
        return -1;
    }
    if (child == 0) {
        execv(szPath, const_cast<char *const *>(argv));
        _exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

pid_t VLIBCReadPidFile(const char *szPath)
{
    if (szPath == nullptr) {
        return -1;
    }
    FILE *fp = std::fopen(szPath, "re");
    if (fp == nullptr) {
        return -1;
    }
    char text[64] = "";
    bool read = std::fgets(text, sizeof text, fp) != nullptr;
    std::fclose(fp);
    if (!read) {
        return -1;
    }
    char *end = nullptr;
    errno = 0;
    long pid = std::strtol(text, &end, 10);
    while (*end == ' ' || *end == '\t' || *end == '\n' || *end == '\r') {
        ++end;
    }
    if (end == text || *end != '\0' || errno != 0 || pid <= 0 || pid > 0x7fffffffL) {
        return -1;
    }
    return static_cast<pid_t>(pid);
}

// Shared by the fuzz targets: they run only inside vbw-sandbox (the library
// looks at its fixed paths), keep their files in a private scratch
// directory, and drop the library's log lines (support.cpp).
#ifndef VESK_FUZZ_SUPPORT_H
#define VESK_FUZZ_SUPPORT_H

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace vesk_fuzz {

// Stops the run with a message; libFuzzer keeps the input as a crash.
inline void Check(bool blOk, const char *szWhat)
{
    if (!blOk) {
        fprintf(stderr, "check failed: %s\n", szWhat);
        abort();
    }
}

// Refuses to start outside the sandbox; returns for LLVMFuzzerInitialize.
inline int RequireSandbox(char ***argv)
{
    const char *szFlag = getenv("VBW_SANDBOX");
    Check(szFlag != nullptr && strcmp(szFlag, "1") == 0, (*argv)[0]);  // make fuzz runs it in vbw-sandbox
    return 0;
}

// A file of the scratch directory, replaced by one holding the bytes; the
// directory name holds no dot, so that the files are taken for status files.
inline std::string ScratchFile(const char *szName, const uint8_t *data, size_t size)
{
    static const std::string dir = [] {
        char szTemplate[] = "/tmp/veskfuzzXXXXXX";
        Check(mkdtemp(szTemplate) != nullptr, "a scratch directory");
        return std::string(szTemplate);
    }();
    const std::string path = dir + "/" + szName;
    unlink(path.c_str());  // a writer may have left it with other bits
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    Check(fd >= 0 && (ssize_t)size == write(fd, data, size) && fchmod(fd, 0666) == 0, "a scratch file");
    close(fd);
    return path;
}

}  // namespace vesk_fuzz

#endif

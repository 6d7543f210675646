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

#include "vesk_hash.h"

namespace vesk_fuzz {

// Stops a fuzz target that was started outside the sandbox.
inline void RequireSandbox(const char *szTarget)
{
    const char *szFlag = getenv("VBW_SANDBOX");
    if (NULL == szFlag || 0 != strcmp(szFlag, "1")) {
        fprintf(stderr, "%s: run it through vbw-sandbox (make fuzz does)\n", szTarget);
        exit(2);
    }
}

// A file of the scratch directory; the directory name holds no dot, so that
// the status reader takes the files in it for status files.
inline std::string ScratchFile(const char *szName)
{
    static const std::string dir = [] {
        char szTemplate[] = "/tmp/veskfuzzXXXXXX";
        if (NULL == mkdtemp(szTemplate)) {
            perror("mkdtemp");
            abort();
        }
        return std::string(szTemplate);
    }();
    return dir + "/" + szName;
}

inline std::string ReadWhole(const std::string &path)
{
    std::string text;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    char buffer[65536];
    for (ssize_t n; fd >= 0 && (n = read(fd, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, (size_t)n);
    }
    if (fd >= 0) {
        close(fd);
    }
    return text;
}

// Replaces the file by one holding the bytes, mode 0666.
inline void WriteWhole(const std::string &path, const uint8_t *data, size_t size)
{
    unlink(path.c_str());
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0 || (ssize_t)size != write(fd, data, size) || 0 != fchmod(fd, 0666)) {
        perror(path.c_str());
        abort();
    }
    close(fd);
}

// The pairs of a hash as "key=value\n" lines, in its order.
inline std::string HashText(const VLIBC_SZHASH *pHash)
{
    std::string text;
    for (int i = 0; i < VLIBCSzHashCount(pHash); ++i) {
        text += std::string(VLIBCSzHashKeyAt(pHash, i)) + "=" + VLIBCSzHashValueAt(pHash, i) + "\n";
    }
    return text;
}

// Stops the run with a message: libFuzzer keeps the input as a crash.
inline void Check(bool blOk, const char *szWhat)
{
    if (!blOk) {
        fprintf(stderr, "check failed: %s\n", szWhat);
        abort();
    }
}

}  // namespace vesk_fuzz

#endif

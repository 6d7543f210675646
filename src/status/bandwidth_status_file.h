/* Stream and line helpers shared by the status file writers. Internal.
 *
 * The status directory is writable by every user, so the writers open the
 * status file itself without following a symbolic link planted at its path,
 * and without blocking on a FIFO planted there. */
#ifndef BANDWIDTH_STATUS_FILE_H
#define BANDWIDTH_STATUS_FILE_H

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>

#include "common/bandwidth_handles.h"

namespace vesk_status {

using FilePtr = BwFilePtr;

/* Opens szPath with the given open(2) flags, never through a symbolic link,
 * and wraps the descriptor in a stream of szStreamMode; NULL on failure. */
inline FilePtr OpenNoFollow(const char *szPath, int iFlags, mode_t mode, const char *szStreamMode)
{
    int fd = open(szPath, iFlags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, mode);
    if (fd < 0) {
        return FilePtr();
    }
    FILE *fp = fdopen(fd, szStreamMode);
    if (NULL == fp) {
        close(fd);
    }
    return FilePtr(fp);
}

/* Growing buffer for getdelim, so that a line of any length is read whole. */
class LineReader {
public:
    LineReader() = default;
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;
    ~LineReader() { free(szLine_); }

    /* The next line with its newline; its length, or -1 at the end or on error. */
    ssize_t Next(FILE *fp) { return getdelim(&szLine_, &cbAlloc_, '\n', fp); }
    const char *Line() const { return szLine_; }

private:
    char *szLine_ = NULL;
    size_t cbAlloc_ = 0;
};

/* A stdio buffer that holds a whole status file (up to a bound), so that the
 * file is read, or its copy written, in one system call instead of one per
 * 4 KiB.  It must outlive the stream it serves: declare it before the stream. */
class StreamBuffer {
public:
    /* Gives fp, before its first read or write, a buffer for a file of cbFile
     * bytes; without the memory the stream keeps its own. */
    void Attach(FILE *fp, off_t cbFile)
    {
        uint64_t cbWanted = std::min<uint64_t>(static_cast<uint64_t>(std::max<off_t>(cbFile, 0)), kMaxBytes) + 1;
        size_t cb = static_cast<size_t>(std::max<uint64_t>(cbWanted, BUFSIZ));
        buffer_.reset(new (std::nothrow) char[cb]);
        if (buffer_) {
            setvbuf(fp, buffer_.get(), _IOFBF, cb);
        }
    }

private:
    static constexpr uint64_t kMaxBytes = 1024 * 1024;
    std::unique_ptr<char[]> buffer_;
};

}  // namespace vesk_status

#endif

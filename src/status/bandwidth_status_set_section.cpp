/* Replaces or removes one section of a status file.  The file is copied line
 * by line into a temporary file beside it, which is synced and then moved over
 * the old file, so a reader sees either the old file or the new one. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "status/bandwidth_status_file.h"
#include "common/bandwidth_handles.h"
#include "veskbandwidth.h"
#include "vesk_file.h"
#include "vesk_log.h"

using vesk_status::FilePtr;
using vesk_status::LineReader;

namespace {

enum RewriteMode { REWRITE_REMOVE = 0, REWRITE_REPLACE = 1 };

/* The temporary file of one rewrite: "<file>.XXXXXX" beside the file.  It is
 * removed again when the rewrite ends without moving it into place. */
class TempFile {
public:
    TempFile() = default;
    TempFile(const TempFile &) = delete;
    TempFile &operator=(const TempFile &) = delete;
    ~TempFile()
    {
        stream_.reset();
        if (blCreated_) {
            unlink(szPath_);
        }
    }

    /* Creates it, for a copy of about cbFile bytes, with the file-creation
     * mask `mask`; false with BW_ERR_FILE_OPEN set on failure. */
    bool Create(const char *szFile, off_t cbFile, mode_t mask)
    {
        int cbPath = snprintf(szPath_, sizeof(szPath_), "%s.XXXXXX", szFile);
        if (cbPath < 0 || (size_t)cbPath >= sizeof(szPath_)) {
            VESK_ERR_SET(BW_ERR_FILE_OPEN);
            return false;
        }
        BwUmaskScope scope(mask);
        int fd = mkostemp(szPath_, O_CLOEXEC);
        if (fd < 0) {
            VESK_ERR_SET(BW_ERR_FILE_OPEN);
            return false;
        }
        blCreated_ = true;
        stream_.reset(fdopen(fd, "w"));
        if (!stream_) {
            close(fd);
            VESK_ERR_SET(BW_ERR_FILE_OPEN);
            return false;
        }
        buffer_.Attach(Stream(), cbFile);
        return true;
    }

    FILE *Stream() const { return stream_.get(); }

    /* Syncs the content, gives it the permission bits `mode` and moves it over
     * szFile; false with the error code set on failure. */
    bool Commit(mode_t mode, const char *szFile)
    {
        if (0 != fflush(Stream()) || 0 != fsync(fileno(Stream()))) {
            VESK_ERR_SET(BW_ERR_FILE_WRITE);
            return false;
        }
        if (0 != fchmod(fileno(Stream()), mode)) {
            VESK_ERR_SET(BW_ERR_FILE_WRITE);
            return false;
        }
        if (0 != rename(szPath_, szFile)) {
            VESK_ERR_SET(BW_ERR_RENAME_FAILED);
            return false;
        }
        blCreated_ = false;
        return true;
    }

private:
    char szPath_[4096] = {0};
    bool blCreated_ = false;
    vesk_status::StreamBuffer buffer_;
    FilePtr stream_;
};

bool CopyLine(FILE *out, const char *szLine, size_t cbLine)
{
    if (cbLine != fwrite(szLine, 1, cbLine, out)) {
        VESK_ERR_SET(BW_ERR_FILE_WRITE);
        return false;
    }
    return true;
}

bool IsCommentLine(const char *szLine)
{
    return '#' == szLine[0] || ';' == szLine[0];
}

/* Copies `in` to `out` with every section named szSection replaced by the
 * pairs of pHash (REWRITE_REPLACE) or dropped (REWRITE_REMOVE); the comment
 * lines of the section stay.  1 when the section was met, 0 when not, -1 on
 * failure. */
int CopyWithSection(FILE *in, FILE *out, const char *szSection, const VLIBC_SZHASH *pHash, int iMode)
{
    LineReader reader;
    bool blInSection = false;
    bool blFound = false;
    ssize_t cbLine;

    while ((cbLine = reader.Next(in)) > 0) {
        const char *szLine = reader.Line();
        bool blCopy = true;
        if (VLIBCIFileIsSection(szLine, (size_t)cbLine)) {
            blInSection = (1 == VLIBCIFileMatchSection(szLine, (size_t)cbLine, szSection));
            if (blInSection) {
                if (REWRITE_REPLACE == iMode && VLIBCFileHash2File(out, szSection, pHash, 0) < 0) {
                    return -1;
                }
                blFound = true;
                blCopy = false;
            }
        } else if (blInSection) {
            blCopy = IsCommentLine(szLine);
        }
        if (blCopy && !CopyLine(out, szLine, (size_t)cbLine)) {
            return -1;
        }
    }
    if (!feof(in)) {
        VESK_ERR_SET(BW_ERR_FILE_READ);
        return -1;
    }
    return blFound ? 1 : 0;
}

/* Replaces (REWRITE_REPLACE) or removes (REWRITE_REMOVE) section szSection of
 * szFile.  1 done, 0 when the file has no such section (it is rewritten
 * unchanged and BW_ERR_NOT_FOUND is set), -1 on failure. */
int StatusFileRewrite(const char *szFile, const char *szSection, const VLIBC_SZHASH *pHash, int iMode)
{
    if (!VESK_ARG_OK(((void *)0) != szFile) || !VESK_ARG_OK(NULL != szSection)) {
        return -1;
    }
    vesk_status::StreamBuffer inBuffer;
    FilePtr in = vesk_status::OpenNoFollow(szFile, O_RDONLY, 0, "r");
    if (!in) {
        VESK_ERR_SET(BW_ERR_FILE_OPEN);
        return -1;
    }
    struct stat st;
    if (0 != fstat(fileno(in.get()), &st)) {
        VESK_ERR_SET(BW_ERR_STAT_FAILED);
        return -1;
    }
    /* A directory, or a FIFO or device planted at the path, is no status file. */
    if (!S_ISREG(st.st_mode)) {
        VESK_ERR_SET(BW_ERR_FILE_OPEN);
        return -1;
    }
    /* With the file's own bits as mask the temporary file starts without the
     * permissions the file grants, until it is complete. */
    mode_t mode = st.st_mode & 07777;
    inBuffer.Attach(in.get(), st.st_size);
    TempFile temp;
    if (!temp.Create(szFile, st.st_size, mode)) {
        return -1;
    }
    int iFound = CopyWithSection(in.get(), temp.Stream(), szSection, pHash, iMode);
    if (iFound < 0 || !temp.Commit(mode, szFile)) {
        return -1;
    }
    if (!iFound) {
        VESK_ERR_SET(BW_ERR_NOT_FOUND);
    }
    return iFound;
}

}  // namespace

int VESKBandwidthStatusSetSection(const char *szFile, const char *szSection, const VLIBC_SZHASH *pHash)
{
    return StatusFileRewrite(szFile, szSection, pHash, REWRITE_REPLACE);
}

int VESKBandwidthStatusRemoveSection(const char *szFile, const char *szSection)
{
    return StatusFileRewrite(szFile, szSection, NULL, REWRITE_REMOVE);
}

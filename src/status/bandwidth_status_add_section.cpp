/* Appends a section to a status file unless the file already has one of that
 * name; the file is created when missing.  The appended text is gathered in
 * memory and reaches the file in one write, so that appends of other
 * processes never land inside it and a rewrite never copies half of it,
 * however long the section (a file name may fill 4095 characters, more than
 * a stdio buffer). */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "status/bandwidth_status_file.h"
#include "veskbandwidth.h"
#include "vesk_file.h"
#include "vesk_log.h"

using vesk_status::FilePtr;
using vesk_status::LineReader;

namespace {

enum SectionScan { SCAN_FAILED, SCAN_PRESENT, SCAN_ENDS_WITH_NEWLINE, SCAN_ENDS_WITHOUT_NEWLINE };

/* Reads the stream from its start to its end, looking for the header of
 * szSection, and tells how the file ends when the header is not there.  An
 * empty file counts as ending without a newline. */
SectionScan ScanForSection(FILE *fp, const char *szSection)
{
    LineReader reader;
    bool blEndsWithNewline = false;
    ssize_t cbLine;

    while (!ferror(fp) && (cbLine = reader.Next(fp)) > 0) {
        const char *szLine = reader.Line();
        if (VLIBCIFileIsSection(szLine, (size_t)cbLine) &&
            1 == VLIBCIFileMatchSection(szLine, (size_t)cbLine, szSection)) {
            return SCAN_PRESENT;
        }
        blEndsWithNewline = ('\n' == szLine[cbLine - 1]);
    }
    if (!feof(fp)) {
        return SCAN_FAILED;
    }
    return blEndsWithNewline ? SCAN_ENDS_WITH_NEWLINE : SCAN_ENDS_WITHOUT_NEWLINE;
}

/* The text of one append, written through a stream into memory. */
class AppendText {
public:
    AppendText() : fp_(open_memstream(&szText_, &cbText_)) {}
    ~AppendText()
    {
        if (NULL != fp_) {
            fclose(fp_);
        }
        free(szText_);
    }
    AppendText(const AppendText &) = delete;
    AppendText &operator=(const AppendText &) = delete;

    FILE *Stream() const { return fp_; }

    /* Ends the text and appends it to fd in one write; false with
     * BW_ERR_FILE_WRITE set on failure. */
    bool WriteTo(int fd)
    {
        int iClosed = fclose(fp_);
        fp_ = NULL;
        if (0 != iClosed || (ssize_t)cbText_ != write(fd, szText_, cbText_)) {
            VESK_ERR_SET(BW_ERR_FILE_WRITE);
            return false;
        }
        return true;
    }

private:
    char *szText_ = NULL;
    size_t cbText_ = 0;
    FILE *fp_;
};

}  // namespace

int VESKBandwidthStatusAddSection(const char *szFile, const char *szSection, const VLIBC_SZHASH *pHash)
{
    if (NULL == szSection || NULL == pHash || NULL == szFile) {
        VESK_ERR_SET(BW_ERR_BAD_PARAMETERS);
        return -1;
    }
    /* Reading starts at the beginning, every write goes to the end. */
    vesk_status::StreamBuffer buffer;
    FilePtr fp = vesk_status::OpenNoFollow(szFile, O_RDWR | O_CREAT | O_APPEND, 0666, "a+");
    if (!fp) {
        VESK_ERR_SET(BW_ERR_FILE_OPEN);
        return -1;
    }
    struct stat st;
    if (0 == fstat(fileno(fp.get()), &st)) {
        buffer.Attach(fp.get(), st.st_size);
    }
    SectionScan scan = ScanForSection(fp.get(), szSection);
    if (SCAN_PRESENT == scan) {
        return 0;
    }
    if (SCAN_FAILED == scan) {
        return -1;
    }
    AppendText text;
    if (NULL == text.Stream()) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
    if (SCAN_ENDS_WITHOUT_NEWLINE == scan && EOF == fputc('\n', text.Stream())) {
        VESK_ERR_SET(BW_ERR_FILE_WRITE);
        return -1;
    }
    int iResult = VLIBCFileHash2File(text.Stream(), szSection, pHash, 0);
    if (0 == iResult && !text.WriteTo(fileno(fp.get()))) {
        return -1;
    }
    /* Synced whatever the outcome; that does not change the answer. */
    fsync(fileno(fp.get()));
    return 0 == iResult ? 1 : iResult;
}

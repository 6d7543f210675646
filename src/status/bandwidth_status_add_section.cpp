/* Appends a section to a status file unless the file already has one of that
 * name; the file is created when missing. */
#include <fcntl.h>
#include <stdio.h>
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

}  // namespace

int VESKBandwidthStatusAddSection(const char *szFile, const char *szSection, const VLIBC_SZHASH *pHash)
{
    if (NULL == szSection || NULL == pHash || NULL == szFile) {
        VESK_ERR_SET(BW_ERR_BAD_PARAMETERS);
        return -1;
    }
    /* Reading starts at the beginning, every write goes to the end. */
    FilePtr fp = vesk_status::OpenNoFollow(szFile, O_RDWR | O_CREAT | O_APPEND, 0666, "a+");
    if (!fp) {
        VESK_ERR_SET(BW_ERR_FILE_OPEN);
        return -1;
    }
    SectionScan scan = ScanForSection(fp.get(), szSection);
    if (SCAN_PRESENT == scan) {
        return 0;
    }
    if (SCAN_FAILED == scan) {
        return -1;
    }
    if (SCAN_ENDS_WITHOUT_NEWLINE == scan && EOF == fputc('\n', fp.get())) {
        VESK_ERR_SET(BW_ERR_FILE_WRITE);
        return -1;
    }
    int iResult = VLIBCFileHash2File(fp.get(), szSection, pHash, 0);
    /* Flushed and synced whatever the outcome; neither changes the answer. */
    fflush(fp.get());
    fsync(fileno(fp.get()));
    return 0 == iResult ? 1 : iResult;
}

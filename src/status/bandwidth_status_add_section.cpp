// Appends a section to a status file unless the file already has one of that
// name; the file is created when missing.  The appended text reaches the file
// in one write, so that appends of other processes never land inside it and
// a rewrite never copies half of it, however long the section.
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "status/bandwidth_status_file.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

int vesk_status::AppendStatusSection(const vesk_section::Dir &dir, const char *szName, const char *szSection,
                                     const VLIBC_SZHASH *pHash)
{
    try {
        // Reading starts at the beginning, every write goes to the end.
        constexpr int kFlags = O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
        vesk_section::Fd fd(openat(dir.Fd(), szName, kFlags, 0666));
        StatusFile status;
        int iCode =
            fd.Get() < 0 ? BW_ERR_FILE_OPEN : LoadOpenStatusFile(VESK_SITE, fd.Get(), szName, time(nullptr), &status);
        // A second link to the file could be someone else's file: never written to.  No link
        // at all is a file replaced meanwhile, which takes the append with it (healed next pass).
        if (iCode == 0 && status.st.st_nlink > 1) {
            iCode = BW_ERR_FILE_OPEN;
        }
        if (iCode == BW_ERR_FILE_READ) {
            return -1;
        }
        if (iCode != 0) {
            VESK_ERR_SET(iCode);
            return -1;
        }
        if (status.file->Find(szSection) != nullptr) {
            return 0;
        }
        std::string text = status.file->EndsWithNewline() ? "" : "\n";
        int iResult = SectionText(szSection, pHash, &text);
        if (iResult != 0) {
            return iResult;
        }
        // A file over the bounds is replaced by what a heal keeps, and the section.
        iCode = status.blHealed
                    ? vesk_section::ReplaceFile(dir, szName, status.file->Content() + text, status.st.st_mode)
                    : vesk_section::AppendOnce(fd.Get(), text);
        if (iCode != 0) {
            VESK_ERR_SET(iCode);
            return -1;
        }
        // Synced whatever the outcome; that does not change the answer.
        fsync(fd.Get());
        return 1;
    } catch (...) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

int VESKBandwidthStatusAddSection(const char *szFile, const char *szSection, const VLIBC_SZHASH *pHash)
{
    if (szSection == nullptr || pHash == nullptr || szFile == nullptr) {
        VESK_ERR_SET(BW_ERR_BAD_PARAMETERS);
        return -1;
    }
    return vesk_status::AtPath(VESK_SITE, szFile, [&](const vesk_section::Dir &dir, const char *szName) {
        return vesk_status::AppendStatusSection(dir, szName, szSection, pHash);
    });
}

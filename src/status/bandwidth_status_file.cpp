// The status store's files: the directory, bounded reading and healing, the
// text of a section, and the collection of leftover temporary files.
#include "status/bandwidth_status_file.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string_view>
#include <utility>

#include "common/bandwidth_handles.h"
#include "status/bandwidth_status_path.h"
#include "vesk_file.h"
#include "vesk_system.h"

namespace vesk_status {
namespace {

// The status directory without its trailing slash, which would make the
// kernel follow a link planted there.
constexpr char kStatusDirEntry[] = "/tmp/bandwidth";
// A temporary file of a writer is a leftover once unchanged this long.
constexpr time_t kTemporaryMaxAge = 10;
// Entries of the status directory looked at by one collection of leftovers.
constexpr size_t kTemporaryScanMax = 4096;

time_t g_lastCollection = 0;

// True when the section converts into a record and is fresh.
bool ConvertsAndIsFresh(const vesk_section::SectionFile &file, const vesk_section::Section &section, time_t now,
                        BwHash &hash)
{
    VESK_BANDWIDTH_STATUS record;
    memset(&record, 0, sizeof(record));
    VLIBCHashRemoveAll(hash.Get());
    return file.FillHash(section, hash.Addr()) == 0 && VESKBandwidthInitStatusFromHash(&record, hash.Get()) == 0 &&
           IsFresh(record.timestamp, now);
}

// The sections a heal keeps, as text: of the first kMaxSections, those that
// convert and are fresh.
std::string HealedContent(const vesk_section::SectionFile &file, time_t now)
{
    std::string kept;
    BwHash hash;
    const auto &sections = file.Distinct();
    for (size_t i = 0; i < sections.size() && i < kMaxSections && hash; ++i) {
        if (ConvertsAndIsFresh(file, *sections[i], now, hash)) {
            kept.append(file.Text(*sections[i]));
            if (kept.back() != '\n') {
                kept.append("\n");
            }
        }
    }
    return kept;
}

int ParseStatusFile(VeskSite site, vesk_section::FileBytes &bytes, const char *szName, time_t now, StatusFile *pFile)
{
    try {
        pFile->st = bytes.st;
        if (bytes.blTruncated) {
            bytes.content.resize(bytes.content.rfind('\n') + 1);  // without the line that was cut
        }
        pFile->file.reset(new vesk_section::SectionFile(std::move(bytes.content)));
        pFile->blHealed = bytes.blTruncated || pFile->file->Sections().size() > kMaxSections;
        if (pFile->blHealed) {
            VESK_LOG_AT(site,
                        "Status file [%s] holds more than %zu bytes or %zu sections; only its fresh sections "
                        "are kept.",
                        szName, kMaxFileBytes, kMaxSections);
            pFile->file.reset(new vesk_section::SectionFile(HealedContent(*pFile->file, now)));
        }
        return 0;
    } catch (const std::bad_alloc &) {
        return BW_ERR_OUT_OF_MEMORY;
    }
}

}  // namespace

int OpenStatusDir(VeskSite site, bool blCreate, vesk_section::Dir *pDir)
{
    struct stat st;
    bool blPresent = false;
    if (lstat(kStatusDirEntry, &st) != 0) {
        if (errno != ENOTDIR && errno != ENOENT) {
            VESK_LOG_AT(site, "stat [%s] failed. %m", kStatusDir);
            VESK_ERR_SET_AT(site, BW_ERR_STAT_FAILED);
            return -1;
        }
    } else if (S_ISLNK(st.st_mode)) {
        VESK_LOG_AT(site, "[%s] is a symbolic link; it is not followed.", kStatusDir);
        VESK_ERR_SET_AT(site, BW_ERR_FILE_OPEN);
        return -1;
    } else {
        blPresent = S_ISDIR(st.st_mode);
    }
    if (!blPresent && !blCreate) {
        return 0;
    }
    if (!blPresent && VESKFSMkdirP(kStatusDir, 0, 1, UID_ERR, (gid_t)-1, 0777) < 0) {
        VESK_LOG_AT(site, "VESKFSMkdirP failed. [%s] [0x%04X %s:%d]", kStatusDir, VESK_ERR_ARGS);
        return -1;
    }
    if (!pDir->Open(kStatusDirEntry)) {
        VESK_LOG_AT(site, "open [%s] failed. %m", kStatusDir);
        VESK_ERR_SET_AT(site, BW_ERR_FILE_OPEN);
        return -1;
    }
    return 1;
}

int AtPath(VeskSite site, const char *szPath,
           const std::function<int(const vesk_section::Dir &dir, const char *szName)> &change)
{
    try {
        vesk_section::Dir dir;
        std::string name;
        if (!dir.OpenParent(szPath, &name)) {
            VESK_ERR_SET_AT(site, BW_ERR_FILE_OPEN);
            return -1;
        }
        return change(dir, name.c_str());
    } catch (...) {
        VESK_ERR_SET_AT(site, BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

int LoadStatusFile(VeskSite site, const vesk_section::Dir &dir, const char *szName, time_t now, StatusFile *pFile)
{
    vesk_section::FileBytes bytes;
    int iCode = vesk_section::ReadBytes(dir.Fd(), szName, true, kMaxFileBytes, &bytes);
    return iCode != 0 ? iCode : ParseStatusFile(site, bytes, szName, now, pFile);
}

int LoadOpenStatusFile(VeskSite site, int fd, const char *szName, time_t now, StatusFile *pFile)
{
    vesk_section::FileBytes bytes;
    int iCode = vesk_section::ReadOpenFile(fd, kMaxFileBytes, &bytes);
    return iCode != 0 ? iCode : ParseStatusFile(site, bytes, szName, now, pFile);
}

int SectionText(const char *szSection, const VLIBC_SZHASH *pHash, std::string *pText)
{
    char *szText = nullptr;
    size_t cbText = 0;
    FILE *fp = open_memstream(&szText, &cbText);
    if (fp == nullptr) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
    int iResult = VLIBCFileHash2File(fp, szSection, pHash, 0);
    if (fclose(fp) != 0 && iResult == 0) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        iResult = -1;
    }
    try {
        if (iResult == 0) {
            pText->append(szText, cbText);
        }
    } catch (const std::bad_alloc &) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        iResult = -1;
    }
    free(szText);
    return iResult;
}

void CollectTemporaries(const vesk_section::Dir &dir, time_t now)
{
    if (now >= g_lastCollection && now - g_lastCollection < kTemporaryMaxAge) {
        return;
    }
    g_lastCollection = now;
    // Status file names hold no dot: "<name>.XXXXXX" is a writer's temporary file.
    vesk_section::RemoveStaleEntries(
        dir,
        [](std::string_view entry) {
            std::string_view file;
            return vesk_section::IsTemporaryName(entry, &file) && file.find('.') == std::string_view::npos;
        },
        now, kTemporaryMaxAge, kTemporaryScanMax);
}

}  // namespace vesk_status

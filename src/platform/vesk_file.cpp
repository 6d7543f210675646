// Section files of the platform: the readers with their per-process cache of
// parsed files, and the writers (replace, append, remove a section).
//
// The syntax and the file handling are the section core's (src/section):
// writers refuse a section name or key that would not read back as written,
// store a newline in a value as a blank, replace the whole file atomically
// (temporary file "<path>.XXXXXX" beside it, fsync, read and write bits of
// the old mode, rename), never follow a symbolic link at the file's path or
// its directory's, and remove their file's temporary files that killed
// writers left more than 10 seconds ago.
#include "vesk_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "section/section_io.h"
#include "section/section_text.h"
#include "vesk_log.h"

namespace {

using vesk_section::Dir;
using vesk_section::FileStamp;
using vesk_section::IsValidKey;
using vesk_section::IsValidSectionName;
using vesk_section::Section;
using vesk_section::SectionFile;
using SectionFilePtr = std::shared_ptr<const SectionFile>;

// A temporary file of a writer is a leftover once unchanged this long.
constexpr time_t kTemporaryMaxAge = 10;
// Entries of a file's directory looked at for its leftover temporary files.
constexpr size_t kTemporaryScanMax = 4096;
// Readers read configuration files whole, however large.
constexpr size_t kNoBound = SIZE_MAX / 2;

// Checks what a writer is asked to write; logs and sets BW_ERR_BAD_PARAMETERS
// when it cannot be written faithfully.
bool SectionArgsOk(const char *szSection, const VLIBC_SZHASH *pHash)
{
    if (!VESK_ARG_OK(szSection != nullptr) || !VESK_ARG_OK(pHash != nullptr) ||
        !VESK_ARG_OK(IsValidSectionName(szSection))) {
        return false;
    }
    int count = VLIBCSzHashCount(pHash);
    for (int i = 0; i < count; ++i) {
        const char *szKey = VLIBCSzHashKeyAt(pHash, i);
        if (!VESK_ARG_OK(IsValidKey(szKey))) {
            return false;
        }
    }
    return true;
}

// ---------------------------------------------------------------- cache

int64_t Nanoseconds(const struct timespec &ts)
{
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// True when the stamp alone tells every later change of the file: its last
// change lies so far before the moment its content was read that a change
// after that moment carries a later time.  File times come from a clock that
// lags by up to a tick (ms) and may be cut to whole seconds by the file
// system; a file changed more recently is compared by content instead.
bool HasFineTimes(const struct stat &st)
{
    return st.st_mtim.tv_nsec != 0 || st.st_ctim.tv_nsec != 0;
}

bool IsSettled(const struct stat &st)
{
    const int64_t kFineMargin = 50 * 1000000LL;
    const int64_t kCoarseMargin = 2 * 1000000000LL;
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    bool blFine = HasFineTimes(st);
    int64_t newest = std::max(Nanoseconds(st.st_mtim), Nanoseconds(st.st_ctim));
    return Nanoseconds(now) - newest > (blFine ? kFineMargin : kCoarseMargin);
}

// The last parsed files of this process, by path, most recently used first.
// An entry is used only when a fresh stat of the path gives the same stamp
// (device, inode, size, change times) and either the stamp is settled or the
// file has fine-grained times, or when the content read now is the cached
// content.  With fine-grained times the only version an entry can be mistaken
// for was written within the same clock tick, so a reader sees at worst the
// file as it was one tick earlier, as if it had read a moment sooner, while a
// file that changes all the time is still parsed once per change instead of
// once per section read.  Writers read the file afresh.  Bounded: at most
// kMaxEntries files, and kMaxBytes of content besides the file read last.  A
// mutex guards it, although the library calls it from one thread at a time.
class FileCache {
public:
    // The parsed file at the path; NULL with the error state set on failure.
    // A valid entry costs one stat of the path; otherwise the file is opened
    // and its fstat describes what is read.
    SectionFilePtr Load(const char *szPath)
    {
        struct stat st;
        if (stat(szPath, &st) != 0 || !S_ISREG(st.st_mode)) {
            VESK_ERR_SET(BW_ERR_FILE_OPEN);
            return nullptr;
        }
        try {
            std::lock_guard<std::mutex> lock(mutex_);
            size_t i = IndexOf(szPath);
            bool blTrusted = i < entries_.size() && (entries_[i].settled || HasFineTimes(st));
            if (blTrusted && entries_[i].stamp == FileStamp(st)) {
                return Promote(i).file;
            }
            return ReadFile(szPath, i);
        } catch (...) {
            VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
            return nullptr;
        }
    }

    // Drops the entry of a file this process has just replaced.
    void Forget(const char *szPath)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        size_t i = IndexOf(szPath);
        if (i < entries_.size()) {
            entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }

private:
    static const size_t kMaxEntries = 8;
    static const size_t kMaxBytes = 4 * 1024 * 1024;  // all entries but the newest

    struct Entry {
        std::string path;
        FileStamp stamp;
        bool settled;
        SectionFilePtr file;
    };

    // Reads the file and refreshes its entry (index i, or none when past the end).
    SectionFilePtr ReadFile(const char *szPath, size_t i)
    {
        vesk_section::FileBytes bytes;
        int iCode = vesk_section::ReadBytes(AT_FDCWD, szPath, false, kNoBound, &bytes);
        if (iCode != 0) {
            VESK_ERR_SET(iCode);
            return nullptr;
        }
        FileStamp stamp(bytes.st);
        bool settled = IsSettled(bytes.st);
        if (i < entries_.size() && entries_[i].file->Content() == bytes.content) {
            Entry &entry = Promote(i);
            entry.stamp = stamp;
            entry.settled = settled;
            return entry.file;
        }
        auto file = std::make_shared<const SectionFile>(std::move(bytes.content));
        if (i < entries_.size()) {
            entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(i));
        }
        entries_.insert(entries_.begin(), Entry{szPath, stamp, settled, file});
        Trim();
        return file;
    }

    // Drops the least recently used entries beyond the bounds.  The newest
    // entry stays whatever its size, so that listing the sections of a large
    // file and then reading them one by one still reads it once.
    void Trim()
    {
        size_t keep = entries_.empty() ? 0 : 1;
        size_t cbOthers = 0;
        while (keep < entries_.size() && keep < kMaxEntries) {
            cbOthers += entries_[keep].file->Content().size();
            if (cbOthers > kMaxBytes) {
                break;
            }
            ++keep;
        }
        entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(keep), entries_.end());
    }

    size_t IndexOf(const char *szPath) const
    {
        size_t i = 0;
        while (i < entries_.size() && entries_[i].path != szPath) {
            ++i;
        }
        return i;
    }

    Entry &Promote(size_t i)
    {
        std::rotate(entries_.begin(), entries_.begin() + static_cast<std::ptrdiff_t>(i),
                    entries_.begin() + static_cast<std::ptrdiff_t>(i) + 1);
        return entries_.front();
    }

    std::mutex mutex_;
    std::vector<Entry> entries_;
};

FileCache g_cache;

// ---------------------------------------------------------------- writers

// What a writer makes of the file: its new content, or nothing when the file
// stays as it is.
using Change = bool (*)(const SectionFile &file, const char *szSection, const VLIBC_SZHASH *pHash,
                        std::string *pContent);

// Every section of the name replaced by the pairs (removed without a hash);
// nothing when the file has no such section.
bool Rewrite(const SectionFile &file, const char *szSection, const VLIBC_SZHASH *pHash, std::string *pContent)
{
    if (file.Find(szSection) == nullptr) {
        return false;
    }
    std::string replacement;
    if (pHash != nullptr) {
        vesk_section::AppendSectionText(replacement, szSection, pHash);
    }
    *pContent = file.Rewritten([szSection](std::string_view name) { return name == szSection; }, replacement);
    return true;
}

// The section appended, after a newline when the last line lacks one;
// nothing when the file has the section already.
bool Append(const SectionFile &file, const char *szSection, const VLIBC_SZHASH *pHash, std::string *pContent)
{
    if (file.Find(szSection) != nullptr) {
        return false;
    }
    *pContent = file.Content();
    if (!pContent->empty() && !file.EndsWithNewline()) {
        pContent->append("\n");
    }
    vesk_section::AppendSectionText(*pContent, szSection, pHash);
    return true;
}

// Removes the file's temporary files that killed writers left behind.
void RemoveLeftovers(const Dir &dir, const std::string &name)
{
    vesk_section::RemoveStaleEntries(
        dir,
        [&name](std::string_view entry) {
            std::string_view file;
            return vesk_section::IsTemporaryName(entry, &file) && file == name;
        },
        time(nullptr), kTemporaryMaxAge, kTemporaryScanMax);
}

// Applies the change to the file at the path: 1 changed, 0 not (the file
// untouched, BW_ERR_NOT_FOUND set when blMissingIsNotFound), -1 failure.
// blCreate creates a missing file first.
int ChangeFile(const char *szPath, const char *szSection, const VLIBC_SZHASH *pHash, bool blCreate,
               bool blMissingIsNotFound, Change change)
{
    try {
        Dir dir;
        std::string name;
        if (!dir.OpenParent(szPath, &name)) {
            VESK_ERR_SET(BW_ERR_FILE_OPEN);
            return -1;
        }
        int iCode = blCreate ? vesk_section::CreateIfMissing(dir, name.c_str()) : 0;
        vesk_section::FileBytes bytes;
        if (iCode == 0) {
            iCode = vesk_section::ReadBytes(dir.Fd(), name.c_str(), true, kNoBound, &bytes);
        }
        if (iCode != 0) {
            VESK_ERR_SET(iCode);
            return -1;
        }
        std::string content;
        if (!change(SectionFile(std::move(bytes.content)), szSection, pHash, &content)) {
            if (blMissingIsNotFound) {
                VESK_ERR_SET(BW_ERR_NOT_FOUND);
            }
            return 0;
        }
        iCode = vesk_section::ReplaceFile(dir, name.c_str(), content, bytes.st.st_mode);
        if (iCode != 0) {
            VESK_ERR_SET(iCode);
            return -1;
        }
        g_cache.Forget(szPath);
        RemoveLeftovers(dir, name);
        return 1;
    } catch (...) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

}  // namespace

int VLIBCFileExist(const char *szPath)
{
    struct stat st;
    if (!VESK_ARG_OK(szPath != nullptr)) {
        return 0;
    }
    return stat(szPath, &st) == 0 ? 1 : 0;
}

int VLIBCFileTouch(const char *szPath)
{
    if (!VESK_ARG_OK(szPath != nullptr)) {
        return -1;
    }
    try {
        Dir dir;
        std::string name;
        int iCode = dir.OpenParent(szPath, &name) ? vesk_section::CreateIfMissing(dir, name.c_str()) : BW_ERR_FILE_OPEN;
        if (iCode != 0) {
            VESK_ERR_SET(iCode);
            return -1;
        }
        return 0;
    } catch (...) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

int VLIBCFileGetSection(const char *szPath, const char *szSection, VLIBC_SZHASH **ppHash)
{
    if (!VESK_ARG_OK(szPath != nullptr) || !VESK_ARG_OK(szSection != nullptr) || !VESK_ARG_OK(ppHash != nullptr)) {
        return -1;
    }
    SectionFilePtr file = g_cache.Load(szPath);
    if (file == nullptr) {
        return -1;
    }
    const Section *section = file->Find(szSection);
    if (section == nullptr) {
        VESK_ERR_SET(BW_ERR_NOT_FOUND);
        return 0;
    }
    try {
        return file->FillHash(*section, ppHash) == 0 ? 1 : -1;
    } catch (...) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

int VLIBCFileEnumSection(const char *szPath, VLIBC_SZLIST **ppList)
{
    if (!VESK_ARG_OK(szPath != nullptr) || !VESK_ARG_OK(ppList != nullptr)) {
        return -1;
    }
    SectionFilePtr file = g_cache.Load(szPath);
    if (file == nullptr) {
        return -1;
    }
    if (*ppList == nullptr && (*ppList = VLIBCSzListAlloc(0)) == nullptr) {
        return -1;
    }
    try {
        for (const Section *section : file->Distinct()) {
            if (VLIBCSzListPush(ppList, std::string(section->name).c_str()) < 0) {
                return -1;
            }
        }
    } catch (...) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
    return static_cast<int>(file->Distinct().size());
}

int VLIBCFileSetSection(const char *szPath, const char *szSection, const char *szReserved, const VLIBC_SZHASH *pHash,
                        int iFlags)
{
    (void)szReserved;
    (void)iFlags;
    if (!VESK_ARG_OK(szPath != nullptr) || !SectionArgsOk(szSection, pHash)) {
        return -1;
    }
    return ChangeFile(szPath, szSection, pHash, false, true, Rewrite);
}

int VLIBCFileAddSection(const char *szPath, const char *szSection, const VLIBC_SZHASH *pHash, int iFlags)
{
    (void)iFlags;
    if (!VESK_ARG_OK(szPath != nullptr) || !SectionArgsOk(szSection, pHash)) {
        return -1;
    }
    return ChangeFile(szPath, szSection, pHash, true, false, Append);
}

int VLIBCFileRemoveSection(const char *szPath, const char *szSection)
{
    if (!VESK_ARG_OK(szPath != nullptr) || !VESK_ARG_OK(szSection != nullptr)) {
        return -1;
    }
    return ChangeFile(szPath, szSection, nullptr, false, true, Rewrite);
}

int VLIBCFileHash2File(FILE *fp, const char *szSection, const VLIBC_SZHASH *pHash, int iFlags)
{
    (void)iFlags;
    if (!VESK_ARG_OK(fp != nullptr) || !SectionArgsOk(szSection, pHash)) {
        return -1;
    }
    std::string text;
    try {
        vesk_section::AppendSectionText(text, szSection, pHash);
    } catch (...) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
    if (fwrite(text.data(), 1, text.size(), fp) != text.size()) {
        VESK_ERR_SET(BW_ERR_FILE_WRITE);
        return -1;
    }
    return 0;
}

int VLIBCIFileIsSection(const char *szLine, size_t cbLine)
{
    std::string_view name;
    return szLine != nullptr && vesk_section::HeaderName(std::string_view(szLine, cbLine), &name) ? 1 : 0;
}

int VLIBCIFileMatchSection(const char *szLine, size_t cbLine, const char *szSection)
{
    std::string_view name;
    return szLine != nullptr && szSection != nullptr &&
                   vesk_section::HeaderName(std::string_view(szLine, cbLine), &name) && name == szSection
               ? 1
               : 0;
}

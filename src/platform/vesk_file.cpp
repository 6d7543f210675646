// Section files.
//
// Syntax, line by line (a line ends at '\n'; the last one may lack it):
//   "[NAME]"     header: '[' first, ']' last, NAME holds no ']', '\n' or NUL.
//                Any other line beginning with '[' is an unknown line.
//   "#..", ";.." comment.
//   ""           blank line.
//   "KEY=VALUE"  pair: KEY is the non-empty text before the first '=', VALUE
//                the rest of the line without its newline.
//   anything else is an unknown line: readers ignore it, writers keep it.
// Only '\n' ends a line: a '\r' is an ordinary character of a name, key or
// value and round-trips unchanged.  A section runs from its header to the next
// header or the end of the file; lines before the first header belong to no
// section.
//
// Writers refuse a section name that holds ']' or '\n' and a key that is
// empty, holds '=' or '\n', or begins with '[', '#' or ';', so that what they
// write reads back as written.  Values are written with every '\n' replaced by
// a blank: a value can never start a line of its own.
//
// Writers replace the whole file atomically (temporary file "<path>.XXXXXX"
// beside it, fsync, the old mode, rename) and never follow a symbolic link at
// the file's path: they open the existing file with O_NOFOLLOW and create the
// temporary file exclusively.
//
// Parsed files are cached per process (see FileCache), so that a caller that
// lists the sections of a file and then reads them one by one reads and parses
// the file once.
#include "vesk_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "vesk_log.h"

namespace {

// ---------------------------------------------------------------- syntax

enum class LineKind { Blank, Comment, Header, Pair, Unknown };

// The line without its newline.
std::string_view LineBody(const char *szLine, size_t cbLine)
{
    if (cbLine > 0 && szLine[cbLine - 1] == '\n') {
        --cbLine;
    }
    return std::string_view(szLine, cbLine);
}

// True when the body is a header line; *pName receives the section name.
bool ParseHeader(std::string_view body, std::string_view *pName)
{
    if (body.size() < 2 || body.front() != '[' || body.back() != ']') {
        return false;
    }
    // A name with a NUL byte could never be asked for: such a line is no header.
    std::string_view name = body.substr(1, body.size() - 2);
    if (name.find_first_of(std::string_view("]\n\0", 3)) != std::string_view::npos) {
        return false;
    }
    *pName = name;
    return true;
}

LineKind Classify(std::string_view body)
{
    std::string_view name;
    if (body.empty()) {
        return LineKind::Blank;
    }
    if (body.front() == '#' || body.front() == ';') {
        return LineKind::Comment;
    }
    if (body.front() == '[') {
        return ParseHeader(body, &name) ? LineKind::Header : LineKind::Unknown;
    }
    size_t eq = body.find('=');
    return eq != std::string_view::npos && eq > 0 ? LineKind::Pair : LineKind::Unknown;
}

bool IsValidSectionName(const char *szSection)
{
    return strpbrk(szSection, "]\n") == nullptr;
}

bool IsValidKey(const char *szKey)
{
    return szKey[0] != '\0' && strchr("[#;", szKey[0]) == nullptr && strpbrk(szKey, "=\n") == nullptr;
}

// Checks what a writer is asked to write; logs and sets BW_ERR_BAD_PARAMETERS
// when it cannot be written faithfully.
bool SectionArgsOk(const char *szSection, const VLIBC_SZHASH *pHash)
{
    if (!VESK_ARG_OK(NULL != szSection) || !VESK_ARG_OK(NULL != pHash) ||
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

// Appends the header and the pairs of a section; newlines in values become blanks.
void AppendSectionText(std::string &out, const char *szSection, const VLIBC_SZHASH *pHash)
{
    out.append("[").append(szSection).append("]\n");
    int count = VLIBCSzHashCount(pHash);
    for (int i = 0; i < count; ++i) {
        out.append(VLIBCSzHashKeyAt(pHash, i)).append("=");
        size_t start = out.size();
        out.append(VLIBCSzHashValueAt(pHash, i));
        for (size_t j = start; j < out.size(); ++j) {
            if (out[j] == '\n') {
                out[j] = ' ';
            }
        }
        out.append("\n");
    }
}

// ---------------------------------------------------------------- parsed file

struct Line {
    size_t off;  // offset in the content
    size_t cb;   // length, newline included
    LineKind kind;
};

struct Section {
    std::string_view name;  // view into the content
    size_t begin;           // first line after the header
    size_t end;             // one past the section's last line
};

// The content of a file and its lines and sections.  Built once and never
// changed: the views point into the content.
class SectionFile {
public:
    explicit SectionFile(std::string content) : content_(std::move(content)) { Parse(); }
    SectionFile(const SectionFile &) = delete;
    SectionFile &operator=(const SectionFile &) = delete;

    const std::string &Content() const { return content_; }
    const std::vector<Line> &Lines() const { return lines_; }
    const std::vector<Section> &Sections() const { return sections_; }
    std::string_view Body(const Line &line) const { return LineBody(content_.data() + line.off, line.cb); }
    std::string_view Text(const Line &line) const { return std::string_view(content_).substr(line.off, line.cb); }

    // The first section of that name, or NULL.
    const Section *Find(std::string_view name) const
    {
        auto found = first_.find(name);
        return found == first_.end() ? nullptr : &sections_[found->second];
    }

private:
    void Parse()
    {
        for (size_t off = 0; off < content_.size();) {
            size_t nl = content_.find('\n', off);
            size_t cb = (nl == std::string::npos ? content_.size() : nl + 1) - off;
            Line line{off, cb, Classify(LineBody(content_.data() + off, cb))};
            if (line.kind == LineKind::Header) {
                OpenSection(line);
            }
            lines_.push_back(line);
            off += cb;
        }
        if (!sections_.empty()) {
            sections_.back().end = lines_.size();
        }
    }

    void OpenSection(const Line &header)
    {
        std::string_view name;
        ParseHeader(Body(header), &name);
        if (!sections_.empty()) {
            sections_.back().end = lines_.size();
        }
        first_.emplace(name, sections_.size());
        sections_.push_back(Section{name, lines_.size() + 1, lines_.size() + 1});
    }

    const std::string content_;
    std::vector<Line> lines_;
    std::vector<Section> sections_;
    std::unordered_map<std::string_view, size_t> first_;
};

using SectionFilePtr = std::shared_ptr<const SectionFile>;

// ---------------------------------------------------------------- file access

struct Fd {
    explicit Fd(int fd) : fd(fd) {}
    ~Fd()
    {
        if (fd >= 0) {
            close(fd);
        }
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int fd;
};

// The whole content of an open file, from its current position; false on a read error.
bool ReadAll(int fd, size_t cbHint, std::string *pOut)
{
    std::string &out = *pOut;
    size_t used = 0;
    out.resize(cbHint + 1);  // one more, to meet the end without growing
    for (;;) {
        if (used == out.size()) {
            out.resize(out.size() * 2);
        }
        ssize_t cb = read(fd, &out[used], out.size() - used);
        if (cb < 0 && errno == EINTR) {
            continue;
        }
        if (cb < 0) {
            return false;
        }
        if (cb == 0) {
            break;
        }
        used += static_cast<size_t>(cb);
    }
    out.resize(used);
    return true;
}

bool WriteAll(int fd, const std::string &data)
{
    for (size_t done = 0; done < data.size();) {
        ssize_t cb = write(fd, data.data() + done, data.size() - done);
        if (cb < 0 && errno == EINTR) {
            continue;
        }
        if (cb <= 0) {
            return false;
        }
        done += static_cast<size_t>(cb);
    }
    return true;
}

// Creates the file empty unless something is at its path: 0 when a regular
// file is there afterwards, -1 with BW_ERR_FILE_OPEN otherwise.  O_EXCL never
// follows a symbolic link, and a link at the path is refused.
int CreateIfMissing(const char *szPath)
{
    int fd = open(szPath, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0) {
        close(fd);
        return 0;
    }
    struct stat st;
    if (errno == EEXIST && lstat(szPath, &st) == 0 && S_ISREG(st.st_mode)) {
        return 0;
    }
    VESK_ERR_SET(BW_ERR_FILE_OPEN);
    return -1;
}

// Writes the content to a temporary file beside the path and moves it over
// the path with the given permission bits: 0 / -1.  The temporary file is
// removed on every failure.
int ReplaceFile(const char *szPath, const std::string &content, mode_t mode)
{
    std::string temp = std::string(szPath) + ".XXXXXX";
    Fd fd(mkostemp(&temp[0], O_CLOEXEC));
    if (fd.fd < 0) {
        VESK_ERR_SET(BW_ERR_FILE_OPEN);
        return -1;
    }
    int iCode = 0;
    if (!WriteAll(fd.fd, content) || fsync(fd.fd) != 0 || fchmod(fd.fd, mode & 07777) != 0) {
        iCode = BW_ERR_FILE_WRITE;
    } else if (rename(temp.c_str(), szPath) != 0) {
        iCode = BW_ERR_RENAME_FAILED;
    }
    if (iCode != 0) {
        unlink(temp.c_str());
        VESK_ERR_SET(iCode);
        return -1;
    }
    return 0;
}

// Opens the regular file at the path and reads it whole; *pSt describes what
// was read.  False with the error state set on failure.
bool ReadWhole(const char *szPath, bool blWriter, struct stat *pSt, std::string *pContent)
{
    Fd fd(open(szPath, O_RDONLY | O_CLOEXEC | O_NONBLOCK | (blWriter ? O_NOFOLLOW : 0)));
    if (fd.fd < 0) {
        VESK_ERR_SET(BW_ERR_FILE_OPEN);
        return false;
    }
    if (fstat(fd.fd, pSt) != 0) {
        VESK_ERR_SET(BW_ERR_STAT_FAILED);
        return false;
    }
    if (!S_ISREG(pSt->st_mode)) {
        VESK_ERR_SET(BW_ERR_FILE_OPEN);
        return false;
    }
    if (!ReadAll(fd.fd, static_cast<size_t>(pSt->st_size), pContent)) {
        VESK_ERR_SET(BW_ERR_FILE_READ);
        return false;
    }
    return true;
}

// ---------------------------------------------------------------- cache

// What fstat says about a file's identity and last change.
struct FileStamp {
    dev_t dev;
    ino_t ino;
    off_t size;
    struct timespec mtim;
    struct timespec ctim;

    explicit FileStamp(const struct stat &st)
        : dev(st.st_dev), ino(st.st_ino), size(st.st_size), mtim(st.st_mtim), ctim(st.st_ctim)
    {
    }
    bool operator==(const FileStamp &o) const
    {
        return dev == o.dev && ino == o.ino && size == o.size && SameTime(mtim, o.mtim) && SameTime(ctim, o.ctim);
    }
    static bool SameTime(const struct timespec &a, const struct timespec &b)
    {
        return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
    }
};

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
// (device, inode, size, change times) and the stamp is settled, or when the
// content read now is the cached content.  Readers of a file with fine-grained
// times also take an unsettled entry whose stamp matches: the only version it
// can be mistaken for was written within the same clock tick, so a reader sees
// at worst the file as it was one tick earlier, as if it had read a moment
// sooner, while the status files that change on every chunk are still parsed
// once per change instead of once per section read.  Writers always rewrite
// the exact current content; a rewrite by rename gives a new
// inode, an append a new size and time.  Bounded: at most kMaxEntries files,
// and kMaxBytes of content besides the file read last.  A mutex guards it,
// although the library calls it from one thread at a time.
class FileCache {
public:
    // The parsed file at the path; NULL with the error state set on failure.
    // *pMode receives the file's mode.  A writer (blWriter) never follows a
    // symbolic link at the path.  A valid entry costs one stat of the path;
    // otherwise the file is opened and its fstat describes what is read.
    SectionFilePtr Load(const char *szPath, bool blWriter, mode_t *pMode)
    {
        struct stat st;
        if ((blWriter ? lstat(szPath, &st) : stat(szPath, &st)) != 0 || !S_ISREG(st.st_mode)) {
            VESK_ERR_SET(BW_ERR_FILE_OPEN);
            return nullptr;
        }
        try {
            std::lock_guard<std::mutex> lock(mutex_);
            size_t i = IndexOf(szPath);
            bool blTrusted = i < entries_.size() && (entries_[i].settled || (!blWriter && HasFineTimes(st)));
            if (blTrusted && entries_[i].stamp == FileStamp(st)) {
                *pMode = st.st_mode;
                return Promote(i).file;
            }
            return ReadFile(szPath, blWriter, i, pMode);
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
    SectionFilePtr ReadFile(const char *szPath, bool blWriter, size_t i, mode_t *pMode)
    {
        struct stat st;
        std::string content;
        if (!ReadWhole(szPath, blWriter, &st, &content)) {
            return nullptr;
        }
        *pMode = st.st_mode;
        FileStamp stamp(st);
        bool settled = IsSettled(st);
        if (i < entries_.size() && entries_[i].file->Content() == content) {
            Entry &entry = Promote(i);
            entry.stamp = stamp;
            entry.settled = settled;
            return entry.file;
        }
        auto file = std::make_shared<const SectionFile>(std::move(content));
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

// The file with every section named szSection replaced by the pairs of pHash
// (removed when pHash is NULL); comment lines inside such a section are kept
// after its new pairs, every other line of it is dropped.
std::string RewriteContent(const SectionFile &file, const char *szSection, const VLIBC_SZHASH *pHash)
{
    std::string out;
    out.reserve(file.Content().size());
    bool blInSection = false;
    for (const Line &line : file.Lines()) {
        std::string_view name;
        if (line.kind == LineKind::Header) {
            blInSection = ParseHeader(file.Body(line), &name) && name == szSection;
            if (blInSection) {
                if (pHash != nullptr) {
                    AppendSectionText(out, szSection, pHash);
                }
                continue;
            }
        } else if (blInSection && line.kind != LineKind::Comment) {
            continue;
        }
        out.append(file.Text(line));
    }
    return out;
}

// The file with the section appended, after a newline when its last line lacks one.
std::string AppendContent(const SectionFile &file, const char *szSection, const VLIBC_SZHASH *pHash)
{
    std::string out = file.Content();
    if (!out.empty() && out.back() != '\n') {
        out.append("\n");
    }
    AppendSectionText(out, szSection, pHash);
    return out;
}

using ContentBuilder = std::string (*)(const SectionFile &, const char *, const VLIBC_SZHASH *);

// Replaces the file by what the builder makes of it, when the presence of
// the section is what the change needs (blWantPresent).  1 changed, 0 not
// (file untouched), -1 failure.
int ChangeFile(const char *szPath, const char *szSection, const VLIBC_SZHASH *pHash, bool blWantPresent,
               ContentBuilder build)
{
    mode_t mode = 0;
    SectionFilePtr file = g_cache.Load(szPath, true, &mode);
    if (file == nullptr) {
        return -1;
    }
    if ((file->Find(szSection) != nullptr) != blWantPresent) {
        if (blWantPresent) {
            VESK_ERR_SET(BW_ERR_NOT_FOUND);
        }
        return 0;
    }
    std::string content;
    try {
        content = build(*file, szSection, pHash);
    } catch (...) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
    if (ReplaceFile(szPath, content, mode) != 0) {
        return -1;
    }
    g_cache.Forget(szPath);
    return 1;
}

// Sets the value of a pair line into the hash: 0 / -1.
int StorePair(VLIBC_SZHASH **ppHash, std::string_view body)
{
    size_t eq = body.find('=');
    try {
        std::string key(body.substr(0, eq));
        std::string value(body.substr(eq + 1));
        return VLIBCSzHashSetValue(ppHash, key.c_str(), value.c_str()) < 0 ? -1 : 0;
    } catch (...) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

}  // namespace

int VLIBCFileExist(const char *szPath)
{
    struct stat st;
    if (!VESK_ARG_OK(NULL != szPath)) {
        return 0;
    }
    return stat(szPath, &st) == 0 ? 1 : 0;
}

int VLIBCFileTouch(const char *szPath)
{
    if (!VESK_ARG_OK(NULL != szPath)) {
        return -1;
    }
    return CreateIfMissing(szPath);
}

int VLIBCFileGetSection(const char *szPath, const char *szSection, VLIBC_SZHASH **ppHash)
{
    if (!VESK_ARG_OK(NULL != szPath) || !VESK_ARG_OK(NULL != szSection) || !VESK_ARG_OK(NULL != ppHash)) {
        return -1;
    }
    mode_t mode = 0;
    SectionFilePtr file = g_cache.Load(szPath, false, &mode);
    if (file == nullptr) {
        return -1;
    }
    const Section *section = file->Find(szSection);
    if (section == nullptr) {
        VESK_ERR_SET(BW_ERR_NOT_FOUND);
        return 0;
    }
    if (*ppHash == nullptr && (*ppHash = VLIBCSzHashAlloc(0)) == nullptr) {
        return -1;
    }
    for (size_t i = section->begin; i < section->end; ++i) {
        const Line &line = file->Lines()[i];
        if (line.kind == LineKind::Pair && StorePair(ppHash, file->Body(line)) != 0) {
            return -1;
        }
    }
    return 1;
}

int VLIBCFileEnumSection(const char *szPath, VLIBC_SZLIST **ppList)
{
    if (!VESK_ARG_OK(NULL != szPath) || !VESK_ARG_OK(NULL != ppList)) {
        return -1;
    }
    mode_t mode = 0;
    SectionFilePtr file = g_cache.Load(szPath, false, &mode);
    if (file == nullptr) {
        return -1;
    }
    if (*ppList == nullptr && (*ppList = VLIBCSzListAlloc(0)) == nullptr) {
        return -1;
    }
    int count = 0;
    try {
        for (const Section &section : file->Sections()) {
            if (file->Find(section.name) != &section) {
                continue;  // each name once, where it first appears
            }
            if (VLIBCSzListPush(ppList, std::string(section.name).c_str()) < 0) {
                return -1;
            }
            ++count;
        }
    } catch (...) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
    return count;
}

int VLIBCFileSetSection(const char *szPath, const char *szSection, const char *szReserved,
                        const VLIBC_SZHASH *pHash, int iFlags)
{
    (void)szReserved;
    (void)iFlags;
    if (!VESK_ARG_OK(NULL != szPath) || !SectionArgsOk(szSection, pHash)) {
        return -1;
    }
    return ChangeFile(szPath, szSection, pHash, true, RewriteContent);
}

int VLIBCFileAddSection(const char *szPath, const char *szSection, const VLIBC_SZHASH *pHash, int iFlags)
{
    (void)iFlags;
    if (!VESK_ARG_OK(NULL != szPath) || !SectionArgsOk(szSection, pHash)) {
        return -1;
    }
    if (CreateIfMissing(szPath) != 0) {
        return -1;
    }
    return ChangeFile(szPath, szSection, pHash, false, AppendContent);
}

int VLIBCFileRemoveSection(const char *szPath, const char *szSection)
{
    if (!VESK_ARG_OK(NULL != szPath) || !VESK_ARG_OK(NULL != szSection)) {
        return -1;
    }
    return ChangeFile(szPath, szSection, nullptr, true, RewriteContent);
}

int VLIBCFileHash2File(FILE *fp, const char *szSection, const VLIBC_SZHASH *pHash, int iFlags)
{
    (void)iFlags;
    if (!VESK_ARG_OK(NULL != fp) || !SectionArgsOk(szSection, pHash)) {
        return -1;
    }
    std::string text;
    try {
        AppendSectionText(text, szSection, pHash);
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
    return szLine != nullptr && ParseHeader(LineBody(szLine, cbLine), &name) ? 1 : 0;
}

int VLIBCIFileMatchSection(const char *szLine, size_t cbLine, const char *szSection)
{
    std::string_view name;
    return szLine != nullptr && szSection != nullptr && ParseHeader(LineBody(szLine, cbLine), &name) &&
                   name == szSection
               ? 1
               : 0;
}

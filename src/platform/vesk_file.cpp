// Section files: "[NAME]" headers, "KEY=VALUE" pairs, '#' or ';' comments,
// blank lines anywhere.  Writers replace the whole file atomically (temporary
// file beside it, fsync, rename) and keep every byte outside the section they
// change; they never follow a symbolic link planted at the file's path.
//
// Readers are on the hot path of every transfer (a status enumeration lists the
// sections of a file, then reads each of them), so the parsed form of recently
// read files is cached per process and reused while the file's identity (device,
// inode, size, modification and change times) is unchanged: a rewrite by rename
// gives a new inode, an append a new size and times.  The cache is a plain
// process-wide object: the library is used from one thread at a time.
#include "vesk_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <utility>
#include <vector>

#include "vesk_log.h"

namespace {

struct Section {
    std::string name;
    std::vector<std::pair<std::string, std::string>> pairs;
};

struct ParsedFile {
    std::vector<Section> sections;                  // in file order
    std::unordered_map<std::string, size_t> first;  // name -> first section of that name
};

// Identity of one version of a file.
struct Version {
    dev_t dev;
    ino_t ino;
    off_t size;
    timespec mtime;
    timespec ctime;

    bool operator==(const Version &o) const
    {
        return dev == o.dev && ino == o.ino && size == o.size && mtime.tv_sec == o.mtime.tv_sec &&
               mtime.tv_nsec == o.mtime.tv_nsec && ctime.tv_sec == o.ctime.tv_sec &&
               ctime.tv_nsec == o.ctime.tv_nsec;
    }
};

Version VersionOf(const struct stat &st)
{
    return Version{st.st_dev, st.st_ino, st.st_size, st.st_mtim, st.st_ctim};
}

// The last few files read, most recent first.
class ParseCache {
public:
    const ParsedFile *Find(const std::string &path, const Version &version)
    {
        for (auto it = entries_.begin(); it != entries_.end(); ++it) {
            if (it->path == path && it->version == version) {
                entries_.splice(entries_.begin(), entries_, it);
                return &entries_.front().parsed;
            }
        }
        return nullptr;
    }

    const ParsedFile *Store(const std::string &path, const Version &version, ParsedFile parsed)
    {
        Forget(path);
        entries_.push_front(Entry{path, version, std::move(parsed)});
        if (entries_.size() > kEntries) {
            entries_.pop_back();
        }
        return &entries_.front().parsed;
    }

    void Forget(const std::string &path)
    {
        entries_.remove_if([&](const Entry &e) { return e.path == path; });
    }

private:
    static constexpr size_t kEntries = 16;
    struct Entry {
        std::string path;
        Version version;
        ParsedFile parsed;
    };
    std::list<Entry> entries_;
};

ParseCache &Cache()
{
    static ParseCache *cache = new ParseCache;  // never destroyed: usable until the process ends
    return *cache;
}

// A file descriptor closed with its scope.
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { Reset(); }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int Get() const { return fd_; }
    int Release()
    {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void Reset()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = -1;
    }

private:
    int fd_;
};

size_t LineLength(const char *line, size_t cb)
{
    return cb > 0 && line[cb - 1] == '\n' ? cb - 1 : cb;
}

bool IsHeader(const char *line, size_t cb)
{
    size_t len = LineLength(line, cb);
    if (len < 2 || line[0] != '[' || line[len - 1] != ']') {
        return false;
    }
    return std::memchr(line + 1, ']', len - 2) == nullptr && std::memchr(line, '\n', len) == nullptr;
}

bool IsComment(const char *line, size_t cb)
{
    return cb > 0 && (line[0] == '#' || line[0] == ';');
}

// Splits text into lines, each with its newline (the last one may lack it).
std::vector<std::pair<size_t, size_t>> SplitLines(const std::string &text)
{
    std::vector<std::pair<size_t, size_t>> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end + 1;
        lines.emplace_back(start, end - start);
        start = end;
    }
    return lines;
}

ParsedFile Parse(const std::string &text)
{
    ParsedFile parsed;
    for (auto [start, cb] : SplitLines(text)) {
        const char *line = text.data() + start;
        size_t len = LineLength(line, cb);
        if (IsHeader(line, cb)) {
            parsed.sections.push_back(Section{std::string(line + 1, len - 2), {}});
            parsed.first.emplace(parsed.sections.back().name, parsed.sections.size() - 1);
            continue;
        }
        const char *equals = static_cast<const char *>(std::memchr(line, '=', len));
        if (parsed.sections.empty() || IsComment(line, cb) || equals == nullptr) {
            continue;  // outside any section, a comment, or not a pair
        }
        parsed.sections.back().pairs.emplace_back(std::string(line, static_cast<size_t>(equals - line)),
                                                  std::string(equals + 1, static_cast<size_t>(line + len - equals - 1)));
    }
    return parsed;
}

// Reads the whole open file.  false with BW_ERR_FILE_READ on failure.
bool ReadAll(int fd, std::string *text)
{
    char buffer[65536];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n == 0) {
            return true;
        }
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            VESK_ERR_SET(BW_ERR_FILE_READ);
            return false;
        }
        text->append(buffer, static_cast<size_t>(n));
    }
}

// The parsed file at path, from the cache when the file is unchanged.
// nullptr on failure (error state set).
const ParsedFile *Load(const char *szPath)
{
    struct stat st;
    if (stat(szPath, &st) == 0 && S_ISREG(st.st_mode)) {
        if (const ParsedFile *cached = Cache().Find(szPath, VersionOf(st))) {
            return cached;
        }
    }
    Fd fd(open(szPath, O_RDONLY | O_CLOEXEC));
    if (fd.Get() < 0) {
        VESK_ERR_SET(BW_ERR_FILE_OPEN);
        return nullptr;
    }
    if (fstat(fd.Get(), &st) != 0) {
        VESK_ERR_SET(BW_ERR_STAT_FAILED);
        return nullptr;
    }
    if (S_ISDIR(st.st_mode)) {
        VESK_ERR_SET(BW_ERR_FILE_OPEN);
        return nullptr;
    }
    std::string text;
    if (!ReadAll(fd.Get(), &text)) {
        return nullptr;
    }
    return Cache().Store(szPath, VersionOf(st), Parse(text));
}

bool ValidSectionName(const char *szSection)
{
    return szSection != nullptr && std::strpbrk(szSection, "]\n") == nullptr;
}

bool ValidKey(const char *szKey)
{
    return szKey != nullptr && szKey[0] != '\0' && std::strpbrk(szKey, "=\n") == nullptr &&
           std::strchr("[#;", szKey[0]) == nullptr;
}

bool ValidHash(const VLIBC_SZHASH *pHash)
{
    for (int i = 0; i < VLIBCSzHashCount(pHash); ++i) {
        if (!ValidKey(VLIBCSzHashKeyAt(pHash, i))) {
            return false;
        }
    }
    return true;
}

// "[NAME]\n" then "KEY=VALUE\n" per pair; a value's newlines are left out, so
// that it can never break its line.
std::string SectionText(const char *szSection, const VLIBC_SZHASH *pHash)
{
    std::string text = std::string("[") + szSection + "]\n";
    for (int i = 0; i < VLIBCSzHashCount(pHash); ++i) {
        text += VLIBCSzHashKeyAt(pHash, i);
        text += '=';
        for (const char *c = VLIBCSzHashValueAt(pHash, i); *c != '\0'; ++c) {
            if (*c != '\n') {
                text += *c;
            }
        }
        text += '\n';
    }
    return text;
}

// The current content and mode of a file that a writer is about to replace.
// A missing file reads as empty when blCreate is set.  -1 on failure.
int ReadForRewrite(const char *szPath, bool blCreate, std::string *text, mode_t *mode)
{
    Fd fd(open(szPath, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (fd.Get() < 0) {
        if (errno == ENOENT && blCreate) {
            mode_t mask = umask(0);
            umask(mask);
            *mode = 0666 & ~mask;
            return 0;
        }
        VESK_ERR_SET(BW_ERR_FILE_OPEN);
        return -1;
    }
    struct stat st;
    if (fstat(fd.Get(), &st) != 0) {
        VESK_ERR_SET(BW_ERR_STAT_FAILED);
        return -1;
    }
    if (!S_ISREG(st.st_mode)) {
        VESK_ERR_SET(BW_ERR_FILE_OPEN);
        return -1;
    }
    *mode = st.st_mode & 07777;
    return ReadAll(fd.Get(), text) ? 0 : -1;
}

bool WriteAll(int fd, const std::string &text)
{
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// Replaces the file by one holding text: temporary file beside it, fsync,
// the given mode, rename.  -1 on failure, the old file untouched.
int ReplaceFile(const char *szPath, const std::string &text, mode_t mode)
{
    std::string temp = std::string(szPath) + ".XXXXXX";
    mode_t mask = umask(077);
    Fd fd(mkostemp(&temp[0], O_CLOEXEC));
    umask(mask);
    if (fd.Get() < 0) {
        VESK_ERR_SET(BW_ERR_FILE_OPEN);
        return -1;
    }
    int code = 0;
    if (!WriteAll(fd.Get(), text) || fsync(fd.Get()) != 0 || fchmod(fd.Get(), mode) != 0) {
        code = BW_ERR_FILE_WRITE;
    } else if (rename(temp.c_str(), szPath) != 0) {
        code = BW_ERR_RENAME_FAILED;
    }
    if (code != 0) {
        VESK_ERR_SET(code);
        unlink(temp.c_str());
        return -1;
    }
    Cache().Forget(szPath);
    return 0;
}

enum class Edit { kReplace, kRemove };

// Rewrites every section named szSection: its pairs and blank lines are
// replaced by the new pairs (kReplace) or dropped with its header (kRemove);
// comment lines inside it stay.  1 done, 0 absent (file untouched), -1 failure.
int EditSection(const char *szPath, const char *szSection, const VLIBC_SZHASH *pHash, Edit edit)
{
    std::string old;
    mode_t mode = 0;
    if (ReadForRewrite(szPath, false, &old, &mode) < 0) {
        return -1;
    }
    std::string text;
    bool inSection = false;
    bool found = false;
    for (auto [start, cb] : SplitLines(old)) {
        const char *line = old.data() + start;
        if (IsHeader(line, cb)) {
            inSection = VLIBCIFileMatchSection(line, cb, szSection) == 1;
            if (inSection) {
                found = true;
                if (edit == Edit::kReplace) {
                    text += SectionText(szSection, pHash);
                }
                continue;
            }
        } else if (inSection && !IsComment(line, cb)) {
            continue;
        }
        text.append(line, cb);
    }
    if (!found) {
        VESK_ERR_SET(BW_ERR_NOT_FOUND);
        return 0;
    }
    return ReplaceFile(szPath, text, mode) < 0 ? -1 : 1;
}

bool HasSection(const std::string &text, const char *szSection)
{
    for (auto [start, cb] : SplitLines(text)) {
        if (VLIBCIFileMatchSection(text.data() + start, cb, szSection) == 1) {
            return true;
        }
    }
    return false;
}

// Runs a section-file call: arguments checked first, and no exception
// (an allocation failure) leaves it.
template <typename Work>
int Guarded(bool blArgumentsOk, Work work)
{
    if (!blArgumentsOk) {
        VESK_ERR_SET(BW_ERR_BAD_PARAMETERS);
        return -1;
    }
    try {
        return work();
    } catch (const std::exception &) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

}  // namespace

int VLIBCFileExist(const char *szPath)
{
    struct stat st;
    return szPath != nullptr && stat(szPath, &st) == 0 ? 1 : 0;
}

int VLIBCFileTouch(const char *szPath)
{
    if (szPath == nullptr) {
        VESK_ERR_SET(BW_ERR_BAD_PARAMETERS);
        return -1;
    }
    int fd = open(szPath, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0666);
    if (fd < 0) {
        VESK_ERR_SET(BW_ERR_FILE_OPEN);
        return -1;
    }
    close(fd);
    return 0;
}

int VLIBCFileGetSection(const char *szPath, const char *szSection, VLIBC_SZHASH **ppHash)
{
    return Guarded(szPath != nullptr && szSection != nullptr && ppHash != nullptr, [&] {
        const ParsedFile *parsed = Load(szPath);
        if (parsed == nullptr) {
            return -1;
        }
        auto found = parsed->first.find(szSection);
        if (found == parsed->first.end()) {
            VESK_ERR_SET(BW_ERR_NOT_FOUND);
            return 0;
        }
        for (const auto &[key, value] : parsed->sections[found->second].pairs) {
            if (VLIBCSzHashSetValue(ppHash, key.c_str(), value.c_str()) < 0) {
                return -1;
            }
        }
        return 1;
    });
}

int VLIBCFileEnumSection(const char *szPath, VLIBC_SZLIST **ppList)
{
    return Guarded(szPath != nullptr && ppList != nullptr, [&] {
        const ParsedFile *parsed = Load(szPath);
        if (parsed == nullptr) {
            return -1;
        }
        for (const Section &section : parsed->sections) {
            if (VLIBCSzListPush(ppList, section.name.c_str()) < 0) {
                return -1;
            }
        }
        return static_cast<int>(parsed->sections.size());
    });
}

int VLIBCFileHash2File(FILE *fp, const char *szSection, const VLIBC_SZHASH *pHash, int iFlags)
{
    (void)iFlags;
    return Guarded(fp != nullptr && ValidSectionName(szSection) && ValidHash(pHash), [&] {
        std::string text = SectionText(szSection, pHash);
        if (std::fwrite(text.data(), 1, text.size(), fp) != text.size()) {
            VESK_ERR_SET(BW_ERR_FILE_WRITE);
            return -1;
        }
        return 0;
    });
}

int VLIBCFileSetSection(const char *szPath, const char *szSection, const char *szReserved,
                        const VLIBC_SZHASH *pHash, int iFlags)
{
    (void)szReserved;
    (void)iFlags;
    return Guarded(szPath != nullptr && ValidSectionName(szSection) && ValidHash(pHash),
                   [&] { return EditSection(szPath, szSection, pHash, Edit::kReplace); });
}

int VLIBCFileRemoveSection(const char *szPath, const char *szSection)
{
    return Guarded(szPath != nullptr && ValidSectionName(szSection),
                   [&] { return EditSection(szPath, szSection, nullptr, Edit::kRemove); });
}

int VLIBCFileAddSection(const char *szPath, const char *szSection, const VLIBC_SZHASH *pHash, int iFlags)
{
    (void)iFlags;
    return Guarded(szPath != nullptr && ValidSectionName(szSection) && ValidHash(pHash), [&] {
        std::string text;
        mode_t mode = 0;
        if (ReadForRewrite(szPath, true, &text, &mode) < 0) {
            return -1;
        }
        if (HasSection(text, szSection)) {
            return 0;
        }
        if (!text.empty() && text.back() != '\n') {
            text += '\n';
        }
        text += SectionText(szSection, pHash);
        return ReplaceFile(szPath, text, mode) < 0 ? -1 : 1;
    });
}

int VLIBCIFileIsSection(const char *szLine, size_t cbLine)
{
    return szLine != nullptr && IsHeader(szLine, cbLine) ? 1 : 0;
}

int VLIBCIFileMatchSection(const char *szLine, size_t cbLine, const char *szSection)
{
    if (szSection == nullptr || !VLIBCIFileIsSection(szLine, cbLine)) {
        return 0;
    }
    size_t nameLength = LineLength(szLine, cbLine) - 2;
    return std::strlen(szSection) == nameLength && std::memcmp(szLine + 1, szSection, nameLength) == 0 ? 1 : 0;
}

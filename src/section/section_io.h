// Section files on disk: the directory a file lives in, reading a file with a
// bound, replacing it atomically, appending to it in one write, and removing
// the temporary files that killed writers left.  Internal to the platform and
// the bandwidth libraries, which both link it in; nothing here is exported.
//
// Every name is opened, created, renamed and removed relative to a directory
// descriptor opened once per operation, so a directory swapped for a link
// halfway through changes nothing.  Failures are returned as the error codes
// of vesk_error.h, for the caller to record under its own name.
#ifndef VESK_SECTION_IO_H
#define VESK_SECTION_IO_H

#include <stddef.h>
#include <sys/stat.h>
#include <time.h>

#include <functional>
#include <string>
#include <string_view>

namespace vesk_section {

// A descriptor closed with its scope.
class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd();
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int Get() const { return fd_; }

private:
    int fd_;
};

// An open directory, never reached through a symbolic link at its own path.
class Dir {
public:
    Dir() = default;
    ~Dir();
    Dir(Dir &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Dir &operator=(Dir &&other) noexcept;
    Dir(const Dir &) = delete;
    Dir &operator=(const Dir &) = delete;

    // Opens the directory at the path (no trailing slash needed); errno is
    // ELOOP or ENOTDIR when a link or something else is there.
    bool Open(const std::string &path);
    // Opens the directory above a file path; *pName receives the file's name.
    bool OpenParent(const char *szPath, std::string *pName);
    int Fd() const { return fd_; }

private:
    int fd_ = -1;
};

// What stat says about a file's identity and last change: two stamps differ
// when the file was replaced (device, inode) or changed (size, times).  A
// default stamp stands for a missing file.
struct FileStamp {
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    struct timespec mtim = {};
    struct timespec ctim = {};

    FileStamp() = default;
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

// A file as read: its bytes (at most the bound), what fstat said, and whether
// it held more than the bound.
struct FileBytes {
    std::string content;
    struct stat st = {};
    bool blTruncated = false;
};

// Reads the regular file `name` of the directory (dirFd, or AT_FDCWD for a
// path), never through a symbolic link when blNoFollow, and never blocking on
// a FIFO: 0, or BW_ERR_FILE_OPEN (cannot open, or not a regular file; errno
// tells), BW_ERR_STAT_FAILED, BW_ERR_FILE_READ, BW_ERR_OUT_OF_MEMORY.
int ReadBytes(int dirFd, const char *szName, bool blNoFollow, size_t cbMax, FileBytes *pBytes);
// The same for a file already open for reading, from its start.
int ReadOpenFile(int fd, size_t cbMax, FileBytes *pBytes);

// Replaces `name` by a new file holding the content: a temporary file
// "<name>.XXXXXX" beside it, created while the file-creation mask is the new
// mode (so it grants nothing until complete), written, synced, given the mode
// and renamed over the name.  Only read and write bits are ever given.  0, or
// BW_ERR_FILE_OPEN (the temporary file), BW_ERR_FILE_WRITE, or
// BW_ERR_RENAME_FAILED; the temporary file is removed on every failure.
int ReplaceFile(const Dir &dir, const char *szName, const std::string &content, mode_t mode);

// Writes the whole text to the end of an O_APPEND descriptor with one write,
// so that appends of other processes never land inside it: 0 or
// BW_ERR_FILE_WRITE.
int AppendOnce(int fd, const std::string &text);

// Creates `name` empty (mode 0666 less the mask) unless it exists: 0 when a
// regular file is there afterwards, else BW_ERR_FILE_OPEN.  A link at the
// name is refused, never followed.
int CreateIfMissing(const Dir &dir, const char *szName);

// True when the name is "<file>.XXXXXX" as the temporary files above are
// named; *pFile receives "<file>".
bool IsTemporaryName(std::string_view name, std::string_view *pFile);

// Removes the entries of the directory that `selects` names and that were
// last modified more than maxAge seconds before now (links judged
// themselves), looking at no more than maxEntries entries.
void RemoveStaleEntries(const Dir &dir, const std::function<bool(std::string_view)> &selects, time_t now, time_t maxAge,
                        size_t maxEntries);

}  // namespace vesk_section

#endif

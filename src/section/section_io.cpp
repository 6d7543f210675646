// Section files on disk.
#include "section_io.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <new>
#include <utility>

#include "vesk_error.h"

namespace vesk_section {
namespace {

constexpr size_t kTemporarySuffix = 7;  // ".XXXXXX"

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

// Reads to the end of the file, or to one byte past cbMax; false on a read error.
bool ReadUpTo(int fd, size_t cbHint, size_t cbMax, FileBytes *pBytes)
{
    std::string &out = pBytes->content;
    size_t used = 0;
    out.resize(std::min(cbHint, cbMax) + 1);  // one more, to meet the end without growing
    for (;;) {
        if (used == out.size()) {
            if (used > cbMax) {
                break;
            }
            out.resize(std::min(out.size() * 2, cbMax + 1));
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
    pBytes->blTruncated = used > cbMax;
    out.resize(std::min(used, cbMax));
    return true;
}

}  // namespace

Fd::~Fd()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

Dir::~Dir()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

Dir &Dir::operator=(Dir &&other) noexcept
{
    std::swap(fd_, other.fd_);
    return *this;
}

bool Dir::Open(const std::string &path)
{
    // A trailing slash would make the kernel follow a link at the path.
    std::string dir = path;
    while (dir.size() > 1 && dir.back() == '/') {
        dir.pop_back();
    }
    *this = Dir();
    fd_ = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    return fd_ >= 0;
}

bool Dir::OpenParent(const char *szPath, std::string *pName)
{
    std::string_view path(szPath);
    size_t slash = path.rfind('/');
    *pName = std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
    if (slash == std::string_view::npos) {
        return Open(".");
    }
    return Open(std::string(slash == 0 ? "/" : path.substr(0, slash)));
}

int ReadBytes(int dirFd, const char *szName, bool blNoFollow, size_t cbMax, FileBytes *pBytes)
{
    Fd fd(openat(dirFd, szName, O_RDONLY | O_CLOEXEC | O_NONBLOCK | (blNoFollow ? O_NOFOLLOW : 0)));
    return fd.Get() < 0 ? BW_ERR_FILE_OPEN : ReadOpenFile(fd.Get(), cbMax, pBytes);
}

int ReadOpenFile(int fd, size_t cbMax, FileBytes *pBytes)
{
    if (fstat(fd, &pBytes->st) != 0) {
        return BW_ERR_STAT_FAILED;
    }
    if (!S_ISREG(pBytes->st.st_mode)) {
        errno = S_ISDIR(pBytes->st.st_mode) ? EISDIR : EINVAL;
        return BW_ERR_FILE_OPEN;
    }
    try {
        uint64_t cbSize = static_cast<uint64_t>(std::max<off_t>(pBytes->st.st_size, 0));
        size_t cbHint = static_cast<size_t>(std::min<uint64_t>(cbSize, cbMax));
        return lseek(fd, 0, SEEK_SET) == 0 && ReadUpTo(fd, cbHint, cbMax, pBytes) ? 0 : BW_ERR_FILE_READ;
    } catch (const std::bad_alloc &) {
        return BW_ERR_OUT_OF_MEMORY;
    }
}

int ReplaceFile(const Dir &dir, const char *szName, const std::string &content, mode_t mode)
{
    mode &= 0666;
    const std::string name = szName;
    // mkostemp reaches the directory through its descriptor's entry in /proc.
    std::string temp = "/proc/self/fd/" + std::to_string(dir.Fd()) + "/" + name + ".XXXXXX";
    mode_t previous = umask(mode);
    int created = mkostemp(&temp[0], O_CLOEXEC);
    umask(previous);
    if (created < 0) {
        return BW_ERR_FILE_OPEN;
    }
    Fd fd(created);
    const std::string tempName = temp.substr(temp.size() - name.size() - kTemporarySuffix);
    int iCode = 0;
    if (!WriteAll(fd.Get(), content) || fsync(fd.Get()) != 0 || fchmod(fd.Get(), mode) != 0) {
        iCode = BW_ERR_FILE_WRITE;
    } else if (renameat(dir.Fd(), tempName.c_str(), dir.Fd(), name.c_str()) != 0) {
        iCode = BW_ERR_RENAME_FAILED;
    }
    if (iCode != 0) {
        unlinkat(dir.Fd(), tempName.c_str(), 0);
    }
    return iCode;
}

int AppendOnce(int fd, const std::string &text)
{
    ssize_t cb = write(fd, text.data(), text.size());
    return cb >= 0 && static_cast<size_t>(cb) == text.size() ? 0 : BW_ERR_FILE_WRITE;
}

int CreateIfMissing(const Dir &dir, const char *szName)
{
    int fd = openat(dir.Fd(), szName, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0) {
        close(fd);
        return 0;
    }
    struct stat st;
    if (errno == EEXIST && fstatat(dir.Fd(), szName, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode)) {
        return 0;
    }
    return BW_ERR_FILE_OPEN;
}

bool IsTemporaryName(std::string_view name, std::string_view *pFile)
{
    if (name.size() <= kTemporarySuffix || name[name.size() - kTemporarySuffix] != '.') {
        return false;
    }
    std::string_view suffix = name.substr(name.size() - kTemporarySuffix + 1);
    if (!std::all_of(suffix.begin(), suffix.end(), [](char c) { return isalnum(static_cast<unsigned char>(c)); })) {
        return false;
    }
    *pFile = name.substr(0, name.size() - kTemporarySuffix);
    return true;
}

void RemoveStaleEntries(const Dir &dir, const std::function<bool(std::string_view)> &selects, time_t now, time_t maxAge,
                        size_t maxEntries)
{
    int fd = dup(dir.Fd());
    DIR *pDir = fd < 0 ? nullptr : fdopendir(fd);
    if (pDir == nullptr) {
        if (fd >= 0) {
            close(fd);
        }
        return;
    }
    rewinddir(pDir);
    size_t seen = 0;
    for (const struct dirent *entry; seen < maxEntries && (entry = readdir(pDir)) != nullptr; ++seen) {
        struct stat st;
        if (selects(entry->d_name) && fstatat(dir.Fd(), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            st.st_mtime < now - maxAge) {
            unlinkat(dir.Fd(), entry->d_name, 0);
        }
    }
    closedir(pDir);
}

}  // namespace vesk_section

// Directories.
#include "vesk_system.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "vesk_log.h"

namespace {

// Creates one directory; an existing directory is success.  0 / -1.
// *pblCreated tells whether this call made it.
int MakeOne(const std::string &dir, mode_t mode, bool *pblCreated)
{
    *pblCreated = false;
    if (mkdir(dir.c_str(), mode) == 0) {
        *pblCreated = true;
        return 0;
    }
    if (errno != EEXIST) {
        VESK_ERR_SET(BW_ERR_FILE_OPEN);
        return -1;
    }
    struct stat st;
    if (stat(dir.c_str(), &st) != 0) {
        VESK_ERR_SET(BW_ERR_STAT_FAILED);
        return -1;
    }
    if (!S_ISDIR(st.st_mode)) {
        VESK_ERR_SET(BW_ERR_FILE_OPEN);
        return -1;
    }
    return 0;
}

// Creates the directory and, when blParents, the missing directories above
// it; every directory created gets the mode (less the umask) and the owner.
int MakeDirs(const std::string &dir, bool blParents, uid_t uid, gid_t gid, mode_t mode)
{
    size_t pos = blParents ? dir.find_first_not_of('/') : dir.size();
    while (pos != std::string::npos) {
        size_t end = std::min(dir.find('/', pos), dir.size());
        std::string part = dir.substr(0, end);
        bool blCreated = false;
        if (MakeOne(part, mode, &blCreated) != 0) {
            return -1;
        }
        if (blCreated && (uid != (uid_t)-1 || gid != (gid_t)-1) && chown(part.c_str(), uid, gid) != 0) {
            VESK_ERR_SET(BW_ERR_FILE_WRITE);
            return -1;
        }
        pos = end < dir.size() ? dir.find_first_not_of('/', end) : std::string::npos;
    }
    return 0;
}

}  // namespace

int VESKFSMkdirP(const char *szDir, int iReserved, int blParents, uid_t uid, gid_t gid, int iMode)
{
    (void)iReserved;
    if (!VESK_ARG_OK(szDir != nullptr) || !VESK_ARG_OK('\0' != szDir[0])) {
        return -1;
    }
    mode_t mode = iMode == -1 ? 0755 : static_cast<mode_t>(iMode) & 07777;
    try {
        std::string dir(szDir);
        while (dir.size() > 1 && dir.back() == '/') {
            dir.pop_back();
        }
        return MakeDirs(dir, blParents != 0, uid, gid, mode);
    } catch (...) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

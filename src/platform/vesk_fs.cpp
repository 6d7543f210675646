// Directories.
#include "vesk_system.h"

#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "vesk_log.h"

namespace {

// Creates one directory; an existing directory is success.
int MakeOne(const std::string &dir, mode_t mode, uid_t uid, gid_t gid)
{
    if (mkdir(dir.c_str(), mode) != 0) {
        struct stat st;
        if (errno != EEXIST) {
            VESK_ERR_SET(BW_ERR_FILE_OPEN);
            return -1;
        }
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
    if ((uid != (uid_t)-1 || gid != (gid_t)-1) && chown(dir.c_str(), uid, gid) != 0) {
        VESK_ERR_SET(BW_ERR_FILE_WRITE);
        return -1;
    }
    return 0;
}

}  // namespace

int VESKFSMkdirP(const char *szDir, int iReserved, int blParents, uid_t uid, gid_t gid, int iMode)
{
    (void)iReserved;
    if (szDir == nullptr || szDir[0] == '\0') {
        VESK_ERR_SET(BW_ERR_BAD_PARAMETERS);
        return -1;
    }
    mode_t mode = iMode == -1 ? 0755 : static_cast<mode_t>(iMode);
    try {
        std::string dir(szDir);
        while (dir.size() > 1 && dir.back() == '/') {
            dir.pop_back();
        }
        if (blParents) {
            for (size_t slash = dir.find('/', 1); slash != std::string::npos; slash = dir.find('/', slash + 1)) {
                if (MakeOne(dir.substr(0, slash), mode, uid, gid) < 0) {
                    return -1;
                }
            }
        }
        return MakeOne(dir, mode, uid, gid);
    } catch (const std::exception &) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
}

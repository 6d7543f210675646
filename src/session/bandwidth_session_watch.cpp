// The change notice of a session's limit files.
#include "session/bandwidth_session_watch.h"

#include <string.h>
#include <sys/stat.h>

#include "veskbandwidth.h"
#include "vesk_log.h"

int BwConfWatch::Watch(int protocol_type)
{
    const int protocols[kFiles] = {protocol_type, VESK_BW_PROTOCOL_ALL};  // ALL names the global file
    for (int i = 0; i < kFiles; ++i) {
        if (0 != VESKBandwidthConfPath(protocols[i], szPaths_[i], sizeof(szPaths_[i]))) {
            VESK_LOG("VESKBandwidthConfPath failed. protocol:[%d] [0x%04X %s:%d]", protocols[i], VESK_ERR_ARGS);
            return -1;
        }
    }
    (void)Refresh();
    return 0;
}

bool BwConfWatch::Refresh()
{
    bool blChanged = false;
    for (int i = 0; i < kFiles; ++i) {
        Stamp now = StampOf(szPaths_[i]);
        blChanged = blChanged || !Same(now, stamps_[i]);
        stamps_[i] = now;
    }
    return blChanged;
}

BwConfWatch::Stamp BwConfWatch::StampOf(const char *szPath)
{
    Stamp stamp;
    memset(&stamp, 0, sizeof(stamp));
    struct stat st;
    if (0 == stat(szPath, &st)) {
        stamp = {st.st_dev, st.st_ino, st.st_size, st.st_mtim, st.st_ctim};
    }
    return stamp;
}

bool BwConfWatch::Same(const Stamp &a, const Stamp &b)
{
    return a.dev == b.dev && a.ino == b.ino && a.size == b.size && a.mtime.tv_sec == b.mtime.tv_sec &&
           a.mtime.tv_nsec == b.mtime.tv_nsec && a.ctime.tv_sec == b.ctime.tv_sec && a.ctime.tv_nsec == b.ctime.tv_nsec;
}

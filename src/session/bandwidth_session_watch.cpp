// The change notice of a session's limit files.
#include "session/bandwidth_session_watch.h"

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
        vesk_section::FileStamp now = StampOf(szPaths_[i]);
        blChanged = blChanged || !(now == stamps_[i]);
        stamps_[i] = now;
    }
    return blChanged;
}

vesk_section::FileStamp BwConfWatch::StampOf(const char *szPath)
{
    struct stat st;
    return stat(szPath, &st) == 0 ? vesk_section::FileStamp(st) : vesk_section::FileStamp();
}

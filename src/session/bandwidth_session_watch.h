// Notices that the limits of a protocol changed on disk: the protocol's limit
// file or the global file has another device, inode, size or time than when
// it was last looked at.  Internal to the library.
#ifndef BANDWIDTH_SESSION_WATCH_H
#define BANDWIDTH_SESSION_WATCH_H

#include <sys/types.h>
#include <time.h>

#include "conf/bandwidth_conf_store.h"
#include "section/section_io.h"

class BwConfWatch {
public:
    // Watches the files of protocol_type from now on: 0, or -1 (logged, with
    // the error state of the path rule) when the protocol has no file name.
    int Watch(int protocol_type);
    // Looks at the files again: true when one of them changed since the
    // last look.
    bool Refresh();

private:
    // The version of a file; the default stamp while it is missing.
    static vesk_section::FileStamp StampOf(const char *szPath);

    static constexpr int kFiles = 2;  // the protocol's limit file and the global file
    char szPaths_[kFiles][kConfPathSize] = {};
    vesk_section::FileStamp stamps_[kFiles] = {};
};

#endif

// Helpers of the reliability tests.
#ifndef VBW_RELIABILITY_SUPPORT_H
#define VBW_RELIABILITY_SUPPORT_H

#include <glob.h>

#include <string>
#include <vector>

#include "veskbandwidth.h"

namespace vbw {

// The paths that match a glob pattern, sorted; none when nothing matches.
inline std::vector<std::string> Paths(const std::string &pattern)
{
    std::vector<std::string> paths;
    glob_t found;
    if (0 == glob(pattern.c_str(), 0, nullptr, &found)) {
        paths.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    }
    globfree(&found);
    return paths;
}

// Enumerates a status file (or a temporary file) as an administration tool
// does: every protocol and direction, one record per section.
inline int EnumerateFile(const std::string &path)
{
    VESK_BANDWIDTH_STATUS *list = nullptr;
    int count = VESKBandwidthIStatusGetAll(path.c_str(), VESK_BW_PROTOCOL_ALL, VESK_BW_TRANSFER_ALL, &list, 0);
    VESKBandwidthStatusListFree(&list);
    return count;
}

}  // namespace vbw

#endif

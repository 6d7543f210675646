// Paths and section names of the status files.
#include "bandwidth_status_path.h"

#include <stdio.h>

#include "common/bandwidth_enum_name.h"

int BandwidthStatusFilePath(int owner_type, unsigned int id, char *szPath, size_t cbPath, VeskSite site)
{
    char szOwner[256] = {0};

    if (!BandwidthEnumName(VESK_BW_OWNER_TYPE_NAMES, owner_type, szOwner, sizeof(szOwner))) {
        // The fixed message says "protocol" where it prints the owner type.
        VESK_LOG_AT(site, "VESKBandwidthEnumToName failed, protocol=%d", owner_type);
        return -1;
    }
    snprintf(szPath, cbPath, "%s%s-%u", kStatusDir, szOwner, id);
    return 0;
}

void BandwidthStatusSectionName(pid_t pid, int transfer_type, char *szSection, size_t cbSection)
{
    snprintf(szSection, cbSection, "%u-%d", (unsigned int)pid, transfer_type);
}

/* Reads the limit of one user or group for one protocol from its limit file. */
#include <stdio.h>
#include <string.h>

#include "bandwidth_conf_store.h"
#include "veskbandwidth.h"
#include "vesk_file.h"
#include "vesk_log.h"

int BandwidthConfSectionLoad(const char *szPath, const char *szSection, VLIBC_SZHASH **ppHash,
                             const char *szFile, int iLine)
{
    if (0 == VLIBCFileExist(szPath)) {
        return 0;
    }
    int ret = VLIBCFileGetSection(szPath, szSection, ppHash);
    if (ret < 0) {
        BW_CONF_LOG_AT(szFile, iLine, "Get section [%s] from [%s] failed. [0x%04X %s:%d]", szSection, szPath,
                       VESK_ERR_ARGS);
        return -1;
    }
    return ret > 0 ? 1 : 0;
}

/* What a limit that was never stored reads as. Slots 0 and 3 of the rate
 * arrays carry nothing and are left alone. */
static void ConfDefaultsSet(VESK_BANDWIDTH_CONF *pConf, int owner_type, unsigned int id, int protocol_type)
{
    pConf->id = id;
    pConf->iCurState = VESK_BW_STATE_NOTEXISTED;
    pConf->iState = VESK_BW_STATE_NOTEXISTED;
    pConf->iProtocol = (VESK_BW_PROTOCOL_TYPE)protocol_type;
    pConf->iOwnerType = (VESK_BW_OWNER_TYPE)owner_type;
    for (int i = VESK_BW_TRANSFER_UPLOAD; i <= VESK_BW_TRANSFER_DOWNLOAD; i++) {
        pConf->ullCurRate[i] = 0;
        pConf->ullRate[i] = 0;
        pConf->ullCustomRate[i] = 0;
    }
    memset(pConf->szSchedulePlan, 0, sizeof(pConf->szSchedulePlan));
}

int VESKBandwidthConfGetByID(int owner_type, unsigned int id, int protocol_type, VESK_BANDWIDTH_CONF *pConf)
{
    if (!VESK_ARG_OK((0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type) || !VESK_ARG_OK(NULL != pConf)) {
        return -1;
    }
    char szPath[BW_CONF_PATH_SIZE];
    if (VESKBandwidthConfPath(protocol_type, szPath, sizeof(szPath) - 1) < 0) {
        VESK_LOG("VESKBandwidthConfPath failed for protocol [%d] [0x%04X %s:%d]", protocol_type, VESK_ERR_ARGS);
        return -1;
    }
    BwHash hash(1024);
    if (!hash) {
        VESK_LOG("malloc failed");
        return -1;
    }
    ConfDefaultsSet(pConf, owner_type, id, protocol_type);

    char szOwner[BW_CONF_NAME_SIZE];
    if (!BandwidthConfEnumName(VESK_BW_OWNER_TYPE_NAMES, owner_type, szOwner)) {
        VESK_LOG("VESKBandwidthEnumToName failed, id=%d", owner_type);
        return -1;
    }
    char szSection[BW_CONF_SECTION_SIZE];
    snprintf(szSection, sizeof(szSection), "%s-%u", szOwner, id);

    return BW_CONF_SECTION_READ(szPath, szSection, hash, VESKBandwidthInitConfFromHash, pConf);
}

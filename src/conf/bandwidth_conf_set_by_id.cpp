/* Stores the limit of one user or group for one protocol in its limit file. */
#include <stdio.h>
#include <sys/stat.h>

#include "bandwidth_conf_store.h"
#include "veskbandwidth.h"
#include "vesk_file.h"
#include "vesk_log.h"
#include "vesk_system.h"

/* Creates the configuration directory when it is missing, then the empty file. */
static int ConfFileCreate(const char *szPath, const char *szFile, int iLine)
{
    struct stat st;
    if ((0 != stat(BW_CONF_DIR, &st) || !S_ISDIR(st.st_mode)) && VESKFSMkdirP(BW_CONF_DIR, 0, 1, 0, 0, -1) < 0) {
        BW_CONF_LOG_AT(szFile, iLine, "VESKFSMkdirP failed. [%s] [0x%04X %s:%d]", BW_CONF_DIR, VESK_ERR_ARGS);
        return -1;
    }
    if (VLIBCFileTouch(szPath) < 0) {
        BW_CONF_LOG_AT(szFile, iLine, "VLIBCFileTouch [%s] failed. [0x%04X %s:%d]", szPath, VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

int BandwidthConfSectionStore(const char *szPath, const char *szSection, const VLIBC_SZHASH *pHash,
                              const char *szFile, int iLine)
{
    if (0 == VLIBCFileExist(szPath) && ConfFileCreate(szPath, szFile, iLine) < 0) {
        return -1;
    }
    int ret = VLIBCFileSetSection(szPath, szSection, NULL, pHash, 0);
    if (ret < 0) {
        BW_CONF_LOG_AT(szFile, iLine, "Save section [%s] to [%s] failed. [0x%04X %s:%d]", szSection, szPath,
                       VESK_ERR_ARGS);
        return -1;
    }
    if (0 == ret && VLIBCFileAddSection(szPath, szSection, pHash, 0) < 0) {
        BW_CONF_LOG_AT(szFile, iLine, "Add section [%s] to [%s] failed. [0x%04X %s:%d]", szSection, szPath,
                       VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

int VESKBandwidthConfSetByID(const VESK_BANDWIDTH_CONF *pConf)
{
    if (!VESK_ARG_OK(((void *)0) != pConf)) {
        return -1;
    }
    char szPath[BW_CONF_PATH_SIZE];
    if (VESKBandwidthConfPath(pConf->iProtocol, szPath, sizeof(szPath) - 1) < 0) {
        VESK_LOG("VESKBandwidthConfPath failed for protocol [%d] [0x%04X %s:%d]", pConf->iProtocol, VESK_ERR_ARGS);
        return -1;
    }
    BwHash hash(1024);
    if (BW_CONF_HASH_FILL(hash, VESKBandwidthInitHashFromConf, pConf) < 0) {
        return -1;
    }
    char szOwner[BW_CONF_NAME_SIZE];
    if (!BandwidthConfEnumName(VESK_BW_OWNER_TYPE_NAMES, pConf->iOwnerType, szOwner)) {
        VESK_LOG("VESKBandwidthEnumToName failed, protocol=%d", pConf->iOwnerType);
        return -1;
    }
    char szSection[BW_CONF_SECTION_SIZE];
    snprintf(szSection, sizeof(szSection), "%s-%u", szOwner, pConf->id);
    return BW_CONF_SECTION_STORE(szPath, szSection, hash.Get());
}

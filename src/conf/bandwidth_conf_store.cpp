// Steps shared by the readers, writers and dumps of the configuration files.
#include "bandwidth_conf_store.h"

#include <stdio.h>
#include <sys/stat.h>

#include "vesk_file.h"
#include "vesk_system.h"

namespace {

// Creates the configuration directory when it is missing, then the empty file.
int ConfFileCreate(const char *szPath, VeskSite site)
{
    struct stat st;
    if ((0 != stat(kConfDir, &st) || !S_ISDIR(st.st_mode)) && VESKFSMkdirP(kConfDir, 0, 1, 0, 0, -1) < 0) {
        VESK_LOG_AT(site, "VESKFSMkdirP failed. [%s] [0x%04X %s:%d]", kConfDir, VESK_ERR_ARGS);
        return -1;
    }
    if (VLIBCFileTouch(szPath) < 0) {
        VESK_LOG_AT(site, "VLIBCFileTouch [%s] failed. [0x%04X %s:%d]", szPath, VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

}  // namespace

int BandwidthConfSectionLoad(const char *szPath, const char *szSection, VLIBC_SZHASH **ppHash, VeskSite site)
{
    if (0 == VLIBCFileExist(szPath)) {
        return 0;
    }
    int ret = VLIBCFileGetSection(szPath, szSection, ppHash);
    if (ret < 0) {
        VESK_LOG_AT(site, "Get section [%s] from [%s] failed. [0x%04X %s:%d]", szSection, szPath, VESK_ERR_ARGS);
        return -1;
    }
    return ret > 0 ? 1 : 0;
}

int BandwidthConfSectionStore(const char *szPath, const char *szSection, const VLIBC_SZHASH *pHash, VeskSite site)
{
    if (0 == VLIBCFileExist(szPath) && ConfFileCreate(szPath, site) < 0) {
        return -1;
    }
    int ret = VLIBCFileSetSection(szPath, szSection, nullptr, pHash, 0);
    if (ret < 0) {
        VESK_LOG_AT(site, "Save section [%s] to [%s] failed. [0x%04X %s:%d]", szSection, szPath, VESK_ERR_ARGS);
        return -1;
    }
    if (0 == ret && VLIBCFileAddSection(szPath, szSection, pHash, 0) < 0) {
        VESK_LOG_AT(site, "Add section [%s] to [%s] failed. [0x%04X %s:%d]", szSection, szPath, VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

const char *BandwidthConfDumpText(const VLIBC_SZHASH *pHash, const char *szKey, int iValue, char *szBuf, size_t cbBuf)
{
    const char *szText = VLIBCSzHashGetValue(pHash, szKey);
    if (szText != nullptr) {
        return szText;
    }
    snprintf(szBuf, cbBuf, "unknown(%d)", iValue);
    return szBuf;
}

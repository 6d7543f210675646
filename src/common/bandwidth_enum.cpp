// Enumeration names and add-on protocols.
//
// Every enumeration is stored in files by name.  A name table pairs values
// and names; a value or name missing from a table may belong to an add-on
// protocol, declared by a file NAME_NUMBER.json in the add-on directory.
// Add-on answers are cached for the life of the process (misses are not).
#include <glob.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "veskbandwidth.h"
#include "vesk_hash.h"
#include "vesk_log.h"

extern "C" {

const VESK_BW_ENUM_ENTRY VESK_BW_OWNER_TYPE_NAMES[] = {
    {VESK_BW_OWNER_USER, "user"},
    {VESK_BW_OWNER_GROUP, "group"},
    {VESK_BW_OWNER_ALL, "all"},
    {-1, nullptr},
};

const VESK_BW_ENUM_ENTRY VESK_BW_TRANSFER_TYPE_NAMES[] = {
    {VESK_BW_TRANSFER_UPLOAD, "upload"},
    {VESK_BW_TRANSFER_DOWNLOAD, "download"},
    {-1, nullptr},
};

const VESK_BW_ENUM_ENTRY VESK_BW_PROTOCOL_TYPE_NAMES[] = {
    {VESK_BW_PROTOCOL_LANTERNPOST, "lanternpost"},
    {VESK_BW_PROTOCOL_WEBDAV, "webdav"},
    {VESK_BW_PROTOCOL_FTP, "ftp"},
    {VESK_BW_PROTOCOL_RSYNC, "rsync"},
    {VESK_BW_PROTOCOL_ALL, "all"},
    {-1, nullptr},
};

const VESK_BW_ENUM_ENTRY VESK_BW_LIMIT_STATE_NAMES[] = {
    {VESK_BW_STATE_NOTEXISTED, "NotExisted"},
    {VESK_BW_STATE_ENABLED, "enabled"},
    {VESK_BW_STATE_DISABLED, "disabled"},
    {VESK_BW_STATE_SCHEDULE, "schedule"},
    {-1, nullptr},
};

const VESK_BW_ENUM_ENTRY VESK_BW_USER_GROUP_POLICY_NAMES[] = {
    {VESK_BW_POLICY_USER_ONLY, "user-only"},
    {VESK_BW_POLICY_GROUP_ONLY, "group-only"},
    {VESK_BW_POLICY_USER_FIRST, "user-first"},
    {VESK_BW_POLICY_GROUP_FIRST, "group-first"},
    {VESK_BW_POLICY_MIN, "min"},
    {VESK_BW_POLICY_MAX, "max"},
    {VESK_BW_POLICY_SUM, "sum"},
    {-1, nullptr},
};

const VESK_BW_ENUM_ENTRY VESK_BW_INTER_GROUP_POLICY_NAMES[] = {
    {VESK_BW_POLICY_MIN, "min"},
    {VESK_BW_POLICY_MAX, "max"},
    {VESK_BW_POLICY_SUM, "sum"},
    {-1, nullptr},
};

const VESK_BW_ENUM_ENTRY VESK_BW_OCCUPY_POLICY_NAMES[] = {
    {VESK_BW_OCCUPY_NONE, "none"}, {VESK_BW_OCCUPY_ALL, "all"},           {VESK_BW_OCCUPY_MIN, "min"},
    {VESK_BW_OCCUPY_MAX, "max"},   {VESK_BW_OCCUPY_WEIGHTED, "weighted"}, {-1, nullptr},
};

}  // extern "C"

namespace {

// The add-on directory; its patterns and paths keep the doubled '/' after it.
constexpr char kAddonDir[] = "/usr/vesk/etc/bandwidth/addon/";
constexpr int kAddonCacheSize = 64;
constexpr size_t kAddonPatternSize = 4096;

// Process-wide add-on caches, created on first need and kept to the end.
VLIBC_SZHASH *g_pAddonNameByValue = nullptr;
VLIBC_SZHASH *g_pAddonValueByName = nullptr;

// The paths that one glob call found, released on every way out.
class GlobResult {
public:
    GlobResult() { memset(&glob_, 0, sizeof(glob_)); }
    ~GlobResult() { globfree(&glob_); }
    GlobResult(const GlobResult &) = delete;
    GlobResult &operator=(const GlobResult &) = delete;

    int Expand(const char *szPattern) { return glob(szPattern, 0, nullptr, &glob_); }
    size_t Count() const { return glob_.gl_pathc; }
    const char *Path() const { return glob_.gl_pathv[0]; }

private:
    glob_t glob_;
};

// Stores a pair into a cache, creating the cache first when needed.  A cache
// that cannot be created only costs the caching.
void AddonCacheStore(VLIBC_SZHASH **ppCache, const char *szKey, const char *szValue)
{
    if (*ppCache == nullptr) {
        *ppCache = VLIBCSzHashAlloc(kAddonCacheSize);
        if (*ppCache == nullptr) {
            VESK_LOG("malloc failed");
            return;
        }
    }
    VLIBCSzHashSetValue(ppCache, szKey, szValue);
}

const char *AddonCacheGet(const VLIBC_SZHASH *pCache, const char *szKey)
{
    return pCache == nullptr ? nullptr : VLIBCSzHashGetValue(pCache, szKey);
}

// Looks for the one add-on file that matches szPattern; szWhat names the
// search in the messages ("iProtocol=16", "protocol=my").  1: found, its path
// in found; 0: nothing; -1: failure, logged.
int AddonFind(GlobResult &found, const char *szPattern, const char *szWhat)
{
    if (0 != found.Expand(szPattern)) {
        VESK_LOG("glob failed, %s", szWhat);
        VESK_ERR_SET(BW_ERR_GLOB_FAILED);
        return -1;
    }
    if (0 == found.Count()) {
        return 0;
    }
    if (1 < found.Count()) {
        VESK_LOG("glob multi match, %s", szWhat);
        VESK_ERR_SET(BW_ERR_ADDON_AMBIGUOUS);
        return -1;
    }
    return 1;
}

// The last cBegin and the last cEnd of an add-on path, between which its name
// or number stands: 0, or -1 when either is missing.
int AddonPathSplit(const char *szPath, char cBegin, char cEnd, const char **ppBegin, const char **ppEnd)
{
    *ppBegin = strrchr(szPath, cBegin);
    *ppEnd = strrchr(szPath, cEnd);
    if (*ppBegin == nullptr || *ppEnd == nullptr) {
        VESK_LOG("bad path format, path=%s", szPath);
        VESK_ERR_SET(BW_ERR_ADDON_BAD_PATH);
        return -1;
    }
    return 0;
}

int AddonBadParameter()
{
    VESK_LOG("Bad parameter");
    VESK_ERR_SET(BW_ERR_BAD_PARAMETERS);
    return -1;
}

}  // namespace

int VESKBandwidthEnumToName(const VESK_BW_ENUM_ENTRY *enum_list, int iValue, char *szProtocol, int cbProtocol)
{
    if (!VESK_ARG_CHECK(enum_list != nullptr, "((void *)0) != enum_list") ||
        !VESK_ARG_CHECK(szProtocol != nullptr, "((void *)0) != szProtocol") || !VESK_ARG_OK(cbProtocol > 0)) {
        return -1;
    }
    for (const VESK_BW_ENUM_ENTRY *pEntry = enum_list; pEntry->szName != nullptr; ++pEntry) {
        if (pEntry->iValue == iValue) {
            snprintf(szProtocol, (size_t)cbProtocol, "%s", pEntry->szName);
            return 1;
        }
    }
    int iRet = VESKBandwidthEnumToNameAddon(iValue, szProtocol, (size_t)cbProtocol);
    if (iRet < 0) {
        VESK_LOG("VESKBandwidthEnumToNameAddon failed, protocol=%d", iValue);
        return -1;
    }
    if (0 == iRet) {
        VESK_LOG("VESKBandwidthEnumToNameAddon not found");
        VESK_ERR_SET(BW_ERR_NOT_FOUND);
        return 0;
    }
    return 1;
}

int VESKBandwidthEnumToValue(const VESK_BW_ENUM_ENTRY *enum_list, const char *szName)
{
    if (!VESK_ARG_CHECK(enum_list != nullptr, "((void *)0) != enum_list") ||
        !VESK_ARG_CHECK(szName != nullptr, "NULL != szName")) {
        return -1;
    }
    for (const VESK_BW_ENUM_ENTRY *pEntry = enum_list; pEntry->szName != nullptr; ++pEntry) {
        if (0 == strcmp(pEntry->szName, szName)) {
            return pEntry->iValue;
        }
    }
    int iRet = VESKBandwidthEnumToValueAddon(szName);
    if (iRet < 0) {
        VESK_LOG("VESKBandwidthEnumToValueAddon failed, protocol=%s", szName);
        return -1;
    }
    if (0 == iRet) {
        VESK_ERR_SET(BW_ERR_NOT_FOUND);
    }
    return iRet;
}

int VESKBandwidthEnumToNameAddon(int iProtocol, char *szName, size_t cbName)
{
    if (szName == nullptr || 0 == cbName) {
        return AddonBadParameter();
    }
    char szKey[16];
    snprintf(szKey, sizeof(szKey), "%d", iProtocol);
    const char *szCached = AddonCacheGet(g_pAddonNameByValue, szKey);
    if (szCached != nullptr) {
        snprintf(szName, cbName, "%s", szCached);
        return 1;
    }

    char szPattern[kAddonPatternSize];
    char szWhat[32];
    snprintf(szPattern, sizeof(szPattern), "%s/*_%d.json", kAddonDir, iProtocol);
    snprintf(szWhat, sizeof(szWhat), "iProtocol=%d", iProtocol);
    GlobResult found;
    int iRet = AddonFind(found, szPattern, szWhat);
    if (iRet < 1) {
        return iRet;
    }
    // NAME_NUMBER.json: the name runs from the last '/' to the last '_'.
    const char *pSlash;
    const char *pUnderscore;
    if (0 != AddonPathSplit(found.Path(), '/', '_', &pSlash, &pUnderscore)) {
        return -1;
    }
    snprintf(szName, cbName, "%.*s", (int)(pUnderscore - (pSlash + 1)), pSlash + 1);
    AddonCacheStore(&g_pAddonNameByValue, szKey, szName);
    return 1;
}

int VESKBandwidthEnumToValueAddon(const char *szName)
{
    if (szName == nullptr || '\0' == szName[0]) {
        return AddonBadParameter();
    }
    const char *szCached = AddonCacheGet(g_pAddonValueByName, szName);
    if (szCached != nullptr) {
        return (int)strtol(szCached, nullptr, 10);
    }

    char szPattern[kAddonPatternSize];
    char szWhat[kAddonPatternSize];
    snprintf(szPattern, sizeof(szPattern), "%s/%s_*.json", kAddonDir, szName);
    snprintf(szWhat, sizeof(szWhat), "protocol=%s", szName);
    GlobResult found;
    int iRet = AddonFind(found, szPattern, szWhat);
    if (iRet < 1) {
        return iRet;
    }
    // NAME_NUMBER.json: the number runs from the last '_' to the last '.'.
    const char *pUnderscore;
    const char *pDot;
    if (0 != AddonPathSplit(found.Path(), '_', '.', &pUnderscore, &pDot)) {
        return -1;
    }
    int iProtocol = (int)strtol(pUnderscore + 1, nullptr, 10);
    char szValue[16];
    snprintf(szValue, sizeof(szValue), "%d", iProtocol);
    AddonCacheStore(&g_pAddonValueByName, szName, szValue);
    return iProtocol;
}

int VESKBandwidthGetAddonConfigPath(int iProtocol, char *szPath, size_t cbPath)
{
    char szName[256] = {0};
    int iRet = VESKBandwidthEnumToNameAddon(iProtocol, szName, sizeof(szName));
    if (iRet < 1 || '\0' == szName[0]) {
        VESK_LOG("VESKBandwidthEnumToNameAddon failed");
        return -1;
    }
    snprintf(szPath, cbPath, "%s/%s_%d.json", kAddonDir, szName, iProtocol);
    return 0;
}

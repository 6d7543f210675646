// Reload notification: the senders that wake every family of transferring
// services after limits changed, and the receiver that rebuilds a transfer's
// configuration between two chunks.
#include <ctype.h>
#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "common/bandwidth_handles.h"
#include "veskbandwidth.h"
#include "vesk_log.h"
#include "vesk_system.h"

namespace {

// Web API names that the web file manager's transfer workers carry in their
// first argument, in the order they are searched.
const char *const kLanternpostApis[] = {
    "VESK.Lanternpost.Download",
    "VESK.Lanternpost.Upload",
    "VESK.Lanternpost.FormUpload",
    "VESK.Lanternpost.CopyMove",
};

const char kWebDAVPidFile[] = "/run/httpd/httpd-webdav.pid";

// True when the first argument of the process's command line names one of
// the worker APIs. Arguments are NUL-separated, so only the text before the
// first NUL of the first 127 bytes is searched.
bool HupIsLanternpostWorker(const char *szPid)
{
    char szPath[256];
    snprintf(szPath, sizeof(szPath), "/proc/%s/cmdline", szPid);
    BwFilePtr fp(fopen(szPath, "r"));
    if (!fp) {
        return false;
    }
    char szLine[128];
    memset(szLine, 0, sizeof(szLine));
    if (fgets(szLine, sizeof(szLine), fp.get()) == nullptr) {
        return false;
    }
    for (const char *szApi : kLanternpostApis) {
        if (strstr(szLine, szApi) != nullptr) {
            return true;
        }
    }
    return false;
}

}  // namespace

void VESKBandwidthHupLanternpost(void)
{
    BwDirPtr pDir(opendir("/proc"));
    if (!pDir) {
        return;
    }
    struct dirent *pEntry;
    while ((pEntry = readdir(pDir.get())) != nullptr) {
        if (!isdigit((unsigned char)pEntry->d_name[0])) {
            continue;
        }
        if (HupIsLanternpostWorker(pEntry->d_name)) {
            // A worker that ended meanwhile makes kill fail; that is harmless.
            (void)kill((pid_t)strtol(pEntry->d_name, nullptr, 10), SIGHUP);
        }
    }
}

int VESKBandwidthHupWebDAV(void)
{
    pid_t pid = VLIBCReadPidFile(kWebDAVPidFile);
    if (pid < 1) {
        return pid;
    }
    return killpg(pid, SIGUSR2);
}

int VESKBandwidthHupSimulator(void)
{
    return VLIBCExec("/usr/bin/killall", "-sighup", "veskbandwidth", nullptr, nullptr);
}

// ---- Reload receiver ----------------------------------------------------

namespace {

// False when the new configuration no longer limits the transfer: limiting
// is off for the protocol, no limit record is in force, or the configured
// rates leave the direction unlimited.  A failed estimate counts as limited.
bool HupStillLimited(VESK_BANDWIDTH_CONFIG *pConfig, int transfer_type)
{
    if (VESK_BW_STATE_DISABLED == pConfig->globalConf.iCurState || 0 == VESKBandwidthIsUserGroupLimitEnable(pConfig)) {
        return false;
    }
    uint64_t ullSpeedBps = 0;
    return 0 != VESKBandwidthExpectSpeedEstimateByPolicy(transfer_type, pConfig, &ullSpeedBps, 0) || 0 != ullSpeedBps;
}

}  // namespace

int VESKBandwidthHupRecv(VESK_BANDWIDTH_CONFIG *pConfig, VESK_BANDWIDTH_STATUS *pStatus, int64_t *pTime)
{
    if (!VESK_ARG_CHECK(pConfig != nullptr, "((void *)0) != pConfig") ||
        !VESK_ARG_CHECK(pStatus != nullptr, "((void *)0) != pStatus") ||
        !VESK_ARG_CHECK(pTime != nullptr, "NULL != pTime")) {
        return -1;
    }
    uid_t uid = pConfig->uid;
    // The sleep loop measures afresh from the reload.
    *pTime = VESKBandwidthCurrTimeGet();

    uint32_t groups[BW_OCC_GROUPS_MAX];
    int iOccGroups = 0;
    if (0 != VESKBandwidthOccGroupsGet(groups, &iOccGroups, pConfig)) {
        VESK_LOG("VESKBandwidthOccGroupsGet failed. uid:[%u] [0x%04X %s:%d]", (unsigned int)uid, VESK_ERR_ARGS);
        return -1;
    }
    // The next save writes the copies for the groups that the new
    // configuration occupies.
    if (iOccGroups > 0 &&
        0 != VESKBandwidthStatusRemoveByOccGroups(groups, iOccGroups, (unsigned int)pStatus->transfer_type)) {
        // The fixed text names VESKBandwidthStatusRemove for the removal from the occupied groups.
        VESK_LOG("VESKBandwidthStatusRemove failed. uid:[%u] [0x%04X %s:%d]", (unsigned int)uid, VESK_ERR_ARGS);
        return -1;
    }

    VESK_BANDWIDTH_CONFIG newConfig;
    memset(&newConfig, 0, sizeof(newConfig));
    if (0 != VESKBandwidthConfigGet(uid, pStatus->protocol_type, &newConfig)) {
        VESK_LOG("VESKBandwidthConfigGet failed. uid:[%u] [0x%04X %s:%d]", (unsigned int)uid, VESK_ERR_ARGS);
        VESKBandwidthConfigFree(&newConfig);
        return -1;
    }
    if (!HupStillLimited(&newConfig, pStatus->transfer_type)) {
        // Best effort: an entry left behind ages out of the status files.
        (void)VESKBandwidthStatusRemove(pConfig, (unsigned int)pStatus->transfer_type);
    }
    VESKBandwidthConfigFree(pConfig);
    *pConfig = newConfig;
    return 0;
}

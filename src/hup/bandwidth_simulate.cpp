// A throttled transfer played without data: it registers a transfer of a
// user, runs the sleep loop chunk by chunk exactly as a service would,
// reloads its limits on SIGHUP and removes the transfer at the end.  The tool
// that runs it is the process named veskbandwidth that the simulator hangup
// signals.
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "veskbandwidth.h"
#include "vesk_account.h"
#include "vesk_log.h"

namespace {

// Set by the SIGHUP handler, cleared by the transfer loop before it reloads.
volatile sig_atomic_t g_blReload = 0;

// Each pass moves 64 units of 1024 bytes.
const size_t kChunkUnits = 64;
const uint64_t kChunkBytes = 0x10000;

// Name buffer of the simulated file.
const size_t kFileNameSize = 4095;

void SimulateHupHandler(int)
{
    g_blReload = 1;
}

// The handler only raises the flag; SIGHUP is blocked while it runs.
void SimulateHupInstall(void)
{
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = SimulateHupHandler;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGHUP);
    action.sa_flags = 0;
    sigaction(SIGHUP, &action, nullptr);
}

// Progress of done units out of size, in 1/10000.
uint32_t SimulateProgress(size_t done, size_t size)
{
    return (uint32_t)(uint64_t)((double)(uint64_t)done * 10000.0 / (double)(uint64_t)size);
}

// One simulated transfer on the caller's configuration record, which the
// caller releases whatever the outcome.
int SimulateTransfer(const char *szUserName, int protocol_type, int transfer_type, size_t size,
                     VESK_BANDWIDTH_CONFIG *pConfig)
{
    uid_t uid = UID_ERR;
    if (VESKUserGetUGID(szUserName, &uid, nullptr) < 0) {
        VESK_LOG("VESKUserGetUGID failed. user:[%s] [0x%04X %s:%d]", szUserName, VESK_ERR_ARGS);
        return -1;
    }
    if (0 != VESKBandwidthConfigGet(uid, protocol_type, pConfig)) {
        VESK_LOG("VESKBandwidthConfigGet failed. uid:[%u] [0x%04X %s:%d]", (unsigned int)uid, VESK_ERR_ARGS);
        return -1;
    }

    char szFileName[kFileNameSize];
    snprintf(szFileName, sizeof(szFileName), "/volume1/public/%d-%d-%d-%zu", (int)getpid(), protocol_type,
             transfer_type, size);
    VESK_BANDWIDTH_STATUS status;
    memset(&status, 0, sizeof(status));
    int64_t llTime = 0;
    if (0 != VESKBandwidthStatusInit(pConfig, transfer_type, szFileName, &llTime, &status)) {
        VESK_LOG("VESKBandwidthStatusInit failed. user:[%s] file:[%s] [0x%04X %s:%d]", szUserName, szFileName,
                 VESK_ERR_ARGS);
        return -1;
    }

    for (size_t done = 0; done < size;) {
        if (g_blReload) {
            g_blReload = 0;
            if (0 != VESKBandwidthHupRecv(pConfig, &status, &llTime)) {
                VESK_LOG("Hup recv failed. user:[%s] file:[%s] [0x%04X %s:%d]", szUserName, szFileName, VESK_ERR_ARGS);
                return -1;
            }
        }
        done += kChunkUnits;
        if (0 != VESKBandwidthSleepInLoop(pConfig, kChunkBytes, SimulateProgress(done, size), &llTime, &status)) {
            VESK_LOG("Connection was closed. user:[%s] file:[%s] [0x%04X %s:%d]", szUserName, szFileName,
                     VESK_ERR_ARGS);
            return -1;
        }
    }

    if (0 != VESKBandwidthStatusRemove(pConfig, (unsigned int)transfer_type)) {
        VESK_LOG("VESKBandwidthStatusRemove failed. uid:[%u] [0x%04X %s:%d]", (unsigned int)uid, VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

}  // namespace

int VESKBandwidthSimulate(const char *szUserName, int protocol_type, int transfer_type, size_t size)
{
    SimulateHupInstall();
    VESK_BANDWIDTH_CONFIG config;
    memset(&config, 0, sizeof(config));
    int iRet = SimulateTransfer(szUserName, protocol_type, transfer_type, size, &config);
    VESKBandwidthConfigFree(&config);
    return iRet;
}

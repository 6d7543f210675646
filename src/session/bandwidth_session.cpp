// Transfer sessions: one object per transfer that keeps it at its shared
// speed by deadlines, and runs the shared pass of the sleep loop a few times
// a second with the bytes moved since the previous pass.
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <new>

#include "session/bandwidth_session_pacer.h"
#include "session/bandwidth_session_watch.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

namespace {

constexpr int64_t kNsPerSecond = 1000000000;

// Time between two shared passes.
constexpr int64_t kPassIntervalNs = kNsPerSecond / 5;

// After a failed pass, the pause before the next try; it doubles with every
// failure up to the longest.
constexpr int64_t kRetryFirstNs = kNsPerSecond;
constexpr int64_t kRetryLongestNs = 30 * kNsPerSecond;

// The next I/O holds 1/60 s of data at the current speed, within the bounds:
// six chunks in every 100 ms keep a window of that length within a sixth of
// the speed, while every wait costs a wake-up (tens of microseconds of CPU on
// a virtual machine).
constexpr uint64_t kChunksPerSecond = 60;
constexpr uint64_t kChunkMin = 4096;
constexpr uint64_t kChunkMax = 16 << 20;

}  // namespace

struct VESK_BANDWIDTH_SESSION {
    ~VESK_BANDWIDTH_SESSION() { VESKBandwidthConfigFree(&config_); }

    int Open(uid_t uid, int protocol_type, int transfer_type, const char *szFileName);
    int Pace(uint64_t cbMoved);
    uint64_t Chunk() const;
    uint64_t Speed() const { return pacer_.Rate(); }
    void SetProgress(uint32_t progress) { progress_ = progress; }
    // A reload asked for by the caller: what is read now needs no notice later.
    int ReloadNow()
    {
        (void)watch_.Refresh();
        return Reload();
    }
    int Close();

private:
    int Pass(int64_t llNowNs);
    bool RegisterIfForked();
    bool ReloadIfAsked();
    int Reload();
    uint64_t ConfiguredRate();
    void Follow(uint64_t ullRateBps, uint64_t cbCharged, uint64_t cbPending, int64_t llPassNs);
    void Failed();

    VESK_BANDWIDTH_CONFIG config_;
    VESK_BANDWIDTH_STATUS status_;
    int64_t llTimeLast_;  // the sleep loop's time of the previous pass, microseconds
    int transferType_;
    uint32_t progress_;
    BwConfWatch watch_;
    BwPacer pacer_;
    int64_t llIntervalStartNs_;  // the virtual time from which the bytes since the last pass are measured
    uint64_t cbInterval_;        // bytes moved since the last pass
    int64_t llNextPassNs_;
    int64_t llRetryNs_;  // pause before the next try after failed passes, 0 while they work
    bool blStarted_;     // the first bytes were paced
    bool blReloadAsked_;
    bool blFailureLogged_;
    bool blDeactivated_;
};

int VESK_BANDWIDTH_SESSION::Open(uid_t uid, int protocol_type, int transfer_type, const char *szFileName)
{
    // The files are looked at before they are read, so that a change while
    // they are read is noticed at the next pass.
    if (0 != watch_.Watch(protocol_type)) {
        return -1;
    }
    if (0 != VESKBandwidthConfigGet(uid, protocol_type, &config_)) {
        VESK_LOG("VESKBandwidthConfigGet failed. uid:[%u] [0x%04X %s:%d]", (unsigned int)uid, VESK_ERR_ARGS);
        return -1;
    }
    transferType_ = transfer_type;
    bool blRegistered = 0 == VESKBandwidthStatusInit(&config_, transfer_type, szFileName, &llTimeLast_, &status_);
    // The first Pace runs a pass, which measures the first bytes.
    llIntervalStartNs_ = llNextPassNs_ = BwMonotonicNs();
    if (!blRegistered) {
        VESK_LOG("VESKBandwidthStatusInit failed. uid:[%u] file:[%s] [0x%04X %s:%d]", (unsigned int)uid, szFileName,
                 VESK_ERR_ARGS);
        Failed();
    }
    pacer_.Restart(blRegistered ? status_.expect_speed : ConfiguredRate(), llIntervalStartNs_);
    return 0;
}

// A pass runs once its time has come and the bytes are due, so that it
// measures them at the speed they were paced to; a long wait runs it on the
// way, with the bytes due by then.
int VESK_BANDWIDTH_SESSION::Pace(uint64_t cbMoved)
{
    if (blDeactivated_) {
        VESK_ERR_SET(BW_ERR_DEACTIVATED);
        return -1;
    }
    int64_t llNowNs = BwMonotonicNs();
    if (!blStarted_) {
        // Pacing starts with the first bytes: the time the caller took to
        // begin after Open is no credit.
        blStarted_ = true;
        pacer_.Restart(pacer_.Rate(), llNowNs);
        llIntervalStartNs_ = llNowNs;
    }
    pacer_.Count(cbMoved, llNowNs);
    cbInterval_ += cbMoved;
    for (;;) {
        int64_t llDueNs = pacer_.Due();
        int64_t llPassLatestNs = llNextPassNs_ + kPassIntervalNs;
        if (llNowNs >= llNextPassNs_ && (llDueNs <= llNowNs || llNowNs >= llPassLatestNs)) {
            if (0 != Pass(llNowNs)) {
                return -1;
            }
            llNowNs = BwMonotonicNs();
            llDueNs = pacer_.Due();
            llPassLatestNs = llNextPassNs_ + kPassIntervalNs;
        }
        if (llDueNs <= llNowNs) {
            return 0;
        }
        BwSleepUntil(std::min(llDueNs, llPassLatestNs));
        llNowNs = BwMonotonicNs();
    }
}

uint64_t VESK_BANDWIDTH_SESSION::Chunk() const
{
    if (0 == pacer_.Rate()) {
        return kChunkMax;
    }
    return std::clamp(pacer_.Rate() / kChunksPerSecond, kChunkMin, kChunkMax);
}

int VESK_BANDWIDTH_SESSION::Close()
{
    if (0 != VESKBandwidthStatusRemove(&config_, (unsigned int)transferType_)) {
        VESK_LOG("VESKBandwidthStatusRemove failed. uid:[%u] [0x%04X %s:%d]", (unsigned int)config_.uid, VESK_ERR_ARGS);
        return -1;
    }
    return 0;
}

// One shared pass.  The sleep loop is handed the bytes due by now and the
// virtual start of their interval: paced bytes are then never early, so it
// sleeps only when the speed it finds is lower than the one they were paced
// at (charging the interval at the new speed), and the speed it measures is
// the transfer's own.
int VESK_BANDWIDTH_SESSION::Pass(int64_t llNowNs)
{
    bool blPassed = RegisterIfForked();
    uint64_t cbPending = pacer_.Pending(llNowNs);
    // Unpaced bytes are never charged.
    uint64_t cbCharged = 0 == pacer_.Rate() ? 0 : cbInterval_ - std::min(cbInterval_, cbPending);
    int64_t llStartUs = VESKBandwidthCurrTimeGet() - (llNowNs - llIntervalStartNs_ + 999) / 1000;
    llTimeLast_ = llStartUs;
    if (0 != VESKBandwidthSleepInLoop(&config_, cbCharged, progress_, &llTimeLast_, &status_)) {
        if (BW_ERR_DEACTIVATED == VLIBCErrGet()) {
            blDeactivated_ = true;
            return -1;
        }
        blPassed = false;
    }
    if (blPassed) {
        // A pass that finds no limit in force returns before it measures,
        // and leaves the time of the previous pass as it was.
        Follow(llTimeLast_ != llStartUs ? status_.expect_speed : 0, cbCharged, cbPending, llNowNs);
        llRetryNs_ = 0;
        llNextPassNs_ = BwMonotonicNs() + kPassIntervalNs;
    } else {
        Failed();
        Follow(ConfiguredRate(), cbCharged, cbPending, llNowNs);
    }
    if (!ReloadIfAsked() && blPassed) {
        Failed();
    }
    return 0;
}

// A child that inherited the session through fork() registers a transfer of
// its own: entries are named by their process.
bool VESK_BANDWIDTH_SESSION::RegisterIfForked()
{
    if (getpid() == status_.pid) {
        return true;
    }
    char szFileName[sizeof(status_.filename)];
    memcpy(szFileName, status_.filename, sizeof(szFileName));
    if (0 != VESKBandwidthStatusInit(&config_, transferType_, szFileName, &llTimeLast_, &status_)) {
        VESK_LOG("VESKBandwidthStatusInit failed. uid:[%u] file:[%s] [0x%04X %s:%d]", (unsigned int)config_.uid,
                 szFileName, VESK_ERR_ARGS);
        return false;
    }
    return true;
}

// Reloads when the limit files changed, or when an earlier reload failed.
bool VESK_BANDWIDTH_SESSION::ReloadIfAsked()
{
    if (watch_.Refresh()) {
        blReloadAsked_ = true;
    }
    return !blReloadAsked_ || 0 == Reload();
}

// As after a reload signal, the bytes moved before the reload are measured no
// more, and the next Pace runs a pass to find the speed under the new limits.
int VESK_BANDWIDTH_SESSION::Reload()
{
    blReloadAsked_ = true;
    if (0 != VESKBandwidthHupRecv(&config_, &status_, &llTimeLast_)) {
        // The receiver withdraws the transfer's group entries before it reads
        // the limits; when the status files keep it from that, the limits are
        // still read, and the entries left behind age out.
        VESK_BANDWIDTH_CONFIG fresh;
        memset(&fresh, 0, sizeof(fresh));
        if (0 != VESKBandwidthConfigGet(config_.uid, status_.protocol_type, &fresh)) {
            VESK_LOG("VESKBandwidthConfigGet failed. uid:[%u] [0x%04X %s:%d]", (unsigned int)config_.uid,
                     VESK_ERR_ARGS);
            VESKBandwidthConfigFree(&fresh);
            return -1;
        }
        VESKBandwidthConfigFree(&config_);
        config_ = fresh;
    }
    blReloadAsked_ = false;
    int64_t llNowNs = BwMonotonicNs();
    cbInterval_ = pacer_.Pending(llNowNs);
    llIntervalStartNs_ = std::min(pacer_.Due(), llNowNs);
    llNextPassNs_ = llNowNs;
    return 0;
}

// The speed of the transfer's limits as configured, not shared; when even
// that cannot be worked out, the speed in force.
uint64_t VESK_BANDWIDTH_SESSION::ConfiguredRate()
{
    uint64_t ullRateBps = 0;
    if (1 == VESKBandwidthConfCheckEnabled(&config_) &&
        0 != VESKBandwidthExpectSpeedEstimateByPolicy(transferType_, &config_, &ullRateBps, 0)) {
        return pacer_.Rate();
    }
    return ullRateBps;
}

// Paces at ullRateBps from the pass on.  The bytes the pass charged are due
// at the new speed from the start of their interval, which is where the sleep
// loop slept to when the speed fell; the bytes not due yet follow at the new
// speed.  A transfer that becomes unlimited owes nothing.
void VESK_BANDWIDTH_SESSION::Follow(uint64_t ullRateBps, uint64_t cbCharged, uint64_t cbPending, int64_t llPassNs)
{
    int64_t llStartNs = BwMonotonicNs();
    if (0 == ullRateBps) {
        cbPending = 0;
    } else if (0 != pacer_.Rate()) {
        llStartNs =
            std::max(std::min(pacer_.Due(), llPassNs), llIntervalStartNs_ + BwBytesTimeNs(cbCharged, ullRateBps));
    }
    pacer_.Restart(ullRateBps, llStartNs, cbPending);
    llIntervalStartNs_ = llStartNs;
    cbInterval_ = cbPending;
}

// Shared files that fail do not end the transfer: the failure is logged once
// per session, and the pass is tried again after a pause that doubles.
void VESK_BANDWIDTH_SESSION::Failed()
{
    if (!blFailureLogged_) {
        VESK_LOG("shared pass failed, pacing on at the configured rate. uid:[%u] [0x%04X %s:%d]",
                 (unsigned int)config_.uid, VESK_ERR_ARGS);
        blFailureLogged_ = true;
    }
    llRetryNs_ = 0 == llRetryNs_ ? kRetryFirstNs : std::min(2 * llRetryNs_, kRetryLongestNs);
    llNextPassNs_ = BwMonotonicNs() + llRetryNs_;
}

int VESKBandwidthSessionOpen(uid_t uid, int protocol_type, int transfer_type, const char *szFileName,
                             VESK_BANDWIDTH_SESSION **ppSession)
{
    if (!VESK_ARG_OK(ppSession != nullptr) || !VESK_ARG_OK(szFileName != nullptr) ||
        !VESK_ARG_OK(VESK_BW_TRANSFER_UPLOAD == transfer_type || VESK_BW_TRANSFER_DOWNLOAD == transfer_type)) {
        return -1;
    }
    std::unique_ptr<VESK_BANDWIDTH_SESSION> pSession(new (std::nothrow) VESK_BANDWIDTH_SESSION());
    if (pSession == nullptr) {
        VESK_LOG("malloc VESK_BANDWIDTH_SESSION failed.");
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
    if (0 != pSession->Open(uid, protocol_type, transfer_type, szFileName)) {
        return -1;
    }
    *ppSession = pSession.release();
    return 0;
}

int VESKBandwidthSessionPace(VESK_BANDWIDTH_SESSION *pSession, uint64_t cbMoved)
{
    if (!VESK_ARG_OK(pSession != nullptr)) {
        return -1;
    }
    return pSession->Pace(cbMoved);
}

int VESKBandwidthSessionChunk(VESK_BANDWIDTH_SESSION *pSession, uint64_t *pcbChunk)
{
    if (!VESK_ARG_OK(pSession != nullptr) || !VESK_ARG_OK(pcbChunk != nullptr)) {
        return -1;
    }
    *pcbChunk = pSession->Chunk();
    return 0;
}

int VESKBandwidthSessionSpeedGet(const VESK_BANDWIDTH_SESSION *pSession, uint64_t *pSpeedBps)
{
    if (!VESK_ARG_OK(pSession != nullptr) || !VESK_ARG_OK(pSpeedBps != nullptr)) {
        return -1;
    }
    *pSpeedBps = pSession->Speed();
    return 0;
}

int VESKBandwidthSessionProgressSet(VESK_BANDWIDTH_SESSION *pSession, uint32_t progress)
{
    if (!VESK_ARG_OK(pSession != nullptr)) {
        return -1;
    }
    pSession->SetProgress(progress);
    return 0;
}

int VESKBandwidthSessionReload(VESK_BANDWIDTH_SESSION *pSession)
{
    if (!VESK_ARG_OK(pSession != nullptr)) {
        return -1;
    }
    return pSession->ReloadNow();
}

int VESKBandwidthSessionClose(VESK_BANDWIDTH_SESSION *pSession)
{
    std::unique_ptr<VESK_BANDWIDTH_SESSION> owned(pSession);
    return owned == nullptr ? 0 : owned->Close();
}

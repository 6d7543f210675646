// The part of one limit that a transfer may use: the limit is split equally
// among the users transferring under it and, within the user's part, among
// the user's transfers; but a transfer may also take whatever the others,
// by their last saved speeds, leave unused.
#include <new>
#include <utility>
#include <vector>

#include "status/bandwidth_status_path.h"
#include "status/bandwidth_status_scan.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

#include "bandwidth_limit_rate.h"

namespace {

// Shares the limit among the transfers of its status file, the caller's own
// process and inactive transfers left out.  The records come in file order,
// one at a time, so that a pass allocates nothing per transfer.  The
// enumeration lists the newest section first, and another user counts by the
// first of its entries in that list: the last one in the file.
class LimitShare : public vesk_status::StatusVisitor {
public:
    LimitShare(uint64_t ullLimit, uid_t uid, pid_t pid) : ullLimit_(ullLimit), ullLeft_(ullLimit), uid_(uid), pid_(pid)
    {
    }

    int Visit(const char *, const VESK_BANDWIDTH_STATUS &status) override
    {
        bool blCounts = 0 != status.active && pid_ != status.pid;
        if (blCounts) {
            ullLeft_ = (status.current_speed > ullLeft_) ? 0 : ullLeft_ - status.current_speed;
            if (uid_ == status.uid) {
                ullTransfers_++;
            }
        }
        return (uid_ == status.uid) ? 0 : NoteOtherUser(status.uid, blCounts);
    }

    uint64_t Share() const
    {
        uint64_t ullUsers = 1;  // this user included
        for (const auto &user : otherUsers_) {
            ullUsers += user.second ? 1 : 0;
        }
        uint64_t ullFair = ullLimit_ / (ullTransfers_ * ullUsers);
        return (ullLeft_ > ullFair) ? ullLeft_ : ullFair;
    }

private:
    // Whether another user counts is decided by its latest entry.
    int NoteOtherUser(uid_t uid, bool blCounts)
    {
        for (auto &user : otherUsers_) {
            if (user.first == uid) {
                user.second = blCounts;
                return 0;
            }
        }
        try {
            otherUsers_.emplace_back(uid, blCounts);
        } catch (const std::bad_alloc &) {
            VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
            return -1;
        }
        return 0;
    }

    uint64_t ullLimit_;
    uint64_t ullLeft_;
    uint64_t ullTransfers_ = 1;  // of this user, this one included
    uid_t uid_;
    pid_t pid_;
    std::vector<std::pair<uid_t, bool>> otherUsers_;
};

}  // namespace

int VESKBandwidthExpectSpeedEstimate(uid_t uid, const VESK_BANDWIDTH_LIMIT *pConf, int transfer_type,
                                     uint64_t *pMaxSpeedBps, pid_t pid)
{
    if (!VESK_ARG_CHECK(pConf != nullptr, "((void *)0) != pConf") ||
        !VESK_ARG_CHECK(pMaxSpeedBps != nullptr, "((void *)0) != pMaxSpeedBps") ||
        !VESK_ARG_OK(VESK_BW_TRANSFER_ALL != transfer_type)) {
        return -1;
    }
    uint64_t ullLimit = BandwidthLimitRateBps(pConf, transfer_type);
    if (0 == ullLimit) {
        *pMaxSpeedBps = 0;
        return 0;
    }
    char szPath[kStatusPathSize] = {0};
    LimitShare share(ullLimit, uid, pid);
    if (BandwidthStatusFilePath(pConf->iOwnerType, pConf->id, szPath, sizeof(szPath), VESK_SITE) < 0 ||
        vesk_status::ScanStatusFile(szPath, pConf->iProtocol, transfer_type, share) < 0) {
        // The fixed text names the enumeration that this scan of the status file stands for.
        VESK_LOG("VESKBandwidthStatusGetAll failed. id:[%u] [0x%04X %s:%d]", pConf->id, VESK_ERR_ARGS);
        return -1;
    }
    *pMaxSpeedBps = share.Share();
    return 0;
}

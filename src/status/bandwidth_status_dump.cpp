// Prints one running transfer as one fixed-width line: owner, protocol,
// direction, pid, last save, expected and current speed (KiB/s), progress (%)
// and file name.
#include <stdio.h>

#include "common/bandwidth_user_groups.h"
#include "conf/bandwidth_conf_store.h"
#include "status/bandwidth_status_path.h"
#include "veskbandwidth.h"
#include "vesk_account.h"
#include "vesk_log.h"

namespace {

// Looks up the account that names the owner of a status copy: the user of a
// user's copy, else the group.  False (logged) when it cannot be found.
bool OwnerLookup(const VESK_BANDWIDTH_STATUS &status, BwOwnerAccount *pOwner)
{
    if (status.owner_type == VESK_BW_OWNER_USER) {
        if (!pOwner->User(status.id)) {
            VESK_LOG("VESKUserGetByUID failed. [%u] [0x%04X %s:%d]", status.id, VESK_ERR_ARGS);
            return false;
        }
    } else if (!pOwner->Group(status.id)) {
        VESK_LOG("VESKGroupGetByGID failed. [%u] [0x%04X %s:%d]", status.id, VESK_ERR_ARGS);
        return false;
    }
    return true;
}

}  // namespace

int VESKBandwidthStatusDump(FILE *fp, const VESK_BANDWIDTH_STATUS *pStatus)
{
    if (!VESK_ARG_CHECK(fp != nullptr, "((void *)0) != fp") || !VESK_ARG_CHECK(pStatus != nullptr, "NULL != pStatus")) {
        return -1;
    }
    BwOwnerAccount owner;
    if (!OwnerLookup(*pStatus, &owner)) {
        return -1;
    }
    BwHash hash;
    if (!hash) {
        VESK_LOG("VLIBCSzHashAlloc failed.[0x%04X %s:%d]", VESK_ERR_ARGS);
        return -1;
    }
    if (VESKBandwidthInitHashFromStatus(hash.Addr(), pStatus) < 0) {
        VESK_LOG("Init hash from status failed. [0x%04X %s:%d]", VESK_ERR_ARGS);
        return -1;
    }
    char szProtocol[32];
    char szTransfer[32];
    // A value without a name has no key in the hash: it prints as unknown(<value>).
    const char *szProtocolName =
        BandwidthConfDumpText(hash.Get(), "protocol type", pStatus->protocol_type, szProtocol, sizeof(szProtocol));
    const char *szTransferName =
        BandwidthConfDumpText(hash.Get(), "transfer type", pStatus->transfer_type, szTransfer, sizeof(szTransfer));
    double dExpectKBps = (double)pStatus->expect_speed * 0.0009765625;
    double dCurrentKBps = (double)pStatus->current_speed / 1024.0;
    double dProgressPercent = pStatus->progress / 100.0;
    // The file name is bounded by its field, in case it lacks its terminator.
    fprintf(fp, "%30s %10s %10s %5u %10u %10.2f %10.2f %03.2f %.*s\n", owner.Name(), szProtocolName, szTransferName,
            (unsigned int)pStatus->pid, (unsigned int)(uint32_t)pStatus->timestamp, dExpectKBps, dCurrentKBps,
            dProgressPercent, (int)sizeof(pStatus->filename), pStatus->filename);
    return 0;
}

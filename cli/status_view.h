// Running transfers as the status files under /tmp/bandwidth/ list them,
// shared by the status command and the demo's live table.
#ifndef VBW_CLI_STATUS_VIEW_H
#define VBW_CLI_STATUS_VIEW_H

#include <ostream>
#include <string>
#include <vector>

#include "table.h"
#include "veskbandwidth.h"

namespace cli {

struct Transfer {
    std::string file;              // the status file that lists it
    VESK_BANDWIDTH_STATUS status;  // pNext cleared
};

// Status files of every user and group, sorted by path.
std::vector<std::string> AllStatusFiles();
std::string StatusFilePath(int ownerType, unsigned id);

// The fresh transfers of the files that match the masks (protocol -1 is
// every protocol, add-ons included), in file order, then by pid.  Reading
// also removes the stale entries from the files, as every reader does.
std::vector<Transfer> CollectTransfers(const std::vector<std::string> &files, int protocolMask,
                                       unsigned transferMask);
// The transfers of one process in a user's status file.
std::vector<Transfer> TransfersOfPid(unsigned uid, pid_t pid);

void PrintTransferTable(std::ostream &out, const std::vector<Transfer> &transfers);
void WriteTransfersJson(JsonWriter &json, const std::vector<Transfer> &transfers);
// The library's own fixed layout, one line per transfer.
void DumpTransfers(FILE *out, const std::vector<Transfer> &transfers);

}  // namespace cli

#endif

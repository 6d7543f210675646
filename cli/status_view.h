// Running transfers as the status files under /tmp/bandwidth/ list them,
// shared by the status command, deactivate and remove, and the demo.
#ifndef VBW_CLI_STATUS_VIEW_H
#define VBW_CLI_STATUS_VIEW_H

#include <map>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "cli.h"
#include "table.h"

namespace cli {

// One section of one status file.
struct Entry {
    std::string file;
    VESK_BANDWIDTH_STATUS status;  // pNext cleared
};

// One running transfer: the entry of its user's file (or the first one seen)
// and the owners of the files that list it, whose limits it counts against.
struct Transfer {
    VESK_BANDWIDTH_STATUS status;
    std::vector<Owner> limits;
};

// Status files of every user and group, sorted by path.
std::vector<std::string> AllStatusFiles();
std::string StatusFilePath(int ownerType, unsigned id);

// The fresh entries of the files that match the masks (protocol -1 is every
// protocol, add-ons included), in file order, then by pid.  A file that
// cannot be read is skipped with a warning.  Reading also removes the stale
// entries from the files, as every reader does.
std::vector<Entry> CollectEntries(const std::vector<std::string> &files, int protocolMask, unsigned transferMask);
std::vector<Transfer> GroupByTransfer(const std::vector<Entry> &entries);

// The recent speeds of transfers, one sample per refresh, as sparklines.
class SpeedHistory {
public:
    void Record(const std::vector<Transfer> &transfers);  // forgets the transfers that are gone
    std::string Sparkline(const Transfer &transfer) const;

private:
    using Key = std::tuple<unsigned, pid_t, int>;  // uid, pid, direction
    std::map<Key, std::vector<double>> samples_;
};

// Tables cut to `width` columns (0: no limit); with a history, a sparkline
// of each transfer's speed beside its numbers.
void PrintTransferTable(std::ostream &out, const std::vector<Transfer> &transfers,
                        const SpeedHistory *history = nullptr, size_t width = 0);
void PrintEntryTable(std::ostream &out, const std::vector<Entry> &entries, size_t width = 0);
void WriteTransfersJson(JsonWriter &json, const std::vector<Transfer> &transfers);
void WriteEntriesJson(JsonWriter &json, const std::vector<Entry> &entries);
// The library's own fixed layout, one line per entry; an entry it cannot
// print is skipped with a warning.
void DumpEntries(std::ostream &out, const std::vector<Entry> &entries);
// The transfers and the limits in force in the Prometheus text format.
void WritePrometheus(std::ostream &out, const std::vector<Transfer> &transfers);

}  // namespace cli

#endif

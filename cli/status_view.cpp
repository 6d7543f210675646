// Reading and printing the running transfers of the status files.
#include "status_view.h"

#include <dirent.h>

#include <algorithm>
#include <ctime>
#include <iterator>
#include <memory>

#include "cli.h"

namespace cli {
namespace {

const char kStatusDir[] = "/tmp/bandwidth/";

struct DirClose {
    void operator()(DIR *dir) const { closedir(dir); }
};

// Status files are named user-<uid> or group-<gid>; the section writer's
// temporary files carry a dot and are not listed.
bool IsStatusFileName(const std::string &name)
{
    if (name.find('.') != std::string::npos) {
        return false;
    }
    return name.compare(0, 5, "user-") == 0 || name.compare(0, 6, "group-") == 0;
}

std::string OwnerOfFile(const VESK_BANDWIDTH_STATUS &status)
{
    int type = status.owner_type == VESK_BW_OWNER_USER ? VESK_BW_OWNER_USER : VESK_BW_OWNER_GROUP;
    return (type == VESK_BW_OWNER_USER ? "user " : "group ") + AccountName(type, status.id);
}

std::string Age(int64_t timestamp)
{
    return std::to_string(static_cast<long long>(std::time(nullptr) - timestamp)) + "s";
}

}  // namespace

std::vector<std::string> AllStatusFiles()
{
    std::vector<std::string> files;
    std::unique_ptr<DIR, DirClose> dir(opendir(kStatusDir));
    if (!dir) {
        return files;
    }
    while (const struct dirent *entry = readdir(dir.get())) {
        if (IsStatusFileName(entry->d_name)) {
            files.push_back(kStatusDir + std::string(entry->d_name));
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string StatusFilePath(int ownerType, unsigned id)
{
    return kStatusDir + std::string(ownerType == VESK_BW_OWNER_USER ? "user-" : "group-") + std::to_string(id);
}

std::vector<Transfer> CollectTransfers(const std::vector<std::string> &files, int protocolMask,
                                       unsigned transferMask)
{
    std::vector<Transfer> transfers;
    for (const std::string &file : files) {
        VESK_BANDWIDTH_STATUS *list = nullptr;
        if (VESKBandwidthIStatusGetAll(file.c_str(), protocolMask, transferMask, &list, 0) < 0) {
            VESKBandwidthStatusListFree(&list);
            FailLibrary("cannot read " + file);
        }
        size_t first = transfers.size();
        for (const VESK_BANDWIDTH_STATUS *entry = list; entry != nullptr; entry = entry->pNext) {
            Transfer transfer{file, *entry};
            transfer.status.pNext = nullptr;
            transfers.push_back(transfer);
        }
        VESKBandwidthStatusListFree(&list);
        std::sort(transfers.begin() + static_cast<std::ptrdiff_t>(first), transfers.end(),
                  [](const Transfer &a, const Transfer &b) {
                      return a.status.pid != b.status.pid ? a.status.pid < b.status.pid
                                                          : a.status.transfer_type < b.status.transfer_type;
                  });
    }
    return transfers;
}

std::vector<Transfer> TransfersOfPid(unsigned uid, pid_t pid)
{
    std::vector<Transfer> all = CollectTransfers({StatusFilePath(VESK_BW_OWNER_USER, uid)}, -1, VESK_BW_TRANSFER_ALL);
    std::vector<Transfer> found;
    std::copy_if(all.begin(), all.end(), std::back_inserter(found),
                 [pid](const Transfer &t) { return t.status.pid == pid; });
    return found;
}

void PrintTransferTable(std::ostream &out, const std::vector<Transfer> &transfers)
{
    if (transfers.empty()) {
        out << "No running transfers.\n";
        return;
    }
    Table table({{"OWNER", false},
                 {"PID", true},
                 {"USER", false},
                 {"PROTOCOL", false},
                 {"DIRECTION", false},
                 {"NOW KB/s", true},
                 {"EXPECTED KB/s", true},
                 {"PROGRESS", true},
                 {"ACTIVE", false},
                 {"SAVED", true},
                 {"FILE", false}});
    for (const Transfer &t : transfers) {
        const VESK_BANDWIDTH_STATUS &s = t.status;
        table.AddRow({OwnerOfFile(s), std::to_string(s.pid), AccountName(VESK_BW_OWNER_USER, s.uid),
                      ProtocolName(s.protocol_type), DirectionName(s.transfer_type), KBps(s.current_speed),
                      LimitKBps(s.expect_speed), Percent(s.progress), s.active != 0 ? "yes" : "no",
                      Age(s.timestamp) + " ago", s.filename});
    }
    table.Print(out);
}

void WriteTransfersJson(JsonWriter &json, const std::vector<Transfer> &transfers)
{
    json.BeginArray();
    for (const Transfer &t : transfers) {
        const VESK_BANDWIDTH_STATUS &s = t.status;
        json.BeginObject()
            .Field("status_file", t.file)
            .Field("owner_type", EnumName(VESK_BW_OWNER_TYPE_NAMES, s.owner_type))
            .Field("owner", AccountName(s.owner_type, s.id))
            .Field("id", static_cast<uint64_t>(s.id))
            .Field("pid", static_cast<int64_t>(s.pid))
            .Field("uid", static_cast<uint64_t>(s.uid))
            .Field("user", AccountName(VESK_BW_OWNER_USER, s.uid))
            .Field("protocol", ProtocolName(s.protocol_type))
            .Field("direction", DirectionName(s.transfer_type))
            .Key("active").Bool(s.active != 0)
            .Field("timestamp", static_cast<int64_t>(s.timestamp))
            .Field("current_speed", static_cast<uint64_t>(s.current_speed))
            .Field("expect_speed", static_cast<uint64_t>(s.expect_speed))
            .Field("progress", static_cast<uint64_t>(s.progress))
            .Field("filename", std::string(s.filename))
            .EndObject();
    }
    json.EndArray();
}

void DumpTransfers(FILE *out, const std::vector<Transfer> &transfers)
{
    for (const Transfer &t : transfers) {
        if (VESKBandwidthStatusDump(out, &t.status) != 0) {
            FailLibrary("cannot print the transfer of pid " + std::to_string(t.status.pid));
        }
    }
}

}  // namespace cli

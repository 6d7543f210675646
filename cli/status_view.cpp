// Reading and printing the running transfers of the status files.
#include "status_view.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include "chart.h"

namespace cli {
namespace {

const char kStatusDir[] = "/tmp/bandwidth/";
constexpr size_t kSparklineSamples = 16;

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

Owner OwnerOfEntry(const VESK_BANDWIDTH_STATUS &status)
{
    int type = status.owner_type == VESK_BW_OWNER_USER ? VESK_BW_OWNER_USER : VESK_BW_OWNER_GROUP;
    return Owner{type, status.id, AccountName(type, status.id)};
}

std::string LimitsText(const std::vector<Owner> &limits)
{
    std::string text;
    for (const Owner &owner : limits) {
        text += (text.empty() ? "" : ", ") + OwnerLabel(owner);
    }
    return text;
}

std::string Age(int64_t timestamp)
{
    return std::to_string(static_cast<long long>(std::time(nullptr) - timestamp)) + "s ago";
}

void WriteStatusFields(JsonWriter &json, const VESK_BANDWIDTH_STATUS &s)
{
    json.Field("pid", static_cast<int64_t>(s.pid))
        .Field("uid", static_cast<uint64_t>(s.uid))
        .Field("user", AccountName(VESK_BW_OWNER_USER, s.uid))
        .Field("protocol", ProtocolName(s.protocol_type))
        .Field("direction", DirectionName(s.transfer_type))
        .Field("active", s.active != 0)
        .Field("timestamp", static_cast<int64_t>(s.timestamp))
        .Field("current_speed_bytes_s", static_cast<uint64_t>(s.current_speed))
        .Field("expect_speed_bytes_s", static_cast<uint64_t>(s.expect_speed))
        .Field("progress", static_cast<uint64_t>(s.progress))
        .Field("filename", std::string(s.filename));
}

// Why a status file in the directory cannot be read by this process, or "".
std::string ReadProblem(int dirFd, const char *name)
{
    struct stat st;
    if (fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return std::strerror(errno);
    }
    if (!S_ISREG(st.st_mode)) {
        return "not a regular file";
    }
    if (faccessat(dirFd, name, R_OK, AT_EACCESS) != 0) {
        return std::strerror(errno);
    }
    return "";
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
        if (!IsStatusFileName(entry->d_name)) {
            continue;
        }
        std::string path = kStatusDir + std::string(entry->d_name);
        // The library passes over what it cannot read without a word; say so here.
        std::string problem = ReadProblem(dirfd(dir.get()), entry->d_name);
        if (problem.empty()) {
            files.push_back(path);
        } else {
            Warn("cannot read " + path + " (" + problem + "); skipped");
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string StatusFilePath(int ownerType, unsigned id)
{
    return kStatusDir + std::string(ownerType == VESK_BW_OWNER_USER ? "user-" : "group-") + std::to_string(id);
}

std::vector<Entry> CollectEntries(const std::vector<std::string> &files, int protocolMask, unsigned transferMask)
{
    std::vector<Entry> entries;
    for (const std::string &file : files) {
        VESK_BANDWIDTH_STATUS *list = nullptr;
        if (VESKBandwidthIStatusGetAll(file.c_str(), protocolMask, transferMask, &list, 0) < 0) {
            VESKBandwidthStatusListFree(&list);
            Warn("cannot read " + file + " (" + LibraryErrorText() + "); skipped");
            continue;
        }
        size_t first = entries.size();
        for (const VESK_BANDWIDTH_STATUS *status = list; status != nullptr; status = status->pNext) {
            entries.push_back(Entry{file, *status});
            entries.back().status.pNext = nullptr;
        }
        VESKBandwidthStatusListFree(&list);
        std::sort(entries.begin() + static_cast<std::ptrdiff_t>(first), entries.end(),
                  [](const Entry &a, const Entry &b) {
                      return a.status.pid != b.status.pid ? a.status.pid < b.status.pid
                                                          : a.status.transfer_type < b.status.transfer_type;
                  });
    }
    return entries;
}

std::vector<Transfer> GroupByTransfer(const std::vector<Entry> &entries)
{
    std::vector<Transfer> transfers;
    for (const Entry &entry : entries) {
        const VESK_BANDWIDTH_STATUS &s = entry.status;
        auto same = std::find_if(transfers.begin(), transfers.end(), [&s](const Transfer &t) {
            return t.status.uid == s.uid && t.status.pid == s.pid && t.status.transfer_type == s.transfer_type;
        });
        if (same == transfers.end()) {
            transfers.push_back(Transfer{s, {}});
            same = transfers.end() - 1;
        } else if (s.owner_type == VESK_BW_OWNER_USER) {
            same->status = s;  // the user's entry holds the transfer's own speeds
        }
        Owner owner = OwnerOfEntry(s);
        auto at = owner.type == VESK_BW_OWNER_USER ? same->limits.begin() : same->limits.end();
        same->limits.insert(at, owner);
    }
    std::sort(transfers.begin(), transfers.end(), [](const Transfer &a, const Transfer &b) {
        return std::make_tuple(a.status.uid, a.status.pid, a.status.transfer_type) <
               std::make_tuple(b.status.uid, b.status.pid, b.status.transfer_type);
    });
    return transfers;
}

void SpeedHistory::Record(const std::vector<Transfer> &transfers)
{
    std::map<Key, std::vector<double>> kept;
    for (const Transfer &t : transfers) {
        Key key{t.status.uid, t.status.pid, t.status.transfer_type};
        std::vector<double> &samples = kept[key] = samples_[key];
        samples.push_back(static_cast<double>(t.status.current_speed));
        if (samples.size() > kSparklineSamples) {
            samples.erase(samples.begin());
        }
    }
    samples_.swap(kept);
}

std::string SpeedHistory::Sparkline(const Transfer &transfer) const
{
    auto it = samples_.find(Key{transfer.status.uid, transfer.status.pid, transfer.status.transfer_type});
    if (it == samples_.end()) {
        return "";
    }
    return cli::Sparkline(it->second, static_cast<double>(transfer.status.expect_speed), kSparklineSamples);
}

void PrintTransferTable(std::ostream &out, const std::vector<Transfer> &transfers, const SpeedHistory *history,
                        size_t width)
{
    if (transfers.empty()) {
        out << "No running transfers.\n";
        return;
    }
    std::vector<Table::Column> columns = {
        {"PID", true}, {"USER", false}, {"PROTOCOL", false}, {"DIRECTION", false}, {"SPEED", true}};
    if (history != nullptr) {
        columns.push_back({"RECENT", false});
    }
    columns.insert(columns.end(),
                   {{"LIMIT", true}, {"PROGRESS", true}, {"ACTIVE", false}, {"LIMITED BY", false}, {"FILE", false}});
    Table table(columns);
    for (const Transfer &t : transfers) {
        const VESK_BANDWIDTH_STATUS &s = t.status;
        std::vector<std::string> row = {std::to_string(s.pid), AccountName(VESK_BW_OWNER_USER, s.uid),
                                        ProtocolName(s.protocol_type), DirectionName(s.transfer_type),
                                        RateText(static_cast<double>(s.current_speed))};
        if (history != nullptr) {
            row.push_back(history->Sparkline(t));
        }
        row.insert(row.end(), {RateText(static_cast<double>(s.expect_speed)), Percent(s.progress),
                               s.active != 0 ? "yes" : "no", LimitsText(t.limits), s.filename});
        table.AddRow(row);
    }
    table.Print(out, width);
}

void PrintEntryTable(std::ostream &out, const std::vector<Entry> &entries, size_t width)
{
    if (entries.empty()) {
        out << "No running transfers.\n";
        return;
    }
    Table table({{"STATUS FILE", false},
                 {"PID", true},
                 {"USER", false},
                 {"PROTOCOL", false},
                 {"DIRECTION", false},
                 {"SPEED", true},
                 {"LIMIT", true},
                 {"PROGRESS", true},
                 {"ACTIVE", false},
                 {"SAVED", true},
                 {"FILE", false}});
    for (const Entry &e : entries) {
        const VESK_BANDWIDTH_STATUS &s = e.status;
        table.AddRow({OwnerLabel(OwnerOfEntry(s)), std::to_string(s.pid), AccountName(VESK_BW_OWNER_USER, s.uid),
                      ProtocolName(s.protocol_type), DirectionName(s.transfer_type),
                      RateText(static_cast<double>(s.current_speed)), RateText(static_cast<double>(s.expect_speed)),
                      Percent(s.progress), s.active != 0 ? "yes" : "no", Age(s.timestamp), s.filename});
    }
    table.Print(out, width);
}

void WriteTransfersJson(JsonWriter &json, const std::vector<Transfer> &transfers)
{
    json.BeginArray();
    for (const Transfer &t : transfers) {
        json.BeginObject();
        WriteStatusFields(json, t.status);
        json.Key("limits").BeginArray();
        for (const Owner &owner : t.limits) {
            json.BeginObject()
                .Field("owner_type", EnumName(VESK_BW_OWNER_TYPE_NAMES, owner.type))
                .Field("owner", owner.name)
                .Field("id", static_cast<uint64_t>(owner.id))
                .EndObject();
        }
        json.EndArray().EndObject();
    }
    json.EndArray();
}

void WriteEntriesJson(JsonWriter &json, const std::vector<Entry> &entries)
{
    json.BeginArray();
    for (const Entry &e : entries) {
        Owner owner = OwnerOfEntry(e.status);
        json.BeginObject()
            .Field("status_file", e.file)
            .Field("owner_type", EnumName(VESK_BW_OWNER_TYPE_NAMES, owner.type))
            .Field("owner", owner.name)
            .Field("id", static_cast<uint64_t>(owner.id));
        WriteStatusFields(json, e.status);
        json.EndObject();
    }
    json.EndArray();
}

void DumpEntries(std::ostream &out, const std::vector<Entry> &entries)
{
    for (const Entry &e : entries) {
        if (!PrintDump(out, [&e](FILE *stream) { return VESKBandwidthStatusDump(stream, &e.status); })) {
            Warn("cannot print the entry of pid " + std::to_string(e.status.pid) + " in " + e.file + " (" +
                 LibraryErrorText() + "); skipped");
        }
    }
}

}  // namespace cli

// status and preview: what runs now, and what a user would get.
#include <cstdio>
#include <ctime>
#include <iostream>
#include <unistd.h>

#include "cli.h"
#include "conf_check.h"
#include "limits.h"
#include "status_view.h"
#include "table.h"

namespace cli {
namespace {

std::string ClockTime()
{
    char text[16];
    std::time_t now = std::time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    std::strftime(text, sizeof text, "%H:%M:%S", &local);
    return text;
}

struct StatusQuery {
    std::string file;       // one owner's status file; "" for every file, looked up at each refresh
    int protocolMask = -1;  // every protocol, add-ons included
    unsigned transferMask = VESK_BW_TRANSFER_ALL;
    bool byFile = false;
    bool watch = false;
    std::string format;  // "", "json", "dump" or "prometheus"
};

StatusQuery ParseQuery(const Args &args)
{
    StatusQuery query;
    if (args.Has("user") || args.Has("group")) {
        Owner owner = OwnerFromArgs(args);
        query.file = StatusFilePath(owner.type, owner.id);
    }
    if (args.Has("protocol")) {
        query.protocolMask = ParseProtocol(args.Get("protocol"), true);
    }
    if (args.Has("direction")) {
        query.transferMask = static_cast<unsigned>(ParseDirection(args.Get("direction"), true));
    }
    for (const char *format : {"json", "dump", "prometheus"}) {
        if (args.Has(format)) {
            if (!query.format.empty()) {
                throw UsageError("give one of --json, --dump and --prometheus");
            }
            query.format = format;
        }
    }
    query.byFile = args.Has("by-file");
    query.watch = args.Has("watch") || args.Has("count");
    return query;
}

void PrintStatusOnce(const StatusQuery &query, bool redraw, SpeedHistory &history)
{
    std::vector<std::string> files = query.file.empty() ? AllStatusFiles() : std::vector<std::string>{query.file};
    std::vector<Entry> entries = CollectEntries(files, query.protocolMask, query.transferMask);
    std::vector<Transfer> transfers = GroupByTransfer(entries);
    if (query.format == "json") {
        JsonWriter json(std::cout);
        json.BeginObject().Field("time", static_cast<int64_t>(std::time(nullptr))).Key("transfers");
        query.byFile ? WriteEntriesJson(json, entries) : WriteTransfersJson(json, transfers);
        json.EndObject();
    } else if (query.format == "dump") {
        DumpEntries(std::cout, entries);
    } else if (query.format == "prometheus") {
        WritePrometheus(std::cout, transfers);
    } else {
        if (redraw) {
            std::cout << "\x1b[H\x1b[2J"
                      << "veskbandwidth status   " << ClockTime() << "   (Ctrl-C to quit)\n\n";
        } else if (query.watch) {
            std::cout << "--- " << ClockTime() << '\n';
        }
        history.Record(transfers);
        if (query.byFile) {
            PrintEntryTable(std::cout, entries, TerminalColumns());
        } else {
            PrintTransferTable(std::cout, transfers, query.watch ? &history : nullptr, TerminalColumns());
        }
    }
    std::cout << std::flush;
}

}  // namespace

int RunStatus(int argc, char **argv)
{
    Args args(argc, argv,
              {{"user", true},
               {"group", true},
               {"protocol", true},
               {"direction", true},
               {"by-file", false},
               {"watch", false},
               {"count", true},
               {"json", false},
               {"dump", false},
               {"prometheus", false}});
    args.ExpectPositional(0, "");
    StatusQuery query = ParseQuery(args);
    uint64_t count = args.Has("count") ? ParseUnsigned(args.Get("count"), "--count") : 0;
    if (args.Has("count") && count == 0) {
        throw UsageError("--count must be at least 1");
    }
    SpeedHistory history;
    if (!query.watch) {
        PrintStatusOnce(query, false, history);
        return 0;
    }
    CatchStopSignals();
    bool redraw = IsTerminal(STDOUT_FILENO) && query.format.empty();
    for (uint64_t shown = 0; !StopRequested();) {
        PrintStatusOnce(query, redraw, history);
        if (count != 0 && ++shown >= count) {
            break;
        }
        SleepUnlessStopped(1000);
    }
    return 0;
}

int RunPreview(int argc, char **argv)
{
    Args args(argc, argv, {{"user", true}, {"protocol", true}, {"json", false}});
    args.ExpectPositional(0, "");
    if (!args.Has("user") || !args.Has("protocol")) {
        throw UsageError("give --user NAME|UID and --protocol NAME");
    }
    Owner user = ResolveUser(args.Get("user"));
    int protocol = ParseProtocol(args.Get("protocol"), false);
    std::vector<ConfProblem> problems = CheckGlobalFile();
    std::vector<ConfProblem> limitProblems = CheckLimitFile(protocol);
    problems.insert(problems.end(), limitProblems.begin(), limitProblems.end());
    ReportProblems(problems);

    uint64_t configured[3] = {0, 0, 0};
    if (VESKBandwidthPreview(user.id, protocol, configured) != 0) {
        FailLibrary("cannot preview the speeds of user " + user.name + " on " + ProtocolName(protocol));
    }
    // The library's preview gives the limits' speeds; while limiting is off
    // for the protocol, a transfer gets no limit at all.
    Limiting limiting = LimitingNow(ReadGlobal(protocol));
    uint64_t up = limiting.on ? configured[VESK_BW_TRANSFER_UPLOAD] : 0;
    uint64_t down = limiting.on ? configured[VESK_BW_TRANSFER_DOWNLOAD] : 0;
    std::string note = limiting.on
                           ? ""
                           : "not applied: " + limiting.why + "; the limits alone would give up " +
                                 RateText(static_cast<double>(configured[VESK_BW_TRANSFER_UPLOAD])) + ", down " +
                                 RateText(static_cast<double>(configured[VESK_BW_TRANSFER_DOWNLOAD]));
    if (args.Has("json")) {
        JsonWriter(std::cout)
            .BeginObject()
            .Field("user", user.name)
            .Field("uid", static_cast<uint64_t>(user.id))
            .Field("protocol", ProtocolName(protocol))
            .Field("limiting_now", limiting.on)
            .Field("upload_bytes_s", up)
            .Field("download_bytes_s", down)
            .Field("configured_upload_bytes_s", configured[VESK_BW_TRANSFER_UPLOAD])
            .Field("configured_download_bytes_s", configured[VESK_BW_TRANSFER_DOWNLOAD])
            .Field("note", note)
            .EndObject();
    } else {
        Table table({{"USER", false}, {"PROTOCOL", false}, {"UPLOAD", true}, {"DOWNLOAD", true}, {"NOTE", false}});
        table.AddRow({user.name, ProtocolName(protocol), RateText(static_cast<double>(up)),
                      RateText(static_cast<double>(down)), note});
        table.Print(std::cout);
    }
    return problems.empty() ? 0 : 1;
}

}  // namespace cli

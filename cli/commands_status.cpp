// status, preview, deactivate, remove and reload: what runs now, what a user
// would get, and the tools that act on running transfers and services.
#include <climits>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <unistd.h>

#include "cli.h"
#include "status_view.h"
#include "table.h"
#include "vesk_system.h"

namespace cli {
namespace {

const char kWebDAVPidFile[] = "/run/httpd/httpd-webdav.pid";

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
    bool oneOwner = false;
    Owner owner{};
    int protocolMask = -1;  // every protocol, add-ons included
    unsigned transferMask = VESK_BW_TRANSFER_ALL;
};

void PrintStatusOnce(const StatusQuery &query, const Args &args, bool redraw)
{
    std::vector<std::string> files =
        query.oneOwner ? std::vector<std::string>{StatusFilePath(query.owner.type, query.owner.id)} : AllStatusFiles();
    std::vector<Transfer> transfers = CollectTransfers(files, query.protocolMask, query.transferMask);
    if (args.Has("json")) {
        JsonWriter json(std::cout);
        json.BeginObject().Field("time", static_cast<int64_t>(std::time(nullptr))).Key("transfers");
        WriteTransfersJson(json, transfers);
        json.EndObject();
    } else if (args.Has("dump")) {
        DumpTransfers(stdout, transfers);
    } else {
        if (redraw) {
            std::cout << "\x1b[H\x1b[2J" << "veskbandwidth status   " << ClockTime() << "   (Ctrl-C to quit)\n\n";
        } else if (args.Has("watch") || args.Has("count")) {
            std::cout << "--- " << ClockTime() << '\n';
        }
        PrintTransferTable(std::cout, transfers);
    }
    std::cout << std::flush;
    std::fflush(stdout);
}

pid_t ParsePid(const Args &args)
{
    if (!args.Has("pid")) {
        throw UsageError("missing --pid PID");
    }
    uint64_t pid = ParseUnsigned(args.Get("pid"), "--pid");
    if (pid == 0 || pid > INT_MAX) {
        throw UsageError("--pid " + args.Get("pid") + " is not a process id");
    }
    return static_cast<pid_t>(pid);
}

// The directions of a process's transfers that a deactivate or remove acts
// on; a process without such a transfer is an error and changes nothing.
struct TransferTarget {
    Owner user;
    pid_t pid;
    unsigned mask;
    std::vector<int> directions;
};

TransferTarget FindTarget(int argc, char **argv)
{
    Args args(argc, argv, {{"user", true}, {"pid", true}, {"direction", true}});
    args.ExpectPositional(0, "");
    if (!args.Has("user")) {
        throw UsageError("missing --user NAME|UID");
    }
    TransferTarget target{ResolveUser(args.Get("user")), ParsePid(args), VESK_BW_TRANSFER_ALL, {}};
    if (args.Has("direction")) {
        target.mask = static_cast<unsigned>(ParseDirection(args.Get("direction"), true));
    }
    for (const Transfer &t : TransfersOfPid(target.user.id, target.pid)) {
        if ((static_cast<unsigned>(t.status.transfer_type) & target.mask) != 0) {
            target.directions.push_back(t.status.transfer_type);
        }
    }
    if (target.directions.empty()) {
        throw Error("user " + target.user.name + " has no running " +
                        (target.mask == VESK_BW_TRANSFER_ALL ? std::string("transfer")
                                                             : DirectionName(static_cast<int>(target.mask))) +
                        " with pid " + std::to_string(target.pid),
                    1);
    }
    return target;
}

int ReloadSimulators()
{
    int killall;
    {
        QuietStderr quiet;
        killall = VESKBandwidthHupSimulator();
    }
    int signalled = SignalSimulators();
    std::cout << "Sent SIGHUP to " << signalled << " process" << (signalled == 1 ? "" : "es")
              << " named veskbandwidth (killall exit status " << killall << ").\n";
    return 0;
}

int ReloadWebDAV()
{
    pid_t pid = VLIBCReadPidFile(kWebDAVPidFile);
    int result = VESKBandwidthHupWebDAV();
    if (pid < 1) {
        throw Error(std::string("the WebDAV server is not running (no pid in ") + kWebDAVPidFile + ")", 1);
    }
    if (result != 0) {
        throw Error("cannot signal the WebDAV server's process group " + std::to_string(pid), 1);
    }
    std::cout << "Sent SIGUSR2 to the WebDAV server's process group " << pid << ".\n";
    return 0;
}

}  // namespace

int RunStatus(int argc, char **argv)
{
    Args args(argc, argv, {{"user", true}, {"group", true}, {"protocol", true}, {"direction", true},
                           {"watch", false}, {"count", true}, {"json", false}, {"dump", false}});
    args.ExpectPositional(0, "");
    StatusQuery query;
    if (args.Has("user") || args.Has("group")) {
        query.oneOwner = true;
        query.owner = OwnerFromArgs(args);
    }
    if (args.Has("protocol")) {
        query.protocolMask = ParseProtocol(args.Get("protocol"), true);
    }
    if (args.Has("direction")) {
        query.transferMask = static_cast<unsigned>(ParseDirection(args.Get("direction"), true));
    }
    bool watch = args.Has("watch") || args.Has("count");
    uint64_t count = args.Has("count") ? ParseUnsigned(args.Get("count"), "--count") : 0;
    if (args.Has("count") && count == 0) {
        throw UsageError("--count must be at least 1");
    }
    if (!watch) {
        PrintStatusOnce(query, args, false);
        return 0;
    }
    CatchStopSignals();
    bool redraw = IsTerminal(STDOUT_FILENO) && !args.Has("json") && !args.Has("dump");
    for (uint64_t shown = 0; !StopRequested();) {
        PrintStatusOnce(query, args, redraw);
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
    uint64_t speeds[3] = {0, 0, 0};
    if (VESKBandwidthPreview(user.id, protocol, speeds) != 0) {
        FailLibrary("cannot preview the speeds of user " + user.name + " on " + ProtocolName(protocol));
    }
    if (args.Has("json")) {
        JsonWriter(std::cout)
            .BeginObject()
            .Field("user", user.name)
            .Field("uid", static_cast<uint64_t>(user.id))
            .Field("protocol", ProtocolName(protocol))
            .Field("upload_speed", speeds[VESK_BW_TRANSFER_UPLOAD])
            .Field("download_speed", speeds[VESK_BW_TRANSFER_DOWNLOAD])
            .EndObject();
        return 0;
    }
    Table table({{"USER", false}, {"PROTOCOL", false}, {"UPLOAD KB/s", true}, {"DOWNLOAD KB/s", true}});
    table.AddRow({user.name, ProtocolName(protocol), LimitKBps(speeds[VESK_BW_TRANSFER_UPLOAD]),
                  LimitKBps(speeds[VESK_BW_TRANSFER_DOWNLOAD])});
    table.Print(std::cout);
    return 0;
}

int RunDeactivate(int argc, char **argv)
{
    TransferTarget target = FindTarget(argc, argv);
    for (int direction : target.directions) {
        if (VESKBandwidthStatusSetActiveByUserName(target.user.name.c_str(), direction, target.pid, 0) != 0) {
            FailLibrary("cannot deactivate the " + DirectionName(direction) + " of pid " + std::to_string(target.pid));
        }
        std::cout << "Deactivated the " << DirectionName(direction) << " of pid " << target.pid << " (user "
                  << target.user.name << "); the transfer ends at its next chunk.\n";
    }
    return 0;
}

int RunRemove(int argc, char **argv)
{
    TransferTarget target = FindTarget(argc, argv);
    if (VESKBandwidthStatusForceRemoveAllByUserName(target.user.name.c_str(), target.mask, target.pid) != 0) {
        FailLibrary("cannot remove the entries of pid " + std::to_string(target.pid));
    }
    for (int direction : target.directions) {
        std::cout << "Removed the " << DirectionName(direction) << " of pid " << target.pid << " (user "
                  << target.user.name << ") from the status files of the user and its groups.\n";
    }
    return 0;
}

int RunReload(int argc, char **argv)
{
    Args args(argc, argv, {});
    args.ExpectPositional(1, "what to reload: lanternpost, webdav or simulators");
    const std::string &target = args.Positional()[0];
    if (target == "lanternpost") {
        VESKBandwidthHupLanternpost();
        std::cout << "Sent SIGHUP to the web file manager's transfer workers.\n";
        return 0;
    }
    if (target == "webdav") {
        return ReloadWebDAV();
    }
    if (target == "simulators") {
        return ReloadSimulators();
    }
    throw UsageError("cannot reload '" + target + "' (known: lanternpost, webdav, simulators)");
}

}  // namespace cli

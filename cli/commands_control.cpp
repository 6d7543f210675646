// deactivate, remove and reload: acting on running transfers and services.
#include <climits>
#include <iostream>
#include <set>
#include <unistd.h>

#include "cli.h"
#include "status_view.h"
#include "table.h"
#include "vesk_system.h"

namespace cli {
namespace {

const char kWebDAVPidFile[] = "/run/httpd/httpd-webdav.pid";

pid_t ParsePid(const std::string &text)
{
    uint64_t pid = ParseUnsigned(text, "--pid");
    if (pid == 0 || pid > INT_MAX) {
        throw UsageError("--pid " + text + " is not a process id");
    }
    return static_cast<pid_t>(pid);
}

// One direction of one process's transfer, as its user's status file lists it.
struct Target {
    Owner user;
    pid_t pid;
    int direction;
};

std::vector<Target> TargetsIn(const Owner &user, pid_t pid, unsigned mask)
{
    std::vector<Target> targets;
    for (const Entry &e : CollectEntries({StatusFilePath(VESK_BW_OWNER_USER, user.id)}, -1, mask)) {
        if (pid == 0 || e.status.pid == pid) {
            targets.push_back({user, e.status.pid, e.status.transfer_type});
        }
    }
    return targets;
}

// The process's transfers in every user's status file.
std::vector<Target> TargetsOfPid(pid_t pid, unsigned mask)
{
    std::vector<Target> targets;
    for (const Entry &e : CollectEntries(AllStatusFiles(), -1, mask)) {
        if (e.status.owner_type == VESK_BW_OWNER_USER && e.status.pid == pid) {
            targets.push_back({Owner{VESK_BW_OWNER_USER, e.status.id, AccountName(VESK_BW_OWNER_USER, e.status.id)},
                               pid, e.status.transfer_type});
        }
    }
    std::set<unsigned> users;
    for (const Target &t : targets) {
        users.insert(t.user.id);
    }
    if (users.size() > 1) {
        throw UsageError("pid " + std::to_string(pid) +
                         " is listed as a transfer of several users; name one with --user");
    }
    return targets;
}

// The transfers a deactivate or remove acts on: --pid PID (of --user NAME
// when given) or --user NAME --all.  Only root and the transfer's own user
// may act on it; a command that finds nothing to act on changes nothing.
std::vector<Target> FindTargets(int argc, char **argv, const char *verb)
{
    Args args(argc, argv, {{"user", true}, {"pid", true}, {"all", false}, {"direction", true}});
    args.ExpectPositional(0, "");
    if (args.Has("pid") == args.Has("all")) {
        throw UsageError("give either --pid PID or --user NAME --all");
    }
    if (args.Has("all") && !args.Has("user")) {
        throw UsageError("--all needs --user NAME");
    }
    int direction = args.Has("direction") ? ParseDirection(args.Get("direction"), true) : VESK_BW_TRANSFER_ALL;
    unsigned mask = static_cast<unsigned>(direction);
    pid_t pid = args.Has("pid") ? ParsePid(args.Get("pid")) : 0;
    std::vector<Target> targets =
        args.Has("user") ? TargetsIn(ResolveUser(args.Get("user")), pid, mask) : TargetsOfPid(pid, mask);
    std::string what = direction == VESK_BW_TRANSFER_ALL ? "transfer" : DirectionName(direction);
    if (targets.empty()) {
        throw Error((args.Has("user") ? "user " + args.Get("user") + " has no running " : "no running ") + what +
                        (pid != 0 ? " with pid " + std::to_string(pid) : ""),
                    1);
    }
    const uid_t caller = getuid();
    for (const Target &t : targets) {
        if (caller != 0 && caller != t.user.id) {
            throw Error("permission denied: pid " + std::to_string(t.pid) + " is a transfer of user " + t.user.name +
                            "; only " + t.user.name + " and root may " + verb + " it",
                        1);
        }
    }
    return targets;
}

std::string Describe(const Target &t)
{
    return "the " + DirectionName(t.direction) + " of pid " + std::to_string(t.pid) + " (user " + t.user.name + ")";
}

int ReloadLanternpost()
{
    std::vector<pid_t> workers = LanternpostWorkers();
    if (workers.empty()) {
        throw Error("no transfer worker of the web file manager is running; nothing was signalled", 1);
    }
    VESKBandwidthHupLanternpost();
    std::cout << "Sent SIGHUP to " << Plural(workers.size(), "transfer worker") << " of the web file manager (pid "
              << PidList(workers) << ").\n";
    return 0;
}

int ReloadWebDAV()
{
    pid_t group = VLIBCReadPidFile(kWebDAVPidFile);
    if (group < 1) {
        throw Error(std::string("the WebDAV server is not running (no pid in ") + kWebDAVPidFile + ")", 1);
    }
    std::vector<pid_t> members = ProcessGroupMembers(group);
    if (VESKBandwidthHupWebDAV() != 0) {
        throw Error("cannot signal the WebDAV server's process group " + std::to_string(group) + " (a stale " +
                        kWebDAVPidFile + "?)",
                    1);
    }
    std::cout << "Sent SIGUSR2 to the WebDAV server's process group " << group << " ("
              << Plural(members.size(), "process") << ").\n";
    return 0;
}

int ReloadSimulators()
{
    VESKBandwidthHupSimulator();
    std::vector<pid_t> reached = SignalSimulators();
    if (reached.empty()) {
        throw Error("no simulation or copy of this tool runs here (no other process named veskbandwidth in this "
                    "mount namespace); nothing was signalled",
                    1);
    }
    std::cout << "Sent SIGHUP to " << Plural(reached.size(), "process") << " named veskbandwidth (pid "
              << PidList(reached) << ").\n";
    return 0;
}

}  // namespace

int RunDeactivate(int argc, char **argv)
{
    for (const Target &t : FindTargets(argc, argv, "deactivate")) {
        if (VESKBandwidthStatusSetActiveByUserName(t.user.name.c_str(), t.direction, t.pid, 0) != 0) {
            FailLibrary("cannot deactivate " + Describe(t));
        }
        std::cout << Printable("Deactivated " + Describe(t) + "; the transfer ends at its next chunk.") << '\n';
    }
    return 0;
}

int RunRemove(int argc, char **argv)
{
    for (const Target &t : FindTargets(argc, argv, "remove")) {
        if (VESKBandwidthStatusForceRemoveAllByUserName(t.user.name.c_str(), static_cast<unsigned>(t.direction),
                                                        t.pid) != 0) {
            FailLibrary("cannot remove the entries of " + Describe(t));
        }
        std::cout << Printable("Removed " + Describe(t) + " from the status files of the user and its groups.") << '\n';
        if (ProcessExists(t.pid)) {
            Warn("pid " + std::to_string(t.pid) +
                 " still runs: its entries come back at its next chunk; to end "
                 "the transfer, use: veskbandwidth deactivate --pid " +
                 std::to_string(t.pid));
        }
    }
    return 0;
}

int RunReload(int argc, char **argv)
{
    Args args(argc, argv, {});
    args.ExpectPositional(1, "what to reload: lanternpost, webdav or simulators");
    const std::string &target = args.Positional()[0];
    if (target == "lanternpost") {
        return ReloadLanternpost();
    }
    if (target == "webdav") {
        return ReloadWebDAV();
    }
    if (target == "simulators") {
        return ReloadSimulators();
    }
    int protocol = 0;
    try {
        protocol = ParseProtocol(target, false);
    } catch (const UsageError &) {
        throw UsageError("cannot reload '" + target + "' (known: lanternpost, webdav, simulators)" +
                         DidYouMean(target, {"lanternpost", "webdav", "simulators"}));
    }
    throw UsageError(ProtocolName(protocol) + " has no reload to send. " + PickupHint(protocol));
}

}  // namespace cli

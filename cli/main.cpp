// veskbandwidth: administration, simulation and demo of the bandwidth
// limits.  Finds the command, prints help, and turns failures into a message
// on stderr and a non-zero exit status.
#include <cstring>
#include <iostream>
#include <string>

#include "cli.h"
#include "schedule.h"

namespace {

struct Command {
    const char *group;  // "limit", "global", or nullptr for a one-word command
    const char *name;
    const char *summary;
    const char *usage;
    int (*run)(int argc, char **argv);
};

const Command kCommands[] = {
    {"limit", "set", "set the limit of a user or group for a protocol",
     "usage: veskbandwidth limit set (--user NAME|UID | --group NAME|GID) --protocol NAME\n"
     "                               [--state STATE] [--up KBS] [--down KBS]\n"
     "                               [--custom-up KBS] [--custom-down KBS] [--schedule SCHEDULE]\n"
     "Changes the given fields of the stored limit and keeps the others.  STATE is\n"
     "enabled, disabled, schedule or NotExisted; a new limit without --state is\n"
     "enabled, and --schedule without --state sets the state to schedule.  Rates are\n"
     "KB/s (1 KB = 1024 bytes); 0 or \"unlimited\" is no limit in that direction.\n"
     "Running transfers take a change up when they are reloaded (veskbandwidth reload).\n",
     cli::RunLimitSet},
    {"limit", "show", "show limits, their rates in force now and their schedules",
     "usage: veskbandwidth limit show [--user NAME|UID | --group NAME|GID] [--protocol NAME]\n"
     "                                [--json | --dump]\n"
     "Without an owner, lists every stored limit; without a protocol, the four\n"
     "built-in protocols.  --dump prints the library's fixed-width rows.\n",
     cli::RunLimitShow},
    {"global", "set", "set the global state, policies and schedule of a protocol",
     "usage: veskbandwidth global set --protocol NAME [--state STATE] [--user-group-policy P]\n"
     "                                [--inter-group-policy P] [--occupy-policy P]\n"
     "                                [--schedule SCHEDULE]\n"
     "  user-group policy   user-only, group-only, user-first, group-first, min, max, sum\n"
     "  inter-group policy  min, max, sum\n"
     "  occupy policy       none, all, min, max, weighted\n"
     "Storing sends the simulators a reload, as the library does, and signals every\n"
     "process named veskbandwidth itself as well.\n",
     cli::RunGlobalSet},
    {"global", "show", "show the global settings of protocols",
     "usage: veskbandwidth global show [--protocol NAME] [--json | --dump]\n", cli::RunGlobalShow},
    {nullptr, "status", "list running transfers (--watch refreshes every second)",
     "usage: veskbandwidth status [--user NAME|UID | --group NAME|GID] [--protocol NAME|all]\n"
     "                            [--direction upload|download|both] [--watch] [--count N]\n"
     "                            [--json | --dump]\n"
     "Lists the transfers in the status files under /tmp/bandwidth/, all of them or\n"
     "those of one user's or group's file.  --watch redraws the table every second\n"
     "until Ctrl-C; --count N stops after N tables (with --json, one JSON object per\n"
     "line).  Speeds are KB/s in tables and bytes/s in JSON.\n",
     cli::RunStatus},
    {nullptr, "preview", "show the speeds a user would get now on a protocol",
     "usage: veskbandwidth preview --user NAME|UID --protocol NAME [--json]\n", cli::RunPreview},
    {nullptr, "deactivate", "switch off a running transfer of a user",
     "usage: veskbandwidth deactivate --user NAME|UID --pid PID [--direction upload|download|both]\n"
     "The transferring process ends the transfer at its next chunk.\n",
     cli::RunDeactivate},
    {nullptr, "remove", "remove the status entries of a user's transfer",
     "usage: veskbandwidth remove --user NAME|UID --pid PID [--direction upload|download|both]\n"
     "Removes the entries from the user's status file and from those of all its groups.\n",
     cli::RunRemove},
    {nullptr, "reload", "tell running services to reload their limits",
     "usage: veskbandwidth reload lanternpost|webdav|simulators\n"
     "  lanternpost  SIGHUP to the web file manager's transfer workers\n"
     "  webdav       SIGUSR2 to the WebDAV server's process group\n"
     "  simulators   the library's simulator hangup (killall -sighup veskbandwidth); as\n"
     "               some killall versions refuse that spelling, the tool then sends\n"
     "               SIGHUP itself to every other process named veskbandwidth\n",
     cli::RunReload},
    {nullptr, "simulate", "play a simulated transfer with a progress display",
     "usage: veskbandwidth simulate --user NAME|UID --protocol NAME --size SIZE\n"
     "                              [--direction upload|download]\n"
     "SIZE is bytes, or a number with K, M, G or T (1024-based).  The simulation\n"
     "runs the library's simulator in a process named veskbandwidth, which reloads\n"
     "on SIGHUP.  A progress bar on a terminal, a line per second otherwise; Ctrl-C\n"
     "ends it and removes its status entries.  The direction defaults to download.\n",
     cli::RunSimulate},
    {nullptr, "copy", "copy real bytes under a user's limit (a reference service)",
     "usage: veskbandwidth copy --user NAME|UID --protocol NAME [--direction upload|download]\n"
     "                          SRC DST\n"
     "Copies SRC to DST (- is standard input or output) in chunks sized by the\n"
     "library, with a pass of its sleep loop after every chunk, so the throughput\n"
     "holds the user's limit; SIGHUP reloads the limits between chunks, Ctrl-C\n"
     "stops and removes the status entries.  The direction defaults to download.\n",
     cli::RunCopy},
    {nullptr, "demo", "watch three users share a group limit, in a private sandbox",
     "usage: veskbandwidth demo [--seconds N] [--json]\n"
     "Needs nothing on the machine but root or unprivileged user namespaces: it runs\n"
     "in a private sandbox with its own accounts and configuration.  Three users\n"
     "download over ftp at once under one group limit, one of them also under a\n"
     "tighter limit of its own; it shows the live status table and ends with each\n"
     "transfer's average speed beside its fair part.  N defaults to 20 seconds;\n"
     "--json prints only the summary, as JSON.\n",
     cli::RunDemo},
    {nullptr, "run", "run an unmodified program with its TCP traffic held to the limits",
     "usage: veskbandwidth run [--user NAME|UID] [--protocol NAME] [--role client|server] [--check]\n"
     "                         [--] COMMAND [ARGS...]\n"
     "Runs COMMAND with the preload library, which paces what it sends and receives\n"
     "over TCP as the user it runs as (--user: as that user, whatever it runs as),\n"
     "switching when the program changes its effective uid; root and the accounts\n"
     "in /usr/vesk/etc/bandwidth/preload-passthrough.conf (by default the system\n"
     "accounts, uid below 1000 or 65534) pass through.  The protocol comes from\n"
     "--protocol or the program's name (rsync; vsftpd, proftpd, pure-ftpd, in.ftpd,\n"
     "sshd and sftp-server are ftp); a process that accepted its connections sends\n"
     "downloads and receives uploads, a client the reverse (--role overrides).\n"
     "Statically linked programs are refused; --check only tells whether COMMAND can\n"
     "be throttled and which of its calls the library does not see.  Exit status:\n"
     "COMMAND's own, or 125 (run failed), 126 (cannot run), 127 (not found).\n",
     cli::RunRun},
};

std::string FullName(const Command &command)
{
    return command.group != nullptr ? std::string(command.group) + " " + command.name : command.name;
}

void PrintOverview(std::ostream &out)
{
    out << "usage: veskbandwidth COMMAND [OPTIONS]\n"
           "Per-user and per-group bandwidth limits of the appliance's file-transfer\n"
           "services: administration, live status, simulation and a demo.\n\n"
           "commands:\n";
    for (const Command &command : kCommands) {
        std::string name = FullName(command);
        out << "  " << name << std::string(name.size() < 13 ? 13 - name.size() : 1, ' ') << command.summary << '\n';
    }
    out << "\nProtocols: lanternpost, webdav, ftp, rsync, or an add-on protocol's name.\n"
           "'veskbandwidth COMMAND --help' describes a command.  Errors go to stderr with\n"
           "exit status 2 for a wrong argument (nothing is changed) and 1 for a failure.\n";
}

bool WantsHelp(int argc, char **argv)
{
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            return true;
        }
    }
    return false;
}

bool UsesSchedule(const Command &command)
{
    return std::strcmp(command.name, "set") == 0;
}

void PrintUsage(const Command &command)
{
    std::cout << command.usage;
    if (UsesSchedule(command)) {
        std::cout << '\n' << cli::kScheduleHelp;
    }
}

// The command named by the first one or two words, and how many words it took.
const Command *FindCommand(int argc, char **argv, int *words)
{
    for (const Command &command : kCommands) {
        if (command.group == nullptr && std::strcmp(argv[0], command.name) == 0) {
            *words = 1;
            return &command;
        }
        if (command.group != nullptr && std::strcmp(argv[0], command.group) == 0 && argc > 1 &&
            std::strcmp(argv[1], command.name) == 0) {
            *words = 2;
            return &command;
        }
    }
    return nullptr;
}

// "limit" or "global" alone, or with --help: the usage of both subcommands.
int GroupHelp(const char *group, bool asked)
{
    std::ostream &out = asked ? std::cout : std::cerr;
    for (const Command &command : kCommands) {
        if (command.group != nullptr && std::strcmp(command.group, group) == 0) {
            out << command.usage;
        }
    }
    return asked ? 0 : 2;
}

int Dispatch(int argc, char **argv)
{
    if (argc < 1 || WantsHelp(1, argv)) {
        PrintOverview(argc < 1 ? std::cerr : std::cout);
        return argc < 1 ? 2 : 0;
    }
    int words = 0;
    const Command *command = FindCommand(argc, argv, &words);
    if (command == nullptr) {
        if (std::strcmp(argv[0], "limit") == 0 || std::strcmp(argv[0], "global") == 0) {
            bool asked = argc > 1 && WantsHelp(argc - 1, argv + 1);
            if (!asked) {
                std::cerr << "veskbandwidth: " << argv[0] << " needs set or show\n";
            }
            return GroupHelp(argv[0], asked);
        }
        std::cerr << "veskbandwidth: unknown command '" << argv[0] << "'\n"
                  << "Try 'veskbandwidth --help'.\n";
        return 2;
    }
    if (WantsHelp(argc - words, argv + words)) {
        PrintUsage(*command);
        return 0;
    }
    try {
        return command->run(argc - words, argv + words);
    } catch (const cli::Error &error) {
        std::cerr << "veskbandwidth " << FullName(*command) << ": " << error.what() << '\n';
        if (error.Status() == 2) {
            std::cerr << "Try 'veskbandwidth " << FullName(*command) << " --help'.\n";
        }
        return error.Status();
    } catch (const std::exception &error) {
        std::cerr << "veskbandwidth " << FullName(*command) << ": " << error.what() << '\n';
        return 1;
    }
}

}  // namespace

int main(int argc, char **argv)
{
    cli::IgnoreHangups();
    return Dispatch(argc - 1, argv + 1);
}

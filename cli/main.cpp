// veskbandwidth: administration, simulation and demo of the bandwidth
// limits.  Finds the command, prints help, and turns failures into a message
// on stderr and a non-zero exit status.
#include <clocale>
#include <cstring>
#include <iostream>
#include <string>

#include "cli.h"
#include "schedule.h"
#include "table.h"

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
     "usage: veskbandwidth limit set (-u|--user NAME|UID | -g|--group NAME|GID) -p|--protocol NAME\n"
     "                               [--state STATE] [--up RATE] [--down RATE]\n"
     "                               [--custom-up RATE] [--custom-down RATE] [--schedule SCHEDULE]\n"
     "Changes the given fields of the stored limit and keeps the others.  STATE is\n"
     "enabled, disabled, schedule or NotExisted, in any case; a new limit without\n"
     "--state is enabled, and --schedule without --state sets the state to schedule.\n"
     "A limit does nothing while limiting is off for its protocol (global set): the\n"
     "command warns then.  It refuses to change a file with lines the library cannot\n"
     "read, and to keep a stored value that the library misreads.\n",
     cli::RunLimitSet},
    {"limit", "show", "show limits, their rates in force now and their schedules",
     "usage: veskbandwidth limit show [-u NAME|UID | -g NAME|GID] [-p NAME] [--json | --dump]\n"
     "Without an owner, lists every stored limit; without a protocol, the four\n"
     "built-in protocols.  IN FORCE NOW is what the schedule gives at this hour; a\n"
     "limit whose protocol has limiting off is \"not applied\".  Lines that the\n"
     "library does not read faithfully (unknown names, malformed or too large\n"
     "numbers, short schedules, broken headers) are named on stderr as FILE:LINE,\n"
     "their records are marked INVALID and the exit status is 1.  JSON rates are\n"
     "bytes/s; --dump prints the library's fixed-width rows.\n",
     cli::RunLimitShow},
    {"limit", "remove", "delete the limit of a user or group for a protocol",
     "usage: veskbandwidth limit remove (-u NAME|UID | -g NAME|GID) -p NAME\n"
     "Deletes the owner's record from the protocol's limit file; exit status 1 when\n"
     "there is none.\n",
     cli::RunLimitRemove},
    {"global", "set", "set the global state, policies and schedule of a protocol",
     "usage: veskbandwidth global set -p|--protocol NAME [--state STATE] [--user-group-policy P]\n"
     "                                [--inter-group-policy P] [--occupy-policy P]\n"
     "                                [--schedule SCHEDULE]\n"
     "  state               enabled (limiting on), disabled, schedule\n"
     "  user-group policy   user-only, group-only, user-first, group-first, min, max, sum\n"
     "  inter-group policy  min, max, sum\n"
     "  occupy policy       none, all, min, max, weighted\n"
     "Names are taken in any case.  Storing sends the simulators a reload, as the\n"
     "library does, and the tool signals the processes named veskbandwidth in its\n"
     "mount namespace itself, and lists them.\n",
     cli::RunGlobalSet},
    {"global", "show", "show the global settings of protocols",
     "usage: veskbandwidth global show [-p NAME] [--json | --dump]\n"
     "Exit status 1 when the global file holds lines the library misreads.\n",
     cli::RunGlobalShow},
    {nullptr, "status", "list running transfers (--watch draws their speeds live)",
     "usage: veskbandwidth status [-u NAME|UID | -g NAME|GID] [-p NAME|all] [--by-file]\n"
     "                            [--direction upload|download|both] [--watch] [--count N]\n"
     "                            [--json | --dump | --prometheus]\n"
     "Lists the transfers in the status files under /tmp/bandwidth/, all of them or\n"
     "those of one user's or group's file: one row per transfer with the user and\n"
     "groups whose limits it counts against; --by-file shows each file's entries.\n"
     "--watch redraws every second until Ctrl-C, with each transfer's recent speed\n"
     "as a sparkline whose top is its limit; --count N stops after N tables (with\n"
     "--json, one JSON object per line).  Tables fit the terminal ($COLUMNS).\n"
     "JSON speeds are bytes/s.  --prometheus prints the transfers and the limits in\n"
     "force in the Prometheus text format, for node_exporter's textfile collector.\n"
     "An entry or file that cannot be read is skipped with a warning.\n",
     cli::RunStatus},
    {nullptr, "preview", "show the speeds a user would get now on a protocol",
     "usage: veskbandwidth preview -u NAME|UID -p NAME [--json]\n"
     "The speeds a transfer of the user gets now: \"unlimited\" while limiting is off\n"
     "for the protocol, with what the limits alone would give in the note.  Exit\n"
     "status 1 when the configuration holds lines the library misreads.\n",
     cli::RunPreview},
    {nullptr, "deactivate", "switch off a running transfer",
     "usage: veskbandwidth deactivate (--pid PID [-u NAME|UID] | -u NAME|UID --all)\n"
     "                                [--direction upload|download|both]\n"
     "The transferring process ends the transfer at its next chunk.  Only root and\n"
     "the transfer's own user may; anyone else gets \"permission denied\" (exit 1).\n",
     cli::RunDeactivate},
    {nullptr, "remove", "remove the status entries of a transfer",
     "usage: veskbandwidth remove (--pid PID [-u NAME|UID] | -u NAME|UID --all)\n"
     "                            [--direction upload|download|both]\n"
     "Removes the entries from the status files of the user and of all its groups.\n"
     "A transfer that still runs writes them again at its next chunk: deactivate\n"
     "ends it.  Only root and the transfer's own user may.\n",
     cli::RunRemove},
    {nullptr, "reload", "tell running services to reload their limits",
     "usage: veskbandwidth reload lanternpost|webdav|simulators\n"
     "  lanternpost  SIGHUP to the web file manager's transfer workers\n"
     "  webdav       SIGUSR2 to the WebDAV server's process group\n"
     "  simulators   the library's killall -sighup veskbandwidth, and SIGHUP from the\n"
     "               tool to its simulations (processes named veskbandwidth in\n"
     "               this mount namespace; its copies notice changes by themselves)\n"
     "Says which processes it reached; exit status 1 when it reached none.  ftp,\n"
     "rsync and add-on protocols have no reload: transfers that use the transfer\n"
     "session notice changed limit files within about 200 ms, and services that call\n"
     "the library per chunk reload at their next SIGHUP.\n",
     cli::RunReload},
    {nullptr, "simulate", "play a simulated transfer with a progress display",
     "usage: veskbandwidth simulate -u NAME|UID -p NAME --size SIZE [--direction upload|download]\n"
     "                              [--plot FILE.svg]\n"
     "SIZE is bytes, or a number with K, M, G or T (1024-based; KB, MB: 1000-based).\n"
     "The simulation runs the library's simulator in a process named veskbandwidth,\n"
     "which reloads on SIGHUP.  A progress bar on a terminal, a line per second\n"
     "otherwise; Ctrl-C ends it and removes its status entries.  The direction\n"
     "defaults to download.  --plot draws its speed and limit over time as SVG.\n",
     cli::RunSimulate},
    {nullptr, "copy", "copy real bytes under a user's limit (a reference service)",
     "usage: veskbandwidth copy -u NAME|UID -p NAME [--direction upload|download]\n"
     "                          [--plot FILE.svg] SRC DST\n"
     "Copies SRC to DST (- is standard input or output) in chunks sized by the\n"
     "library, with a pass of its sleep loop after every chunk, so the throughput\n"
     "holds the user's limit; SIGHUP reloads the limits between chunks, Ctrl-C\n"
     "stops and removes the status entries.  Like cp it refuses a DST that is SRC;\n"
     "it creates DST only once SRC proved readable, and never writes through a\n"
     "symbolic link.  The direction defaults to download.  --plot draws the speed,\n"
     "measured every 200 ms, and the limit over time as SVG.\n",
     cli::RunCopy},
    {nullptr, "demo", "watch three users share a group limit, in a private sandbox",
     "usage: veskbandwidth demo [--seconds N] [--json] [--plot FILE.svg]\n"
     "Needs nothing on the machine but root or unprivileged user namespaces: it runs\n"
     "in a private sandbox with its own accounts and configuration.  Three users\n"
     "download over ftp at once under one group limit, one of them also under a\n"
     "tighter limit of its own; it shows the live status table and ends with each\n"
     "transfer's average speed beside its fair part.  N defaults to 20 seconds;\n"
     "--json prints only the summary, as JSON.  The chart of the speeds goes to\n"
     "FILE.svg, or to a new veskbandwidth-demo-XXXXXX.svg in $TMPDIR or /tmp.\n",
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
        out << "  " << name << std::string(name.size() < 14 ? 14 - name.size() : 1, ' ') << command.summary << '\n';
    }
    out << "\nProtocols: lanternpost, webdav, ftp, rsync, or an add-on protocol's name.\n"
           "Rates are KiB/s (1 KiB = 1024 bytes) or carry a unit as rsync's --bwlimit:\n"
           "512K, 1.5M, 10MiB, 2G; 500KB, 2MB are 1000-based; 0 or unlimited is no limit.\n"
           "-u, -g and -p stand for --user, --group and --protocol.\n"
           "'veskbandwidth help COMMAND' describes a command; --version prints the version.\n"
           "Errors go to stderr with exit status 2 for a wrong argument (nothing is\n"
           "changed) and 1 for a failure.\n";
}

// True when --help or -h comes before "--" (what follows belongs to a command run by `run`).
bool WantsHelp(int argc, char **argv)
{
    for (int i = 0; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            return true;
        }
    }
    return false;
}

void PrintUsage(const Command &command)
{
    std::cout << command.usage;
    if (std::strcmp(command.name, "set") == 0) {
        std::cout << '\n' << cli::kScheduleHelp;
    }
    if (command.run == cli::RunLimitSet) {
        std::cout << '\n' << cli::kRateHelp;
    }
}

bool IsGroup(const char *word)
{
    for (const Command &command : kCommands) {
        if (command.group != nullptr && std::strcmp(command.group, word) == 0) {
            return true;
        }
    }
    return false;
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

// What an unknown command says, with the closest command when there is one.
int UnknownCommand(int argc, char **argv)
{
    std::vector<std::string> names;
    std::string message;
    if (IsGroup(argv[0])) {
        for (const Command &command : kCommands) {
            if (command.group != nullptr && std::strcmp(command.group, argv[0]) == 0) {
                names.push_back(command.name);
            }
        }
        for (size_t i = 0; i < names.size(); ++i) {
            message += (i == 0 ? "" : i + 1 == names.size() ? " or " : ", ") + names[i];
        }
        message = std::string(argv[0]) + " needs " + message;
        if (argc > 1) {
            message += ", not '" + std::string(argv[1]) + "'" + cli::DidYouMean(argv[1], names);
        }
    } else {
        for (const Command &command : kCommands) {
            names.push_back(command.group != nullptr ? command.group : command.name);
        }
        message = "unknown command '" + std::string(argv[0]) + "'" + cli::DidYouMean(argv[0], names);
    }
    std::cerr << "veskbandwidth: " << cli::Printable(message) << "\nTry 'veskbandwidth --help'.\n";
    return 2;
}

// "help", "help COMMAND", "COMMAND --help", "limit --help": the overview or a command's usage.
int Help(int argc, char **argv)
{
    int words = 0;
    const Command *command = argc > 0 ? FindCommand(argc, argv, &words) : nullptr;
    if (command != nullptr) {
        PrintUsage(*command);
        return 0;
    }
    if (argc > 0 && IsGroup(argv[0]) && (argc == 1 || argv[1][0] == '-')) {
        for (const Command &c : kCommands) {
            if (c.group != nullptr && std::strcmp(c.group, argv[0]) == 0) {
                std::cout << c.usage;
            }
        }
        return 0;
    }
    if (argc > 0 && argv[0][0] != '-') {
        return UnknownCommand(argc, argv);
    }
    PrintOverview(std::cout);
    return 0;
}

int Dispatch(int argc, char **argv)
{
    if (argc < 1) {
        PrintOverview(std::cerr);
        return 2;
    }
    if (std::strcmp(argv[0], "--version") == 0) {
        std::cout << "veskbandwidth " VBW_VERSION "\n";
        return 0;
    }
    if (std::strcmp(argv[0], "help") == 0) {
        return Help(argc - 1, argv + 1);
    }
    if (WantsHelp(argc, argv)) {
        return Help(argc, argv);
    }
    int words = 0;
    const Command *command = FindCommand(argc, argv, &words);
    if (command == nullptr) {
        return UnknownCommand(argc, argv);
    }
    try {
        return command->run(argc - words, argv + words);
    } catch (const cli::Error &error) {
        cli::EndStatusLine();
        std::cerr << "veskbandwidth " << FullName(*command) << ": " << cli::Printable(error.what()) << '\n';
        if (error.Status() == 2) {
            std::cerr << "Try 'veskbandwidth help " << FullName(*command) << "'.\n";
        }
        return error.Status();
    } catch (const std::exception &error) {
        cli::EndStatusLine();
        std::cerr << "veskbandwidth " << FullName(*command) << ": " << cli::Printable(error.what()) << '\n';
        return 1;
    }
}

}  // namespace

int main(int argc, char **argv)
{
    std::setlocale(LC_CTYPE, "");  // only the character set: it decides between UTF-8 and ASCII output
    cli::IgnoreHangups();
    return Dispatch(argc - 1, argv + 1);
}

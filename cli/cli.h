// veskbandwidth, the command-line tool: declarations shared by its commands.
#ifndef VBW_CLI_H
#define VBW_CLI_H

#include <cstdint>
#include <initializer_list>
#include <map>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <vector>

#include "veskbandwidth.h"

namespace cli {

// A failure that ends the command: its message goes to stderr and the tool
// exits with `status` (2 for a wrong argument, 1 when an operation failed).
class Error : public std::runtime_error {
public:
    Error(const std::string &message, int status) : std::runtime_error(message), status_(status) {}
    int Status() const { return status_; }

private:
    int status_;
};

// A wrong argument: nothing has been changed.
class UsageError : public Error {
public:
    explicit UsageError(const std::string &message) : Error(message, 2) {}
};

// An operation of the library failed: the message names it and the error
// state it left (code, module, line).
[[noreturn]] void FailLibrary(const std::string &what);
std::string LibraryErrorText();

// ---------------------------------------------------------------------------
// Arguments: "--name value", "--name=value", flags and positional arguments.

struct OptionDesc {
    const char *name;  // without the leading "--"
    bool takesValue;
};

class Args {
public:
    Args(int argc, char **argv, std::initializer_list<OptionDesc> descs);

    bool Has(const std::string &name) const { return values_.count(name) != 0; }
    std::string Get(const std::string &name) const;  // "" when absent
    const std::vector<std::string> &Positional() const { return positional_; }
    void ExpectPositional(size_t count, const char *what) const;

private:
    std::map<std::string, std::string> values_;
    std::vector<std::string> positional_;
};

// Parsers of values; each throws UsageError saying what is wrong.
uint64_t ParseUnsigned(const std::string &text, const char *what);
uint64_t ParseRateKBps(const std::string &text, const char *what);   // KB/s, "unlimited" is 0
uint64_t ParseSizeBytes(const std::string &text);                    // 10M, 512K, 1G, 1000
int ParseSeconds(const std::string &text, int minimum, int maximum);

// ---------------------------------------------------------------------------
// Names: owners, protocols, directions and the enumerations of the records.

struct Owner {
    int type;          // VESK_BW_OWNER_USER or VESK_BW_OWNER_GROUP
    unsigned id;       // uid or gid
    std::string name;  // account name
};

Owner ResolveUser(const std::string &text);   // a user name or uid
Owner ResolveGroup(const std::string &text);  // a group name or gid
// The owner named by --user or --group; exactly one of them is required.
Owner OwnerFromArgs(const Args &args);
std::string OwnerLabel(const Owner &owner);   // "user alice", "group users"
std::string AccountName(int ownerType, unsigned id);  // the name, or the number when unknown

// A protocol name (add-on names included); "all" only where allowAll.
int ParseProtocol(const std::string &text, bool allowAll);
std::string ProtocolName(int protocol);
// The protocols to list when no --protocol is given: the four built-in ones.
std::vector<int> BuiltInProtocols();

// up/upload 1, down/download 2, both 3 where allowBoth.
int ParseDirection(const std::string &text, bool allowBoth);
std::string DirectionName(int direction);

// A name of one of the record tables (states and policies), matched exactly.
int ParseEnumName(const VESK_BW_ENUM_ENTRY *table, const std::string &text, const char *what);
std::string EnumName(const VESK_BW_ENUM_ENTRY *table, int value);

// ---------------------------------------------------------------------------
// Processes and signals.

// Every process of the tool survives the simulators' hangup: SIGHUP is a
// no-op unless a command installs a handler of its own.
void IgnoreHangups();
// Ctrl-C and SIGTERM set a flag instead of ending the process.
void CatchStopSignals();
bool StopRequested();
// Sleeps up to `ms` milliseconds; returns early when a stop was requested.
void SleepUnlessStopped(int ms);
// SIGHUP to every process named veskbandwidth but this one: the number signalled.
int SignalSimulators();
bool IsTerminal(int fd);
int64_t NowUs();

// Runs a library call whose helper programs may write to stderr (the
// simulator hangup runs killall) with stderr sent to /dev/null.
class QuietStderr {
public:
    QuietStderr();
    ~QuietStderr();
    QuietStderr(const QuietStderr &) = delete;
    QuietStderr &operator=(const QuietStderr &) = delete;

private:
    int saved_;
};

// ---------------------------------------------------------------------------
// Simulated transfers, run by the library's simulator in child processes.

struct TransferRequest {
    Owner user;
    int protocol;
    int direction;  // VESK_BW_TRANSFER_UPLOAD or VESK_BW_TRANSFER_DOWNLOAD
};

// Starts VESKBandwidthSimulate in a child process: it is named veskbandwidth
// like this one, so the simulator hangup reaches it.  Throws when it cannot fork.
pid_t StartSimulator(const TransferRequest &desc, size_t kibibytes);
// The child's entry in its user's status file; false while it is not listed
// (before its first save, or when its transfer is not limited).
bool ReadSimulatorStatus(const TransferRequest &desc, pid_t pid, VESK_BANDWIDTH_STATUS *status);
// Ends the child and removes its entries from the user's and groups' files.
void StopSimulator(const TransferRequest &desc, pid_t pid);

// ---------------------------------------------------------------------------
// Commands: each takes the arguments after its own name and returns the exit status.

int RunLimitSet(int argc, char **argv);
int RunLimitShow(int argc, char **argv);
int RunGlobalSet(int argc, char **argv);
int RunGlobalShow(int argc, char **argv);
int RunStatus(int argc, char **argv);
int RunPreview(int argc, char **argv);
int RunDeactivate(int argc, char **argv);
int RunRemove(int argc, char **argv);
int RunReload(int argc, char **argv);
int RunSimulate(int argc, char **argv);
int RunCopy(int argc, char **argv);
int RunDemo(int argc, char **argv);
int RunRun(int argc, char **argv);

}  // namespace cli

#endif

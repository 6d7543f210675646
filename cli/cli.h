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
// Arguments: "--name value", "--name=value", flags and positional arguments;
// "-u", "-g" and "-p" stand for --user, --group and --protocol.

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

// "; did you mean 'X'?" for the candidate closest to a mistyped word, or ""
// when none is close.
std::string DidYouMean(const std::string &word, const std::vector<std::string> &candidates,
                       const std::string &prefix = "");

// Parsers of values; each throws UsageError saying what is wrong.
uint64_t ParseUnsigned(const std::string &text, const char *what);
// The largest rate stored: 1 TiB/s.  Its bytes per second (2^40) stay far
// from every overflow of the library's arithmetic: a five-second chunk is
// below 2^63 bytes, and sums of millions of limits do not wrap.
constexpr uint64_t kMaxRateKiB = uint64_t{1} << 30;
// A rate as rsync's and rclone's --bwlimit take it: KiB/s by default (512),
// a binary unit (512K, 1.5M, 10MiB, 2G), a decimal one (500KB), or bytes
// (B); "unlimited" and 0 are no limit.  In KiB/s, rounded to a whole one.
uint64_t ParseRateKiB(const std::string &text, const char *what);
extern const char kRateHelp[];
uint64_t ParseSizeBytes(const std::string &text);  // 10M, 512K, 1G, 1000
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
std::string OwnerLabel(const Owner &owner);           // "user alice", "group users"
std::string AccountName(int ownerType, unsigned id);  // the name, or the number when unknown

// A protocol name (built-in ones in any case, add-on names); "all" only where allowAll.
int ParseProtocol(const std::string &text, bool allowAll);
std::string ProtocolName(int protocol);
// The protocols to list when no --protocol is given: the four built-in ones.
std::vector<int> BuiltInProtocols();

// up/upload 1, down/download 2, both 3 where allowBoth.
int ParseDirection(const std::string &text, bool allowBoth);
std::string DirectionName(int direction);

// A name of one of the record tables (states and policies), in any case.
int ParseEnumName(const VESK_BW_ENUM_ENTRY *table, const std::string &text, const char *what);
std::string EnumName(const VESK_BW_ENUM_ENTRY *table, int value);
// The names of a table, "a, b, c".
std::string TableNames(const VESK_BW_ENUM_ENTRY *table);

// How running transfers of a protocol take up a change of its limits.
std::string PickupHint(int protocol);

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
// SIGHUP to every other process named veskbandwidth that shares this one's
// mount namespace (and so its /tmp/bandwidth): the pids reached.
std::vector<pid_t> SignalSimulators();
// The web file manager's transfer workers that the library's hangup reaches.
std::vector<pid_t> LanternpostWorkers();
// The processes of a process group.
std::vector<pid_t> ProcessGroupMembers(pid_t group);
bool ProcessExists(pid_t pid);
std::string PidList(const std::vector<pid_t> &pids);  // "12, 345"
bool IsTerminal(int fd);
int64_t NowUs();
// Writes all of the bytes, resuming after signals; false (errno set) on an error.
bool WriteAll(int fd, const char *data, size_t size);

// ---------------------------------------------------------------------------
// Simulated transfers, run by the library's simulator in child processes.

struct TransferRequest {
    Owner user;
    int protocol;
    int direction;  // VESK_BW_TRANSFER_UPLOAD or VESK_BW_TRANSFER_DOWNLOAD
};

// VESKBandwidthSimulate in a child process, which is named veskbandwidth like
// this one, so the simulator hangup reaches it.  Destroying a simulation
// that still runs ends it and removes its entries.
class Simulation {
public:
    Simulation(const TransferRequest &request, size_t kibibytes);  // throws when it cannot fork
    ~Simulation();
    Simulation(const Simulation &) = delete;
    Simulation &operator=(const Simulation &) = delete;

    pid_t Pid() const { return pid_; }
    // The child's entry in its user's status file; false while it is not
    // listed (before its first save, or when its transfer is not limited).
    bool ReadStatus(VESK_BANDWIDTH_STATUS *status) const;
    // Whether the child has ended; `failure` then holds why it failed, or "".
    bool Ended(std::string *failure);
    // Ends the child and removes its entries from the user's and groups' files.
    void Stop();

private:
    TransferRequest request_;
    pid_t pid_ = -1;
    int messages_ = -1;  // the read end of the pipe on which the child says why it failed
};

// ---------------------------------------------------------------------------
// Commands: each takes the arguments after its own name and returns the exit status.

int RunLimitSet(int argc, char **argv);
int RunLimitShow(int argc, char **argv);
int RunLimitRemove(int argc, char **argv);
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

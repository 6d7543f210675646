// simulate and copy: a simulated transfer with its progress, and a real copy
// that drives the library as a reference service does.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <vector>

#include "cli.h"
#include "status_view.h"
#include "table.h"

namespace cli {
namespace {

TransferRequest ParseTransferRequest(const Args &args)
{
    if (!args.Has("user") || !args.Has("protocol")) {
        throw UsageError("give --user NAME|UID and --protocol NAME");
    }
    TransferRequest parsed{ResolveUser(args.Get("user")), ParseProtocol(args.Get("protocol"), false),
                        VESK_BW_TRANSFER_DOWNLOAD};
    if (args.Has("direction")) {
        parsed.direction = ParseDirection(args.Get("direction"), false);
    }
    return parsed;
}

std::string Mebibytes(uint64_t bytes)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(bytes) / (1024.0 * 1024.0));
    return text;
}

// ---------------------------------------------------------------------------
// simulate: the library's simulator runs in a child process; this process
// shows its progress from the user's status file.

std::string ProgressText(bool seen, const VESK_BANDWIDTH_STATUS &s, uint64_t bytes)
{
    if (!seen) {
        return "waiting for the first chunk (an unlimited transfer is not listed)";
    }
    uint64_t speed = s.current_speed != 0 ? s.current_speed : s.expect_speed;
    double left = static_cast<double>(bytes) * (10000 - std::min<uint32_t>(s.progress, 10000)) / 10000.0;
    return Percent(s.progress) + "  now " + KBps(s.current_speed) + " KB/s  expected " + LimitKBps(s.expect_speed) +
           " KB/s  left " + (speed != 0 ? Duration(left / static_cast<double>(speed)) : "?");
}

void DrawBar(bool seen, const VESK_BANDWIDTH_STATUS &s, uint64_t bytes)
{
    const int kWidth = 30;
    int filled = seen ? static_cast<int>(std::min<uint32_t>(s.progress, 10000) * kWidth / 10000) : 0;
    std::cout << "\r[" << std::string(filled, '#') << std::string(kWidth - filled, '.') << "] "
              << ProgressText(seen, s, bytes) << "\x1b[K" << std::flush;
}

int WatchSimulation(const TransferRequest &desc, pid_t child, uint64_t bytes)
{
    CatchStopSignals();
    const bool terminal = IsTerminal(STDOUT_FILENO);
    const int64_t start = NowUs();
    int64_t lastLine = start;
    for (;;) {
        int status = 0;
        if (waitpid(child, &status, WNOHANG) == child) {
            if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
                // A failed simulator leaves its entries behind; it saves no more.
                VESKBandwidthStatusForceRemoveAllByUserName(desc.user.name.c_str(),
                                                            static_cast<unsigned>(desc.direction), child);
                return 1;
            }
            double seconds = std::max(static_cast<double>(NowUs() - start) / 1e6, 1e-3);
            std::cout << (terminal ? "\n" : "") << "Done: " << Mebibytes(bytes) << " in " << Duration(seconds)
                      << ", average " << KBps(static_cast<uint64_t>(static_cast<double>(bytes) / seconds))
                      << " KB/s.\n";
            return 0;
        }
        if (StopRequested()) {
            StopSimulator(desc, child);
            std::cout << (terminal ? "\n" : "") << "Interrupted: ended the simulation (pid " << child
                      << ") and removed its entries.\n";
            return 130;
        }
        VESK_BANDWIDTH_STATUS s = {};
        bool seen = ReadSimulatorStatus(desc, child, &s);
        if (terminal) {
            DrawBar(seen, s, bytes);
        } else if (NowUs() - lastLine >= 1000000) {
            lastLine = NowUs();
            std::cout << ProgressText(seen, s, bytes) << std::endl;
        }
        SleepUnlessStopped(200);
    }
}

// ---------------------------------------------------------------------------
// copy: the reference service.

volatile sig_atomic_t g_reload = 0;

void OnHangup(int)
{
    g_reload = 1;
}

void CatchHangups()
{
    struct sigaction action = {};
    action.sa_handler = OnHangup;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGHUP);
    sigaction(SIGHUP, &action, nullptr);
}

// One throttled transfer: its configuration and its status entries, from
// registration to removal.
class ThrottledTransfer {
public:
    ThrottledTransfer(const TransferRequest &a, const std::string &fileName) : direction_(a.direction)
    {
        time_ = VESKBandwidthCurrTimeGet();
        if (VESKBandwidthConfigGet(a.user.id, a.protocol, &config_) != 0) {
            VESKBandwidthConfigFree(&config_);
            FailLibrary("cannot read the limits of user " + a.user.name);
        }
        if (VESKBandwidthStatusInit(&config_, direction_, fileName.c_str(), &time_, &status_) != 0) {
            VESKBandwidthConfigFree(&config_);
            FailLibrary("cannot register the transfer");
        }
    }
    ~ThrottledTransfer()
    {
        VESKBandwidthStatusRemove(&config_, static_cast<unsigned>(direction_));
        VESKBandwidthConfigFree(&config_);
    }
    ThrottledTransfer(const ThrottledTransfer &) = delete;
    ThrottledTransfer &operator=(const ThrottledTransfer &) = delete;

    // Between chunks: a hangup rebuilds the configuration.
    void ReloadIfAsked()
    {
        if (g_reload == 0) {
            return;
        }
        g_reload = 0;
        if (VESKBandwidthHupRecv(&config_, &status_, &time_) != 0) {
            FailLibrary("cannot reload the limits");
        }
    }
    uint64_t NextChunk(uint64_t wanted)
    {
        uint64_t allowed = wanted;
        if (VESKBandwidthTransferSizeEstimate(&config_, direction_, wanted, &allowed) != 0) {
            FailLibrary("cannot estimate the next chunk");
        }
        return allowed;
    }
    // After every chunk: sleeps as the limits require and publishes the status.
    void Pass(uint64_t bytes, uint32_t progress)
    {
        if (VESKBandwidthSleepInLoop(&config_, bytes, progress, &time_, &status_) != 0) {
            if (VLIBCErrGet() == BW_ERR_DEACTIVATED) {
                throw Error("the transfer was deactivated", 1);
            }
            FailLibrary("the throttled transfer failed");
        }
    }

private:
    VESK_BANDWIDTH_CONFIG config_ = {};
    VESK_BANDWIDTH_STATUS status_ = {};
    int64_t time_ = 0;
    int direction_;
};

// A descriptor opened for the copy, closed with its scope unless it is a standard one.
class Fd {
public:
    Fd(const std::string &path, bool output) : path_(path)
    {
        if (path == "-") {
            fd_ = output ? STDOUT_FILENO : STDIN_FILENO;
            return;
        }
        fd_ = output ? open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)
                     : open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) {
            throw Error("cannot open " + path + ": " + std::strerror(errno), 1);
        }
        owned_ = true;
    }
    ~Fd()
    {
        if (owned_) {
            close(fd_);
        }
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int Get() const { return fd_; }
    const std::string &Path() const { return path_; }
    uint64_t RegularFileSize() const
    {
        struct stat st;
        return fstat(fd_, &st) == 0 && S_ISREG(st.st_mode) ? static_cast<uint64_t>(st.st_size) : 0;
    }

private:
    std::string path_;
    int fd_ = -1;
    bool owned_ = false;
};

// Reads up to `size` bytes; fewer only at the end of the input or on a stop request.
size_t ReadChunk(const Fd &in, char *buffer, size_t size)
{
    size_t done = 0;
    while (done < size && !StopRequested()) {
        ssize_t n = read(in.Get(), buffer + done, size - done);
        if (n == 0) {
            break;
        }
        if (n < 0 && errno != EINTR) {
            throw Error("cannot read " + in.Path() + ": " + std::strerror(errno), 1);
        }
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return done;
}

void WriteChunk(const Fd &out, const char *buffer, size_t size)
{
    for (size_t done = 0; done < size;) {
        ssize_t n = write(out.Get(), buffer + done, size - done);
        if (n < 0 && errno != EINTR) {
            throw Error("cannot write " + out.Path() + ": " + std::strerror(errno), 1);
        }
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
}

std::string StatusFileName(const Fd &in, const Fd &out, int direction)
{
    // A download sends the source to a client, an upload stores the destination.
    const Fd &file = direction == VESK_BW_TRANSFER_DOWNLOAD ? in : out;
    return file.Path() == "-" ? (&file == &in ? "(standard input)" : "(standard output)") : file.Path();
}

}  // namespace

int RunSimulate(int argc, char **argv)
{
    Args args(argc, argv, {{"user", true}, {"protocol", true}, {"direction", true}, {"size", true}});
    args.ExpectPositional(0, "");
    TransferRequest a = ParseTransferRequest(args);
    if (!args.Has("size")) {
        throw UsageError("missing --size SIZE");
    }
    uint64_t bytes = ParseSizeBytes(args.Get("size"));
    size_t kibibytes = static_cast<size_t>((bytes + 1023) / 1024);  // the simulator counts KiB
    std::cout << "Simulating a " << Mebibytes(bytes) << " " << DirectionName(a.direction) << " of user "
              << a.user.name << " on " << ProtocolName(a.protocol) << "." << std::endl;
    pid_t child = StartSimulator(a, kibibytes);
    return WatchSimulation(a, child, bytes);
}

int RunCopy(int argc, char **argv)
{
    Args args(argc, argv, {{"user", true}, {"protocol", true}, {"direction", true}});
    args.ExpectPositional(2, "SRC and DST (a file, or - for standard input or output)");
    TransferRequest a = ParseTransferRequest(args);
    Fd in(args.Positional()[0], false);
    Fd out(args.Positional()[1], true);
    const uint64_t size = in.RegularFileSize();
    CatchStopSignals();
    CatchHangups();
    signal(SIGPIPE, SIG_IGN);  // a closed reader is a write error, and the entries are still removed

    const size_t kRequest = 64 * 1024;
    std::vector<char> buffer(kRequest);
    uint64_t done = 0;
    ThrottledTransfer transfer(a, StatusFileName(in, out, a.direction));
    while (!StopRequested()) {
        transfer.ReloadIfAsked();
        size_t chunk = static_cast<size_t>(transfer.NextChunk(kRequest));
        size_t got = ReadChunk(in, buffer.data(), chunk);
        if (got == 0) {
            break;
        }
        WriteChunk(out, buffer.data(), got);
        done += got;
        uint32_t progress = size != 0 ? static_cast<uint32_t>(std::min<uint64_t>(done, size) * 10000 / size) : 0;
        transfer.Pass(got, progress);
    }
    if (StopRequested()) {
        std::cerr << "veskbandwidth copy: interrupted after " << done << " bytes\n";
        return 130;
    }
    return 0;
}

}  // namespace cli

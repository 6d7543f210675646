// simulate and copy: a simulated transfer with its progress, and a real copy
// that drives the library as a reference service does; both can draw a
// chart of their speed.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <vector>

#include "chart.h"
#include "cli.h"
#include "table.h"

namespace cli {
namespace {

constexpr int64_t kChartSampleUs = 200000;  // a point of the chart about every 200 ms

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

double SecondsSince(int64_t startUs)
{
    return static_cast<double>(NowUs() - startUs) / 1e6;
}

// Writes the chart when one was asked for, and says where on `note`.
void WriteChart(PlotFile &plot, const SpeedChart &chart, std::ostream &note)
{
    if (plot.Wanted()) {
        plot.Write(chart);
        note << "Chart of the speed: " << Printable(plot.Path()) << '\n';
    }
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
    return Percent(s.progress) + "  now " + RateText(static_cast<double>(s.current_speed)) + "  limit " +
           RateText(static_cast<double>(s.expect_speed)) + "  left " +
           (speed != 0 ? Duration(left / static_cast<double>(speed)) : "?");
}

// The progress bar fills what the terminal leaves beside the text, 10 to 40 columns.
void DrawBar(bool seen, const VESK_BANDWIDTH_STATUS &s, uint64_t bytes)
{
    std::string text = ProgressText(seen, s, bytes);
    size_t columns = TerminalColumns();
    size_t width = std::clamp<size_t>(columns > text.size() + 4 ? columns - text.size() - 4 : 10, 10, 40);
    size_t filled = seen ? std::min<uint32_t>(s.progress, 10000) * width / 10000 : 0;
    DrawStatusLine("[" + std::string(filled, '#') + std::string(width - filled, '.') + "] " + text);
}

int WatchSimulation(Simulation &simulation, const TransferRequest &request, uint64_t bytes, PlotFile &plot,
                    SpeedChart &chart)
{
    CatchStopSignals();
    const bool terminal = IsTerminal(STDOUT_FILENO);
    const int64_t start = NowUs();
    int64_t lastLine = start, lastSample = start - kChartSampleUs;
    for (std::string failure;;) {
        if (simulation.Ended(&failure)) {
            EndStatusLine();
            WriteChart(plot, chart, std::cout);
            if (!failure.empty()) {
                throw Error(failure, 1);
            }
            double seconds = std::max(SecondsSince(start), 1e-3);
            std::cout << "Done: " << Mebibytes(bytes) << " in " << Duration(seconds) << ", average "
                      << RateText(static_cast<double>(bytes) / seconds) << ".\n";
            return 0;
        }
        if (StopRequested()) {
            pid_t pid = simulation.Pid();
            simulation.Stop();
            EndStatusLine();
            WriteChart(plot, chart, std::cout);
            std::cout << "Interrupted: ended the simulation (pid " << pid << ") and removed its entries.\n";
            return 130;
        }
        VESK_BANDWIDTH_STATUS s = {};
        bool seen = simulation.ReadStatus(&s);
        if (seen && NowUs() - lastSample >= kChartSampleUs) {
            lastSample = NowUs();
            chart.Add(request.user.name, SpeedChart::Kind::Transfer, SecondsSince(start),
                      static_cast<double>(s.current_speed));
            chart.Add("limit of " + request.user.name, SpeedChart::Kind::Limit, SecondsSince(start),
                      static_cast<double>(s.expect_speed), request.user.name);
        }
        if (terminal) {
            DrawBar(seen, s, bytes);
        } else if (NowUs() - lastLine >= 1000000) {
            lastLine = NowUs();
            std::cout << ProgressText(seen, s, bytes) << std::endl;
        }
        SleepUnlessStopped(100);
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

// One throttled transfer through a transfer session, from registration to
// removal.  The session notices changed limit files by itself; a hangup
// (reload simulators) makes it reload at once.
class SessionTransfer {
public:
    SessionTransfer(const TransferRequest &a, const std::string &fileName)
    {
        if (VESKBandwidthSessionOpen(a.user.id, a.protocol, a.direction, fileName.c_str(), &session_) != 0) {
            FailLibrary("cannot start the throttled transfer of user " + a.user.name);
        }
    }
    ~SessionTransfer() { VESKBandwidthSessionClose(session_); }
    SessionTransfer(const SessionTransfer &) = delete;
    SessionTransfer &operator=(const SessionTransfer &) = delete;

    void ReloadIfAsked()
    {
        if (g_reload == 0) {
            return;
        }
        g_reload = 0;
        if (VESKBandwidthSessionReload(session_) != 0) {
            Warn("cannot reload the limits (" + LibraryErrorText() + "); the old ones stay in force");
        }
    }
    uint64_t NextChunk(uint64_t wanted) const
    {
        uint64_t chunk = wanted;
        VESKBandwidthSessionChunk(session_, &chunk);
        return std::min(chunk, wanted);
    }
    // After every chunk: sleeps until its bytes are due; ends a switched-off transfer.
    void Pass(uint64_t bytes, uint32_t progress)
    {
        VESKBandwidthSessionProgressSet(session_, progress);
        if (VESKBandwidthSessionPace(session_, bytes) != 0) {
            throw Error("the transfer was deactivated", 1);
        }
    }
    // The speed the limits allow now, bytes/s; 0 while it is not limited.
    uint64_t AllowedSpeed() const
    {
        uint64_t speed = 0;
        VESKBandwidthSessionSpeedGet(session_, &speed);
        return speed;
    }

private:
    VESK_BANDWIDTH_SESSION *session_ = nullptr;
};

// The source of the copy: a file, or standard input for "-".
class Source {
public:
    explicit Source(const std::string &path) : path_(path)
    {
        fd_ = path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0 || fstat(fd_, &stat_) != 0) {
            throw Error("cannot open " + path + ": " + std::strerror(errno), 1);
        }
    }
    ~Source()
    {
        if (fd_ != STDIN_FILENO) {
            close(fd_);
        }
    }
    Source(const Source &) = delete;
    Source &operator=(const Source &) = delete;

    const std::string &Path() const { return path_; }
    const struct stat &Stat() const { return stat_; }
    uint64_t Size() const { return S_ISREG(stat_.st_mode) ? static_cast<uint64_t>(stat_.st_size) : 0; }

    // Reads up to `size` bytes; fewer only at the end of the input or on a stop request.
    size_t Read(char *buffer, size_t size) const
    {
        size_t done = 0;
        while (done < size && !StopRequested()) {
            ssize_t n = read(fd_, buffer + done, size - done);
            if (n == 0) {
                break;
            }
            if (n < 0 && errno != EINTR) {
                throw Error("cannot read " + path_ + ": " + std::strerror(errno), 1);
            }
            done += n > 0 ? static_cast<size_t>(n) : 0;
        }
        return done;
    }

private:
    std::string path_;
    int fd_ = -1;
    struct stat stat_ = {};
};

bool SameFile(const struct stat &a, const struct stat &b)
{
    return S_ISREG(a.st_mode) && S_ISREG(b.st_mode) && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The destination of the copy: a file, or standard output for "-".  It is
// opened only once the source has proved readable, never through a symbolic
// link, and never when it is the source itself (writing would empty it).
class Destination {
public:
    Destination(const std::string &path, const Source &source) : path_(path), source_(source)
    {
        struct stat st;
        bool exists = path == "-" ? fstat(STDOUT_FILENO, &st) == 0 : stat(path.c_str(), &st) == 0;
        if (exists && SameFile(st, source.Stat())) {
            throw Error("'" + source.Path() + "' and '" + path + "' are the same file", 1);
        }
    }
    ~Destination()
    {
        if (fd_ > STDOUT_FILENO) {
            close(fd_);
        }
    }
    Destination(const Destination &) = delete;
    Destination &operator=(const Destination &) = delete;

    const std::string &Path() const { return path_; }

    void Write(const char *buffer, size_t size)
    {
        Open();
        if (!WriteAll(fd_, buffer, size)) {
            throw Error("cannot write " + path_ + ": " + std::strerror(errno), 1);
        }
    }
    void Open()
    {
        if (fd_ >= 0) {
            return;
        }
        if (path_ == "-") {
            fd_ = STDOUT_FILENO;
            return;
        }
        fd_ = open(path_.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd_ < 0 && errno == ELOOP) {
            throw Error(path_ + " is a symbolic link, which copy does not follow: name its target", 1);
        }
        struct stat st;
        if (fd_ < 0 || fstat(fd_, &st) != 0) {
            throw Error("cannot open " + path_ + ": " + std::strerror(errno), 1);
        }
        if (SameFile(st, source_.Stat())) {  // it became the source since it was checked
            throw Error("'" + source_.Path() + "' and '" + path_ + "' are the same file", 1);
        }
        if (S_ISREG(st.st_mode) && ftruncate(fd_, 0) != 0) {
            throw Error("cannot truncate " + path_ + ": " + std::strerror(errno), 1);
        }
    }

private:
    std::string path_;
    const Source &source_;
    int fd_ = -1;
};

std::string StatusFileName(const Source &in, const Destination &out, int direction)
{
    // A download sends the source to a client, an upload stores the destination.
    if (direction == VESK_BW_TRANSFER_DOWNLOAD) {
        return in.Path() == "-" ? "(standard input)" : in.Path();
    }
    return out.Path() == "-" ? "(standard output)" : out.Path();
}

}  // namespace

int RunSimulate(int argc, char **argv)
{
    Args args(argc, argv, {{"user", true}, {"protocol", true}, {"direction", true}, {"size", true}, {"plot", true}});
    args.ExpectPositional(0, "");
    TransferRequest request = ParseTransferRequest(args);
    if (!args.Has("size")) {
        throw UsageError("missing --size SIZE");
    }
    uint64_t bytes = ParseSizeBytes(args.Get("size"));
    size_t kibibytes = static_cast<size_t>((bytes + 1023) / 1024);  // the simulator counts KiB
    PlotFile plot(args.Get("plot"));
    std::string what = DirectionName(request.direction) + " of " + Mebibytes(bytes) + " by user " + request.user.name +
                       " on " + ProtocolName(request.protocol);
    SpeedChart chart("Simulated " + what);
    std::cout << Printable("Simulating a " + what + ".") << std::endl;
    Simulation simulation(request, kibibytes);
    return WatchSimulation(simulation, request, bytes, plot, chart);
}

int RunCopy(int argc, char **argv)
{
    Args args(argc, argv, {{"user", true}, {"protocol", true}, {"direction", true}, {"plot", true}});
    args.ExpectPositional(2, "SRC and DST (a file, or - for standard input or output)");
    TransferRequest request = ParseTransferRequest(args);
    Source in(args.Positional()[0]);
    Destination out(args.Positional()[1], in);
    PlotFile plot(args.Get("plot"));
    SpeedChart chart("Copy of " + in.Path() + " by user " + request.user.name + " on " +
                     ProtocolName(request.protocol));
    CatchStopSignals();
    CatchHangups();
    signal(SIGPIPE, SIG_IGN);  // a closed reader is a write error, and the entries are still removed

    const size_t kRequest = 4 << 20;  // the session's chunk is smaller unless the transfer is fast
    std::vector<char> buffer(kRequest);
    uint64_t done = 0, sampledBytes = 0;
    const int64_t start = NowUs();
    int64_t sampledUs = start;
    SessionTransfer transfer(request, StatusFileName(in, out, request.direction));
    while (!StopRequested()) {
        transfer.ReloadIfAsked();
        size_t got = in.Read(buffer.data(), static_cast<size_t>(transfer.NextChunk(kRequest)));
        out.Open();  // the source has proved readable
        if (got == 0) {
            break;
        }
        out.Write(buffer.data(), got);
        done += got;
        uint32_t progress = in.Size() != 0 ? static_cast<uint32_t>(std::min(done, in.Size()) * 10000 / in.Size()) : 0;
        transfer.Pass(got, progress);
        if (NowUs() - sampledUs >= kChartSampleUs) {
            double seconds = static_cast<double>(NowUs() - sampledUs) / 1e6;
            chart.Add(request.user.name, SpeedChart::Kind::Transfer, SecondsSince(start),
                      static_cast<double>(done - sampledBytes) / seconds);
            chart.Add("limit of " + request.user.name, SpeedChart::Kind::Limit, SecondsSince(start),
                      static_cast<double>(transfer.AllowedSpeed()), request.user.name);
            sampledUs = NowUs();
            sampledBytes = done;
        }
    }
    WriteChart(plot, chart, std::cerr);  // standard output may be the copy itself
    if (StopRequested()) {
        std::cerr << "veskbandwidth copy: interrupted after " << done << " bytes\n";
        return 130;
    }
    return 0;
}

}  // namespace cli

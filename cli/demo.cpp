// demo: three users download at once under one shared group limit, one of
// them also under a tighter limit of its own.  Runs in a private sandbox with
// its own accounts and configuration, shows the live status table, ends with
// each transfer's average speed beside its fair part, and draws a chart of
// the speeds.
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <sstream>
#include <vector>

#include "chart.h"
#include "cli.h"
#include "sandbox.h"
#include "status_view.h"
#include "table.h"

namespace cli {
namespace {

const char kDemoPasswd[] = "root:x:0:0:root:/root:/bin/sh\n"
                           "alice:x:1026:100:Alice:/home/alice:/bin/sh\n"
                           "bob:x:1027:100:Bob:/home/bob:/bin/sh\n"
                           "carol:x:1028:100:Carol:/home/carol:/bin/sh\n"
                           "nobody:x:65534:65534:nobody:/nonexistent:/usr/sbin/nologin\n";
const char kDemoGroup[] = "root:x:0:\n"
                          "users:x:100:alice,bob,carol\n"
                          "nogroup:x:65534:\n";

// The scenario: ftp downloads, the group's limit shared by its users, a
// user's own limit combined with the group's by the tighter of the two.
struct DemoUser {
    const char *name;
    uint64_t ownLimitKiB;  // 0: none
};
const DemoUser kUsers[] = {{"alice", 0}, {"bob", 0}, {"carol", 256}};
const char kGroupName[] = "users";
const uint64_t kGroupLimitKiB = 1536;
const int kProtocol = VESK_BW_PROTOCOL_FTP;
const int kDefaultSeconds = 20;
const int kSampleMs = 100;
const char kTotalLabel[] = "all three";

struct Runner {
    TransferRequest request;
    uint64_t ownLimitKiB;
    std::unique_ptr<Simulation> simulation;
    // The moments a new progress value was first seen: the first and the last.
    bool seen = false;
    uint32_t lastProgress = 0;
    int64_t firstUs = 0, lastUs = 0;
    uint64_t firstBytes = 0, lastBytes = 0;
    uint64_t nowSpeed = 0;

    double AverageBytesPerSecond() const
    {
        return lastUs > firstUs
                   ? static_cast<double>(lastBytes - firstBytes) * 1e6 / static_cast<double>(lastUs - firstUs)
                   : 0.0;
    }
};

void PrintIntro(int seconds)
{
    std::cout << "veskbandwidth demo: three users download over ftp at the same time (simulated transfers).\n"
              << "  group " << kGroupName << " (alice, bob, carol) shares a download limit of "
              << KiBRateText(kGroupLimitKiB) << ";\n"
              << "  carol also has a limit of her own, " << KiBRateText(256)
              << "; a user gets the tighter of the two.\n"
              << "Everything runs in a private sandbox; nothing on this machine is changed.\n"
              << "Running for " << seconds << " s (Ctrl-C ends it early).\n\n"
              << std::flush;
}

void StoreLimit(const Owner &owner, uint64_t downKiB)
{
    VESK_BANDWIDTH_CONF conf = {};
    conf.id = owner.id;
    conf.iState = VESK_BW_STATE_ENABLED;
    conf.iProtocol = static_cast<VESK_BW_PROTOCOL_TYPE>(kProtocol);
    conf.iOwnerType = static_cast<VESK_BW_OWNER_TYPE>(owner.type);
    conf.ullRate[VESK_BW_TRANSFER_DOWNLOAD] = downKiB;
    if (VESKBandwidthConfSetByID(&conf) != 0) {
        FailLibrary("cannot store the limit of " + OwnerLabel(owner));
    }
}

// The scenario's configuration, written through the library as an
// administration tool writes it.
void Configure()
{
    VESK_BANDWIDTH_GLOBAL_CONF global = {};
    global.iProtocol = static_cast<VESK_BW_PROTOCOL_TYPE>(kProtocol);
    global.iState = VESK_BW_STATE_ENABLED;
    global.iUserGroupPolicy = VESK_BW_POLICY_MIN;
    global.iInterGroupPolicy = VESK_BW_POLICY_MAX;
    global.iOccupyPolicy = VESK_BW_OCCUPY_ALL;
    int stored = VESKBandwidthGlobalConfSet(&global);
    if (stored != 0) {
        FailLibrary("cannot store the global settings of ftp");
    }
    StoreLimit(ResolveGroup(kGroupName), kGroupLimitKiB);
    for (const DemoUser &user : kUsers) {
        if (user.ownLimitKiB != 0) {
            StoreLimit(ResolveUser(user.name), user.ownLimitKiB);
        }
    }
}

// Each user's fair part in bytes/s, as the library shares a limit: the group
// limit split equally among the users that transfer under it, capped by a
// user's own limit.  A transfer may take more when others leave part of the
// limit unused.
std::vector<double> FairParts(const std::vector<Runner> &runners)
{
    double equal = static_cast<double>(kGroupLimitKiB) * 1024 / static_cast<double>(runners.size());
    std::vector<double> parts;
    for (const Runner &r : runners) {
        parts.push_back(r.ownLimitKiB != 0 ? std::min(equal, static_cast<double>(r.ownLimitKiB) * 1024) : equal);
    }
    return parts;
}

// Notes the moments a new progress value is first seen.
void TrackProgress(Runner &r, const VESK_BANDWIDTH_STATUS &s, uint64_t sizeBytes)
{
    if (r.seen && s.progress == r.lastProgress) {
        return;
    }
    uint64_t bytes = static_cast<uint64_t>(static_cast<double>(sizeBytes) * s.progress / 10000.0);
    if (!r.seen) {
        r.seen = true;
        r.firstUs = NowUs();
        r.firstBytes = bytes;
    }
    r.lastProgress = s.progress;
    r.lastUs = NowUs();
    r.lastBytes = bytes;
}

void Sample(std::vector<Runner> &runners, uint64_t sizeBytes, SpeedChart &chart, double seconds)
{
    double total = 0;
    for (Runner &r : runners) {
        VESK_BANDWIDTH_STATUS s = {};
        if (r.simulation->ReadStatus(&s)) {
            r.nowSpeed = s.current_speed;
            chart.Add(r.request.user.name, SpeedChart::Kind::Transfer, seconds, static_cast<double>(s.current_speed));
            TrackProgress(r, s, sizeBytes);
        }
        total += static_cast<double>(r.nowSpeed);
        if (r.ownLimitKiB != 0) {
            chart.Add("limit of " + r.request.user.name, SpeedChart::Kind::Limit, seconds,
                      static_cast<double>(r.ownLimitKiB) * 1024, r.request.user.name);
        }
    }
    chart.Add(kTotalLabel, SpeedChart::Kind::Total, seconds, total);
    chart.Add(std::string("limit of group ") + kGroupName, SpeedChart::Kind::Limit, seconds,
              static_cast<double>(kGroupLimitKiB) * 1024, kTotalLabel);
}

std::string LiveLine(const std::vector<Runner> &runners, int elapsed)
{
    std::ostringstream line;
    uint64_t total = 0;
    line << elapsed << "s ";
    for (const Runner &r : runners) {
        line << " " << r.request.user.name << " " << RateText(static_cast<double>(r.nowSpeed));
        total += r.nowSpeed;
    }
    line << "  total " << RateText(static_cast<double>(total)) << " (group limit " << KiBRateText(kGroupLimitKiB)
         << ")";
    return line.str();
}

// The live view: on a terminal the status table redrawn in place, otherwise
// one plain line per second.
class LiveView {
public:
    explicit LiveView(bool terminal) : terminal_(terminal) {}
    void Show(const std::vector<Runner> &runners, int elapsed, int seconds)
    {
        if (!terminal_) {
            std::cout << LiveLine(runners, elapsed) << std::endl;
            return;
        }
        std::vector<Transfer> transfers = GroupByTransfer(CollectEntries(AllStatusFiles(), -1, VESK_BW_TRANSFER_ALL));
        history_.Record(transfers);
        std::ostringstream frame;
        frame << "Live status (" << elapsed << " of " << seconds << " s):\n";
        PrintTransferTable(frame, transfers, &history_, TerminalColumns());
        frame << LiveLine(runners, elapsed) << '\n';
        std::string text = frame.str();
        if (linesShown_ > 0) {
            std::cout << "\x1b[" << linesShown_ << "A\x1b[J";
        }
        std::cout << text << std::flush;
        linesShown_ = static_cast<int>(std::count(text.begin(), text.end(), '\n'));
    }

private:
    bool terminal_;
    SpeedHistory history_;
    int linesShown_ = 0;
};

void PrintSummary(const std::vector<Runner> &runners, double seconds, const std::string &chartPath)
{
    std::vector<double> fair = FairParts(runners);
    Table table({{"USER", false}, {"LIMITS", false}, {"AVERAGE", true}, {"FAIR PART", true}});
    double total = 0;
    for (size_t i = 0; i < runners.size(); ++i) {
        const Runner &r = runners[i];
        std::string limits = std::string("group ") + kGroupName + " " + KiBRateText(kGroupLimitKiB);
        if (r.ownLimitKiB != 0) {
            limits = "own " + KiBRateText(r.ownLimitKiB) + ", " + limits;
        }
        table.AddRow({r.request.user.name, limits, RateText(r.AverageBytesPerSecond()), RateText(fair[i])});
        total += r.AverageBytesPerSecond();
    }
    table.AddRow({kTotalLabel, "group limit", RateText(total), KiBRateText(kGroupLimitKiB)});
    std::cout << "\nSummary after " << Duration(seconds) << " (ftp downloads):\n";
    table.Print(std::cout);
    std::cout << "The fair part is an equal share of the group limit, or the user's own limit when\n"
                 "that is tighter; a transfer may also take what the others leave unused, so the\n"
                 "transfers together fill the group limit without going over it.\n"
              << "Chart of the speeds: " << Printable(chartPath) << '\n';
}

void PrintSummaryJson(const std::vector<Runner> &runners, double seconds, const std::string &chartPath)
{
    std::vector<double> fair = FairParts(runners);
    JsonWriter json(std::cout);
    double total = 0;
    json.BeginObject()
        .Field("seconds", seconds)
        .Field("protocol", ProtocolName(kProtocol))
        .Field("group", std::string(kGroupName))
        .Field("group_limit_bytes_s", kGroupLimitKiB * 1024)
        .Field("chart", chartPath)
        .Key("transfers")
        .BeginArray();
    for (size_t i = 0; i < runners.size(); ++i) {
        json.BeginObject()
            .Field("user", runners[i].request.user.name)
            .Field("own_limit_bytes_s", runners[i].ownLimitKiB * 1024)
            .Field("average_bytes_s", runners[i].AverageBytesPerSecond())
            .Field("fair_bytes_s", fair[i])
            .EndObject();
        total += runners[i].AverageBytesPerSecond();
    }
    json.EndArray().Field("aggregate_bytes_s", total).EndObject();
}

void RunScenario(int seconds, bool json, PlotFile &plot)
{
    Configure();
    // Sizes that none of them can finish in time: the run ends by the clock.
    const size_t kibibytes = static_cast<size_t>(kGroupLimitKiB) * static_cast<size_t>(seconds + 30);
    std::vector<Runner> runners;
    for (const DemoUser &user : kUsers) {
        runners.push_back(Runner{{ResolveUser(user.name), kProtocol, VESK_BW_TRANSFER_DOWNLOAD}, user.ownLimitKiB, {}});
    }
    CatchStopSignals();
    SpeedChart chart("Three ftp downloads under the shared limit of group " + std::string(kGroupName));
    const int64_t start = NowUs();
    for (Runner &r : runners) {
        r.simulation = std::make_unique<Simulation>(r.request, kibibytes);
    }
    LiveView view(IsTerminal(STDOUT_FILENO));
    for (int tick = 1; tick <= seconds * 1000 / kSampleMs && !StopRequested(); ++tick) {
        SleepUnlessStopped(kSampleMs);
        Sample(runners, static_cast<uint64_t>(kibibytes) * 1024, chart, static_cast<double>(NowUs() - start) / 1e6);
        if (!json && tick % (1000 / kSampleMs) == 0) {
            view.Show(runners, tick * kSampleMs / 1000, seconds);
        }
    }
    for (Runner &r : runners) {
        r.simulation->Stop();
    }
    double elapsed = static_cast<double>(NowUs() - start) / 1e6;
    plot.Write(chart);
    if (json) {
        PrintSummaryJson(runners, elapsed, plot.Path());
    } else {
        PrintSummary(runners, elapsed, plot.Path());
    }
}

}  // namespace

int RunDemo(int argc, char **argv)
{
    Args args(argc, argv, {{"seconds", true}, {"json", false}, {"plot", true}});
    args.ExpectPositional(0, "");
    int seconds = args.Has("seconds") ? ParseSeconds(args.Get("seconds"), 2, 3600) : kDefaultSeconds;
    bool json = args.Has("json");
    // Created before the sandbox hides this machine's /tmp.
    PlotFile plot = args.Has("plot") ? PlotFile(args.Get("plot")) : PlotFile::Temporary("veskbandwidth-demo");
    if (!json) {
        PrintIntro(seconds);
    }
    vbw::SandboxOptions options{kDemoPasswd, kDemoGroup};
    std::string error;
    if (!vbw::EnterSandbox(options, &error)) {
        throw Error("cannot make the private sandbox the demo runs in: " + error, 1);
    }
    // From here on this is the process inside the sandbox; the one that
    // started it waits and leaves with its exit status.
    RunScenario(seconds, json, plot);
    return 0;
}

}  // namespace cli

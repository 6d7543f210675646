// vbw-bench: how closely the library holds a limit, how fairly it shares one,
// and what it costs per chunk; then the same for transfer sessions, with
// pv -L as the reference.  Runs itself in the private sandbox.
// Usage: vbw-bench [--quick] [--json]
#include "scenarios.h"
#include "session_scenarios.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

namespace {

using namespace vbw::bench;

struct Options {
    bool quick = false;
    bool json = false;
};

struct Machine {
    long cpus;
    std::string cpuModel;
    std::string kernel;
};

constexpr int kStreamRates = 3;

struct SessionFigures {
    StreamResult streams[kStreamRates];
    bool pv;  // pv installed: pvStreams hold its figures at the same rates
    StreamResult pvStreams[kStreamRates];
    SessionSharingResult sharing;
    double cpuShare10g;
};

struct Figures {
    Machine machine;
    bool quick;
    AccuracyResult accuracy[2];
    SharingResult sharing;
    PassCostResult passCost[3];
    CeilingResult ceiling;
    SessionFigures session;
};

constexpr uint64_t kAccuracyLimitsKBps[2] = {512, 8192};
constexpr uint64_t kSharingLimitKBps = 1024;
constexpr int kPassCostEntries[3] = {1, 16, 64};
constexpr uint64_t kStreamLimitsKBps[kStreamRates] = {512, 8192, 65536};
constexpr uint64_t kSessionSharingLimitKBps = 3072;

bool ParseOptions(int argc, char **argv, Options *options)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0) {
            options->quick = true;
        } else if (std::strcmp(argv[i], "--json") == 0) {
            options->json = true;
        } else {
            return false;
        }
    }
    return true;
}

Machine DescribeMachine()
{
    Machine machine{sysconf(_SC_NPROCESSORS_ONLN), "unknown", "unknown"};
    std::ifstream cpuinfo("/proc/cpuinfo");
    for (std::string line; std::getline(cpuinfo, line);) {
        if (line.compare(0, 10, "model name") == 0 && line.find(':') != std::string::npos) {
            machine.cpuModel = line.substr(line.find(':') + 2);
            break;
        }
    }
    utsname names{};
    if (uname(&names) == 0) {
        machine.kernel = std::string(names.sysname) + " " + names.release;
    }
    return machine;
}

void Note(const char *what)
{
    std::fprintf(stderr, "vbw-bench: %s\n", what);
}

std::string Rate(uint64_t limitKBps)
{
    return limitKBps < 1024 ? std::to_string(limitKBps) + " KiB/s" : std::to_string(limitKBps / 1024) + " MiB/s";
}

SessionFigures MeasureSessions(const Durations &d)
{
    SessionFigures f{};
    f.pv = PvInstalled();
    for (int i = 0; i < kStreamRates; ++i) {
        Note(("session stream at " + Rate(kStreamLimitsKBps[i])).c_str());
        f.streams[i] = MeasureSessionStream(kStreamLimitsKBps[i], d.streamSeconds);
        if (f.pv) {
            Note(("pv -L stream at " + Rate(kStreamLimitsKBps[i])).c_str());
            f.pvStreams[i] = MeasurePvStream(kStreamLimitsKBps[i], d.streamSeconds);
        }
    }
    Note("session sharing among three users, one joining late");
    f.sharing = MeasureSessionSharing(kSessionSharingLimitKBps, d.joinSeconds, d.joinedSeconds);
    Note("session CPU share at 1.25 GB/s");
    f.cpuShare10g = MeasureSessionCpuShare10g(d.cpuShareSeconds);
    return f;
}

Figures Measure(bool quick)
{
    Durations d = DurationsFor(quick);
    Figures f{};
    f.machine = DescribeMachine();
    f.quick = quick;
    for (int i = 0; i < 2; ++i) {
        Note(i == 0 ? "accuracy at 512 KiB/s" : "accuracy at 8 MiB/s");
        f.accuracy[i] = MeasureAccuracy(kAccuracyLimitsKBps[i], d.accuracySeconds);
    }
    Note("sharing among four users");
    f.sharing = MeasureSharing(kSharingLimitKBps, d.sharingSeconds, d.sharingWindowSeconds);
    for (int i = 0; i < 3; ++i) {
        Note(("pass cost with " + std::to_string(kPassCostEntries[i]) + " entries").c_str());
        f.passCost[i] = MeasurePassCost(kPassCostEntries[i], d.passCostCpuSeconds, d.rounds);
    }
    Note("ceiling");
    f.ceiling = MeasureCeiling(d.ceilingCpuSeconds, d.rounds);
    f.session = MeasureSessions(d);
    return f;
}

const char *Verdict(bool met)
{
    return met ? "met" : "MISSED";
}

// Pass cost is linear in the entries when the cost at 64 entries lies near
// the line through the costs at 1 and 16 entries.
double LinearPrediction64(const Figures &f)
{
    double perEntry = (f.passCost[1].passUs - f.passCost[0].passUs) / 15.0;
    return f.passCost[0].passUs + perEntry * 63.0;
}

void PrintStreamRow(const char *who, const StreamResult &r)
{
    std::printf("  %-8s %12llu %9.5f %11.3f %11.3f %11.3f\n", who, static_cast<unsigned long long>(r.limitBps), r.ratio,
                r.cpuMsPerMiB, r.win100Min, r.win100Max);
}

void PrintSessionSummary(const SessionFigures &f)
{
    std::printf("\nSessions: one download read from /dev/zero into a pipe, measured by its reader;\n"
                "pv -L at the same rate as the reference\n");
    std::printf("  %-8s %12s %9s %11s %11s %11s\n", "", "limit B/s", "ratio", "cpu ms/MiB", "win100 min", "win100 max");
    for (int i = 0; i < kStreamRates; ++i) {
        PrintStreamRow("session", f.streams[i]);
        if (f.pv) {
            PrintStreamRow("pv -L", f.pvStreams[i]);
        }
    }
    bool accurate = true;
    bool smooth = true;
    for (const StreamResult &r : f.streams) {
        accurate = accurate && r.ratio >= 0.999 && r.ratio <= 1.001;
        smooth = smooth && r.win100Min >= 0.8 && r.win100Max <= 1.2;
    }
    std::printf("  ratio 0.999..1.001: %s; windows 0.8..1.2: %s; CPU at 8 MiB/s <= pv -L's: %s\n", Verdict(accurate),
                Verdict(smooth),
                f.pv ? Verdict(f.streams[1].cpuMsPerMiB <= f.pvStreams[1].cpuMsPerMiB) : "no pv installed");

    const SessionSharingResult &s = f.sharing;
    std::printf("\nSession sharing: 3 users under a group limit of %llu B/s, the third joining late;\n"
                "over the time all three ran:",
                static_cast<unsigned long long>(s.limitBps));
    for (double bps : s.userBps) {
        std::printf(" %.0f", bps);
    }
    std::printf(" B/s\n  aggregate ratio %.4f (target 0.99..1.01: %s), jain %.5f (target >= 0.999: %s),\n"
                "  newcomer at its share after %.2f s (target <= 2 s: %s)\n",
                s.ratio, Verdict(s.ratio >= 0.99 && s.ratio <= 1.01), s.jain, Verdict(s.jain >= 0.999),
                s.newcomerSeconds, Verdict(s.newcomerSeconds <= 2.0));
    std::printf("\nSession CPU share of one core at 1.25 GB/s: %.3f %% (target < 1 %%: %s)\n", 100 * f.cpuShare10g,
                Verdict(f.cpuShare10g < 0.01));
}

void PrintSummary(const Figures &f)
{
    std::printf("veskbandwidth benchmark%s\n", f.quick ? " (--quick: short runs, rough figures)" : "");
    std::printf("machine: %ld CPUs, %s, %s\n\n", f.machine.cpus, f.machine.cpuModel.c_str(), f.machine.kernel.c_str());

    std::printf("Accuracy: one download, user limit, 64 KiB chunks (target ratio 0.99..1.01)\n");
    std::printf("  %14s %16s %8s %7s %14s %8s\n", "limit B/s", "achieved B/s", "ratio", "seconds", "lost us/pass",
                "target");
    for (const AccuracyResult &a : f.accuracy) {
        std::printf("  %14llu %16.0f %8.4f %7.2f %14.1f %8s\n", static_cast<unsigned long long>(a.limitBps),
                    a.achievedBps, a.ratio, a.wallSeconds, a.lostUsPerPass,
                    Verdict(a.ratio >= 0.99 && a.ratio <= 1.01));
    }

    const SharingResult &s = f.sharing;
    std::printf("\nSharing: 4 users, 4 processes, group limit %llu B/s, occupy max, over the last %.1f s\n",
                static_cast<unsigned long long>(s.limitBps), s.windowSeconds);
    std::printf("  per user B/s:");
    for (double bps : s.userBps) {
        std::printf(" %.0f", bps);
    }
    std::printf("\n  aggregate %.0f B/s, ratio %.4f (target 0.97..1.03: %s), jain %.4f (target >= 0.99: %s)\n",
                s.aggregateBps, s.ratio, Verdict(s.ratio >= 0.97 && s.ratio <= 1.03), s.jain, Verdict(s.jain >= 0.99));

    std::printf("\nPass cost: CPU time of one sleep-loop pass that does not sleep, one group limit;\n"
                "floor: one read and one atomic rewrite of the same group status file\n");
    std::printf("  %7s %10s %10s %8s\n", "entries", "pass us", "floor us", "ratio");
    for (const PassCostResult &p : f.passCost) {
        std::printf("  %7d %10.1f %10.1f %8.2f\n", p.entries, p.passUs, p.floorUs, p.ratio);
    }
    double predicted = LinearPrediction64(f);
    std::printf("  at 64 entries: %.1f us against %.1f us on the line through 1 and 16 (linear: %s); "
                "ratio %.2f (target <= 6: %s)\n",
                f.passCost[2].passUs, predicted, Verdict(f.passCost[2].passUs <= 1.25 * predicted), f.passCost[2].ratio,
                Verdict(f.passCost[2].ratio <= 6.0));

    const CeilingResult &c = f.ceiling;
    std::printf("\nCeiling: one limited download that never sleeps, 64 KiB chunks\n");
    std::printf("  pass %.1f us CPU (%.1f us wall): %.0f B/s (target > 1.25e9: %s)\n", c.passUs, c.wallPassUs, c.bps,
                Verdict(c.bps > 1.25e9));
    std::printf("  CPU share in the library at 125 MB/s: %.2f %%, at 1.25 GB/s: %.2f %% (target < 10 %%: %s)\n",
                100 * c.cpuShare1g, 100 * c.cpuShare10g, Verdict(c.cpuShare10g < 0.10));
    PrintSessionSummary(f.session);
}

std::string JsonString(const std::string &text)
{
    std::string out = "\"";
    for (char ch : text) {
        if (ch == '"' || ch == '\\') {
            out += '\\';
        }
        if (static_cast<unsigned char>(ch) >= 0x20) {
            out += ch;
        }
    }
    return out + "\"";
}

void PrintStreamsJson(const char *name, const StreamResult *streams, int count)
{
    std::printf("  \"%s\": [", name);
    for (int i = 0; i < count; ++i) {
        const StreamResult &r = streams[i];
        std::printf("%s{\"limit_bps\": %llu, \"ratio\": %.6f, \"cpu_ms_per_mib\": %.4f, \"win100_min\": %.4f, "
                    "\"win100_max\": %.4f}",
                    i ? ", " : "", static_cast<unsigned long long>(r.limitBps), r.ratio, r.cpuMsPerMiB, r.win100Min,
                    r.win100Max);
    }
    std::printf("],\n");
}

void PrintSessionJson(const SessionFigures &f)
{
    std::printf(" \"session\": {\n");
    PrintStreamsJson("streams", f.streams, kStreamRates);
    PrintStreamsJson("pv", f.pvStreams, f.pv ? kStreamRates : 0);
    const SessionSharingResult &s = f.sharing;
    std::printf("  \"sharing\": {\"limit_bps\": %llu, \"ratio\": %.6f, \"jain\": %.6f, \"newcomer_s\": %.3f, "
                "\"user_bps\": [%.1f, %.1f, %.1f]},\n",
                static_cast<unsigned long long>(s.limitBps), s.ratio, s.jain, s.newcomerSeconds, s.userBps[0],
                s.userBps[1], s.userBps[2]);
    std::printf("  \"cpu_share_10g\": %.6f}", f.cpuShare10g);
}

void PrintJson(const Figures &f)
{
    std::printf("{\"machine\": {\"cpus\": %ld, \"cpu_model\": %s, \"kernel\": %s}, \"quick\": %s,\n", f.machine.cpus,
                JsonString(f.machine.cpuModel).c_str(), JsonString(f.machine.kernel).c_str(),
                f.quick ? "true" : "false");
    std::printf(" \"accuracy\": [");
    for (int i = 0; i < 2; ++i) {
        const AccuracyResult &a = f.accuracy[i];
        std::printf("%s{\"limit_bps\": %llu, \"achieved_bps\": %.1f, \"ratio\": %.6f, \"lost_us_per_pass\": %.1f}",
                    i ? ", " : "", static_cast<unsigned long long>(a.limitBps), a.achievedBps, a.ratio,
                    a.lostUsPerPass);
    }
    const SharingResult &s = f.sharing;
    std::printf("],\n \"sharing\": {\"limit_bps\": %llu, \"aggregate_bps\": %.1f, \"ratio\": %.6f, \"jain\": %.6f, "
                "\"user_bps\": [%.1f, %.1f, %.1f, %.1f]},\n",
                static_cast<unsigned long long>(s.limitBps), s.aggregateBps, s.ratio, s.jain, s.userBps[0],
                s.userBps[1], s.userBps[2], s.userBps[3]);
    std::printf(" \"pass_cost\": [");
    for (int i = 0; i < 3; ++i) {
        const PassCostResult &p = f.passCost[i];
        std::printf("%s{\"entries\": %d, \"pass_us\": %.3f, \"floor_us\": %.3f, \"ratio\": %.4f}", i ? ", " : "",
                    p.entries, p.passUs, p.floorUs, p.ratio);
    }
    const CeilingResult &c = f.ceiling;
    std::printf("],\n \"ceiling\": {\"bps\": %.1f, \"pass_us\": %.3f, \"cpu_share_1g\": %.6f, "
                "\"cpu_share_10g\": %.6f},\n",
                c.bps, c.passUs, c.cpuShare1g, c.cpuShare10g);
    PrintSessionJson(f.session);
    std::printf("}\n");
}

}  // namespace

int main(int argc, char **argv)
{
    Options options;
    if (!ParseOptions(argc, argv, &options)) {
        std::fprintf(stderr, "usage: vbw-bench [--quick] [--json]\n");
        return 2;
    }
    std::string error;
    if (!EnterBenchSandbox(&error)) {
        std::fprintf(stderr, "vbw-bench: cannot enter the sandbox: %s\n", error.c_str());
        return 125;
    }
    try {
        Figures figures = Measure(options.quick);
        if (options.json) {
            PrintJson(figures);
        } else {
            PrintSummary(figures);
        }
    } catch (const std::exception &e) {
        std::fprintf(stderr, "vbw-bench: %s\n", e.what());
        return 1;
    }
    return 0;
}

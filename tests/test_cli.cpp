// The command-line tool, run as a real program inside the sandbox: every
// command, its wrong arguments, its JSON, live transfers, copy throughput,
// reloads and the demo.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "vbw_test.h"
#include "veskbandwidth.h"

namespace {

using vbw::Has;

const std::string kTool = VBW_BINARY_DIR "/veskbandwidth";
const char kFtpConf[] = "/usr/vesk/etc/bandwidth/bandwidth.ftp.conf";
const char kGlobalConf[] = "/usr/vesk/etc/bandwidth/bandwidth.global.conf";

// A value of a small strict JSON reader: strings (and true, false, null)
// keep their text, numbers their value.
struct Json {
    std::string text;
    double number = 0;
    std::vector<Json> items;
    std::map<std::string, Json> fields;

    const Json &operator[](const std::string &key) const
    {
        static const Json missing;
        auto it = fields.find(key);
        return it == fields.end() ? missing : it->second;
    }
    const Json &operator[](size_t i) const { return items.at(i); }
};

class JsonReader {
public:
    explicit JsonReader(const std::string &text) : s_(text) {}
    bool Read(Json *out) { return Value(out) && Skip() == s_.size(); }

private:
    size_t Skip() { return i_ = std::min(s_.find_first_not_of(" \t\r\n", i_), s_.size()); }
    bool Eat(char c) { return Skip() < s_.size() && s_[i_] == c && ++i_ > 0; }
    bool String(std::string *out)
    {
        static const char from[] = "\"\\/bfnrtu", to[] = "\"\\/\b\f\n\r\t";
        bool ok = Eat('"');
        while (ok && i_ < s_.size() && s_[i_] != '"') {
            char c = s_[i_++];
            const char *escape = c == '\\' && i_ < s_.size() ? std::strchr(from, s_[i_++]) : nullptr;
            ok = static_cast<unsigned char>(c) >= 0x20 && (c != '\\' || (escape != nullptr && *escape != '\0'));
            if (ok && escape != nullptr && *escape == 'u') {  // the tool writes \u00XX for control characters
                ok = i_ + 4 <= s_.size();
                c = ok ? static_cast<char>(std::stoul(s_.substr(i_, 4), nullptr, 16)) : c;
                i_ += 4;
            } else if (escape != nullptr) {
                c = to[escape - from];
            }
            *out += c;
        }
        return ok && i_++ < s_.size();
    }
    template <typename Item> bool Sequence(char close, Item item)
    {
        if (Eat(close)) {
            return true;
        }
        do {
            if (!item()) {
                return false;
            }
        } while (Eat(','));
        return Eat(close);
    }
    bool Value(Json *out)
    {
        if (Eat('{')) {
            return Sequence('}', [&] {
                std::string key;
                return String(&key) && Eat(':') && Value(&out->fields[key]);
            });
        }
        if (Eat('[')) {
            return Sequence(']', [&] { return out->items.emplace_back(), Value(&out->items.back()); });
        }
        if (Skip() < s_.size() && s_[i_] == '"') {
            return String(&out->text);
        }
        for (const char *word : {"true", "false", "null"}) {
            if (s_.compare(i_, std::strlen(word), word) == 0) {
                out->text = word;
                i_ += std::strlen(word);
                return true;
            }
        }
        char *end = nullptr;
        out->number = std::strtod(s_.c_str() + i_, &end);
        size_t start = i_;
        i_ = static_cast<size_t>(end - s_.c_str());
        return i_ != start;
    }

    const std::string &s_;
    size_t i_ = 0;
};

Json ParseJson(const std::string &text)
{
    Json value;
    EXPECT_TRUE(JsonReader(text).Read(&value)) << "not valid JSON: " << text;
    return value;
}

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

// A started program in a process group of its own, like a job of a shell,
// whose output goes to files; Wait() collects it.
class Running {
public:
    explicit Running(const std::vector<std::string> &args)
    {
        static int serial = 0;
        std::string base = "/tmp/cli-run-" + std::to_string(++serial);
        out_ = base + ".out";
        err_ = base + ".err";
        // Built before the fork: the child must not allocate (see vbw::Fork).
        std::vector<char *> argv;
        for (const std::string &arg : args) {
            argv.push_back(const_cast<char *>(arg.c_str()));
        }
        argv.push_back(nullptr);
        pid_ = vbw::Fork([&] {
            int fds[] = {open("/dev/null", O_RDONLY), open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644),
                         open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644)};
            for (int fd = 0; fd < 3; ++fd) {
                dup2(fds[fd], fd);
            }
            setpgid(0, 0);
            execv(argv[0], argv.data());
            return 127;
        });
    }
    ~Running()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    pid_t Pid() const { return pid_; }
    Result Wait()
    {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), vbw::ReadFile(out_),
                vbw::ReadFile(err_)};
    }

private:
    pid_t pid_ = -1;
    std::string out_, err_;
};

// The tool's arguments split at spaces; 'single quotes' keep one together.
std::vector<std::string> Words(const std::string &command)
{
    std::vector<std::string> args{kTool};
    std::istringstream in(command);
    for (std::string word; in >> std::quoted(word, '\'');) {
        args.push_back(word);
    }
    return args;
}

Result Tool(const std::string &command)
{
    return Running(Words(command)).Wait();
}

double Seconds()
{
    return static_cast<double>(vbw::NowMs()) / 1000;
}

Json Transfers(const std::string &filter = "")
{
    return ParseJson(Tool("status --json " + filter).out)["transfers"];
}

// The transfers that `status --json` lists, polled until `count` are there.
Json WaitForTransfers(size_t count, const std::string &filter = "")
{
    Json transfers;
    for (int attempt = 0; attempt < 50 && (transfers = Transfers(filter)).items.size() < count; ++attempt) {
        usleep(100000);
    }
    return transfers;
}

// A week plan: `day(d)` gives the 24 hour characters of day d (0 is Sunday).
template <typename Day> std::string Week(Day day)
{
    std::string plan;
    for (int d = 0; d < 7; ++d) {
        plan += day(d);
    }
    return plan;
}

class CliTest : public vbw::SandboxTest {
protected:
    // Limiting on for ftp, and a download limit of the given user.
    void LimitUser(const std::string &user, unsigned downKBps)
    {
        ASSERT_EQ(0, Tool("global set --protocol ftp --state enabled").status);
        ASSERT_EQ(0, Tool("limit set --user " + user + " --protocol ftp --down " + std::to_string(downKBps)).status);
    }
    // The pid of the one transfer listed, as text.
    std::string OnlyTransferPid()
    {
        Json transfers = WaitForTransfers(1);
        EXPECT_EQ(1u, transfers.items.size());
        return transfers.items.empty() ? "0" : std::to_string(static_cast<long>(transfers[0]["pid"].number));
    }
};

TEST_F(CliTest, HelpDescribesEveryCommand)
{
    Result overview = Tool("--help");
    EXPECT_EQ(0, overview.status);
    for (const char *command : {"limit set", "limit show", "global set", "global show", "status", "preview",
                                "deactivate", "remove", "reload", "simulate", "copy", "demo"}) {
        EXPECT_TRUE(Has(overview.out, std::string("  ") + command)) << command;
        Result help = Tool(std::string(command) + " --help");
        EXPECT_EQ(0, help.status) << command;
        EXPECT_EQ(0u, help.out.find(std::string("usage: veskbandwidth ") + command)) << help.out;
    }
    EXPECT_TRUE(Has(Tool("limit set --help").out, "mon-fri 09-18=custom"));
}

TEST_F(CliTest, LimitSetStoresWhatLimitShowReads)
{
    Result set = Tool("limit set --user alice --protocol ftp --up 512 --down 1024 --custom-down 100 "
                      "--schedule 'mon-fri 09-18=custom sat,sun=off'");
    ASSERT_EQ(0, set.status) << set.err;
    const std::string plan = Week([](int d) {
        return d == 0 || d == 6 ? std::string(24, '0') : std::string(9, '1') + std::string(9, '2') + std::string(6, '1');
    });
    // A later set changes only what it names; a group is named by its gid.
    ASSERT_EQ(0, Tool("limit set --user 1026 --protocol ftp --up 64").status);
    ASSERT_EQ(0, Tool("limit set --group 101 --protocol ftp --state disabled").status);
    Json limits = ParseJson(Tool("limit show --protocol ftp --json").out)["limits"];
    ASSERT_EQ(2u, limits.items.size());
    const Json &alice = limits[0]["owner"].text == "alice" ? limits[0] : limits[1];
    const Json &staff = limits[0]["owner"].text == "staff" ? limits[0] : limits[1];
    EXPECT_EQ("schedule", alice["state"].text);
    EXPECT_EQ(64, alice["upload_rate"].number);
    EXPECT_EQ(1024, alice["download_rate"].number);
    EXPECT_EQ(100, alice["download_rate_custom"].number);
    EXPECT_EQ(plan, alice["schedule_plan"].text);
    EXPECT_EQ("group", staff["owner_type"].text);
    EXPECT_EQ("disabled", staff["state"].text);

    // The grid shows custom hours from 09 to 18 on weekdays, no limit at weekends.
    Result shown = Tool("limit show --user alice --protocol ftp");
    EXPECT_TRUE(Has(shown.out, "  Mon  #########+++++++++######\n")) << shown.out;
    EXPECT_TRUE(Has(shown.out, "  Sun  ........................\n")) << shown.out;
    EXPECT_TRUE(Has(Tool("limit show --dump --protocol ftp").out, "U/L rate(KB/s)"));  // the library's layout

    // Readable schedules: later rules win; 22-06 wraps within the day; fri-mon
    // wraps over the week; hours alone apply to every day; a raw plan of 168
    // digits is stored as given.
    auto storedPlan = [](const std::string &schedule) {
        Result set = Tool("limit set --user carol --protocol rsync --schedule " + schedule);
        EXPECT_EQ(0, set.status) << set.err;
        return ParseJson(Tool("limit show --user carol --protocol rsync --json").out)["limits"][0]["schedule_plan"].text;
    };
    std::string wednesday(24, '0');
    for (int hour : {0, 1, 2, 3, 4, 5, 12, 22, 23}) {
        wednesday[hour] = '2';
    }
    EXPECT_EQ(Week([&](int d) { return d == 3 ? wednesday : std::string(24, d == 0 || d == 1 || d >= 5 ? '1' : '0'); }),
              storedPlan("'all=off mon,wed 22-06,12=custom fri-mon 00-24=normal'"));
    EXPECT_EQ(Week([](int) { return std::string(23, '1') + "0"; }), storedPlan("23=off"));
    std::string raw;
    for (int i = 0; i < 168; ++i) {
        raw += static_cast<char>('0' + i % 3);
    }
    EXPECT_EQ(raw, storedPlan(raw));
}

TEST_F(CliTest, WrongArgumentsSayWhatIsWrongAndChangeNothing)
{
    ASSERT_EQ(0, Tool("limit set --user alice --protocol ftp --down 100").status);
    ASSERT_EQ(0, Tool("global set --protocol ftp --state enabled").status);
    const std::string limitsBefore = vbw::ReadFile(kFtpConf);
    const std::string globalBefore = vbw::ReadFile(kGlobalConf);

    const std::string set = "limit set --user alice --protocol ftp ";
    const std::pair<std::string, std::string> cases[] = {
        {"frobnicate", "unknown command 'frobnicate'"},
        {"limit", "limit needs set or show"},
        {"limit set --user mallory --protocol ftp --down 5", "unknown user 'mallory'"},
        {"limit set --group wheel --protocol ftp --down 5", "unknown group 'wheel'"},
        {"limit set --user alice --protocol gopher --down 5", "unknown protocol 'gopher'"},
        {"limit set --user alice --protocol all --down 5", "protocol 'all' is not allowed"},
        {set + "--state Enabled", "unknown state 'Enabled'"},
        {set + "--down 12k", "--down must be a whole number"},
        {set + "--down -1", "--down must be a whole number"},
        {set + "--down 99999999999999999999999", "is too large"},
        {set + "--down 5 --schedule 'mon-fri 25=off'", "malformed schedule: bad hour '25'"},
        {set + "--schedule mon-fry=off", "malformed schedule: unknown day 'fry'"},
        {set + "--schedule mon-fri", "must be followed by HOURS=VALUE"},
        {set + "--schedule 0101", "168 hour digits"},
        {set + "--schedule sat=fast", "unknown value 'fast'"},
        {set + "--group users --down 5", "exactly one owner"},
        {set, "nothing to set"},
        {set + "--speed 5", "unknown option --speed"},
        {"global set --protocol ftp --user-group-policy fair", "unknown user-group policy 'fair'"},
        {"global set --protocol ftp --inter-group-policy user-first", "unknown inter-group policy 'user-first'"},
        {"global set --protocol ftp --occupy-policy some", "unknown occupy policy 'some'"},
        {"global set --protocol ftp --schedule mon=custom", "global schedule's hours are on or off"},
        {"global set --state enabled", "missing --protocol"},
        {"preview --user alice --protocol all", "protocol 'all' is not allowed"},
        {"simulate --user alice --protocol ftp --size ten", "size must be a number"},
        {"simulate --user alice --protocol ftp --direction sideways --size 1M", "unknown direction 'sideways'"},
        {"status --user mallory", "unknown user 'mallory'"},
        {"deactivate --user alice --pid abc", "--pid must be a whole number"},
        {"copy --user alice --protocol ftp /tmp/only-one", "missing SRC and DST"},
        {"demo --seconds 0", "seconds must lie between"},
    };
    for (const auto &[command, message] : cases) {
        Result result = Tool(command);
        EXPECT_EQ(2, result.status) << command;
        EXPECT_TRUE(Has(result.err, message)) << command << ": " << result.err;
        EXPECT_EQ("", result.out) << result.out;
    }
    EXPECT_EQ(limitsBefore, vbw::ReadFile(kFtpConf));
    EXPECT_EQ(globalBefore, vbw::ReadFile(kGlobalConf));
    EXPECT_FALSE(vbw::Exists("/usr/vesk/etc/bandwidth/bandwidth.webdav.conf"));
}

TEST_F(CliTest, GlobalSetKeepsWhatItDoesNotName)
{
    ASSERT_EQ(0, Tool("global set --protocol webdav --state enabled --user-group-policy min").status);
    ASSERT_EQ(0, Tool("global set --protocol webdav --occupy-policy weighted --schedule 'all=off mon-fri 08-20=on'")
                     .status);
    Json globals = ParseJson(Tool("global show --protocol webdav --json").out)["globals"];
    ASSERT_EQ(1u, globals.items.size());
    EXPECT_EQ("schedule", globals[0]["state"].text);  // a schedule without --state selects it
    EXPECT_EQ("min", globals[0]["user_group_policy"].text);
    EXPECT_EQ("max", globals[0]["inter_group_policy"].text);  // the library's default
    EXPECT_EQ("weighted", globals[0]["occupy_policy"].text);
    EXPECT_EQ('1', globals[0]["schedule_plan"].text.at(1 * 24 + 8));
    EXPECT_EQ('0', globals[0]["schedule_plan"].text.at(1 * 24 + 20));

    // Without a protocol, the four built-in ones; the dump is the library's layout.
    EXPECT_EQ(4u, ParseJson(Tool("global show --json").out)["globals"].items.size());
    EXPECT_TRUE(Has(Tool("global show --dump --protocol webdav").out, "UserGroupPolicy"));
}

TEST_F(CliTest, PreviewShowsTheSpeedsOfTheUsersLimit)
{
    ASSERT_EQ(0, Tool("global set --protocol ftp --state enabled").status);
    ASSERT_EQ(0, Tool("limit set --user bob --protocol ftp --up 512 --down 1024").status);
    Json preview = ParseJson(Tool("preview --user bob --protocol ftp --json").out);
    EXPECT_EQ("bob", preview["user"].text);
    EXPECT_EQ(524288, preview["upload_speed"].number);
    EXPECT_EQ(1048576, preview["download_speed"].number);
    Result table = Tool("preview --user carol --protocol ftp");
    EXPECT_EQ(0, table.status);
    EXPECT_TRUE(Has(table.out, "unlimited"));
}

TEST_F(CliTest, StatusListsARunningCopyAndEscapesItsFileName)
{
    LimitUser("alice", 64);
    const std::string source = "/tmp/a \"quoted\"\tname\\x";
    vbw::WriteFile(source, std::string(1 << 20, 'x'));
    Running copy({kTool, "copy", "--user", "alice", "--protocol", "ftp", source, "/tmp/copy-out"});

    Json transfers = WaitForTransfers(1, "--user alice");
    ASSERT_EQ(1u, transfers.items.size());
    const Json &t = transfers[0];
    EXPECT_EQ(static_cast<double>(copy.Pid()), t["pid"].number);
    EXPECT_EQ(source, t["filename"].text);
    EXPECT_EQ("alice", t["user"].text);
    EXPECT_EQ("ftp", t["protocol"].text);
    EXPECT_EQ("download", t["direction"].text);
    EXPECT_EQ(65536, t["expect_speed"].number);

    // Filters that exclude it, and the plain table.
    for (const char *filter : {"--direction upload", "--protocol webdav", "--user bob"}) {
        EXPECT_EQ(0u, Transfers(filter).items.size()) << filter;
    }
    EXPECT_TRUE(Has(Tool("status").out, "user alice"));
    EXPECT_TRUE(Has(Tool("status --dump").out, "alice"));

    // --watch without a terminal: plain tables, one per refresh; --count ends it.
    double start = Seconds();
    Result watch = Tool("status --watch --count 2");
    EXPECT_EQ(0, watch.status);
    EXPECT_GE(Seconds() - start, 0.9);
    EXPECT_EQ(2, vbw::Occurrences(watch.out, "--- ")) << watch.out;
    // With --json, one JSON document per line.
    std::istringstream lines(Tool("status --count 2 --json").out);
    int documents = 0;
    for (std::string line; std::getline(lines, line); ++documents) {
        EXPECT_EQ(1u, ParseJson(line)["transfers"].items.size());
    }
    EXPECT_EQ(2, documents);
}

TEST_F(CliTest, StatusWatchEndsOnCtrlC)
{
    Running watch(Words("status --watch"));
    usleep(1500000);
    kill(watch.Pid(), SIGINT);
    Result result = watch.Wait();
    EXPECT_EQ(0, result.status);
    EXPECT_TRUE(Has(result.out, "No running transfers."));
}

TEST_F(CliTest, SimulateHoldsItsLimitAndShowsProgressLines)
{
    LimitUser("carol", 256);
    double start = Seconds();
    Result result = Tool("simulate --user carol --protocol ftp --size 512K");
    double elapsed = Seconds() - start;
    EXPECT_EQ(0, result.status) << result.err;
    // 512 KiB at 256 KB/s: the first chunk goes at once, the other seven take 1.75 s.
    EXPECT_GT(elapsed, 1.5);
    EXPECT_LT(elapsed, 4.0);
    EXPECT_TRUE(Has(result.out, "expected 256.0 KB/s")) << result.out;
    EXPECT_TRUE(Has(result.out, "Done: 0.5 MiB")) << result.out;
    EXPECT_EQ(0u, Transfers().items.size());
}

TEST_F(CliTest, SimulatorIsNamedVeskbandwidthAndReloadsOnHangup)
{
    LimitUser("dave", 32);
    Running simulate(Words("simulate --user dave --protocol ftp --size 100M"));
    const std::string simulator = OnlyTransferPid();
    EXPECT_NE(std::to_string(simulate.Pid()), simulator);
    EXPECT_EQ("veskbandwidth\n", vbw::ReadFile("/proc/" + simulator + "/comm"));

    // Without the hangup the simulator keeps its old limit; after it, the
    // limit is gone and 100 MB finish at once.
    ASSERT_EQ(0, Tool("limit set --user dave --protocol ftp --state disabled").status);
    usleep(300000);
    EXPECT_EQ(1u, WaitForTransfers(1).items.size());
    Result reload = Tool("reload simulators");
    EXPECT_EQ(0, reload.status);
    EXPECT_TRUE(Has(reload.out, "Sent SIGHUP to ")) << reload.out;
    double start = Seconds();
    Result result = simulate.Wait();
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_LT(Seconds() - start, 5.0);
    EXPECT_TRUE(Has(result.out, "Done: 100.0 MiB")) << result.out;
}

TEST_F(CliTest, CtrlCEndsASimulationAndRemovesItsEntries)
{
    ASSERT_EQ(0, Tool("global set --protocol ftp --state enabled --occupy-policy all").status);
    ASSERT_EQ(0, Tool("limit set --group users --protocol ftp --down 64").status);
    Running simulate(Words("simulate --user frank --protocol ftp --size 100M"));
    ASSERT_EQ(2u, WaitForTransfers(2).items.size());  // frank's file and his group's
    kill(-simulate.Pid(), SIGINT);  // the terminal signals the whole job
    Result result = simulate.Wait();
    EXPECT_EQ(130, result.status);
    EXPECT_TRUE(Has(result.out, "Interrupted")) << result.out;
    EXPECT_EQ(0u, Transfers().items.size());
}

TEST_F(CliTest, DeactivateEndsTheTransferAndRemoveClearsItsEntries)
{
    LimitUser("erin", 16);
    Running first(Words("simulate --user erin --protocol ftp --size 100M"));
    std::string pid = OnlyTransferPid();
    Result wrong = Tool("deactivate --user erin --pid 99999");
    EXPECT_EQ(1, wrong.status);
    EXPECT_TRUE(Has(wrong.err, "erin has no running transfer with pid 99999"));
    EXPECT_EQ(1, Tool("deactivate --user alice --pid " + pid).status);  // another user's pid

    Result deactivated = Tool("deactivate --user erin --pid " + pid);
    EXPECT_EQ(0, deactivated.status) << deactivated.err;
    Result ended = first.Wait();  // at 16 KB/s the next chunk ends within 4 s
    EXPECT_EQ(1, ended.status);
    EXPECT_TRUE(Has(ended.err, "deactivated")) << ended.err;
    EXPECT_EQ(0u, Transfers().items.size());

    // remove: the entries are gone until the next chunk, seconds away at 16 KB/s.
    Running second(Words("simulate --user erin --protocol ftp --size 100M"));
    pid = OnlyTransferPid();
    EXPECT_EQ(1, Tool("remove --user erin --pid " + pid + " --direction upload").status);
    Result removed = Tool("remove --user erin --pid " + pid);
    EXPECT_EQ(0, removed.status) << removed.err;
    EXPECT_TRUE(Has(removed.out, "Removed the download of pid " + pid));
    EXPECT_EQ(0u, Transfers().items.size());
}

TEST_F(CliTest, CopyHoldsItsLimitAsPvMeasuresIt)
{
    LimitUser("alice", 512);
    vbw::WriteFile("/tmp/copy-src", std::string(1536 * 1024, 'z'));
    const bool havePv = access("/usr/bin/pv", X_OK) == 0;
    double start = Seconds();
    Result run = Running({"/bin/sh", "-c", havePv ? kTool + " copy --user alice --protocol ftp /tmp/copy-src - | "
                                         "pv -f -n -t -b -i 0.5 2>/tmp/pv.log >/tmp/copy-dst"
                              : kTool + " copy --user alice --protocol ftp /tmp/copy-src /tmp/copy-dst"}).Wait();
    double seconds = Seconds() - start, bytes = 1536.0 * 1024;
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_EQ(vbw::ReadFile("/tmp/copy-src"), vbw::ReadFile("/tmp/copy-dst"));
    if (havePv) {
        // pv's last line: elapsed seconds and bytes through the pipe.
        std::istringstream lines(vbw::ReadFile("/tmp/pv.log"));
        for (std::string line; std::getline(lines, line);) {
            std::istringstream(line) >> seconds >> bytes;
        }
        EXPECT_EQ(1536.0 * 1024, bytes);
    } else {
        std::cerr << "pv is not installed: measured with the test's own clock\n";
    }
    EXPECT_NEAR(512.0, bytes / seconds / 1024, 512.0 * 0.08) << "measured over " << seconds << " s";
}

TEST_F(CliTest, CopyReloadsOnHangupAndReadsStandardInput)
{
    LimitUser("bob", 128);
    vbw::WriteFile("/tmp/copy-src", std::string(2 << 20, 'y'));  // 16 s at 128 KB/s
    Running copy({"/bin/sh", "-c", kTool + " copy --user bob --protocol ftp - /tmp/copy-dst < /tmp/copy-src"});
    Json transfers = WaitForTransfers(1);
    ASSERT_EQ(1u, transfers.items.size());
    EXPECT_EQ("(standard input)", transfers[0]["filename"].text);
    EXPECT_EQ(0, transfers[0]["progress"].number);  // a pipe has no size

    ASSERT_EQ(0, Tool("limit set --user bob --protocol ftp --down 0").status);
    ASSERT_EQ(0, Tool("reload simulators").status);
    double start = Seconds();
    EXPECT_EQ(0, copy.Wait().status);
    EXPECT_LT(Seconds() - start, 4.0);
    EXPECT_EQ(std::string(2 << 20, 'y'), vbw::ReadFile("/tmp/copy-dst"));

    Result missing = Tool("copy --user bob --protocol ftp /tmp/no-such-file /tmp/x");
    EXPECT_EQ(1, missing.status);
    EXPECT_TRUE(Has(missing.err, "cannot open /tmp/no-such-file"));
}

TEST_F(CliTest, ReloadSignalsTheWebDAVServerGroup)
{
    Result none = Tool("reload webdav");
    EXPECT_EQ(1, none.status);
    EXPECT_TRUE(Has(none.err, "WebDAV server is not running"));

    Running server({"/bin/sleep", "30"});  // leads a process group of its own
    vbw::MakeDirs("/run/httpd");
    vbw::WriteFile("/run/httpd/httpd-webdav.pid", std::to_string(server.Pid()) + "\n");
    usleep(100000);
    Result sent = Tool("reload webdav");
    EXPECT_EQ(0, sent.status) << sent.err;
    EXPECT_EQ(128 + SIGUSR2, server.Wait().status);
    EXPECT_EQ(0, Tool("reload lanternpost").status);
    EXPECT_EQ(2, Tool("reload everything").status);
}

TEST_F(CliTest, DemoSharesTheGroupLimitAndKeepsCarolsOwn)
{
    double start = Seconds();
    Result demo = Tool("demo --seconds 3 --json");
    EXPECT_LT(Seconds() - start, 8.0);
    ASSERT_EQ(0, demo.status) << demo.err;
    Json summary = ParseJson(demo.out);
    EXPECT_EQ(1536, summary["group_limit_kbps"].number);
    ASSERT_EQ(3u, summary["transfers"].items.size());
    for (const Json &t : summary["transfers"].items) {
        double average = t["average_kbps"].number;
        EXPECT_GE(average, t["fair_kbps"].number * 0.85) << t["user"].text;
        if (t["user"].text == "carol") {
            EXPECT_EQ(256, t["fair_kbps"].number);
            EXPECT_NEAR(256.0, average, 256.0 * 0.1);
        }
    }
    EXPECT_NEAR(1536.0, summary["aggregate_kbps"].number, 1536.0 * 0.1);
    // The demo ran in a sandbox of its own: nothing of it is left in this one.
    EXPECT_FALSE(vbw::Exists(kGlobalConf));
    EXPECT_FALSE(vbw::Exists("/tmp/bandwidth"));
}

}  // namespace

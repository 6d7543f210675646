// The command-line tool, run as a real program inside the sandbox: every
// command, its wrong arguments, its JSON, live transfers, copy throughput,
// reloads and the demo.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "vbw_test.h"
#include "veskbandwidth.h"

namespace {

const std::string kTool = VBW_BINARY_DIR "/veskbandwidth";
const char kFtpConf[] = "/usr/vesk/etc/bandwidth/bandwidth.ftp.conf";
const char kGlobalConf[] = "/usr/vesk/etc/bandwidth/bandwidth.global.conf";

// ---------------------------------------------------------------------------
// A small strict JSON reader: enough to check that output is valid JSON and
// to read its fields.

struct Json {
    enum Kind { kNull, kBool, kNumber, kString, kArray, kObject } kind = kNull;
    bool boolean = false;
    double number = 0;
    std::string text;
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
    bool Read(Json *out)
    {
        return Value(out) && (Space(), i_ == s_.size());
    }

private:
    void Space()
    {
        while (i_ < s_.size() && std::strchr(" \t\r\n", s_[i_]) != nullptr) {
            ++i_;
        }
    }
    bool Literal(const char *word)
    {
        size_t n = std::strlen(word);
        if (s_.compare(i_, n, word) != 0) {
            return false;
        }
        i_ += n;
        return true;
    }
    bool String(std::string *out)
    {
        if (s_[i_++] != '"') {
            return false;
        }
        while (i_ < s_.size() && s_[i_] != '"') {
            unsigned char c = static_cast<unsigned char>(s_[i_++]);
            if (c < 0x20) {
                return false;
            }
            if (c != '\\') {
                *out += static_cast<char>(c);
                continue;
            }
            if (i_ >= s_.size()) {
                return false;
            }
            char e = s_[i_++];
            const char *from = "\"\\/bfnrt", *to = "\"\\/\b\f\n\r\t";
            if (const char *p = std::strchr(from, e); p != nullptr && e != '\0') {
                *out += to[p - from];
            } else if (e == 'u' && i_ + 4 <= s_.size()) {
                unsigned code = static_cast<unsigned>(std::stoul(s_.substr(i_, 4), nullptr, 16));
                i_ += 4;
                if (code < 0x80) {
                    *out += static_cast<char>(code);
                } else if (code < 0x800) {
                    *out += static_cast<char>(0xC0 | (code >> 6));
                    *out += static_cast<char>(0x80 | (code & 0x3F));
                } else {
                    *out += static_cast<char>(0xE0 | (code >> 12));
                    *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
                    *out += static_cast<char>(0x80 | (code & 0x3F));
                }
            } else {
                return false;
            }
        }
        return i_++ < s_.size();
    }
    template <typename Item> bool Sequence(char close, Item item)
    {
        ++i_;
        Space();
        if (i_ < s_.size() && s_[i_] == close) {
            ++i_;
            return true;
        }
        for (;;) {
            if (!item()) {
                return false;
            }
            Space();
            if (i_ < s_.size() && s_[i_] == ',') {
                ++i_;
                continue;
            }
            return i_ < s_.size() && s_[i_++] == close;
        }
    }
    bool Value(Json *out)
    {
        Space();
        if (i_ >= s_.size()) {
            return false;
        }
        char c = s_[i_];
        if (c == '{') {
            out->kind = Json::kObject;
            return Sequence('}', [&] {
                Space();
                std::string key;
                if (i_ >= s_.size() || !String(&key)) {
                    return false;
                }
                Space();
                return i_ < s_.size() && s_[i_++] == ':' && Value(&out->fields[key]);
            });
        }
        if (c == '[') {
            out->kind = Json::kArray;
            return Sequence(']', [&] {
                out->items.emplace_back();
                return Value(&out->items.back());
            });
        }
        if (c == '"') {
            out->kind = Json::kString;
            return String(&out->text);
        }
        if (Literal("true") || Literal("false")) {
            out->kind = Json::kBool;
            out->boolean = s_[i_ - 1] == 'e' && s_[i_ - 2] == 'u';
            return true;
        }
        if (Literal("null")) {
            return true;
        }
        const char *start = s_.c_str() + i_;
        char *end = nullptr;
        out->kind = Json::kNumber;
        out->number = std::strtod(start, &end);
        i_ += static_cast<size_t>(end - start);
        return end != start;
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

// ---------------------------------------------------------------------------
// Running the tool.

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

int ExitStatus(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// A started program whose output goes to files; Wait() collects it.
class Running {
public:
    explicit Running(const std::vector<std::string> &args)
    {
        static int serial = 0;
        std::string base = "/tmp/cli-run-" + std::to_string(++serial);
        out_ = base + ".out";
        err_ = base + ".err";
        pid_ = fork();
        if (pid_ == 0) {
            int out = open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int err = open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int in = open("/dev/null", O_RDONLY);
            dup2(in, 0);
            dup2(out, 1);
            dup2(err, 2);
            setpgid(0, 0);  // its own group, like a job of a shell
            std::vector<char *> argv;
            for (const std::string &arg : args) {
                argv.push_back(const_cast<char *>(arg.c_str()));
            }
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
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
        Result result;
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        result.status = ExitStatus(status);
        result.out = vbw::ReadFile(out_);
        result.err = vbw::ReadFile(err_);
        return result;
    }

private:
    pid_t pid_ = -1;
    std::string out_, err_;
};

std::vector<std::string> Words(const std::string &command)
{
    std::vector<std::string> args{kTool};
    std::istringstream in(command);
    for (std::string word; in >> word;) {
        args.push_back(word);
    }
    return args;
}

Result Tool(const std::string &command)
{
    return Running(Words(command)).Wait();
}

Result ToolArgs(std::vector<std::string> args)
{
    args.insert(args.begin(), kTool);
    return Running(args).Wait();
}

Result Shell(const std::string &script)
{
    return Running({"/bin/sh", "-c", script}).Wait();
}

double Seconds()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// The transfers that `status --json` lists, polled until `count` are there.
Json WaitForTransfers(size_t count, const std::string &filter = "")
{
    Json transfers;
    for (int attempt = 0; attempt < 50; ++attempt) {
        transfers = ParseJson(Tool("status --json " + filter).out)["transfers"];
        if (transfers.items.size() >= count) {
            break;
        }
        usleep(100000);
    }
    return transfers;
}

class CliTest : public vbw::SandboxTest {
protected:
    // Limiting on for ftp, and a download limit of the given user.
    void LimitUser(const std::string &user, unsigned downKBps)
    {
        ASSERT_EQ(0, Tool("global set --protocol ftp --state enabled").status);
        ASSERT_EQ(0, Tool("limit set --user " + user + " --protocol ftp --down " + std::to_string(downKBps)).status);
    }
};

// ---------------------------------------------------------------------------

TEST_F(CliTest, HelpDescribesEveryCommand)
{
    Result overview = Tool("--help");
    EXPECT_EQ(0, overview.status);
    for (const char *command : {"limit set", "limit show", "global set", "global show", "status", "preview",
                                "deactivate", "remove", "reload", "simulate", "copy", "demo"}) {
        EXPECT_NE(std::string::npos, overview.out.find(std::string("  ") + command)) << command;
        Result help = Tool(std::string(command) + " --help");
        EXPECT_EQ(0, help.status) << command;
        EXPECT_EQ(0u, help.out.find(std::string("usage: veskbandwidth ") + command)) << help.out;
    }
    EXPECT_NE(std::string::npos, Tool("limit set --help").out.find("mon-fri 09-18=custom"));

    Result unknown = Tool("frobnicate");
    EXPECT_EQ(2, unknown.status);
    EXPECT_NE(std::string::npos, unknown.err.find("unknown command 'frobnicate'"));
    EXPECT_EQ(2, Tool("limit").status);
}

TEST_F(CliTest, LimitSetStoresWhatLimitShowReads)
{
    Result set = ToolArgs({"limit", "set", "--user", "alice", "--protocol", "ftp", "--up", "512", "--down", "1024",
                    "--custom-down", "100", "--schedule", "mon-fri 09-18=custom sat,sun=off"});
    ASSERT_EQ(0, set.status) << set.err;

    std::string plan(168, '1');
    for (int day = 0; day < 7; ++day) {
        for (int hour = 0; hour < 24; ++hour) {
            if (day == 0 || day == 6) {
                plan[day * 24 + hour] = '0';
            } else if (hour >= 9 && hour < 18) {
                plan[day * 24 + hour] = '2';
            }
        }
    }
    // What the library reads back is what the tool stored.
    VESK_BANDWIDTH_CONF conf = {};
    ASSERT_EQ(0, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, &conf));
    EXPECT_EQ(VESK_BW_STATE_SCHEDULE, conf.iState);
    EXPECT_EQ(512u, conf.ullRate[VESK_BW_TRANSFER_UPLOAD]);
    EXPECT_EQ(1024u, conf.ullRate[VESK_BW_TRANSFER_DOWNLOAD]);
    EXPECT_EQ(100u, conf.ullCustomRate[VESK_BW_TRANSFER_DOWNLOAD]);
    EXPECT_EQ(plan, conf.szSchedulePlan);

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
    EXPECT_EQ(plan, alice["schedule_plan"].text);
    EXPECT_EQ("group", staff["owner_type"].text);
    EXPECT_EQ("disabled", staff["state"].text);

    // The grid shows custom hours from 09 to 18 on weekdays, no limit at weekends.
    Result shown = Tool("limit show --user alice --protocol ftp");
    EXPECT_NE(std::string::npos, shown.out.find("  Mon  #########+++++++++######\n")) << shown.out;
    EXPECT_NE(std::string::npos, shown.out.find("  Sun  ........................\n")) << shown.out;
    // The library's own layout.
    EXPECT_NE(std::string::npos, Tool("limit show --dump --protocol ftp").out.find("U/L rate(KB/s)"));
}

TEST_F(CliTest, ReadableSchedulesWrapListAndOverride)
{
    auto storedPlan = [](const std::vector<std::string> &args) {
        Result set = ToolArgs(args);
        EXPECT_EQ(0, set.status) << set.err;
        return ParseJson(Tool("limit show --user carol --protocol rsync --json").out)["limits"][0]["schedule_plan"].text;
    };
    // Later rules win; 22-06 wraps within the day; fri-mon wraps over the week.
    std::string plan = storedPlan({"limit", "set", "--user", "carol", "--protocol", "rsync", "--schedule",
                                   "all=off mon,wed 22-06,12=custom fri-mon 00-24=normal"});
    std::string expected(168, '0');
    for (int hour : {0, 1, 2, 3, 4, 5, 12, 22, 23}) {
        expected[3 * 24 + hour] = '2';  // Wednesday
    }
    for (int day : {0, 1, 5, 6}) {
        expected.replace(day * 24, 24, 24, '1');
    }
    EXPECT_EQ(expected, plan);

    // Hours alone apply to every day; a raw plan of 168 digits is stored as given.
    plan = storedPlan({"limit", "set", "--user", "carol", "--protocol", "rsync", "--schedule", "23=off"});
    for (int day = 0; day < 7; ++day) {
        EXPECT_EQ(std::string(23, '1') + "0", plan.substr(day * 24, 24));
    }
    std::string raw;
    for (int i = 0; i < 168; ++i) {
        raw += static_cast<char>('0' + i % 3);
    }
    EXPECT_EQ(raw, storedPlan({"limit", "set", "--user", "carol", "--protocol", "rsync", "--schedule", raw}));
}

TEST_F(CliTest, WrongArgumentsSayWhatIsWrongAndChangeNothing)
{
    ASSERT_EQ(0, Tool("limit set --user alice --protocol ftp --down 100").status);
    ASSERT_EQ(0, Tool("global set --protocol ftp --state enabled").status);
    const std::string limitsBefore = vbw::ReadFile(kFtpConf);
    const std::string globalBefore = vbw::ReadFile(kGlobalConf);

    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"limit", "set", "--user", "mallory", "--protocol", "ftp", "--down", "5"}, "unknown user 'mallory'"},
        {{"limit", "set", "--group", "wheel", "--protocol", "ftp", "--down", "5"}, "unknown group 'wheel'"},
        {{"limit", "set", "--user", "alice", "--protocol", "gopher", "--down", "5"}, "unknown protocol 'gopher'"},
        {{"limit", "set", "--user", "alice", "--protocol", "all", "--down", "5"}, "protocol 'all' is not allowed"},
        {{"limit", "set", "--user", "alice", "--protocol", "ftp", "--state", "Enabled"}, "unknown state 'Enabled'"},
        {{"limit", "set", "--user", "alice", "--protocol", "ftp", "--down", "12k"}, "--down must be a whole number"},
        {{"limit", "set", "--user", "alice", "--protocol", "ftp", "--down", "-1"}, "--down must be a whole number"},
        {{"limit", "set", "--user", "alice", "--protocol", "ftp", "--down", "99999999999999999999999"},
         "is too large"},
        {{"limit", "set", "--user", "alice", "--protocol", "ftp", "--down", "5", "--schedule", "mon-fri 25=off"},
         "malformed schedule: bad hour '25'"},
        {{"limit", "set", "--user", "alice", "--protocol", "ftp", "--schedule", "mon-fry=off"},
         "malformed schedule: unknown day 'fry'"},
        {{"limit", "set", "--user", "alice", "--protocol", "ftp", "--schedule", "mon-fri"},
         "must be followed by HOURS=VALUE"},
        {{"limit", "set", "--user", "alice", "--protocol", "ftp", "--schedule", "0101"}, "168 hour digits"},
        {{"limit", "set", "--user", "alice", "--protocol", "ftp", "--schedule", "sat=fast"}, "unknown value 'fast'"},
        {{"limit", "set", "--user", "alice", "--group", "users", "--protocol", "ftp", "--down", "5"},
         "exactly one owner"},
        {{"limit", "set", "--user", "alice", "--protocol", "ftp"}, "nothing to set"},
        {{"limit", "set", "--user", "alice", "--protocol", "ftp", "--speed", "5"}, "unknown option --speed"},
        {{"global", "set", "--protocol", "ftp", "--user-group-policy", "fair"}, "unknown user-group policy 'fair'"},
        {{"global", "set", "--protocol", "ftp", "--inter-group-policy", "user-first"},
         "unknown inter-group policy 'user-first'"},
        {{"global", "set", "--protocol", "ftp", "--occupy-policy", "some"}, "unknown occupy policy 'some'"},
        {{"global", "set", "--protocol", "ftp", "--schedule", "mon=custom"}, "global schedule's hours are on or off"},
        {{"global", "set", "--state", "enabled"}, "missing --protocol"},
        {{"preview", "--user", "alice", "--protocol", "all"}, "protocol 'all' is not allowed"},
        {{"simulate", "--user", "alice", "--protocol", "ftp", "--size", "ten"}, "size must be a number"},
        {{"simulate", "--user", "alice", "--protocol", "ftp", "--direction", "sideways", "--size", "1M"},
         "unknown direction 'sideways'"},
        {{"status", "--user", "mallory"}, "unknown user 'mallory'"},
        {{"deactivate", "--user", "alice", "--pid", "abc"}, "--pid must be a whole number"},
        {{"copy", "--user", "alice", "--protocol", "ftp", "/tmp/only-one"}, "missing SRC and DST"},
        {{"demo", "--seconds", "0"}, "seconds must lie between"},
    };
    for (const auto &[args, message] : cases) {
        Result result = ToolArgs(args);
        EXPECT_EQ(2, result.status) << args[0] << " " << message;
        EXPECT_NE(std::string::npos, result.err.find(message)) << result.err;
        EXPECT_EQ("", result.out) << result.out;
    }
    EXPECT_EQ(limitsBefore, vbw::ReadFile(kFtpConf));
    EXPECT_EQ(globalBefore, vbw::ReadFile(kGlobalConf));
    EXPECT_FALSE(vbw::Exists("/usr/vesk/etc/bandwidth/bandwidth.webdav.conf"));
}

TEST_F(CliTest, GlobalSetKeepsWhatItDoesNotName)
{
    ASSERT_EQ(0, Tool("global set --protocol webdav --state enabled --user-group-policy min").status);
    ASSERT_EQ(0, ToolArgs({"global", "set", "--protocol", "webdav", "--occupy-policy", "weighted", "--schedule",
                           "all=off mon-fri 08-20=on"})
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
    Result dump = Tool("global show --dump --protocol webdav");
    EXPECT_NE(std::string::npos, dump.out.find("UserGroupPolicy"));
    EXPECT_NE(std::string::npos, dump.out.find("weighted"));
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
    EXPECT_NE(std::string::npos, table.out.find("unlimited"));
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
    EXPECT_EQ(0u, ParseJson(Tool("status --json --direction upload").out)["transfers"].items.size());
    EXPECT_EQ(0u, ParseJson(Tool("status --json --protocol webdav").out)["transfers"].items.size());
    EXPECT_EQ(0u, ParseJson(Tool("status --json --user bob").out)["transfers"].items.size());
    Result table = Tool("status");
    EXPECT_NE(std::string::npos, table.out.find("user alice")) << table.out;
    EXPECT_NE(std::string::npos, Tool("status --dump").out.find("alice"));

    // --watch without a terminal: plain tables, one per refresh; --count ends it.
    double start = Seconds();
    Result watch = Tool("status --watch --count 2");
    EXPECT_EQ(0, watch.status);
    EXPECT_GE(Seconds() - start, 0.9);
    size_t first = watch.out.find("--- ");
    EXPECT_NE(std::string::npos, first);
    EXPECT_NE(std::string::npos, watch.out.find("--- ", first + 1)) << watch.out;
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
    EXPECT_NE(std::string::npos, result.out.find("No running transfers."));
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
    EXPECT_NE(std::string::npos, result.out.find("expected 256.0 KB/s")) << result.out;
    EXPECT_NE(std::string::npos, result.out.find("Done: 0.5 MiB")) << result.out;
    EXPECT_EQ(0u, WaitForTransfers(0).items.size());
}

TEST_F(CliTest, SimulatorIsNamedVeskbandwidthAndReloadsOnHangup)
{
    LimitUser("dave", 32);
    Running simulate(Words("simulate --user dave --protocol ftp --size 100M"));
    Json transfers = WaitForTransfers(1);
    ASSERT_EQ(1u, transfers.items.size());
    pid_t simulator = static_cast<pid_t>(transfers[0]["pid"].number);
    EXPECT_NE(simulate.Pid(), simulator);
    EXPECT_EQ("veskbandwidth\n", vbw::ReadFile("/proc/" + std::to_string(simulator) + "/comm"));

    // Without the hangup the simulator keeps its old limit; after it, the
    // limit is gone and 100 MB finish at once.
    ASSERT_EQ(0, Tool("limit set --user dave --protocol ftp --state disabled").status);
    usleep(300000);
    EXPECT_EQ(1u, WaitForTransfers(1).items.size());
    Result reload = Tool("reload simulators");
    EXPECT_EQ(0, reload.status);
    EXPECT_NE(std::string::npos, reload.out.find("Sent SIGHUP to ")) << reload.out;
    double start = Seconds();
    Result result = simulate.Wait();
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_LT(Seconds() - start, 5.0);
    EXPECT_NE(std::string::npos, result.out.find("Done: 100.0 MiB"));
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
    EXPECT_NE(std::string::npos, result.out.find("Interrupted")) << result.out;
    EXPECT_EQ(0u, ParseJson(Tool("status --json").out)["transfers"].items.size());
}

TEST_F(CliTest, DeactivateEndsTheTransferAndRemoveClearsItsEntries)
{
    LimitUser("erin", 16);
    Running first(Words("simulate --user erin --protocol ftp --size 100M"));
    Json transfers = WaitForTransfers(1);
    ASSERT_EQ(1u, transfers.items.size());
    std::string pid = std::to_string(static_cast<long>(transfers[0]["pid"].number));

    Result wrong = Tool("deactivate --user erin --pid 99999");
    EXPECT_EQ(1, wrong.status);
    EXPECT_NE(std::string::npos, wrong.err.find("erin has no running transfer with pid 99999"));
    EXPECT_EQ(1, Tool("deactivate --user alice --pid " + pid).status);  // another user's pid

    Result deactivated = Tool("deactivate --user erin --pid " + pid);
    EXPECT_EQ(0, deactivated.status) << deactivated.err;
    Result ended = first.Wait();  // at 16 KB/s the next chunk ends within 4 s
    EXPECT_EQ(1, ended.status);
    EXPECT_NE(std::string::npos, ended.err.find("deactivated")) << ended.err;
    EXPECT_EQ(0u, ParseJson(Tool("status --json").out)["transfers"].items.size());

    // remove: the entries are gone until the next chunk, seconds away at 16 KB/s.
    Running second(Words("simulate --user erin --protocol ftp --size 100M"));
    transfers = WaitForTransfers(1);
    ASSERT_EQ(1u, transfers.items.size());
    pid = std::to_string(static_cast<long>(transfers[0]["pid"].number));
    EXPECT_EQ(1, Tool("remove --user erin --pid " + pid + " --direction upload").status);
    Result removed = Tool("remove --user erin --pid " + pid);
    EXPECT_EQ(0, removed.status) << removed.err;
    EXPECT_NE(std::string::npos, removed.out.find("Removed the download of pid " + pid));
    EXPECT_EQ(0u, ParseJson(Tool("status --json").out)["transfers"].items.size());
}

TEST_F(CliTest, CopyHoldsItsLimitAsPvMeasuresIt)
{
    LimitUser("alice", 512);
    vbw::WriteFile("/tmp/copy-src", std::string(1536 * 1024, 'z'));
    const bool havePv = access("/usr/bin/pv", X_OK) == 0;
    double start = Seconds();
    Result run = Shell(havePv ? kTool + " copy --user alice --protocol ftp /tmp/copy-src - | "
                                         "pv -f -n -t -b -i 0.5 2>/tmp/pv.log >/tmp/copy-dst"
                              : kTool + " copy --user alice --protocol ftp /tmp/copy-src /tmp/copy-dst");
    double elapsed = Seconds() - start;
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_EQ(vbw::ReadFile("/tmp/copy-src"), vbw::ReadFile("/tmp/copy-dst"));

    double seconds = elapsed, bytes = 1536.0 * 1024;
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
    double kbps = bytes / seconds / 1024;
    EXPECT_NEAR(512.0, kbps, 512.0 * 0.08) << "measured over " << seconds << " s";
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
    EXPECT_NE(std::string::npos, missing.err.find("cannot open /tmp/no-such-file"));
}

TEST_F(CliTest, ReloadSignalsTheWebDAVServerGroup)
{
    Result none = Tool("reload webdav");
    EXPECT_EQ(1, none.status);
    EXPECT_NE(std::string::npos, none.err.find("WebDAV server is not running"));

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

// The command-line tool, run as a real program inside the sandbox: arguments
// and conventions, the traps, other users, hostile names, transfers, the demo.
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <iomanip>
#include <sstream>

#include "json.h"
#include "vbw_test.h"

namespace {

using vbw::Has;
using vbw::Json;

const std::string kTool = VBW_BINARY_DIR "/veskbandwidth";
const std::string kFtpConf = "/usr/vesk/etc/bandwidth/bandwidth.ftp.conf";
const char kGlobalConf[] = "/usr/vesk/etc/bandwidth/bandwidth.global.conf";
const uid_t kAlice = 1026, kErin = 1030;  // fixture accounts, both in group users (100)

Json ParseJson(const std::string &text)
{
    Json value;
    EXPECT_TRUE(vbw::ReadJson(text, &value)) << "not valid JSON: " << text;
    return value;
}

struct Result {
    int status = -1;
    std::string out, err;
};

// A started program in a process group of its own, like a job of a shell,
// run as root or as `uid`, whose output goes to files; Wait() collects it.
class Running {
public:
    explicit Running(const std::vector<std::string> &args, uid_t uid = 0)
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
            if (uid != 0 && (setgroups(0, nullptr) != 0 || setgid(100) != 0 || setuid(uid) != 0)) {
                return 126;
            }
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
        waitpid(std::exchange(pid_, -1), &status, 0);
        int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return {code, vbw::ReadFile(out_), vbw::ReadFile(err_)};
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

Result Tool(const std::string &command, uid_t uid = 0)
{
    return Running(Words(command), uid).Wait();
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

class CliTest : public vbw::SandboxTest {
protected:
    // Limiting on for ftp, and a download limit of the given user.
    void LimitUser(const std::string &user, unsigned downKiB)
    {
        ASSERT_EQ(0, Tool("global set --protocol ftp --state enabled").status);
        ASSERT_EQ(0, Tool("limit set --user " + user + " --protocol ftp --down " + std::to_string(downKiB)).status);
    }
    // The pid of the one transfer listed, as text.
    std::string OnlyTransferPid()
    {
        Json transfers = WaitForTransfers(1);
        EXPECT_EQ(1u, transfers.items.size());
        return transfers.items.empty() ? "0" : std::to_string(static_cast<long>(transfers[0]["pid"].number));
    }
};

TEST_F(CliTest, LimitSetStoresWhatLimitShowReads)
{
    Result set = Tool("limit set --user alice --protocol ftp --up 512 --down 1024 --custom-down 100 "
                      "--schedule 'mon-fri 09-18=custom sat,sun=off'");
    ASSERT_EQ(0, set.status) << set.err;
    const std::string weekday = std::string(9, '1') + std::string(9, '2') + std::string(6, '1'), weekend(24, '0');
    const std::string plan = weekend + weekday + weekday + weekday + weekday + weekday + weekend;
    // A later set changes only what it names; a user may be named by the uid.
    ASSERT_EQ(0, Tool("limit set --user 1026 --protocol ftp --up 64").status);
    Json alice = ParseJson(Tool("limit show --protocol ftp --json").out)["limits"][0];
    EXPECT_EQ("schedule", alice["state"].text);
    EXPECT_EQ(64 * 1024, alice["upload_rate_bytes_s"].number);
    EXPECT_EQ(1024 * 1024, alice["download_rate_bytes_s"].number);
    EXPECT_EQ(100 * 1024, alice["download_rate_custom_bytes_s"].number);
    EXPECT_EQ(plan, alice["schedule_plan"].text);

    // The grid shows custom hours from 09 to 18 on weekdays, no limit at weekends.
    Result shown = Tool("limit show --user alice --protocol ftp");
    EXPECT_TRUE(Has(shown.out, "  Mon  #########+++++++++######\n")) << shown.out;

    // limit remove deletes the record, and says so when there is none.
    EXPECT_EQ(0, Tool("limit remove --user alice --protocol ftp").status);
    EXPECT_TRUE(Has(Tool("limit show --protocol ftp").out, "No limits are configured."));
    EXPECT_TRUE(Has(Tool("limit remove --user alice --protocol ftp").err, "user alice has no ftp limit"));

    // Readable schedules: later rules win; 22-06 wraps within the day; fri-mon
    // wraps over the week; hours alone apply to every day; a raw plan of 168
    // digits is stored as given.
    auto storedPlan = [](const std::string &schedule) {
        Result set = Tool("limit set --user carol --protocol rsync --schedule " + schedule);
        EXPECT_EQ(0, set.status) << set.err;
        return ParseJson(Tool("limit show --user carol --protocol rsync --json").out)["limits"][0]["schedule_plan"]
            .text;
    };
    EXPECT_EQ(std::string(48, '1') + std::string(24, '0') + "222222000000200000000022" + std::string(24, '0') +
                  std::string(48, '1'),
              storedPlan("'all=off mon,wed 22-06,12=custom fri-mon 00-24=normal'"));
    const std::string raw = std::string(56, '0') + std::string(56, '1') + std::string(56, '2');
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
        {"stauts", "unknown command 'stauts'; did you mean 'status'?"},
        {"limit shwo", "limit needs set, show or remove, not 'shwo'; did you mean 'show'?"},
        {"limit set --user mallory --protocol ftp --down 5", "unknown user 'mallory'"},
        {set + "--state Enabld", "unknown state 'Enabld' (known: NotExisted, enabled, disabled, schedule); did you "
                                 "mean 'enabled'?"},
        {set + "--dwon 5", "unknown option --dwon; did you mean '--down'?"},
        {set + "--down 5 --schedule 'mon-fri 25=off'", "malformed schedule: bad hour '25'"},
        {set, "nothing to set"},
        {"global set --protocol ftp --inter-group-policy user-first", "unknown inter-group policy 'user-first'"},
        {"simulate -u alice -p ftp --size ten", "size must be a number"},
        {"deactivate --user alice --pid abc", "--pid must be a whole number"},
        {"remove --pid 5 --all", "give either --pid PID or --user NAME --all"},
        {"copy --user alice --protocol ftp /tmp/only-one", "missing SRC and DST"},
        {"reload ftp", "ftp has no reload to send. Running ftp transfers that use the transfer session"},
    };
    for (const auto &[command, message] : cases) {
        Result result = Tool(command);
        EXPECT_EQ(2, result.status) << command;
        EXPECT_TRUE(Has(result.err, message)) << command << ": " << result.err;
        EXPECT_EQ("", result.out) << result.out;
    }
    EXPECT_EQ(limitsBefore, vbw::ReadFile(kFtpConf));
    EXPECT_EQ(globalBefore, vbw::ReadFile(kGlobalConf));
}

TEST_F(CliTest, RatesNamesAndOptionsFollowRsyncAndFriends)
{
    // Rates as rsync's --bwlimit takes them: KiB/s by default, 1024-based
    // units, 1000-based ones with B, bytes, /s; rounded to whole KiB/s.
    const std::pair<const char *, double> rates[] = {{"512", 512},     {"512K", 512},    {"1.5M", 1536},
                                                     {"10MiB", 10240}, {"2000KB", 1953}, {"1024B/s", 1},
                                                     {"Unlimited", 0}, {"1T", 1 << 30}};
    for (const auto &[rate, kib] : rates) {
        ASSERT_EQ(0, Tool(std::string("limit set -u alice -p ftp --down ") + rate).status) << rate;
        Json limit = ParseJson(Tool("limit show -u alice -p ftp --json").out)["limits"][0];
        EXPECT_EQ(kib * 1024, limit["download_rate_bytes_s"].number) << rate;
    }
    const std::pair<const char *, const char *> refused[] = {
        {"2T", "at most 1T"}, {"100B", "below 1 KiB/s"}, {"-1", "not a rate"}, {"18014398509481985", "too large"}};
    for (const auto &[rate, message] : refused) {
        Result result = Tool(std::string("limit set -u alice -p ftp --down ") + rate);
        EXPECT_EQ(2, result.status) << rate;
        EXPECT_TRUE(Has(result.err, message)) << rate << ": " << result.err;
    }

    // Names in any case, help for a command, the version.
    ASSERT_EQ(0, Tool("global set -p FTP --state ENABLED --user-group-policy Min --occupy-policy weighted").status);
    Json global = ParseJson(Tool("global show -p ftp --json").out)["globals"][0];
    EXPECT_EQ("enabled", global["state"].text);
    EXPECT_EQ("min", global["user_group_policy"].text);
    EXPECT_EQ(Tool("limit set --help").out, Tool("help limit set").out);
    EXPECT_TRUE(Has(Tool("help limit set").out, "512K, 1.5M, 10MiB"));
    EXPECT_EQ(0u, Tool("--version").out.find("veskbandwidth 6."));
}

TEST_F(CliTest, ALimitOfAProtocolWithLimitingOffIsReportedNotApplied)
{
    // A fresh appliance: no global settings, so limits do nothing yet.
    Result set = Tool("limit set -u bob -p ftp --up 512 --down 1M");
    EXPECT_EQ(0, set.status);
    EXPECT_TRUE(Has(set.err, "limiting is off for ftp")) << set.err;
    EXPECT_TRUE(Has(set.err, "veskbandwidth global set --protocol ftp --state enabled")) << set.err;
    Json shown = ParseJson(Tool("limit show -u bob -p ftp --json").out)["limits"][0];
    EXPECT_EQ("false", shown["applied"].text);
    EXPECT_TRUE(Has(shown["note"].text, "not applied: limiting is off for ftp")) << shown["note"].text;
    Json preview = ParseJson(Tool("preview -u bob -p ftp --json").out);
    EXPECT_EQ(0, preview["download_bytes_s"].number);  // what a transfer really gets: no limit
    EXPECT_EQ(1048576, preview["configured_download_bytes_s"].number);

    ASSERT_EQ(0, Tool("global set -p ftp --state enabled").status);
    preview = ParseJson(Tool("preview -u bob -p ftp --json").out);
    EXPECT_EQ(524288, preview["upload_bytes_s"].number);
    EXPECT_EQ(1048576, preview["download_bytes_s"].number);
    EXPECT_EQ("true", ParseJson(Tool("limit show -u bob -p ftp --json").out)["limits"][0]["applied"].text);
}

TEST_F(CliTest, DamagedConfigurationIsAnErrorNamingItsFileAndLine)
{
    ASSERT_EQ(0, Tool("limit set -u alice -p ftp --down 512").status);
    const std::pair<std::string, std::string> damages[] = {
        {std::string("\x8f\x01 \0\xff[x\n=\x13\x9c\n", 11), ":1: holds a NUL byte"},
        {"[user-1026]\nstate=banana\n", ":2: state 'banana' is not one of NotExisted, enabled, disabled, schedule"},
        {"[user-1026\nstate=enabled\ndownload rate=512\n", ":1: is no [section] header"},
        {"[user-1026]\nstate=enabled\ndownload rate=-1\n", ":3: download rate '-1' is not a whole number"},
        {"[user-1026]\nstate=schedule\nschedule plan=0101\n", ":3: schedule plan has 4 of the week's 168 hours"},
    };
    for (const auto &[text, message] : damages) {
        vbw::WriteFile(kFtpConf, text);
        Result shown = Tool("limit show");
        EXPECT_EQ(1, shown.status) << text;
        EXPECT_TRUE(Has(shown.err, kFtpConf + message)) << shown.err;
        EXPECT_EQ(1, Tool("preview -u alice -p ftp").status) << text;
    }
    // A change would keep a value the library misreads: refused, file untouched.
    EXPECT_EQ(1, Tool("limit set -u alice -p ftp --up 5").status);
    EXPECT_EQ(damages[4].first, vbw::ReadFile(kFtpConf));
    EXPECT_EQ(0, Tool("limit set -u alice -p ftp --schedule all=normal").status);
    EXPECT_EQ(0, Tool("limit show").status);
}

TEST_F(CliTest, StatusListsOneRowPerTransferWithTheLimitsItCountsAgainst)
{
    ASSERT_EQ(0, Tool("global set -p ftp --state enabled --occupy-policy all").status);
    ASSERT_EQ(0, Tool("limit set -g users -p ftp --down 64").status);
    const std::string source = "/tmp/a \"quoted\"\tname\\x";
    vbw::WriteFile(source, std::string(1 << 20, 'x'));
    Running copy({kTool, "copy", "--user", "alice", "--protocol", "ftp", source, "/tmp/copy-out"});

    // Each pass takes the group's copy out and writes it again: wait for both files.
    Json all, t;
    auto both = [&] { return (all = Transfers()).items.size() == 1 && (t = all[0])["limits"].items.size() == 2; };
    ASSERT_TRUE(vbw::WaitUntil(both, 5000));
    EXPECT_EQ(static_cast<double>(copy.Pid()), t["pid"].number);
    EXPECT_EQ(source, t["filename"].text);
    EXPECT_EQ(65536, t["expect_speed_bytes_s"].number);
    EXPECT_EQ("users", t["limits"][1]["owner"].text);
    const std::string pid = std::to_string(copy.Pid());

    for (const char *filter : {"--direction upload", "--protocol webdav", "--user bob"}) {
        EXPECT_EQ(0u, Transfers(filter).items.size()) << filter;
    }
    Result metrics = Tool("status --prometheus");
    const std::string labels = "{user=\"alice\",protocol=\"ftp\",direction=\"download\",pid=\"" + pid + "\"}";
    EXPECT_TRUE(Has(metrics.out, "veskbandwidth_transfer_allowed_speed_bytes" + labels + " 65536\n")) << metrics.out;
    EXPECT_TRUE(Has(metrics.out, "veskbandwidth_limit_bytes{owner_type=\"group\",owner=\"users\",protocol=\"ftp\","
                                 "direction=\"download\"} 65536\n"));

    // --watch without a terminal: plain tables with sparklines, cut to $COLUMNS
    // (the file name lies past column 60); with --json, one document a line.
    Result watch = Running({"/usr/bin/env", "COLUMNS=60", kTool, "status", "--watch", "--count", "2"}).Wait();
    EXPECT_EQ(2, vbw::Occurrences(watch.out, "--- ")) << watch.out;
    EXPECT_TRUE(Has(watch.out, "RECENT") && !Has(watch.out, "/tmp/a")) << watch.out;
    EXPECT_EQ(2, vbw::Occurrences(Tool("status --count 2 --json").out, "\"pid\":" + pid));
}

TEST_F(CliTest, ForgedNamesAreEscapedAndBadFilesSkipped)
{
    vbw::MakeDirs("/tmp/bandwidth/user-1030");  // not a status file anyone can read
    vbw::WriteFile("/tmp/bandwidth/user-1029",
                   "[4242-2]\npid=4242\nid=1029\nuid=1029\nactive=1\ntimestamp=" + std::to_string(time(nullptr)) +
                       "\ncurrent speed=1\nexpect speed=2\nfilename=evil\x1b[2J\x1b]0;owned\x07\nowner type=user\n"
                       "protocol type=ftp\ntransfer type=download\nprogress=0\n");
    for (const char *command : {"status", "status --by-file", "status --dump"}) {
        Result result = Tool(command);
        EXPECT_EQ(0, result.status) << command;
        EXPECT_TRUE(Has(result.out, "evil\\x1b[2J\\x1b]0;owned\\x07")) << command << ": " << result.out;
        EXPECT_FALSE(Has(result.out, "\x1b")) << command;
        EXPECT_TRUE(Has(result.err, "cannot read /tmp/bandwidth/user-1030")) << command << ": " << result.err;
    }
}

TEST_F(CliTest, ReloadSimulatorsReachesOnlyItsOwnMountNamespace)
{
    LimitUser("dave", 32);
    EXPECT_EQ(1, Tool("reload simulators").status);  // nothing runs yet
    Running simulate(Words("simulate --user dave --protocol ftp --size 100M"));
    const std::string simulator = OnlyTransferPid();
    EXPECT_EQ("veskbandwidth\n", vbw::ReadFile("/proc/" + simulator + "/comm"));
    // Two stand-ins named veskbandwidth: one here, one in a mount namespace of
    // its own, as in another container, whose /tmp/bandwidth is not ours.
    vbw::MakeDirs("/tmp/bin");
    vbw::WriteFile("/tmp/bin/veskbandwidth", vbw::ReadFile("/bin/sleep"), 0755);
    Running here({"/tmp/bin/veskbandwidth", "30"});
    Running elsewhere({"/usr/bin/unshare", "--mount", "/tmp/bin/veskbandwidth", "30"});
    ASSERT_TRUE(vbw::WaitUntil(
        [&] { return Has(vbw::ReadFile("/proc/" + std::to_string(elsewhere.Pid()) + "/comm"), "veskbandwidth"); },
        5000));

    ASSERT_EQ(0, Tool("limit set --user dave --protocol ftp --state disabled").status);
    Result reload = Tool("reload simulators");
    EXPECT_EQ(0, reload.status) << reload.err;
    EXPECT_TRUE(Has(reload.out, simulator)) << reload.out;
    EXPECT_EQ(128 + SIGHUP, here.Wait().status);
    EXPECT_FALSE(vbw::WaitUntil([&] { return waitpid(elsewhere.Pid(), nullptr, WNOHANG) != 0; }, 300));  // asleep
    // Reloaded, the simulator has no limit any more: 100 MiB finish at once.
    Result result = simulate.Wait();
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(Has(result.out, "Done: 100.0 MiB")) << result.out;
}

TEST_F(CliTest, CtrlCEndsASimulationAndRemovesItsEntries)
{
    ASSERT_EQ(0, Tool("global set --protocol ftp --state enabled --occupy-policy all").status);
    ASSERT_EQ(0, Tool("limit set --group users --protocol ftp --down 64").status);
    Running simulate(Words("simulate --user frank --protocol ftp --size 100M"));
    ASSERT_EQ(2u, WaitForTransfers(2, "--by-file").items.size());  // frank's file and his group's
    kill(-simulate.Pid(), SIGINT);                                 // the terminal signals the whole job
    Result result = simulate.Wait();
    EXPECT_EQ(130, result.status);
    EXPECT_TRUE(Has(result.out, "Interrupted")) << result.out;
    EXPECT_EQ(0u, Transfers("--by-file").items.size());
}

TEST_F(CliTest, OnlyRootAndTheOwnerActOnATransfer)
{
    LimitUser("erin", 16);
    Running first(Words("simulate --user erin --protocol ftp --size 100M"));
    std::string pid = OnlyTransferPid();
    for (const std::string &command : {"deactivate --user erin --pid " + pid, "remove --user erin --pid " + pid}) {
        Result refused = Tool(command, kAlice);
        EXPECT_EQ(1, refused.status) << command;
        EXPECT_TRUE(Has(refused.err, "permission denied: pid " + pid + " is a transfer of user erin")) << refused.err;
    }
    EXPECT_EQ("true", WaitForTransfers(1)[0]["active"].text);

    Result deactivated = Tool("deactivate --pid " + pid, kErin);
    EXPECT_EQ(0, deactivated.status) << deactivated.err;
    Result ended = first.Wait();  // at 16 KiB/s the next chunk ends within 4 s
    EXPECT_EQ(1, ended.status);
    EXPECT_TRUE(Has(ended.err, "deactivated")) << ended.err;
    EXPECT_EQ(0u, Transfers().items.size());

    // remove: the entries are gone until the next chunk, seconds away at 16 KiB/s.
    Running second(Words("simulate --user erin --protocol ftp --size 100M"));
    pid = OnlyTransferPid();
    EXPECT_EQ(1, Tool("remove --user erin --pid " + pid + " --direction upload").status);
    Result removed = Tool("remove --pid " + pid);
    EXPECT_EQ(0, removed.status) << removed.err;
    EXPECT_TRUE(Has(removed.out, "Removed the download of pid " + pid));
    EXPECT_TRUE(Has(removed.err, "still runs: its entries come back at its next chunk")) << removed.err;
    EXPECT_TRUE(Has(removed.err, "use: veskbandwidth deactivate --pid " + pid)) << removed.err;
    EXPECT_EQ(0u, Transfers().items.size());
}

TEST_F(CliTest, CopyRefusesToWriteOverItsSource)
{
    vbw::WriteFile("/tmp/F", "precious");
    ASSERT_EQ(0, symlink("/tmp/F", "/tmp/L"));
    vbw::MakeDirs("/tmp/D");
    for (const char *destination : {"/tmp/F", "/tmp/L"}) {
        Result result = Tool(std::string("copy -u dave -p ftp /tmp/F ") + destination);
        EXPECT_EQ(1, result.status) << destination;
        EXPECT_TRUE(Has(result.err, "are the same file")) << result.err;
        EXPECT_EQ("precious", vbw::ReadFile("/tmp/F")) << destination;
    }
    Result directory = Tool("copy -u dave -p ftp /tmp/D /tmp/OUT");
    EXPECT_EQ(1, directory.status);
    EXPECT_FALSE(vbw::Exists("/tmp/OUT"));
}

TEST_F(CliTest, CopyHoldsItsLimitAsPvMeasuresIt)
{
    LimitUser("alice", 512);
    vbw::WriteFile("/tmp/copy-src", std::string(1536 * 1024, 'z'));
    Result run = Running({"/bin/sh", "-c",
                          kTool + " copy --user alice --protocol ftp /tmp/copy-src - | "
                                  "pv -f -n -t -b -i 0.5 2>/tmp/pv.log >/tmp/copy-dst"})
                     .Wait();
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_EQ(vbw::ReadFile("/tmp/copy-src"), vbw::ReadFile("/tmp/copy-dst"));
    // pv's last line: elapsed seconds and bytes through the pipe.
    double seconds = 0, bytes = 0;
    std::istringstream lines(vbw::ReadFile("/tmp/pv.log"));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream(line) >> seconds >> bytes;
    }
    EXPECT_EQ(1536.0 * 1024, bytes);
    // Never faster than the limit (and its first chunk); slower only under a heavy load.
    EXPECT_LE(bytes / seconds / 1024, 512.0 * 1.08) << "measured over " << seconds << " s";
    EXPECT_GE(bytes / seconds / 1024, 512.0 * 0.5) << "measured over " << seconds << " s";
}

TEST_F(CliTest, ReloadSaysWhatItReached)
{
    EXPECT_TRUE(Has(Tool("reload webdav").err, "the WebDAV server is not running"));
    EXPECT_EQ(1, Tool("reload lanternpost").status);  // nothing to reach
    Running server({"/bin/sleep", "30"});             // leads a process group of its own
    Running worker({"/bin/bash", "-c", "exec -a VESK.Lanternpost.Upload /bin/sleep 30"});
    vbw::MakeDirs("/run/httpd");
    vbw::WriteFile("/run/httpd/httpd-webdav.pid", std::to_string(server.Pid()) + "\n");
    usleep(200000);
    Result webdav = Tool("reload webdav");
    EXPECT_EQ(0, webdav.status) << webdav.err;
    EXPECT_TRUE(Has(webdav.out, "process group " + std::to_string(server.Pid()) + " (1 process)")) << webdav.out;
    EXPECT_EQ(128 + SIGUSR2, server.Wait().status);
    Result lanternpost = Tool("reload lanternpost");
    EXPECT_EQ(0, lanternpost.status) << lanternpost.err;
    EXPECT_TRUE(Has(lanternpost.out, "web file manager (pid " + std::to_string(worker.Pid()))) << lanternpost.out;
    EXPECT_EQ(128 + SIGHUP, worker.Wait().status);
}

TEST_F(CliTest, DemoRunsInASandboxOfItsOwnAndDrawsItsChart)
{
    Result demo = Tool("demo --seconds 3 --json");
    ASSERT_EQ(0, demo.status) << demo.err;
    Json summary = ParseJson(demo.out);
    EXPECT_EQ(1536 * 1024, summary["group_limit_bytes_s"].number);
    ASSERT_EQ(3u, summary["transfers"].items.size());
    // The chart: well-formed SVG, a line per transfer, the two limits dashed.
    const std::string chart = summary["chart"].text;
    auto xml = [&chart](const std::string &option, const std::string &query) {
        return Running({"/usr/bin/xmllint", option, query, chart}).Wait();
    };
    EXPECT_EQ(0, xml("--noout", "--nonet").status) << chart;
    EXPECT_EQ(3, std::stoi(xml("--xpath", "count(//*[@class='series'])").out));
    EXPECT_EQ(2, std::stoi(xml("--xpath", "count(//*[@class='limit'])").out));
    EXPECT_TRUE(Has(xml("--xpath", "string(//*[@class='series'][3]/@data-label)").out, "carol"));
    // The demo ran in a sandbox of its own: nothing of it is left in this one.
    EXPECT_FALSE(vbw::Exists(kGlobalConf));
    EXPECT_FALSE(vbw::Exists("/tmp/bandwidth"));
}

}  // namespace

// Hostile and damaged input: names and values that try to forge sections,
// links planted by other users, huge status files, damaged configuration
// files, and appends of long records racing each other.
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "vbw_throttle_fixture.h"
#include "vesk_file.h"

namespace {

// While set, the next writer that creates its temporary file first finds the
// file it is rewriting replaced by bob's symbolic link to the target: the
// race an attacker wins between the writer's open and its rename.
struct PlantedLink {
    std::string path, target;
} g_plant;

}  // namespace

// Exported, so that the library binds to it rather than to the C library.
extern "C" __attribute__((visibility("default"))) int mkostemp(char *szTemplate, int iFlags)
{
    typedef int (*Real)(char *, int);
    static Real real = (Real)dlsym(RTLD_NEXT, "mkostemp");
    if (!g_plant.path.empty() && 0 == seteuid(1027)) {
        unlink(g_plant.path.c_str());
        (void)!symlink(g_plant.target.c_str(), g_plant.path.c_str());
        (void)!seteuid(0);
        g_plant = PlantedLink();
    }
    return real(szTemplate, iFlags);
}

namespace {

using namespace vbw;

const std::string kUserFile = "/tmp/bandwidth/user-1026";

// The hash of alice's download by pid with a file name that fills the whole field.
VLIBC_SZHASH *LongRecord(Hash &hash, pid_t pid)
{
    VESK_BANDWIDTH_STATUS status = Status(pid);
    memset(status.filename, 'a' + pid % 26, sizeof(status.filename) - 1);
    return VESKBandwidthInitHashFromStatus(hash.Address(), &status) == 0 ? (VLIBC_SZHASH *)hash : nullptr;
}

class ReliabilityHostile : public SandboxTest {
protected:
    void SetUp() override
    {
        SandboxTest::SetUp();
        MakeDirs("/tmp/bandwidth");
        ASSERT_EQ(0, chmod("/tmp/bandwidth", 0777));  // every user's transfers write here
    }
};

int Enumerate(int protocolMask, int merge, VESK_BANDWIDTH_STATUS **list)
{
    return VESKBandwidthIStatusGetAll(kUserFile.c_str(), protocolMask, VESK_BW_TRANSFER_ALL, list, merge);
}

// A text without its newlines and blanks: a value comes back on one line,
// its newlines dropped or blanked, as the section writer keeps it.
std::string Squeezed(std::string text)
{
    text.erase(std::remove_if(text.begin(), text.end(), [](char c) { return '\n' == c || ' ' == c; }), text.end());
    return text;
}

// A file name or a plan with newlines and header lines stays inside its own
// pair: it can neither create a section nor change another one.
TEST_F(ReliabilityHostile, ForgedLinesInValuesStayInTheirPair)
{
    WriteStatusFile("user", kAlice, {{1234, kAlice}});
    const std::string other = ReadFile(kUserFile);
    VESK_BANDWIDTH_STATUS status = Status(77);
    for (const std::string name : {"a\n[1234-2]\nactive=0\n[5-1]\ntimestamp=1", "[1234-2]"}) {
        snprintf(status.filename, sizeof(status.filename), "%s", name.c_str());
        ASSERT_EQ(0, VESKBandwidthStatusSave(kAlice, nullptr, &status));  // appended, then replaced
        ASSERT_EQ(0, VESKBandwidthStatusSave(kAlice, nullptr, &status));
        Sections sections = ReadSections(kUserFile);
        EXPECT_EQ(2u, sections.size());
        EXPECT_EQ(1u, sections.count("77-2"));
        EXPECT_EQ(other, ReadFile(kUserFile).substr(0, other.size()));
        VESK_BANDWIDTH_STATUS back;
        ASSERT_EQ(0, VESKBandwidthIStatusGet(VESK_BW_OWNER_USER, kAlice, 77, kDown, &back));
        EXPECT_EQ(Squeezed(name), Squeezed(back.filename));
        EXPECT_EQ(std::string::npos, std::string(back.filename).find('\n'));
    }

    // The same for a limit's schedule plan in a configuration file.
    StoreLimit(VESK_BW_OWNER_USER, 1027, kFtp, 1, 2);
    const std::string plan = "1\n[user-1027]\nstate=disabled\n";
    StoreLimit(VESK_BW_OWNER_USER, 1026, kFtp, 3, 4, VESK_BW_STATE_SCHEDULE, plan);
    VESK_BANDWIDTH_CONF conf;
    ASSERT_EQ(0, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1027, kFtp, &conf));
    EXPECT_EQ(VESK_BW_STATE_ENABLED, conf.iState);
    ASSERT_EQ(0, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026, kFtp, &conf));
    EXPECT_EQ(Squeezed(plan), Squeezed(conf.szSchedulePlan));
    EXPECT_EQ(2u, ReadSections("/usr/vesk/etc/bandwidth/bandwidth.ftp.conf").size());
}

// A header line with a NUL byte names a section that no caller could ask
// for (names are C strings): it is no header, so nothing lists it.
TEST_F(ReliabilityHostile, HeaderWithANulByteIsNoSection)
{
    const char forged[] = "[8\0-2]\ntimestamp=1\n";
    WriteStatusFile("user", kAlice, {{8, kAlice}});
    WriteFile(kUserFile, std::string(forged, sizeof(forged) - 1) + ReadFile(kUserFile), 0666);
    VESK_BANDWIDTH_STATUS *list = nullptr;
    EXPECT_EQ(1, Enumerate(VESK_BW_PROTOCOL_ALL, 0, &list));
    VESKBandwidthStatusListFree(&list);
    EXPECT_FALSE(log.Contains("Get section [")) << log.Dump();
}

// A link that another user puts in place of a status file while a writer
// rewrites it is replaced by the writer's rename, never followed: neither
// the status writer nor the collector of stale sections writes its target.
TEST_F(ReliabilityHostile, LinkPlantedDuringARewriteIsReplacedNotFollowed)
{
    const std::string victim = "/tmp/victim", content = "[1-2]\nkeep=1\n";
    WriteFile(victim, content, 0666);
    const StatusEntry stale = {11, kAlice, 0, 1, kDown, "ftp", 100};
    WriteStatusFile("user", kAlice, {{10, kAlice}, stale});

    g_plant = {kUserFile, victim};
    EXPECT_EQ(1, VESKBandwidthStatusSetSection(kUserFile.c_str(), "10-2", Hash({{"timestamp", "1"}})));
    EXPECT_TRUE(g_plant.path.empty()) << "the writer created no temporary file";
    struct stat st;
    ASSERT_EQ(0, lstat(kUserFile.c_str(), &st));
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(content, ReadFile(victim));
    EXPECT_EQ("1", ReadSections(kUserFile)["10-2"]["timestamp"]);

    // A stale section: the rewrite of the collector meets the link.
    WriteStatusFile("user", kAlice, {stale});
    g_plant = {kUserFile, victim};
    VESK_BANDWIDTH_STATUS *list = nullptr;
    EXPECT_EQ(0, Enumerate(VESK_BW_PROTOCOL_ALL, 0, &list));
    ASSERT_EQ(0, lstat(kUserFile.c_str(), &st));
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_TRUE(ReadSections(kUserFile).empty());
    EXPECT_EQ(content, ReadFile(victim));
}

// A status file of 100,000 sections, or with lines of 1 MiB, is read in
// bounded time and memory; dead sections go a bounded number per pass.
TEST_F(ReliabilityHostile, HugeStatusFilesAreReadInBoundedTime)
{
    // Dead ones (no timestamp) first, then fresh ones, listed merged into one
    // record; 16 dead ones go per pass, from the top of the file.
    const int kSections = 100000;
    const int64_t now = time(nullptr);
    std::string dead, fresh;
    for (int i = 1; i <= kSections / 2; ++i) {
        dead += "[" + std::to_string(i) + "-1]\nprotocol type=ftp\n";
        fresh += "[" + std::to_string(i) + "-2]\ntimestamp=" + std::to_string(now + 600) +
                 "\nexpect speed=2\nprotocol type=webdav\ntransfer type=download\n";
    }
    WriteFile(kUserFile, dead + fresh, 0666);
    VESK_BANDWIDTH_STATUS *list = nullptr;
    ASSERT_EQ(1, Enumerate(VESK_BW_PROTOCOL_ALL, 1, &list));
    EXPECT_EQ((uint64_t)kSections, list->expect_speed);
    VESKBandwidthStatusListFree(&list);
    EXPECT_EQ(dead.substr(dead.find("[17-1]")) + fresh, ReadFile(kUserFile));

    // Lines of 1 MiB: a junk line, a header, a file name, a number and a key.
    const std::string mib(1 << 20, '9');
    const std::string junk = mib + "\n[" + mib + "]\n";
    const std::string record = "[5-2]\ntimestamp=" + std::to_string(now) + "\nprotocol type=ftp\n" +
                               "transfer type=download\nfilename=" + mib + "\ncurrent speed=" + mib + "\n" + mib +
                               "=1\n";
    WriteFile(kUserFile, junk + record, 0666);
    ASSERT_EQ(1, Enumerate(VESK_BW_PROTOCOL_ALL, 0, &list));
    EXPECT_EQ(std::string(4095, '9'), list->filename);
    EXPECT_EQ(UINT64_MAX, list->current_speed);
    VESKBandwidthStatusListFree(&list);
    EXPECT_EQ(mib + "\n" + record, ReadFile(kUserFile));  // the nameless-looking section was dead
    EXPECT_EQ(1, VESKBandwidthStatusAddSection(kUserFile.c_str(), "6-2", Hash({{"a", "1"}})));
    EXPECT_EQ(1, VESKBandwidthStatusSetSection(kUserFile.c_str(), "6-2", Hash({{"a", "2"}})));
    EXPECT_EQ(mib + "\n" + record + "[6-2]\na=2\n", ReadFile(kUserFile));
}


// A damaged limit file (junk lines, keys missing, numbers past every range,
// plans too short and too long) reads as promised; a transfer still runs, and
// the next store repairs its own section and keeps every other byte.
TEST_F(ReliabilityHostile, DamagedConfigurationIsReadAsPromised)
{
    const char junk[] = "\x01\xff\0 junk\n[user-1026\n=no key\n";
    const std::string head(junk, sizeof(junk) - 1);
    const std::string damaged = "[user-1026]\nstate=enabled\ndownload rate=99999999999999999999999\n"
                                "upload rate= 12\nnot a pair\n";
    const std::string tail = "[group-100]\nstate=schedule\ndownload rate=5\n"
                             "[user-1027]\nid=4294967297\nstate=schedule\nschedule plan=12\n";
    WriteConfFile("bandwidth.ftp.conf", head + damaged + tail);
    WriteConfFile("bandwidth.global.conf", "[ftp]\nstate=enabled\nuser-group policy=min\nschedule plan=" +
                                               std::string(300, '0') + "\n");

    VESK_BANDWIDTH_CONF conf;
    ASSERT_EQ(0, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026, kFtp, &conf));
    EXPECT_EQ(1026u, conf.id);
    EXPECT_EQ(VESK_BW_STATE_ENABLED, conf.iState);
    EXPECT_EQ(UINT64_MAX, conf.ullRate[kDown]);  // the largest value, as strtoull gives it
    EXPECT_EQ(12u, conf.ullRate[VESK_BW_TRANSFER_UPLOAD]);
    EXPECT_STREQ("", conf.szSchedulePlan);
    ASSERT_EQ(0, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1027, kFtp, &conf));
    EXPECT_EQ(1u, conf.id);  // cut to 32 bits
    EXPECT_STREQ("12", conf.szSchedulePlan);
    VESK_BANDWIDTH_GLOBAL_CONF global;
    ASSERT_EQ(0, VESKBandwidthGlobalConfGet(kFtp, &global));
    EXPECT_EQ(std::string(255, '0'), global.szSchedulePlan);
    EXPECT_EQ(VESK_BW_POLICY_MIN, global.iUserGroupPolicy);

    // A transfer of alice: her rate wraps to a huge speed, the group's
    // schedule without a plan gives its custom rate 0, unlimited; the loop
    // neither fails nor sleeps.
    VESK_BANDWIDTH_CONFIG config;
    memset(&config, 0, sizeof(config));
    ASSERT_EQ(0, VESKBandwidthConfigGet(kAlice, kFtp, &config));
    EXPECT_EQ(2, config.iLimitCount);
    VESK_BANDWIDTH_STATUS status;
    memset(&status, 0, sizeof(status));
    int64_t last = 0;
    ASSERT_EQ(0, VESKBandwidthStatusInit(&config, kDown, "/share/a", &last, &status));
    const int64_t startMs = NowMs();
    for (int chunk = 0; chunk < 3; ++chunk) {
        EXPECT_EQ(0, VESKBandwidthSleepInLoop(&config, 1 << 20, 0, &last, &status));
    }
    EXPECT_LT(NowMs() - startMs, 1000);
    EXPECT_TRUE(HasEntry("user", kAlice, getpid()));
    EXPECT_EQ(0, VESKBandwidthStatusRemove(&config, kDown));
    VESKBandwidthConfigFree(&config);

    // Storing alice's limit replaces her damaged section only.
    StoreLimit(VESK_BW_OWNER_USER, 1026, kFtp, 7, 8);
    const std::string repaired = ReadFile("/usr/vesk/etc/bandwidth/bandwidth.ftp.conf");
    ASSERT_GT(repaired.size(), head.size() + tail.size());
    EXPECT_EQ(head, repaired.substr(0, head.size()));
    EXPECT_EQ(tail, repaired.substr(repaired.size() - tail.size()));
    EXPECT_EQ(9u, ReadSections("/usr/vesk/etc/bandwidth/bandwidth.ftp.conf")["user-1026"].size());
    ASSERT_EQ(0, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026, kFtp, &conf));
    EXPECT_EQ(8u, conf.ullRate[kDown]);
}

// Records larger than a stdio buffer, appended by several processes at once,
// never interleave: every section is one writer's whole record.
TEST_F(ReliabilityHostile, LongAppendsNeverInterleave)
{
    const int kWriters = 6, kSections = 40;
    WriteFile(kUserFile, "", 0666);
    std::vector<pid_t> children;
    for (int w = 0; w < kWriters; ++w) {
        children.push_back(Fork([] {
            Hash hash;
            int appended = 0;
            for (int k = 1; k <= kSections; ++k) {
                std::string section = std::to_string(getpid()) + "-" + std::to_string(k);
                appended += VESKBandwidthStatusAddSection(kUserFile.c_str(), section.c_str(),
                                                          LongRecord(hash, getpid()));
            }
            return appended == kSections ? 0 : 1;
        }));
    }
    for (pid_t pid : children) {
        EXPECT_EQ(0, WaitExit(pid, 60000));
    }
    Sections sections = ReadSections(kUserFile);
    EXPECT_EQ((size_t)(kWriters * kSections), sections.size());
    for (const auto &[name, pairs] : sections) {
        pid_t pid = atoi(name.c_str());
        auto file = pairs.find("filename");
        EXPECT_TRUE(pairs.size() == 12 && pairs.at("pid") == std::to_string(pid) && file != pairs.end() &&
                    file->second == std::string(4095, 'a' + pid % 26))
            << name;
    }
}

}  // namespace

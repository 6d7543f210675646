// Processes killed with SIGKILL at random moments while they save, enumerate
// and remove status sections and store limits: every file still parses, only
// their sections are missing, and what they left is collected at the promised
// ages (set in the past, not waited for).
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "vbw_throttle_fixture.h"
#include "vesk_file.h"

namespace {

using namespace vbw;

const char kStatusDir[] = "/tmp/bandwidth/";
const char kConfDir[] = "/usr/vesk/etc/bandwidth/";
const int kRounds = 12;
const int kVictimsPerRound = 6;
const int kLongestLifeMs = 40;
const int kSurvivors = 6;
const int kStatusKeys = 12, kLimitKeys = 9, kGlobalKeys = 5;

// A temporary file of a writer: "<file>.XXXXXX" beside the file.  Status
// file names hold no dot, configuration file names end in ".conf".
bool IsTemporary(const std::string &path)
{
    std::string name = path.substr(path.rfind('/') + 1);
    bool conf = name.size() > 5 && name.compare(name.size() - 5, 5, ".conf") == 0;
    return name.find('.') != std::string::npos && !conf;
}

// Alice's download by pid, saved at `timestamp`, of the given file.
VESK_BANDWIDTH_STATUS Record(pid_t pid, int64_t timestamp, const std::string &file)
{
    VESK_BANDWIDTH_STATUS status = Status(pid, 65536, 65536);
    status.timestamp = timestamp;
    snprintf(status.filename, sizeof(status.filename), "%s", file.c_str());
    return status;
}

// A configuration in memory whose only limit is group users (100), fully occupied.
struct GroupConfig {
    VESK_BANDWIDTH_CONFIG config;
    GroupConfig()
    {
        memset(&config, 0, sizeof(config));
        config.uid = kAlice;
        config.blGroupConfExist = 1;
        config.iLimitCount = 1;
        config.pLimit = (VESK_BANDWIDTH_LIMIT *)calloc(1, sizeof(VESK_BANDWIDTH_LIMIT));
        config.pLimit[0] = Limit(VESK_BW_OWNER_GROUP, kUsers, 0, 100);
        config.pLimit[0].ullOccupyShare = 10000;
        config.pLimit[0].ullMaxSpeedBps = 102400;
    }
    ~GroupConfig() { VESKBandwidthConfigFree(&config); }
};

// The life of a victim until it is killed: saves its own section (now fresh,
// now stale, so that other victims collect it), enumerates the shared files,
// stores its own limits, and now and then removes its sections.
[[noreturn]] void Victim(unsigned seed)
{
    GroupConfig group;
    VESK_BANDWIDTH_STATUS status = Record(getpid(), 0, "/share/victim-" + std::to_string(getpid()));
    const unsigned uid = 20000 + (unsigned)getpid();
    for (unsigned round = 0;; ++round) {
        status.timestamp = time(nullptr) - (rand_r(&seed) % 2 ? 0 : 100);
        status.progress = round;
        VESKBandwidthStatusSave(kAlice, &group.config, &status);
        for (const char *file : {"/tmp/bandwidth/user-1026", "/tmp/bandwidth/group-100"}) {
            EnumerateFile(file);
        }
        for (int protocol : {kFtp, (int)VESK_BW_PROTOCOL_ALL}) {
            VESK_BANDWIDTH_CONF conf = Conf(VESK_BW_OWNER_USER, uid, protocol, round, round + 1);
            VESKBandwidthConfSetByID(&conf);
        }
        if (rand_r(&seed) % 4 == 0) {
            VESKBandwidthStatusRemove(&group.config, VESK_BW_TRANSFER_ALL);
        }
    }
}

// The sections of a file through the platform reader; a failure when it does
// not parse or a section is not whole (its number of pairs is none of keyCounts).
Sections ParseWhole(const std::string &path, const std::set<size_t> &keyCounts)
{
    Sections sections;
    VLIBC_SZLIST *names = nullptr;
    int count = VLIBCFileEnumSection(path.c_str(), &names);
    EXPECT_LE(0, count) << path;
    for (int i = 0; i < count; ++i) {
        const char *name = VLIBCSzListGet(names, i);
        EXPECT_EQ(0u, sections.count(name)) << path << ": section " << name << " twice";
        VLIBC_SZHASH *hash = nullptr;
        EXPECT_EQ(1, VLIBCFileGetSection(path.c_str(), name, &hash)) << path << " " << name;
        for (int k = 0; k < VLIBCSzHashCount(hash); ++k) {
            sections[name][VLIBCSzHashKeyAt(hash, k)] = VLIBCSzHashValueAt(hash, k);
        }
        EXPECT_EQ(1u, keyCounts.count(sections[name].size())) << path << ": section " << name << " is torn";
        VLIBCSzHashFree(hash);
    }
    VLIBCSzListFree(names);
    return sections;
}

std::map<std::string, std::string> HashOf(const VESK_BANDWIDTH_STATUS &status)
{
    Hash hash;
    EXPECT_EQ(0, VESKBandwidthInitHashFromStatus(hash.Address(), &status));
    Pairs pairs = hash.Contents();
    return std::map<std::string, std::string>(pairs.begin(), pairs.end());
}

// Enumerates the file until a pass leaves it unchanged (one pass collects at
// most 16 dead sections); every pass lists `listed` records.
void EnumerateUntilSettled(const std::string &path, int listed)
{
    for (int pass = 0; pass < 100; ++pass) {
        const std::string before = ReadFile(path);
        EXPECT_EQ(listed, EnumerateFile(path)) << path;
        if (ReadFile(path) == before) {
            return;
        }
    }
    ADD_FAILURE() << path << " never settles";
}

class ReliabilityCrash : public SandboxTest {
protected:
    void SetUp() override
    {
        SandboxTest::SetUp();
        InstallKillallStandIn();
        StoreGlobal(kFtp, GlobalSettings());
        // Survivors: fresh however long the test takes, with long file names
        // so that every rewrite takes a while.
        GroupConfig group;
        for (int i = 0; i < kSurvivors; ++i) {
            VESK_BANDWIDTH_STATUS status =
                Record(900000 + i, time(nullptr) + 3600, "/share/" + std::string(3000, 'a' + i));
            ASSERT_EQ(0, VESKBandwidthStatusSave(kAlice, &group.config, &status));
            survivors_.push_back(status);
            StoreLimit(VESK_BW_OWNER_USER, 1026 + i, kFtp, 10 + i, 20 + i);
        }
    }

    // Runs the victims round after round, each killed after a random life.
    std::set<pid_t> KillVictims()
    {
        std::set<pid_t> victims;
        unsigned seed = (unsigned)time(nullptr);
        for (int round = 0; round < kRounds; ++round) {
            std::vector<pid_t> pids;
            for (int v = 0; v < kVictimsPerRound; ++v) {
                pids.push_back(Fork([seed, v]() -> int { Victim(seed + (unsigned)v); }));
                victims.insert(pids.back());
            }
            for (pid_t pid : pids) {
                usleep((useconds_t)(rand_r(&seed) % kLongestLifeMs) * 1000);
                kill(pid, SIGKILL);
            }
            for (pid_t pid : pids) {
                int status = 0;
                EXPECT_EQ(pid, waitpid(pid, &status, 0));
                EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
            }
        }
        return victims;
    }

    std::vector<VESK_BANDWIDTH_STATUS> survivors_;
};

TEST_F(ReliabilityCrash, KilledWritersLeaveWholeFilesAndTheirGarbageIsCollected)
{
    const std::set<pid_t> victims = KillVictims();
    auto isVictimSection = [&](const std::string &name) {
        return victims.count((pid_t)atoi(name.c_str())) == 1 && name == SectionName(atoi(name.c_str()), kDown);
    };
    auto isVictimLimit = [&](const std::string &name) {
        unsigned uid = (unsigned)strtoul(name.c_str() + 5, nullptr, 10);
        return name.compare(0, 5, "user-") == 0 && uid > 20000 && victims.count((pid_t)(uid - 20000)) == 1;
    };

    // Configuration: every file parses, every section is whole, the stored
    // records are all there and read back as stored.
    Sections limits = ParseWhole(std::string(kConfDir) + "bandwidth.ftp.conf", {kLimitKeys});
    Sections global = ParseWhole(std::string(kConfDir) + "bandwidth.global.conf", {kLimitKeys, kGlobalKeys});
    for (int i = 0; i < kSurvivors; ++i) {
        VESK_BANDWIDTH_CONF conf;
        ASSERT_EQ(0, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026 + i, kFtp, &conf));
        EXPECT_EQ((unsigned)(10 + i), conf.ullRate[VESK_BW_TRANSFER_UPLOAD]);
        EXPECT_EQ(VESK_BW_STATE_ENABLED, conf.iState);
        limits.erase("user-" + std::to_string(1026 + i));
    }
    VESK_BANDWIDTH_GLOBAL_CONF globalConf;
    ASSERT_EQ(0, VESKBandwidthGlobalConfGet(kFtp, &globalConf));
    EXPECT_EQ(VESK_BW_STATE_ENABLED, globalConf.iState);
    global.erase("ftp");
    for (const Sections *rest : {&limits, &global}) {
        for (const auto &section : *rest) {
            EXPECT_TRUE(isVictimLimit(section.first)) << section.first;
        }
    }

    // Status files: whole sections; the survivors unchanged; the rest the
    // victims'.  Their temporary files are the only other entries.
    std::vector<std::string> temporary;
    std::vector<std::pair<std::string, std::string>> victimSections;  // file, section
    for (const std::string &path : Paths(std::string(kStatusDir) + "*")) {
        if (IsTemporary(path)) {
            temporary.push_back(path);
            continue;
        }
        Sections sections = ParseWhole(path, {kStatusKeys});
        for (VESK_BANDWIDTH_STATUS survivor : survivors_) {
            std::string name = SectionName(survivor.pid, kDown);
            if (path.find("group-") != std::string::npos) {
                survivor.owner_type = VESK_BW_OWNER_GROUP;
                survivor.id = kUsers;
                survivor.expect_speed = 102400;
            }
            EXPECT_TRUE(HashOf(survivor) == sections[name]) << path << ": survivor " << name << " changed or lost";
            sections.erase(name);
        }
        for (const auto &section : sections) {
            EXPECT_TRUE(isVictimSection(section.first)) << path << " " << section.first;
            victimSections.emplace_back(path, section.first);
        }
    }
    std::vector<std::string> confTemporary;
    for (const std::string &path : Paths(std::string(kConfDir) + "*")) {
        if (IsTemporary(path)) {
            confTemporary.push_back(path);
        }
    }
    std::printf("crash: %zu processes killed; they left %zu status sections, %zu temporary status files and %zu "
                "temporary configuration files\n",
                victims.size(), victimSections.size(), temporary.size(), confTemporary.size());

    // The next enumerations take every section older than 30 seconds and keep
    // the others (victims saved theirs just now or 100 seconds in the past).
    const std::vector<std::string> statusFiles = {std::string(kStatusDir) + "group-100",
                                                  std::string(kStatusDir) + "user-1026"};
    time_t now = time(nullptr);
    for (const std::string &path : statusFiles) {
        Sections before = ParseWhole(path, {kStatusKeys});
        int fresh = 0;
        for (const auto &section : before) {
            fresh += now - strtoll(section.second.at("timestamp").c_str(), nullptr, 10) <= 30 ? 1 : 0;
        }
        EnumerateUntilSettled(path, fresh);
        Sections after = ParseWhole(path, {kStatusKeys});
        for (const auto &section : before) {
            int64_t age = (int64_t)now - strtoll(section.second.at("timestamp").c_str(), nullptr, 10);
            EXPECT_EQ(age <= 30, after.count(section.first) == 1) << path << " " << section.first << " age " << age;
        }
    }

    // Aged past 30 seconds, the victims' remaining sections go at the next
    // enumerations; the survivors stay.
    now = time(nullptr);
    for (const auto &[path, name] : victimSections) {
        std::map<std::string, std::string> pairs = ReadSection(path, name);
        if (!pairs.empty()) {
            pairs["timestamp"] = std::to_string(now - 31);
            Hash aged;
            for (const auto &[key, value] : pairs) {
                VLIBCSzHashSetValue(aged.Address(), key.c_str(), value.c_str());
            }
            EXPECT_EQ(1, VESKBandwidthStatusSetSection(path.c_str(), name.c_str(), aged));
        }
    }
    for (const std::string &path : statusFiles) {
        EnumerateUntilSettled(path, kSurvivors);
        EXPECT_EQ((size_t)kSurvivors, ParseWhole(path, {kStatusKeys}).size()) << path;
    }

    // A temporary file modified 10 seconds ago or less is kept, older ones deleted.
    for (const std::string &path : temporary) {
        SetModified(path, now - 5);
        EXPECT_EQ(0, EnumerateFile(path));
        EXPECT_TRUE(Exists(path)) << path;
        SetModified(path, now - 11);
        EXPECT_EQ(0, EnumerateFile(path));
        EXPECT_FALSE(Exists(path)) << path;
    }
    EXPECT_EQ(statusFiles, Paths(std::string(kStatusDir) + "*"));
    EXPECT_EQ(0, log.Count("Init status from hash failed")) << log.Dump();
}

}  // namespace

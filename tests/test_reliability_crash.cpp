// Processes killed with SIGKILL at random moments while they save, enumerate,
// remove and store limits: every file parses into whole sections, survivors
// are untouched, and leftovers go at the promised ages (set in the past).
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <set>

#include "vbw_throttle_fixture.h"

namespace {

using namespace vbw;

const std::string kStatusDir = "/tmp/bandwidth/", kConfDir = "/usr/vesk/etc/bandwidth/";
const std::vector<std::string> kStatusFiles = {kStatusDir + "group-100", kStatusDir + "user-1026"};
const int kRounds = 12, kVictimsPerRound = 6, kLongestLifeMs = 40, kSurvivors = 6;

// Alice's download by pid, of the given file.
VESK_BANDWIDTH_STATUS Record(pid_t pid, const std::string &file)
{
    VESK_BANDWIDTH_STATUS status = Status(pid, 65536, 65536);
    snprintf(status.filename, sizeof(status.filename), "%s", file.c_str());
    return status;
}

// The life of a victim until it is killed: saves its own section (now fresh,
// now stale, so that other victims collect it), enumerates the shared files,
// stores its own limit, and now and then removes its sections.
[[noreturn]] void Victim(const VESK_BANDWIDTH_CONFIG &config, unsigned seed)
{
    VESK_BANDWIDTH_STATUS status = Record(getpid(), "/share/victim-" + std::to_string(getpid()));
    for (unsigned round = 0;; ++round) {
        status.timestamp = time(nullptr) - (rand_r(&seed) % 2 ? 0 : 100);
        VESKBandwidthStatusSave(kAlice, &config, &status);
        for (const std::string &file : kStatusFiles) {
            EnumerateFile(file);
        }
        VESK_BANDWIDTH_CONF conf = Conf(VESK_BW_OWNER_USER, 20000 + (unsigned)getpid(), kFtp, round, round + 1);
        VESKBandwidthConfSetByID(&conf);
        if (rand_r(&seed) % 4 == 0) {
            VESKBandwidthStatusRemove(&config, VESK_BW_TRANSFER_ALL);
        }
    }
}

// The sections of a file; a failure when one is not whole (keyCount pairs).
Sections ParseWhole(const std::string &path, size_t keyCount)
{
    Sections sections = ReadSections(path);
    for (const auto &[name, pairs] : sections) {
        EXPECT_EQ(keyCount, pairs.size()) << path << ": section " << name << " is torn";
    }
    return sections;
}

class ReliabilityCrash : public ConfigTest {};

TEST_F(ReliabilityCrash, KilledWritersLeaveWholeFilesAndTheirGarbageIsCollected)
{
    InstallKillallStandIn();
    StoreGlobal(kFtp, GlobalSettings());
    // Survivors stay fresh for the whole test; long file names make every rewrite take a while.
    Occupy({{kUsers, 10000}});  // alice's transfers occupy group users (100) fully
    config.pLimit[0].ullMaxSpeedBps = 102400;
    std::vector<VESK_BANDWIDTH_STATUS> survivors;
    for (int i = 0; i < kSurvivors; ++i) {
        survivors.push_back(Record(900000 + i, "/share/" + std::string(3000, 'a' + i)));
        survivors.back().timestamp += 20;
        ASSERT_EQ(0, VESKBandwidthStatusSave(kAlice, &config, &survivors.back()));
        StoreLimit(VESK_BW_OWNER_USER, 1026 + i, kFtp, 10 + i, 20 + i);
    }
    // Rounds of victims, each killed after a random life.
    std::set<pid_t> victims;
    unsigned seed = (unsigned)time(nullptr);
    for (int round = 0; round < kRounds; ++round) {
        std::vector<pid_t> pids;
        for (int v = 0; v < kVictimsPerRound; ++v) {
            pids.push_back(Fork([this, seed, v]() -> int { Victim(config, seed + (unsigned)v); }));
        }
        for (pid_t pid : pids) {
            usleep((useconds_t)(rand_r(&seed) % kLongestLifeMs) * 1000);
            kill(pid, SIGKILL);
            victims.insert(pid);
            EXPECT_EQ(-1, WaitExit(pid, 10000));  // killed by its signal
        }
    }

    // Configuration: whole sections, the survivors' limits as stored, the
    // other sections the victims'.
    int survivingLimits = 0;
    for (const auto &[name, pairs] : ParseWhole(kConfDir + "bandwidth.ftp.conf", 9)) {
        int uid = atoi(name.c_str() + 5);
        survivingLimits += uid < 1026 + kSurvivors && pairs.at("upload rate") == std::to_string(10 + uid - 1026);
        EXPECT_TRUE(uid < 1026 + kSurvivors || victims.count(uid - 20000) == 1) << name;
    }
    EXPECT_EQ(kSurvivors, survivingLimits);

    // Status files: whole sections, the survivors unchanged, the others the victims'.
    std::vector<std::pair<std::string, std::string>> victimSections;  // file, section
    for (const std::string &path : kStatusFiles) {
        Sections sections = ParseWhole(path, 12);
        for (VESK_BANDWIDTH_STATUS survivor : survivors) {
            std::string name = SectionName(survivor.pid, kDown);
            if (path == kStatusFiles[0]) {
                survivor.owner_type = VESK_BW_OWNER_GROUP;
                survivor.id = kUsers;
                survivor.expect_speed = 102400;
            }
            Hash hash;
            ASSERT_EQ(0, VESKBandwidthInitHashFromStatus(hash.Address(), &survivor));
            const Pairs pairs = hash.Contents();
            EXPECT_TRUE((std::map<std::string, std::string>(pairs.begin(), pairs.end())) == sections[name]) << name;
            sections.erase(name);
        }
        for (const auto &section : sections) {
            EXPECT_EQ(1u, victims.count(atoi(section.first.c_str()))) << path << " " << section.first;
            victimSections.emplace_back(path, section.first);
        }
    }
    const std::vector<std::string> statusTemps = Paths(kStatusDir + "*.??????");
    std::vector<std::string> confTemps = Paths(kConfDir + "*.??????");
    std::printf("crash: %zu processes killed; they left %zu status sections, %zu temporary status files and %zu "
                "temporary configuration files\n",
                victims.size(), victimSections.size(), statusTemps.size(), confTemps.size());

    // Aged past 30 seconds, the victims' sections go at the next enumeration
    // of each file, and so do their temporary files aged past 10 seconds, at
    // the next enumeration and the next configuration write; the young ones stay.
    const time_t now = time(nullptr);
    for (const auto &[path, name] : victimSections) {
        Hash aged;
        for (const auto &[key, value] : ReadSection(path, name)) {
            VLIBCSzHashSetValue(aged.Address(), key.c_str(), key == "timestamp" ? "1" : value.c_str());
        }
        EXPECT_EQ(1, VESKBandwidthStatusSetSection(path.c_str(), name.c_str(), aged));
    }
    for (const std::string &path : statusTemps) {
        SetModified(path, now - 11);
    }
    for (size_t i = 0; i < confTemps.size(); ++i) {
        SetModified(confTemps[i], i % 2 ? now - 11 : now - 5);
    }
    // One more of the file's own, and one of another file, both old.
    const std::string own = kConfDir + "bandwidth.ftp.conf.Zz99Yy", other = kConfDir + "bandwidth.webdav.conf.Ab12Cd";
    for (const std::string &path : {own, other}) {
        WriteFile(path, "", 0600);
        SetModified(path, now - 11);
    }
    for (const std::string &path : kStatusFiles) {
        EXPECT_EQ(kSurvivors, EnumerateFile(path));
        EXPECT_EQ((size_t)kSurvivors, ParseWhole(path, 12).size()) << path;
    }
    StoreLimit(VESK_BW_OWNER_USER, 1026, kFtp, 10, 20);
    EXPECT_EQ(kStatusFiles, Paths(kStatusDir + "*"));
    for (size_t i = 0; i < confTemps.size(); ++i) {
        EXPECT_EQ(i % 2 == 0, Exists(confTemps[i])) << confTemps[i];
    }
    EXPECT_TRUE(!Exists(own) && Exists(other));
    EXPECT_EQ(0, log.Count("Init status from hash failed")) << log.Dump();
}

}  // namespace

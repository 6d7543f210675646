// Saving a transfer's status into its user's and groups' files (registration,
// read-back and removal are played by the transfer-loop and tool tests), and
// the enumeration: freshness at 30/31 s on both sides of the clock, garbage
// collection, filters, merge, list order and the caller's head.
#include <unistd.h>

#include <ctime>

#include "vbw_throttle_fixture.h"

namespace {

using vbw::kAlice;
using vbw::kDown;
using namespace std::string_literals;
const std::string kUserFile = "/tmp/bandwidth/user-1026";
const int kUpload = VESK_BW_TRANSFER_UPLOAD;

std::map<std::string, std::string> Own(const std::string &owner)
{
    return vbw::ReadSection("/tmp/bandwidth/" + owner, vbw::SectionName(getpid(), kDown));
}

class StatusSaveTest : public vbw::ConfigTest {
protected:
    void SetUp() override
    {
        ConfigTest::SetUp();
        umask(022);
        config.globalConf = vbw::GlobalConf(VESK_BW_PROTOCOL_FTP, {1, VESK_BW_POLICY_MIN, VESK_BW_POLICY_MIN, 0, ""});
        strcpy(status.filename, "/share/a.iso");
    }
    VESK_BANDWIDTH_STATUS status = vbw::Status(getpid());
};

TEST_F(StatusSaveTest, FirstSaveCreatesTheDirectoryAndTheUserFile)
{
    vbw::WriteFile("/tmp/bandwidth", "not a directory");
    EXPECT_EQ(-1, VESKBandwidthStatusSave(1026, nullptr, &status));
    EXPECT_TRUE(log.Contains("VESKFSMkdirP failed. [/tmp/bandwidth/]")) << log.Dump();
    ASSERT_EQ(0, unlink("/tmp/bandwidth"));

    const VESK_BANDWIDTH_STATUS before = status;
    ASSERT_EQ(0, VESKBandwidthStatusSave(1026, nullptr, &status)) << log.Dump();
    EXPECT_EQ(022u, umask(022));
    EXPECT_EQ(S_IFDIR | 0777u, vbw::Stat("/tmp/bandwidth").st_mode);
    EXPECT_EQ(0666u, vbw::Stat(kUserFile).st_mode & 07777);  // shared by every process of the user
    const std::string header = "\n[" + vbw::SectionName(getpid(), kDown) + "]\n";
    EXPECT_EQ(header, vbw::ReadFile(kUserFile).substr(0, header.size()));
    EXPECT_EQ("/share/a.iso", Own("user-1026")["filename"]);
    EXPECT_TRUE(vbw::SameBytes(before, status));
    // Read back: another pid's section, another user's file.
    EXPECT_TRUE(VESKBandwidthIStatusGet(VESK_BW_OWNER_USER, 1026, 1, kDown, &status) == -1 &&
                VESKBandwidthIStatusGet(VESK_BW_OWNER_USER, 1027, 1, kDown, &status) == -1);
    EXPECT_TRUE(log.Contains("Get section [1-2] from [/tmp/bandwidth/user-1026] failed. [0x2000") &&
                log.Contains("File [/tmp/bandwidth/user-1027] doesn't exist."))
        << log.Dump();
}

TEST_F(StatusSaveTest, GroupCopiesAreScaledByTheShare)
{
    Occupy({{kAlice, 10000}, {100, 5000}, {101, 0}, {103, 10000}});
    config.pLimit[1].ullMaxSpeedBps = 300000;
    const VESK_BANDWIDTH_STATUS before = status;
    ASSERT_EQ(0, VESKBandwidthStatusSave(1026, &config, &status)) << log.Dump();
    std::map<std::string, std::string> copy = Own("group-100");
    EXPECT_EQ("500 300000 group 100 1026", copy["current speed"] + " " + copy["expect speed"] + " " +
                                               copy["owner type"] + " " + copy["id"] + " " + copy["uid"]);
    EXPECT_EQ("1000", Own("group-103")["current speed"]);
    EXPECT_FALSE(vbw::Exists("/tmp/bandwidth/group-101"));
    EXPECT_TRUE(vbw::SameBytes(before, status));

    // A group copy that cannot be written still sets the record back.
    Occupy({{102, 5000}});
    vbw::MakeDirs("/tmp/bandwidth/group-102", 0777);  // cannot be rewritten as a file
    EXPECT_EQ(-1, VESKBandwidthStatusSave(1026, &config, &status));
    EXPECT_TRUE(log.Contains("Save record for uid: [1026], section:[" + vbw::SectionName(getpid(), kDown) + "]"));
    EXPECT_TRUE(vbw::SameBytes(before, status));
}

// Alice's transfer by pid; age in seconds before now.
vbw::StatusEntry Entry(pid_t pid, int64_t age = 0, const char *protocol = "ftp", int transfer = vbw::kDown,
                       uint64_t expect = 1000, uint64_t current = 500)
{
    return {pid, 1026, current, 1, transfer, protocol, age, expect};
}

class StatusEnumTest : public vbw::SandboxTest {
protected:
    void TearDown() override { VESKBandwidthStatusListFree(&list_); }

    int GetAll(int protocols = VESK_BW_PROTOCOL_ALL, unsigned transfers = VESK_BW_TRANSFER_ALL, int merge = 0,
               const std::string &file = kUserFile)
    {
        VESKBandwidthStatusListFree(&list_);
        return VESKBandwidthIStatusGetAll(file.c_str(), protocols, transfers, &list_, merge);
    }

    // Runs `body(now)` until the clock did not tick during it, so that ages
    // measured from `now` are exactly the ages the enumeration saw.
    static bool WithinOneSecond(const std::function<void(time_t)> &body)
    {
        for (int attempt = 0; attempt < 5; ++attempt) {
            time_t now = time(nullptr);
            body(now);
            if (time(nullptr) == now) {
                return true;
            }
        }
        return false;
    }

    std::vector<pid_t> Pids() const
    {
        std::vector<pid_t> pids;
        for (VESK_BANDWIDTH_STATUS *p = list_; p != nullptr; p = p->pNext) {
            pids.push_back(p->pid);
        }
        return pids;
    }

    VESK_BANDWIDTH_STATUS *list_ = nullptr;
};

// Fresh is at most 30 seconds old, or at most 30 seconds ahead (a clock
// step); a section further away either way is collected, whatever its
// protocol and direction.
TEST_F(StatusEnumTest, ThirtySecondsIsFreshThirtyOneIsCollected)
{
    int count = -1;
    ASSERT_TRUE(WithinOneSecond([&](time_t) {
        vbw::WriteStatusFile("user", 1026,
                             {Entry(1, 30), Entry(2, 31), Entry(3, -30), Entry(4, -31), Entry(5, -100000),
                              Entry(6, 31, "webdav", kUpload), Entry(7)});
        count = GetAll(VESK_BW_PROTOCOL_FTP, VESK_BW_TRANSFER_DOWNLOAD);
    }));
    EXPECT_EQ(3, count);
    EXPECT_EQ((std::vector<pid_t>{7, 3, 1}), Pids());  // file order reversed
    EXPECT_STREQ("/share/f3", list_->pNext->filename);
    vbw::Sections kept = vbw::ReadSections(kUserFile);
    EXPECT_TRUE(kept.size() == 3 && kept.count("1-2") && kept.count("3-2") && kept.count("7-2"));
}

TEST_F(StatusEnumTest, MasksSelectMergeSumsAndBadSectionsAreSkipped)
{
    vbw::WriteStatusFile("user", 1026,
                         {Entry(1, 0, "ftp", vbw::kDown, 100, 10), Entry(2, 0, "webdav"),
                          Entry(3, 0, "ftp", kUpload, 700, 70), Entry(4, 0, "ftp", vbw::kDown, 0, 30)});
    EXPECT_EQ(4, GetAll(VESK_BW_PROTOCOL_ALL, VESK_BW_TRANSFER_ALL, 2));  // any value but 1: no merge
    EXPECT_EQ(1, GetAll(VESK_BW_PROTOCOL_WEBDAV | VESK_BW_PROTOCOL_RSYNC, VESK_BW_TRANSFER_ALL));
    VESK_BANDWIDTH_STATUS sentinel = {}, *head = &sentinel;  // a result of 0 leaves the caller's head alone
    EXPECT_EQ(0, VESKBandwidthIStatusGetAll(kUserFile.c_str(), VESK_BW_PROTOCOL_RSYNC, 3, &head, 0));
    EXPECT_EQ(&sentinel, head);
    ASSERT_EQ(3, GetAll(VESK_BW_PROTOCOL_ALL, VESK_BW_TRANSFER_ALL, 1));
    EXPECT_EQ((std::vector<pid_t>{3, 2, 1}), Pids());  // the merged record keeps the first section's fields
    // Speeds add up, and an unlimited one makes the sum unlimited.
    EXPECT_TRUE(list_->pNext->pNext->expect_speed == 0 && list_->pNext->pNext->current_speed == 40);

    // A section that does not convert is skipped, and kept.
    vbw::WriteStatusFile("user", 1026, {Entry(1)});
    vbw::WriteFile(kUserFile, vbw::ReadFile(kUserFile) + "[2-2]\nid=12abc\n", 0666);
    EXPECT_EQ(1, GetAll());
    EXPECT_TRUE(log.From("bandwidth_status_get_all.cpp", "Init status from hash failed. [0x4000")) << log.Dump();
    vbw::Sections kept = vbw::ReadSections(kUserFile);
    EXPECT_TRUE(kept.size() == 2 && kept.count("2-2"));
}

// A temporary file of a killed writer goes once unchanged for more than 10
// seconds: when handed to the enumeration, and when any status file of the
// directory is enumerated.  A link is judged itself, never followed.
TEST_F(StatusEnumTest, LeftoverTemporaryFilesAreCollectedAfterTenSeconds)
{
    vbw::WriteStatusFile("group", 100, {Entry(1)});
    vbw::WriteFile("/tmp/victim", "keep\n", 0644);
    const std::string handed = kUserFile + ".Ab12Cd", link = kUserFile + ".Zz99Yy", young = kUserFile + ".Yy88Xx";
    std::vector<bool> kept;
    ASSERT_TRUE(WithinOneSecond([&](time_t now) {
        vbw::WriteFile(handed, "[1-2]\ntimestamp=" + std::to_string(now) + "\n", 0600);
        for (time_t age : {10, 11}) {
            vbw::SetModified(handed, now - age);
            EXPECT_EQ(0, GetAll(15, 3, 0, handed));  // never read as a status file
            kept.push_back(vbw::Exists(handed));
        }
    }));
    EXPECT_EQ((std::vector<bool>{true, false}), std::vector<bool>(kept.end() - 2, kept.end()));

    ASSERT_EQ(0, symlink("/tmp/victim", link.c_str()));
    vbw::WriteFile(young, "", 0600);
    for (const std::string &path : {link, "/tmp/victim"s, "/tmp/bandwidth/group-100.Qq77Pp"s}) {
        vbw::WriteFile(path, "[1-2]\n", 0600);
        vbw::SetModified(path, time(nullptr) - 11);
    }
    EXPECT_EQ(1, GetAll(15, 3, 0, "/tmp/bandwidth/group-100"));
    EXPECT_EQ((std::vector<std::string>{"/tmp/bandwidth/group-100", young}), vbw::Paths("/tmp/bandwidth/*"));
    EXPECT_EQ("[1-2]\n", vbw::ReadFile("/tmp/victim"));
}

}  // namespace

// A transfer's status in the shared status files of its user and of the
// groups it occupies: saving and reading back, removal by its own process or
// forced from outside, and the status dump.  (Registration and the removals
// of a pass are played by the transfer-loop tests.)
#include <unistd.h>

#include "vbw_throttle_fixture.h"

namespace {

using vbw::kAlice;
using vbw::kDown;
using vbw::kUp;
const char kUserFile[] = "/tmp/bandwidth/user-1026";
const pid_t kOther = 5000;

std::map<std::string, std::string> Own(const std::string &owner)
{
    return vbw::ReadSection("/tmp/bandwidth/" + owner, vbw::SectionName(getpid(), kDown));
}

bool Has(const std::string &owner, pid_t pid, int transfer)
{
    return vbw::HasSection("/tmp/bandwidth/" + owner, vbw::SectionName(pid, transfer));
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

TEST_F(StatusSaveTest, GetReadsOneSectionOverTheCallersRecord)
{
    ASSERT_EQ(0, VESKBandwidthStatusSave(1026, nullptr, &status));
    VESK_BANDWIDTH_STATUS back;
    memset(&back, 0x5a, sizeof(back));
    ASSERT_EQ(0, VESKBandwidthStatusGet(VESK_BW_OWNER_USER, 1026, kDown, &back));
    EXPECT_EQ((void *)0x5a5a5a5a5a5a5a5aULL, (void *)back.pNext);  // never touched
    back.pNext = nullptr;
    EXPECT_EQ(0, memcmp(&status, &back, offsetof(VESK_BANDWIDTH_STATUS, filename)));

    // A key missing from the section leaves the field as the caller had it.
    vbw::WriteFile(kUserFile, "[4242-2]\npid=4242\ncurrent speed=7\n", 0666);
    ASSERT_EQ(0, VESKBandwidthIStatusGet(VESK_BW_OWNER_USER, 1026, 4242, kDown, &back));
    EXPECT_TRUE(back.current_speed == 7 && back.filename == std::string(status.filename));

    EXPECT_EQ(-1, VESKBandwidthIStatusGet(VESK_BW_OWNER_USER, 1026, 4243, kDown, &status));
    EXPECT_EQ(-1, VESKBandwidthIStatusGet(VESK_BW_OWNER_USER, 1027, 4242, kDown, &status));
    EXPECT_TRUE(log.Contains("Get section [4243-2] from [/tmp/bandwidth/user-1026] failed.") &&
                log.Contains("File [/tmp/bandwidth/user-1027] doesn't exist."))
        << log.Dump();
}

// Alice (1026) is in groups 100, 101 and 103; group 102 is not hers.  Her
// upload and download and another transfer's download are in each file.
class StatusRemoveTest : public vbw::ConfigTest {
protected:
    void SetUp() override
    {
        ConfigTest::SetUp();
        Populate();
    }
    static void Populate()
    {
        const std::vector<vbw::StatusEntry> entries = {
            {getpid(), 1026, 10, 1, kUp}, {getpid(), 1026, 20, 1, kDown}, {kOther, 1026, 30, 1, kDown}};
        vbw::WriteStatusFile("user", 1026, entries);
        for (unsigned gid : {100, 101, 102, 103}) {
            vbw::WriteStatusFile("group", gid, entries);
        }
    }
};

// By a list of occupied groups: group 200 has no file, nothing to do there.
TEST_F(StatusRemoveTest, OwnSectionsLeaveTheListedGroups)
{
    const unsigned groups[] = {100, 200, 103};
    ASSERT_EQ(0, VESKBandwidthStatusRemoveByOccGroups(groups, 3, kUp)) << log.Dump();
    EXPECT_FALSE(Has("group-100", getpid(), kUp) || Has("group-103", getpid(), kUp));
    EXPECT_TRUE(Has("group-100", getpid(), kDown) && Has("group-101", getpid(), kUp) && Has("user-1026", getpid(), kUp));
}

TEST_F(StatusRemoveTest, ForcedRemovalVisitsEveryGroupOfTheUser)
{
    ASSERT_EQ(0, VESKBandwidthStatusForceRemoveAllByUID(1026, VESK_BW_TRANSFER_ALL)) << log.Dump();
    for (const char *owner : {"user-1026", "group-100", "group-101", "group-103"}) {
        EXPECT_TRUE(!Has(owner, getpid(), kDown) && Has(owner, kOther, kDown)) << owner;
    }
    EXPECT_TRUE(Has("group-102", getpid(), kDown));

    // Failures: a bad pid, and a gid with text after its digits, which ends
    // the walk over the groups there.
    Populate();
    EXPECT_EQ(-1, VESKBandwidthStatusForceRemoveAllByUserName("alice", VESK_BW_TRANSFER_ALL, -1));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_TRUE(Has("user-1026", getpid(), kDown));
    const std::vector<std::string> groups = {"100", "100x", "103"};
    vbw::FakeGroupList(&groups);
    EXPECT_EQ(-1, VESKBandwidthStatusForceRemoveAllByUID(1026, VESK_BW_TRANSFER_ALL));
    EXPECT_EQ(BW_ERR_BAD_VALUE, VLIBCErrGet());
    EXPECT_TRUE(log.From("bandwidth_status_remove.cpp", "invalid gid [100x]")) << log.Dump();
    EXPECT_FALSE(Has("user-1026", getpid(), kDown) || Has("group-100", getpid(), kDown));
    EXPECT_TRUE(Has("group-103", getpid(), kDown));
}

TEST(StatusDumpTest, OneFixedWidthLinePerTransfer)
{
    ASSERT_TRUE(vbw::InSandbox());
    VESK_BANDWIDTH_STATUS status = vbw::Status(4321, 524288, 1048576);
    auto dump = [&status](int result) {
        return vbw::Printed([&](FILE *fp) { return VESKBandwidthStatusDump(fp, &status); }, result);
    };
    status.timestamp = 1700000000;
    snprintf(status.filename, sizeof status.filename, "/volume1/share/a.iso");
    status.progress = 2550;
    EXPECT_EQ("                         alice        ftp   download  4321 1700000000"
              "    1024.00     512.00 25.50 /volume1/share/a.iso\n",
              dump(0));
    // A group copy prints the group's name; values without a name print as unknown.
    status.owner_type = VESK_BW_OWNER_GROUP;
    status.id = 102;
    status.protocol_type = (VESK_BW_PROTOCOL_TYPE)64;
    status.transfer_type = VESK_BW_TRANSFER_ALL;
    EXPECT_TRUE(vbw::Has(dump(0), "media unknown(64) unknown(3)  4321 1700000000")) << dump(0);
    status.id = 4343;  // no such group: nothing is printed
    EXPECT_EQ("", dump(-1));
}

}  // namespace

// A transfer's status in the shared status files of its user and of the
// groups it occupies: saving, registering and reading back, removal by its
// own process or forced from outside, switching it off, and the status dump.
#include <stddef.h>
#include <sys/stat.h>
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
    int Init(const char *szFileName, int64_t *pWhen, VESK_BANDWIDTH_STATUS *pStatus)
    {
        return VESKBandwidthStatusInit(&config, kDown, szFileName, pWhen, pStatus);
    }

    VESK_BANDWIDTH_STATUS status = vbw::Status(getpid());
};

TEST_F(StatusSaveTest, FirstSaveCreatesTheDirectoryAndTheUserFile)
{
    const VESK_BANDWIDTH_STATUS before = status;
    ASSERT_EQ(0, VESKBandwidthStatusSave(1026, NULL, &status)) << log.Dump();
    EXPECT_EQ(022u, umask(022));
    EXPECT_EQ(S_IFDIR | 0777u, vbw::Stat("/tmp/bandwidth").st_mode);
    EXPECT_EQ(0666u, vbw::Stat(kUserFile).st_mode & 07777);  // shared by every process of the user
    const std::string header = "\n[" + vbw::SectionName(getpid(), kDown) + "]\n";
    EXPECT_EQ(header, vbw::ReadFile(kUserFile).substr(0, header.size()));
    EXPECT_EQ("1000", Own("user-1026")["current speed"]);
    EXPECT_EQ("/share/a.iso", Own("user-1026")["filename"]);
    EXPECT_TRUE(vbw::SameBytes(before, status));
}

TEST_F(StatusSaveTest, FileInPlaceOfTheDirectoryFailsEverySave)
{
    vbw::WriteFile("/tmp/bandwidth", "not a directory");
    EXPECT_EQ(-1, VESKBandwidthStatusSave(1026, NULL, &status));
    EXPECT_TRUE(log.Contains("VESKFSMkdirP failed. [/tmp/bandwidth/]")) << log.Dump();
    EXPECT_EQ(022u, umask(022));
}

TEST_F(StatusSaveTest, GroupCopiesAreScaledByTheShare)
{
    Occupy({{kAlice, 10000}, {100, 5000}, {101, 0}, {103, 10000}});
    config.pLimit[1].ullMaxSpeedBps = 300000;
    config.blGroupConfExist = 0;
    ASSERT_EQ(0, VESKBandwidthStatusSave(1026, &config, &status));
    EXPECT_FALSE(vbw::Exists("/tmp/bandwidth/group-100"));  // the configuration says: no group record

    const VESK_BANDWIDTH_STATUS before = status;
    config.blGroupConfExist = 1;
    ASSERT_EQ(0, VESKBandwidthStatusSave(1026, &config, &status)) << log.Dump();
    std::map<std::string, std::string> copy = Own("group-100");
    EXPECT_EQ("500", copy["current speed"]);
    EXPECT_EQ("300000", copy["expect speed"]);
    EXPECT_EQ("group", copy["owner type"]);
    EXPECT_EQ("100", copy["id"]);
    EXPECT_EQ("1026", copy["uid"]);
    EXPECT_EQ("1000", Own("group-103")["current speed"]);
    EXPECT_FALSE(vbw::Exists("/tmp/bandwidth/group-101"));
    EXPECT_EQ(1u, vbw::ReadSections(kUserFile).size());
    EXPECT_TRUE(vbw::SameBytes(before, status));

    // A group copy that cannot be written still sets the record back.
    Occupy({{102, 5000}});
    vbw::MakeDirs("/tmp/bandwidth/group-102", 0777);  // cannot be rewritten as a file
    EXPECT_EQ(-1, VESKBandwidthStatusSave(1026, &config, &status));
    EXPECT_TRUE(log.Contains("Save record for uid: [1026], section:[" + vbw::SectionName(getpid(), kDown) + "] failed."))
        << log.Dump();
    EXPECT_TRUE(vbw::SameBytes(before, status));
    EXPECT_EQ(022u, umask(022));
}

TEST_F(StatusSaveTest, InitWritesOnlyALimitedTransfer)
{
    VESK_BANDWIDTH_STATUS fresh;
    memset(&fresh, 0, sizeof(fresh));
    fresh.current_speed = 9;
    int64_t when = 42;
    Use({vbw::Limit(VESK_BW_OWNER_USER, 1026, 0, 512)});
    config.globalConf.iState = VESK_BW_STATE_DISABLED;
    ASSERT_EQ(0, Init("/share/b.iso", &when, &fresh));
    VESK_BANDWIDTH_STATUS expected = vbw::Status(getpid(), 9, 0);
    expected.timestamp = 0;  // filled: pid, ids, type, protocol, file name, owner and active only
    memset(expected.filename, 0, sizeof(expected.filename));
    strcpy(expected.filename, "/share/b.iso");
    EXPECT_TRUE(vbw::SameBytes(expected, fresh));

    config.globalConf.iState = VESK_BW_STATE_ENABLED;
    config.pLimit[0].ullCurRate[kDown] = 0;  // unlimited under the policies
    ASSERT_EQ(0, Init("/share/b.iso", &when, &fresh));
    EXPECT_EQ(42, when);
    EXPECT_FALSE(vbw::Exists("/tmp/bandwidth"));

    config.pLimit[0].ullCurRate[kDown] = 512;
    for (int i = 0; i < 2; i++) {
        int64_t start = VESKBandwidthCurrTimeGet();
        ASSERT_EQ(0, Init("/share/b.iso", &when, &fresh));
        EXPECT_LE(start, when);
        EXPECT_LE(when, VESKBandwidthCurrTimeGet());
    }
    EXPECT_EQ(1u, vbw::ReadSections(kUserFile).size());  // the second registration replaced the first
    std::map<std::string, std::string> own = Own("user-1026");
    EXPECT_EQ("524288", own["current speed"]);
    EXPECT_EQ("524288", own["expect speed"]);
    EXPECT_EQ("0", own["progress"]);

    const std::string longName(5000, 'n');
    ASSERT_EQ(0, Init(longName.c_str(), &when, &fresh));
    EXPECT_EQ(longName.substr(0, 4095), fresh.filename);
}

TEST_F(StatusSaveTest, GetReadsOneSectionOverTheCallersRecord)
{
    ASSERT_EQ(0, VESKBandwidthStatusSave(1026, NULL, &status));
    VESK_BANDWIDTH_STATUS back;
    memset(&back, 0x5a, sizeof(back));
    ASSERT_EQ(0, VESKBandwidthStatusGet(VESK_BW_OWNER_USER, 1026, kDown, &back));
    EXPECT_EQ((void *)0x5a5a5a5a5a5a5a5aULL, (void *)back.pNext);  // never touched
    back.pNext = NULL;
    EXPECT_EQ(0, memcmp(&status, &back, offsetof(VESK_BANDWIDTH_STATUS, filename)));
    EXPECT_STREQ(status.filename, back.filename);
    EXPECT_EQ(status.transfer_type, back.transfer_type);

    // A key missing from the section leaves the field as the caller had it.
    vbw::WriteFile(kUserFile, "[4242-2]\npid=4242\ncurrent speed=7\n", 0666);
    ASSERT_EQ(0, VESKBandwidthIStatusGet(VESK_BW_OWNER_USER, 1026, 4242, kDown, &back));
    EXPECT_EQ(7u, back.current_speed);
    EXPECT_STREQ(status.filename, back.filename);

    EXPECT_EQ(-1, VESKBandwidthIStatusGet(VESK_BW_OWNER_USER, 1026, 4243, kDown, &status));
    EXPECT_TRUE(log.Contains("Get section [4243-2] from [/tmp/bandwidth/user-1026] failed.")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthIStatusGet(VESK_BW_OWNER_USER, 1027, 4242, kDown, &status));
    EXPECT_TRUE(log.Contains("File [/tmp/bandwidth/user-1027] doesn't exist.")) << log.Dump();
    EXPECT_EQ(1026u, status.id);
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

TEST_F(StatusRemoveTest, OwnSectionsLeaveTheUserAndTheOccupiedGroups)
{
    Occupy({{kAlice, 10000}, {100, 5000}, {101, 0}, {103, 10000}});
    ASSERT_EQ(0, VESKBandwidthStatusRemove(&config, VESK_BW_TRANSFER_ALL)) << log.Dump();
    for (const char *owner : {"user-1026", "group-100", "group-103"}) {
        EXPECT_FALSE(Has(owner, getpid(), kUp) || Has(owner, getpid(), kDown)) << owner;
        EXPECT_TRUE(Has(owner, kOther, kDown)) << owner;
    }
    EXPECT_TRUE(Has("group-101", getpid(), kDown));  // share 0: not occupied

    Populate();
    ASSERT_EQ(0, VESKBandwidthStatusRemove(&config, kDown));
    EXPECT_TRUE(Has("user-1026", getpid(), kUp));
    EXPECT_FALSE(Has("user-1026", getpid(), kDown));
    EXPECT_FALSE(Has("group-103", getpid(), kDown));

    Populate();
    config.blGroupConfExist = 0;
    ASSERT_EQ(0, VESKBandwidthStatusRemove(&config, VESK_BW_TRANSFER_ALL));
    EXPECT_FALSE(Has("user-1026", getpid(), kDown));
    EXPECT_TRUE(Has("group-100", getpid(), kDown));

    // By a list of occupied groups: group 200 has no file, nothing to do there.
    Populate();
    const std::string before = vbw::ReadFile("/tmp/bandwidth/group-100");
    const unsigned groups[] = {100, 200, 103};
    ASSERT_EQ(0, VESKBandwidthStatusRemoveByOccGroups(groups, 0, VESK_BW_TRANSFER_ALL));
    EXPECT_EQ(before, vbw::ReadFile("/tmp/bandwidth/group-100"));
    ASSERT_EQ(0, VESKBandwidthStatusRemoveByOccGroups(groups, 3, kUp)) << log.Dump();
    EXPECT_FALSE(Has("group-100", getpid(), kUp));
    EXPECT_TRUE(Has("group-100", getpid(), kDown));
    EXPECT_FALSE(Has("group-103", getpid(), kUp));
    EXPECT_TRUE(Has("group-101", getpid(), kUp));
    EXPECT_TRUE(Has("user-1026", getpid(), kUp));
}

TEST_F(StatusRemoveTest, ForcedRemovalVisitsEveryGroupOfTheUser)
{
    ASSERT_EQ(0, VESKBandwidthStatusForceRemoveAllByUID(1026, VESK_BW_TRANSFER_ALL)) << log.Dump();
    for (const char *owner : {"user-1026", "group-100", "group-101", "group-103"}) {
        EXPECT_FALSE(Has(owner, getpid(), kDown)) << owner;
        EXPECT_TRUE(Has(owner, kOther, kDown)) << owner;
    }
    EXPECT_TRUE(Has("group-102", getpid(), kDown));
    ASSERT_EQ(0, VESKBandwidthStatusForceRemoveAllByUserName("alice", kDown, kOther)) << log.Dump();
    EXPECT_FALSE(Has("group-101", kOther, kDown));
    EXPECT_TRUE(Has("group-102", kOther, kDown));

    // Failures: a bad pid, an unknown user, a gid with text after its digits
    // (which ends the walk over the groups there).
    Populate();
    const std::string before = vbw::ReadFile(kUserFile);
    EXPECT_EQ(-1, VESKBandwidthStatusForceRemoveAllByUserName("alice", VESK_BW_TRANSFER_ALL, -1));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_EQ(before, vbw::ReadFile(kUserFile));
    EXPECT_TRUE(log.Contains("VESKBandwidthIStatusRemove failed. uid:[1026]")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthStatusForceRemoveAllByUserName("zoe", VESK_BW_TRANSFER_ALL, kOther));
    EXPECT_TRUE(log.Contains("VESKUserGet failed. name:[zoe]")) << log.Dump();
    const std::vector<std::string> groups = {"100", "100x", "103"};
    vbw::FakeGroupList(&groups);
    EXPECT_EQ(-1, VESKBandwidthStatusForceRemoveAllByUID(1026, VESK_BW_TRANSFER_ALL));
    EXPECT_EQ(BW_ERR_BAD_VALUE, VLIBCErrGet());
    EXPECT_TRUE(log.From("bandwidth_status_remove.cpp", "invalid gid [100x]")) << log.Dump();
    EXPECT_TRUE(log.Contains("VESKBandwidthIStatusForceRemoveAll failed. name:[alice]")) << log.Dump();
    EXPECT_FALSE(Has("user-1026", getpid(), kDown));
    EXPECT_FALSE(Has("group-100", getpid(), kDown));
    EXPECT_TRUE(Has("group-103", getpid(), kDown));
}

TEST_F(StatusRemoveTest, SetActiveRewritesOnlyTheUsersSection)
{
    ASSERT_EQ(0, VESKBandwidthStatusSetActiveByUserName("alice", kDown, kOther, 0)) << log.Dump();
    std::map<std::string, std::string> section = vbw::ReadSection(kUserFile, vbw::SectionName(kOther, kDown));
    EXPECT_EQ("0", section["active"]);
    EXPECT_EQ("30", section["current speed"]);
    EXPECT_EQ("user", section["owner type"]);
    EXPECT_EQ("1", vbw::ReadSection("/tmp/bandwidth/group-100", vbw::SectionName(kOther, kDown))["active"]);

    EXPECT_EQ(-1, VESKBandwidthStatusSetActiveByUserName("alice", kDown, kOther + 1, 0));
    EXPECT_TRUE(log.Contains("Get section [5001-2] from [/tmp/bandwidth/user-1026] failed.")) << log.Dump();
    EXPECT_TRUE(log.Contains("VESKBandwidthStatusGet failed. name:[alice]")) << log.Dump();
}

class StatusDumpTest : public vbw::SandboxTest {
protected:
    std::string Dump(int result = 0)
    {
        return vbw::Printed([&](FILE *fp) { return VESKBandwidthStatusDump(fp, &status_); }, result);
    }
    VESK_BANDWIDTH_STATUS status_ = vbw::Status(4321, 524288, 1048576);
};

TEST_F(StatusDumpTest, OneFixedWidthLinePerTransfer)
{
    status_.timestamp = 1700000000;
    snprintf(status_.filename, sizeof status_.filename, "/volume1/share/a.iso");
    status_.progress = 2550;
    EXPECT_EQ("                         alice        ftp   download  4321 1700000000"
              "    1024.00     512.00 25.50 /volume1/share/a.iso\n",
              Dump());
    // A group copy prints the group's name.
    status_.owner_type = VESK_BW_OWNER_GROUP;
    status_.id = 102;
    status_.protocol_type = VESK_BW_PROTOCOL_WEBDAV;
    status_.transfer_type = VESK_BW_TRANSFER_UPLOAD;
    EXPECT_EQ("                         media     webdav     upload  4321 1700000000"
              "    1024.00     512.00 25.50 /volume1/share/a.iso\n",
              Dump());
    // Values without a name print as unknown.
    status_.protocol_type = (VESK_BW_PROTOCOL_TYPE)64;
    status_.transfer_type = VESK_BW_TRANSFER_ALL;
    EXPECT_TRUE(vbw::Has(Dump(), "media unknown(64) unknown(3)  4321 1700000000"));

    const struct {
        uint64_t expect, current;
        uint32_t progress;
        const char *columns;
    } cases[] = {
        {0, 0, 5, "      0.00       0.00 0.05 "},
        {1536, 1, 10000, "      1.50       0.00 100.00 "},
        {1ull << 40, 3ull << 30, 0, "1073741824.00 3145728.00 0.00 "},
    };
    for (const auto &c : cases) {
        status_.expect_speed = c.expect;
        status_.current_speed = c.current;
        status_.progress = c.progress;
        std::string line = Dump();
        EXPECT_TRUE(vbw::Has(line, std::string("1700000000 ") + c.columns)) << line;
    }
}

TEST_F(StatusDumpTest, FailuresPrintNothing)
{
    status_.id = 4242;
    EXPECT_EQ("", Dump(-1));
    EXPECT_TRUE(log.From("bandwidth_status_dump.cpp", "VESKUserGetByUID failed. [4242] [0x")) << log.Dump();
    status_.owner_type = VESK_BW_OWNER_GROUP;
    status_.id = 4343;
    EXPECT_EQ("", Dump(-1));
    EXPECT_TRUE(log.Contains("VESKGroupGetByGID failed. [4343] [0x")) << log.Dump();
}

}  // namespace

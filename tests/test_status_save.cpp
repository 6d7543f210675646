// Saving, registering and reading back a transfer's status in the shared
// status files of its user and of the groups it occupies.
#include <stddef.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vbw_throttle_fixture.h"

namespace {

using vbw::kDown;
const char kUserFile[] = "/tmp/bandwidth/user-1026";

class StatusSaveTest : public vbw::ConfigTest {
protected:
    void SetUp() override
    {
        ConfigTest::SetUp();
        umask(022);
        config.globalConf = vbw::GlobalConf(VESK_BW_PROTOCOL_FTP, {1, VESK_BW_POLICY_MIN, VESK_BW_POLICY_MIN, 0, ""});
        strcpy(status.filename, "/share/a.iso");
    }
    std::map<std::string, std::string> Own(const std::string &file)
    {
        return vbw::ReadSection(file, vbw::SectionName(getpid(), kDown));
    }
    int Init(const char *szFileName, int64_t *pWhen, VESK_BANDWIDTH_STATUS *pStatus)
    {
        return VESKBandwidthStatusInit(&config, kDown, szFileName, pWhen, pStatus);
    }

    VESK_BANDWIDTH_STATUS status = vbw::Status(getpid());
};

VESK_BANDWIDTH_LIMIT Occupied(int owner_type, unsigned id, uint64_t share, uint64_t maxSpeed)
{
    VESK_BANDWIDTH_LIMIT limit = vbw::Limit(owner_type, id, 0, 100);
    limit.ullOccupyShare = share;
    limit.ullMaxSpeedBps = maxSpeed;
    return limit;
}

TEST_F(StatusSaveTest, FirstSaveCreatesTheDirectoryAndTheUserFile)
{
    const VESK_BANDWIDTH_STATUS before = status;
    ASSERT_EQ(0, VESKBandwidthStatusSave(1026, NULL, &status)) << log.Dump();
    EXPECT_EQ(022u, umask(022));
    struct stat st;
    ASSERT_EQ(0, stat("/tmp/bandwidth", &st));
    EXPECT_EQ(S_IFDIR | 0777u, st.st_mode);
    ASSERT_EQ(0, stat(kUserFile, &st));
    EXPECT_EQ(0666u, st.st_mode & 07777);  // shared by every process of the user
    const std::string header = "\n[" + vbw::SectionName(getpid(), kDown) + "]\n";
    EXPECT_EQ(header, vbw::ReadFile(kUserFile).substr(0, header.size()));
    EXPECT_EQ("1000", Own(kUserFile)["current speed"]);
    EXPECT_EQ("/share/a.iso", Own(kUserFile)["filename"]);
    EXPECT_TRUE(vbw::SameBytes(before, status));
}

TEST_F(StatusSaveTest, GroupCopiesAreScaledByTheShare)
{
    Use({Occupied(VESK_BW_OWNER_USER, 1026, 10000, 1), Occupied(VESK_BW_OWNER_GROUP, 100, 5000, 300000),
         Occupied(VESK_BW_OWNER_GROUP, 101, 0, 1), Occupied(VESK_BW_OWNER_GROUP, 103, 10000, 0)});
    ASSERT_EQ(0, VESKBandwidthStatusSave(1026, &config, &status));
    EXPECT_FALSE(vbw::Exists("/tmp/bandwidth/group-100"));  // the configuration says: no group record

    const VESK_BANDWIDTH_STATUS before = status;
    config.blGroupConfExist = 1;
    ASSERT_EQ(0, VESKBandwidthStatusSave(1026, &config, &status)) << log.Dump();
    std::map<std::string, std::string> copy = Own("/tmp/bandwidth/group-100");
    EXPECT_EQ("500", copy["current speed"]);
    EXPECT_EQ("300000", copy["expect speed"]);
    EXPECT_EQ("group", copy["owner type"]);
    EXPECT_EQ("100", copy["id"]);
    EXPECT_EQ("1026", copy["uid"]);
    EXPECT_EQ("1000", Own("/tmp/bandwidth/group-103")["current speed"]);
    EXPECT_FALSE(vbw::Exists("/tmp/bandwidth/group-101"));
    EXPECT_EQ(1u, vbw::ReadSections(kUserFile).size());
    EXPECT_TRUE(vbw::SameBytes(before, status));

    // A group copy that cannot be written still sets the record back.
    Use({Occupied(VESK_BW_OWNER_GROUP, 102, 5000, 300000)});
    vbw::MakeDirs("/tmp/bandwidth/group-102", 0777);  // cannot be rewritten as a file
    EXPECT_EQ(-1, VESKBandwidthStatusSave(1026, &config, &status));
    EXPECT_TRUE(log.Contains("Save record for uid: [1026], section:[" + vbw::SectionName(getpid(), kDown) + "] failed."))
        << log.Dump();
    EXPECT_TRUE(vbw::SameBytes(before, status));
    EXPECT_EQ(022u, umask(022));
}

TEST_F(StatusSaveTest, FileInPlaceOfTheDirectoryFailsEverySave)
{
    vbw::WriteFile("/tmp/bandwidth", "not a directory");
    EXPECT_EQ(-1, VESKBandwidthStatusSave(1026, NULL, &status));
    EXPECT_TRUE(log.Contains("VESKFSMkdirP failed. [/tmp/bandwidth/]")) << log.Dump();
    EXPECT_EQ(022u, umask(022));
    EXPECT_EQ(-1, VESKBandwidthStatusSave((uid_t)-1, NULL, &status));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
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
    std::map<std::string, std::string> own = Own(kUserFile);
    EXPECT_EQ("524288", own["current speed"]);
    EXPECT_EQ("524288", own["expect speed"]);
    EXPECT_EQ("0", own["progress"]);

    const std::string longName(5000, 'n');
    ASSERT_EQ(0, Init(longName.c_str(), &when, &fresh));
    EXPECT_EQ(longName.substr(0, 4095), fresh.filename);
    EXPECT_EQ(-1, Init(NULL, &when, &fresh));
    EXPECT_TRUE(log.Contains("Invaild Argument (((void *)0) != szFileName)=[0]")) << log.Dump();
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

    // Failures.
    EXPECT_EQ(-1, VESKBandwidthIStatusGet(VESK_BW_OWNER_USER, 1026, 4243, kDown, &status));
    EXPECT_TRUE(log.Contains("Get section [4243-2] from [/tmp/bandwidth/user-1026] failed.")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthIStatusGet(VESK_BW_OWNER_USER, 1027, 4242, kDown, &status));
    EXPECT_TRUE(log.Contains("File [/tmp/bandwidth/user-1027] doesn't exist.")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthIStatusGet(VESK_BW_OWNER_USER, 1026, 4242, VESK_BW_TRANSFER_ALL, &status));
    EXPECT_TRUE(log.Contains("Invaild Argument (VESK_BW_TRANSFER_ALL != transfer_type)=[0]")) << log.Dump();
    EXPECT_EQ(1026u, status.id);
}

}  // namespace

// The configuration store: the path rule, per-owner limit files and the
// global protocol file, on real files in the sandbox.
#include <string.h>

#include <string>

#include "vbw_test.h"
#include "veskbandwidth.h"

namespace {

const std::string kDir = "/usr/vesk/etc/bandwidth/";
const std::string kFtpFile = kDir + "bandwidth.ftp.conf";
const std::string kGlobalFile = kDir + "bandwidth.global.conf";
const std::string kKillallArgs = "/tmp/killall.args";

class ConfStore : public vbw::SandboxTest {
protected:
    void SetUp() override
    {
        vbw::SandboxTest::SetUp();
        // Stand-in for killall: one line per hangup the library sends.
        vbw::WriteFile("/usr/bin/killall", "#!/bin/sh\necho \"$*\" >> " + kKillallArgs + "\n", 0755);
    }

    static int Occurrences(const std::string &text, const std::string &what)
    {
        int count = 0;
        for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) {
            ++count;
        }
        return count;
    }

    static int Hangups() { return Occurrences(vbw::ReadFile(kKillallArgs), "-sighup veskbandwidth\n"); }

    static VESK_BANDWIDTH_CONF FtpLimit(unsigned int uid, uint64_t upload, uint64_t download)
    {
        VESK_BANDWIDTH_CONF conf;
        memset(&conf, 0, sizeof(conf));
        conf.id = uid;
        conf.iState = VESK_BW_STATE_SCHEDULE;
        conf.iProtocol = VESK_BW_PROTOCOL_FTP;
        conf.iOwnerType = VESK_BW_OWNER_USER;
        conf.ullRate[VESK_BW_TRANSFER_UPLOAD] = upload;
        conf.ullRate[VESK_BW_TRANSFER_DOWNLOAD] = download;
        conf.ullCustomRate[VESK_BW_TRANSFER_UPLOAD] = 100;
        conf.ullCustomRate[VESK_BW_TRANSFER_DOWNLOAD] = 200;
        strcpy(conf.szSchedulePlan, std::string(168, '2').replace(0, 24, std::string(24, '1')).c_str());
        return conf;
    }

    static void ExpectFtpDefaults(const VESK_BANDWIDTH_CONF &conf, int ownerType, unsigned int id)
    {
        EXPECT_EQ(id, conf.id);
        EXPECT_EQ(0, conf.iCurState);
        EXPECT_EQ(VESK_BW_STATE_NOTEXISTED, conf.iState);
        EXPECT_EQ(VESK_BW_PROTOCOL_FTP, conf.iProtocol);
        EXPECT_EQ(ownerType, conf.iOwnerType);
        for (int slot : {VESK_BW_TRANSFER_UPLOAD, VESK_BW_TRANSFER_DOWNLOAD}) {
            EXPECT_EQ(0u, conf.ullCurRate[slot]);
            EXPECT_EQ(0u, conf.ullRate[slot]);
            EXPECT_EQ(0u, conf.ullCustomRate[slot]);
        }
        const char zeros[VESK_BW_SCHEDULE_PLAN_SIZE] = {0};
        EXPECT_EQ(0, memcmp(zeros, conf.szSchedulePlan, sizeof(zeros)));
    }
};

TEST_F(ConfStore, PathRule)
{
    char path[4096];
    ASSERT_EQ(0, VESKBandwidthConfPath(VESK_BW_PROTOCOL_FTP, path, sizeof(path)));
    EXPECT_STREQ(kFtpFile.c_str(), path);
    ASSERT_EQ(0, VESKBandwidthConfPath(VESK_BW_PROTOCOL_ALL, path, sizeof(path)));
    EXPECT_STREQ(kGlobalFile.c_str(), path);
    ASSERT_EQ(0, VESKBandwidthConfPath(VESK_BW_PROTOCOL_LANTERNPOST, path, 10));
    EXPECT_STREQ("/usr/vesk", path);

    vbw::MakeDirs(kDir + "addon");
    vbw::WriteFile(kDir + "addon/backup_app_32.json", "{}");
    ASSERT_EQ(0, VESKBandwidthConfPath(32, path, sizeof(path)));
    EXPECT_EQ(kDir + "bandwidth.backup_app.conf", path);

    log.Clear();
    EXPECT_EQ(-1, VESKBandwidthConfPath(7, path, sizeof(path)));
    EXPECT_TRUE(log.Contains("bandwidth_conf_path.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("Failed to get protocol for protocol_type [7] [0x")) << log.Dump();

    EXPECT_EQ(-1, VESKBandwidthConfPath(VESK_BW_PROTOCOL_FTP, nullptr, 16));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_TRUE(log.Contains("Invaild Argument (((void *)0) != szConfPath)=[0]")) << log.Dump();
}

TEST_F(ConfStore, UnstoredLimitReadsAsDefaults)
{
    VESK_BANDWIDTH_CONF conf;
    memset(&conf, 0xAB, sizeof(conf));
    ASSERT_EQ(0, VESKBandwidthConfGetByID(VESK_BW_OWNER_GROUP, 100, VESK_BW_PROTOCOL_FTP, &conf));
    ExpectFtpDefaults(conf, VESK_BW_OWNER_GROUP, 100);
    EXPECT_FALSE(vbw::Exists(kFtpFile)) << "reading must not create the file";

    // The file exists but holds only another owner's section.
    vbw::MakeDirs(kDir);
    vbw::WriteFile(kFtpFile, "[user-1026]\nid=1026\nstate=enabled\nupload rate=5\n");
    memset(&conf, 0xAB, sizeof(conf));
    ASSERT_EQ(0, VESKBandwidthConfGetByID(VESK_BW_OWNER_GROUP, 100, VESK_BW_PROTOCOL_FTP, &conf));
    ExpectFtpDefaults(conf, VESK_BW_OWNER_GROUP, 100);
    EXPECT_EQ(0, log.Lines().size()) << log.Dump();
}

TEST_F(ConfStore, ReadRefusesBadArgumentsBeforeTouchingTheRecord)
{
    VESK_BANDWIDTH_CONF conf, before;
    memset(&conf, 0xAB, sizeof(conf));
    before = conf;
    EXPECT_EQ(-1, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_ALL, &conf));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_EQ(0, memcmp(&before, &conf, sizeof(conf)));
    EXPECT_TRUE(log.Contains("Invaild Argument ((0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type)=[0]"))
        << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, nullptr));
    EXPECT_TRUE(log.Contains("Invaild Argument (NULL != pConf)=[0]")) << log.Dump();

    // An unnamed protocol fails in the path rule, before the defaults.
    log.Clear();
    EXPECT_EQ(-1, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026, 7, &conf));
    EXPECT_EQ(0, memcmp(&before, &conf, sizeof(conf)));
    EXPECT_TRUE(log.Contains("VESKBandwidthConfPath failed for protocol [7] [0x")) << log.Dump();

    // An unnamed owner type fails after the defaults are in place.
    log.Clear();
    EXPECT_EQ(-1, VESKBandwidthConfGetByID(5, 1026, VESK_BW_PROTOCOL_FTP, &conf));
    ExpectFtpDefaults(conf, 5, 1026);
    EXPECT_TRUE(log.Contains("bandwidth_conf_get_by_id.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("VESKBandwidthEnumToName failed, id=5")) << log.Dump();
}

TEST_F(ConfStore, StoreCreatesDirectoryAndFileThenReplacesTheSection)
{
    VESK_BANDWIDTH_CONF stored = FtpLimit(1026, 500, 1000);
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&stored)) << log.Dump();
    ASSERT_TRUE(vbw::Exists(kFtpFile));
    EXPECT_EQ(1, Occurrences(vbw::ReadFile(kFtpFile), "[user-1026]"));
    EXPECT_EQ(0, Hangups()) << "storing a limit sends no reload notice";

    VESK_BANDWIDTH_CONF read;
    memset(&read, 0, sizeof(read));
    ASSERT_EQ(0, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, &read));
    EXPECT_EQ(VESK_BW_STATE_SCHEDULE, read.iState);
    EXPECT_EQ(500u, read.ullRate[VESK_BW_TRANSFER_UPLOAD]);
    EXPECT_EQ(1000u, read.ullRate[VESK_BW_TRANSFER_DOWNLOAD]);
    EXPECT_EQ(100u, read.ullCustomRate[VESK_BW_TRANSFER_UPLOAD]);
    EXPECT_EQ(200u, read.ullCustomRate[VESK_BW_TRANSFER_DOWNLOAD]);
    EXPECT_STREQ(stored.szSchedulePlan, read.szSchedulePlan);

    // A group next to it, then the user again: one section each, the new rates.
    VESK_BANDWIDTH_CONF group = FtpLimit(100, 7, 8);
    group.iOwnerType = VESK_BW_OWNER_GROUP;
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&group));
    stored = FtpLimit(1026, 1, 2);
    stored.iState = VESK_BW_STATE_ENABLED;
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&stored));
    std::string file = vbw::ReadFile(kFtpFile);
    EXPECT_EQ(1, Occurrences(file, "[user-1026]")) << file;
    EXPECT_EQ(1, Occurrences(file, "[group-100]")) << file;

    ASSERT_EQ(0, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, &read));
    EXPECT_EQ(VESK_BW_STATE_ENABLED, read.iState);
    EXPECT_EQ(1u, read.ullRate[VESK_BW_TRANSFER_UPLOAD]);
    ASSERT_EQ(0, VESKBandwidthConfGetByID(VESK_BW_OWNER_GROUP, 100, VESK_BW_PROTOCOL_FTP, &read));
    EXPECT_EQ(7u, read.ullRate[VESK_BW_TRANSFER_UPLOAD]);
    EXPECT_EQ(0, log.Lines().size()) << log.Dump();
}

TEST_F(ConfStore, FailedStoresChangeNothing)
{
    VESK_BANDWIDTH_CONF conf = FtpLimit(1026, 500, 1000);
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&conf));
    const std::string before = vbw::ReadFile(kFtpFile);

    EXPECT_EQ(-1, VESKBandwidthConfSetByID(nullptr));
    EXPECT_TRUE(log.Contains("Invaild Argument (((void *)0) != pConf)=[0]")) << log.Dump();

    conf.iOwnerType = (VESK_BW_OWNER_TYPE)5;
    EXPECT_EQ(-1, VESKBandwidthConfSetByID(&conf));
    EXPECT_TRUE(log.Contains("bandwidth_conf_set_by_id.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("VESKBandwidthEnumToName failed, protocol=5")) << log.Dump();

    conf.iOwnerType = VESK_BW_OWNER_USER;
    conf.iProtocol = (VESK_BW_PROTOCOL_TYPE)7;
    EXPECT_EQ(-1, VESKBandwidthConfSetByID(&conf));
    EXPECT_TRUE(log.Contains("VESKBandwidthConfPath failed for protocol [7] [0x")) << log.Dump();
    EXPECT_EQ(before, vbw::ReadFile(kFtpFile));
}

TEST_F(ConfStore, StoreReportsADirectoryThatCannotBeMade)
{
    vbw::MakeDirs("/usr/vesk");
    vbw::WriteFile("/usr/vesk/etc", "not a directory");
    VESK_BANDWIDTH_CONF conf = FtpLimit(1026, 500, 1000);
    EXPECT_EQ(-1, VESKBandwidthConfSetByID(&conf));
    EXPECT_TRUE(log.Contains("bandwidth_conf_set_by_id.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("VESKFSMkdirP failed. [/usr/vesk/etc/bandwidth/] [0x")) << log.Dump();
    EXPECT_EQ("not a directory", vbw::ReadFile("/usr/vesk/etc"));
}

TEST_F(ConfStore, MalformedStoredValues)
{
    vbw::MakeDirs(kDir);
    const std::string file = "[user-1026]\nid=1026\nstate=enabled\nupload rate=300\ndownload rate=12k\n"
                             "[user-1027]\nid=1027\nstate=bogus\nupload rate=9\nschedule plan=" +
                             std::string(300, '1') +
                             "\n"
                             "[user-1028]\nid=2000\nstate=enabled\nowner type=group\nprotocol type=rsync\n";
    vbw::WriteFile(kFtpFile, file);

    // A rate that is not a number fails the read, after the fields before it.
    VESK_BANDWIDTH_CONF conf;
    EXPECT_EQ(-1, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, &conf));
    EXPECT_EQ(BW_ERR_BAD_VALUE, VLIBCErrGet());
    EXPECT_EQ(VESK_BW_STATE_ENABLED, conf.iState);
    EXPECT_EQ(300u, conf.ullRate[VESK_BW_TRANSFER_UPLOAD]);
    EXPECT_TRUE(log.Contains("parm_table[5].fnFromHashStr failed.")) << log.Dump();
    EXPECT_TRUE(log.Contains("bandwidth_conf_get_by_id.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("Init conf from hash failed. [0x4000 ")) << log.Dump();

    // An unknown state keeps the default; an over-long plan is cut to 255.
    log.Clear();
    ASSERT_EQ(0, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1027, VESK_BW_PROTOCOL_FTP, &conf));
    EXPECT_EQ(VESK_BW_STATE_NOTEXISTED, conf.iState);
    EXPECT_EQ(9u, conf.ullRate[VESK_BW_TRANSFER_UPLOAD]);
    EXPECT_EQ(std::string(255, '1'), conf.szSchedulePlan);
    EXPECT_TRUE(log.Contains("Unknown string value [bogus] for [state]")) << log.Dump();

    // Keys that disagree with the section's name win.
    ASSERT_EQ(0, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1028, VESK_BW_PROTOCOL_FTP, &conf));
    EXPECT_EQ(2000u, conf.id);
    EXPECT_EQ(VESK_BW_OWNER_GROUP, conf.iOwnerType);
    EXPECT_EQ(VESK_BW_PROTOCOL_RSYNC, conf.iProtocol);

    EXPECT_EQ(file, vbw::ReadFile(kFtpFile)) << "reading must never change the file";
}

TEST_F(ConfStore, GlobalRecordDefaults)
{
    VESK_BANDWIDTH_GLOBAL_CONF conf;
    memset(&conf, 0xAB, sizeof(conf));
    ASSERT_EQ(0, VESKBandwidthGlobalConfGet(VESK_BW_PROTOCOL_FTP, &conf));
    EXPECT_EQ(VESK_BW_STATE_DISABLED, conf.iCurState);
    EXPECT_EQ(VESK_BW_STATE_NOTEXISTED, conf.iState);
    EXPECT_EQ(VESK_BW_PROTOCOL_FTP, conf.iProtocol);
    EXPECT_EQ(VESK_BW_POLICY_USER_FIRST, conf.iUserGroupPolicy);
    EXPECT_EQ(VESK_BW_POLICY_MAX, conf.iInterGroupPolicy);
    EXPECT_EQ(VESK_BW_OCCUPY_MAX, conf.iOccupyPolicy);
    const char zeros[VESK_BW_SCHEDULE_PLAN_SIZE] = {0};
    EXPECT_EQ(0, memcmp(zeros, conf.szSchedulePlan, sizeof(zeros)));

    // A section with only a state keeps the other defaults; a bad name is skipped.
    vbw::MakeDirs(kDir);
    vbw::WriteFile(kGlobalFile, "[webdav]\nstate=schedule\n[rsync]\nstate=enabled\noccupy policy=greedy\n");
    ASSERT_EQ(0, VESKBandwidthGlobalConfGet(VESK_BW_PROTOCOL_WEBDAV, &conf));
    EXPECT_EQ(VESK_BW_STATE_SCHEDULE, conf.iState);
    EXPECT_EQ(VESK_BW_STATE_DISABLED, conf.iCurState);
    EXPECT_EQ(VESK_BW_PROTOCOL_WEBDAV, conf.iProtocol);
    EXPECT_EQ(VESK_BW_POLICY_USER_FIRST, conf.iUserGroupPolicy);
    EXPECT_EQ(VESK_BW_OCCUPY_MAX, conf.iOccupyPolicy);
    EXPECT_STREQ("", conf.szSchedulePlan);
    ASSERT_EQ(0, VESKBandwidthGlobalConfGet(VESK_BW_PROTOCOL_RSYNC, &conf));
    EXPECT_EQ(VESK_BW_STATE_ENABLED, conf.iState);
    EXPECT_EQ(VESK_BW_OCCUPY_MAX, conf.iOccupyPolicy);
    EXPECT_TRUE(log.Contains("Unknown string value [greedy] for [occupy policy]")) << log.Dump();

    // Protocol 15 is refused before the record is touched.
    VESK_BANDWIDTH_GLOBAL_CONF before = conf;
    EXPECT_EQ(-1, VESKBandwidthGlobalConfGet(VESK_BW_PROTOCOL_ALL, &conf));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_EQ(0, memcmp(&before, &conf, sizeof(conf)));

    // An unnamed protocol leaves the defaults behind.
    log.Clear();
    EXPECT_EQ(-1, VESKBandwidthGlobalConfGet(7, &conf));
    EXPECT_EQ(7, conf.iProtocol);
    EXPECT_EQ(VESK_BW_STATE_NOTEXISTED, conf.iState);
    EXPECT_TRUE(log.Contains("bandwidth_global_conf_get.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("VESKBandwidthEnumToName failed, protocol_type=7")) << log.Dump();
}

TEST_F(ConfStore, GlobalStoreSignalsOncePerSuccessfulStore)
{
    VESK_BANDWIDTH_GLOBAL_CONF conf;
    memset(&conf, 0, sizeof(conf));
    conf.iProtocol = VESK_BW_PROTOCOL_WEBDAV;
    conf.iState = VESK_BW_STATE_NOTEXISTED;
    conf.iUserGroupPolicy = VESK_BW_POLICY_SUM;
    conf.iInterGroupPolicy = VESK_BW_POLICY_MIN;
    conf.iOccupyPolicy = VESK_BW_OCCUPY_WEIGHTED;
    strcpy(conf.szSchedulePlan, "0101");

    ASSERT_EQ(0, VESKBandwidthGlobalConfSet(&conf)) << log.Dump();
    EXPECT_EQ(VESK_BW_STATE_DISABLED, conf.iState) << "NotExisted is stored as disabled";
    EXPECT_EQ(1, Hangups());
    std::string file = vbw::ReadFile(kGlobalFile);
    EXPECT_NE(std::string::npos, file.find("state=disabled\n")) << file;
    EXPECT_EQ(std::string::npos, file.find("protocol")) << "the protocol is the section's name only: " << file;

    VESK_BANDWIDTH_GLOBAL_CONF read;
    ASSERT_EQ(0, VESKBandwidthGlobalConfGet(VESK_BW_PROTOCOL_WEBDAV, &read));
    EXPECT_EQ(VESK_BW_STATE_DISABLED, read.iState);
    EXPECT_EQ(VESK_BW_POLICY_SUM, read.iUserGroupPolicy);
    EXPECT_EQ(VESK_BW_POLICY_MIN, read.iInterGroupPolicy);
    EXPECT_EQ(VESK_BW_OCCUPY_WEIGHTED, read.iOccupyPolicy);
    EXPECT_STREQ("0101", read.szSchedulePlan);

    // Storing again replaces the section and signals again.
    conf.iState = VESK_BW_STATE_ENABLED;
    ASSERT_EQ(0, VESKBandwidthGlobalConfSet(&conf));
    EXPECT_EQ(2, Hangups());
    file = vbw::ReadFile(kGlobalFile);
    EXPECT_EQ(1, Occurrences(file, "[webdav]")) << file;
    EXPECT_NE(std::string::npos, file.find("state=enabled\n")) << file;

    // Protocol 15 is stored as the section "all".
    conf.iProtocol = VESK_BW_PROTOCOL_ALL;
    ASSERT_EQ(0, VESKBandwidthGlobalConfSet(&conf));
    EXPECT_EQ(3, Hangups());
    EXPECT_EQ(1, Occurrences(vbw::ReadFile(kGlobalFile), "[all]"));

    // Failed stores send nothing and leave the file alone.
    file = vbw::ReadFile(kGlobalFile);
    conf.iProtocol = (VESK_BW_PROTOCOL_TYPE)7;
    EXPECT_EQ(-1, VESKBandwidthGlobalConfSet(&conf));
    EXPECT_TRUE(log.Contains("bandwidth_global_conf_set.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("VESKBandwidthEnumToName failed, protocol=7")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthGlobalConfSet(nullptr));
    EXPECT_EQ(3, Hangups());
    EXPECT_EQ(file, vbw::ReadFile(kGlobalFile));
}

TEST_F(ConfStore, GlobalStoreFailingOnTheFileSendsNoHangup)
{
    vbw::MakeDirs("/usr/vesk");
    vbw::WriteFile("/usr/vesk/etc", "not a directory");
    VESK_BANDWIDTH_GLOBAL_CONF conf;
    memset(&conf, 0, sizeof(conf));
    conf.iProtocol = VESK_BW_PROTOCOL_FTP;
    conf.iState = VESK_BW_STATE_ENABLED;
    EXPECT_EQ(-1, VESKBandwidthGlobalConfSet(&conf));
    EXPECT_TRUE(log.Contains("bandwidth_global_conf_set.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("VESKFSMkdirP failed. [/usr/vesk/etc/bandwidth/] [0x")) << log.Dump();
    EXPECT_EQ(0, Hangups());
}

}  // namespace

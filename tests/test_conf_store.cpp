// The configuration store: the path rule, per-owner limit files and the
// global protocol file, on real files in the sandbox.
#include <string>

#include "transfer_support.h"

namespace {

using vbw::Conf;
using vbw::SameBytes;
using vbw::Text;

const std::string kDir = "/usr/vesk/etc/bandwidth/";
const std::string kFtpFile = kDir + "bandwidth.ftp.conf";
const std::string kGlobalFile = kDir + "bandwidth.global.conf";

class ConfStore : public vbw::SandboxTest {
protected:
    void SetUp() override
    {
        vbw::SandboxTest::SetUp();
        vbw::InstallKillallStandIn();
    }

    static int Hangups() { return vbw::Occurrences(vbw::ReadFile("/tmp/killall.args"), "-sighup veskbandwidth\n"); }

    // A scheduled ftp limit of a user, custom rates 100 and 200, unlimited on Sundays.
    static VESK_BANDWIDTH_CONF FtpLimit(unsigned int uid, uint64_t upload, uint64_t download)
    {
        VESK_BANDWIDTH_CONF conf = Conf(VESK_BW_OWNER_USER, uid, VESK_BW_PROTOCOL_FTP, upload, download,
                                        VESK_BW_STATE_SCHEDULE, std::string(24, '1') + std::string(144, '2'));
        conf.ullCustomRate[VESK_BW_TRANSFER_UPLOAD] = 100;
        conf.ullCustomRate[VESK_BW_TRANSFER_DOWNLOAD] = 200;
        return conf;
    }
    static VESK_BANDWIDTH_CONF Read(int ownerType, unsigned int id)
    {
        VESK_BANDWIDTH_CONF conf;
        memset(&conf, 0xAB, sizeof(conf));
        EXPECT_EQ(0, VESKBandwidthConfGetByID(ownerType, id, VESK_BW_PROTOCOL_FTP, &conf));
        return conf;
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

    EXPECT_EQ(-1, VESKBandwidthConfPath(7, path, sizeof(path)));
    EXPECT_TRUE(log.From("bandwidth_conf_path.cpp", "Failed to get protocol for protocol_type [7] [0x")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthConfPath(VESK_BW_PROTOCOL_FTP, nullptr, 16));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_TRUE(log.Contains("Invaild Argument (((void *)0) != szConfPath)=[0]")) << log.Dump();
}

TEST_F(ConfStore, UnstoredLimitReadsAsDefaults)
{
    const VESK_BANDWIDTH_CONF defaults = Conf(VESK_BW_OWNER_GROUP, 100, VESK_BW_PROTOCOL_FTP, 0, 0, 0);
    EXPECT_EQ(Text(defaults), Text(Read(VESK_BW_OWNER_GROUP, 100)));
    EXPECT_FALSE(vbw::Exists(kFtpFile)) << "reading must not create the file";

    // The file exists but holds only another owner's section.
    vbw::WriteConfFile("bandwidth.ftp.conf", "[user-1026]\nid=1026\nstate=enabled\nupload rate=5\n");
    EXPECT_EQ(Text(defaults), Text(Read(VESK_BW_OWNER_GROUP, 100)));
    EXPECT_EQ(0, log.Lines().size()) << log.Dump();
}

TEST_F(ConfStore, ReadRefusesBadArgumentsBeforeTouchingTheRecord)
{
    VESK_BANDWIDTH_CONF conf, before;
    memset(&conf, 0xAB, sizeof(conf));
    before = conf;
    EXPECT_EQ(-1, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_ALL, &conf));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_TRUE(log.Contains("Invaild Argument ((0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type)=[0]"))
        << log.Dump();
    // An unnamed protocol fails in the path rule, before the defaults.
    EXPECT_EQ(-1, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026, 7, &conf));
    EXPECT_EQ(Text(before), Text(conf));
    EXPECT_TRUE(log.Contains("VESKBandwidthConfPath failed for protocol [7] [0x")) << log.Dump();

    // An unnamed owner type fails after the defaults are in place.
    EXPECT_EQ(-1, VESKBandwidthConfGetByID(5, 1026, VESK_BW_PROTOCOL_FTP, &conf));
    EXPECT_EQ(Text(Conf(5, 1026, VESK_BW_PROTOCOL_FTP, 0, 0, 0)), Text(conf));
    EXPECT_TRUE(log.From("bandwidth_conf_get_by_id.cpp", "VESKBandwidthEnumToName failed, id=5")) << log.Dump();
}

TEST_F(ConfStore, StoreCreatesDirectoryAndFileThenReplacesTheSection)
{
    VESK_BANDWIDTH_CONF stored = FtpLimit(1026, 500, 1000);
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&stored)) << log.Dump();
    EXPECT_EQ(1, vbw::Occurrences(vbw::ReadFile(kFtpFile), "[user-1026]"));
    EXPECT_EQ(0, Hangups()) << "storing a limit sends no reload notice";
    EXPECT_EQ(Text(stored), Text(Read(VESK_BW_OWNER_USER, 1026)));

    // A group next to it, then the user again: one section each, the new rates.
    VESK_BANDWIDTH_CONF group = FtpLimit(100, 7, 8);
    group.iOwnerType = VESK_BW_OWNER_GROUP;
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&group));
    stored = Conf(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, 1, 2);
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&stored));
    std::string file = vbw::ReadFile(kFtpFile);
    EXPECT_EQ(1, vbw::Occurrences(file, "[user-1026]")) << file;
    EXPECT_EQ(1, vbw::Occurrences(file, "[group-100]")) << file;
    EXPECT_EQ(Text(stored), Text(Read(VESK_BW_OWNER_USER, 1026)));
    EXPECT_EQ(Text(group), Text(Read(VESK_BW_OWNER_GROUP, 100)));
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
    EXPECT_TRUE(log.From("bandwidth_conf_set_by_id.cpp", "VESKBandwidthEnumToName failed, protocol=5")) << log.Dump();
    conf.iOwnerType = VESK_BW_OWNER_USER;
    conf.iProtocol = (VESK_BW_PROTOCOL_TYPE)7;
    EXPECT_EQ(-1, VESKBandwidthConfSetByID(&conf));
    EXPECT_TRUE(log.Contains("VESKBandwidthConfPath failed for protocol [7] [0x")) << log.Dump();
    EXPECT_EQ(before, vbw::ReadFile(kFtpFile));
}

TEST_F(ConfStore, StoresReportADirectoryThatCannotBeMade)
{
    vbw::MakeDirs("/usr/vesk");
    vbw::WriteFile("/usr/vesk/etc", "not a directory");
    VESK_BANDWIDTH_CONF conf = FtpLimit(1026, 500, 1000);
    EXPECT_EQ(-1, VESKBandwidthConfSetByID(&conf));
    EXPECT_TRUE(log.From("bandwidth_conf_set_by_id.cpp", "VESKFSMkdirP failed. [/usr/vesk/etc/bandwidth/] [0x"))
        << log.Dump();
    VESK_BANDWIDTH_GLOBAL_CONF global = vbw::GlobalConf(VESK_BW_PROTOCOL_FTP);
    EXPECT_EQ(-1, VESKBandwidthGlobalConfSet(&global));
    EXPECT_TRUE(log.From("bandwidth_global_conf_set.cpp", "VESKFSMkdirP failed. [/usr/vesk/etc/bandwidth/] [0x"))
        << log.Dump();
    EXPECT_EQ(0, Hangups());
    EXPECT_EQ("not a directory", vbw::ReadFile("/usr/vesk/etc"));
}

TEST_F(ConfStore, MalformedStoredValues)
{
    const std::string file = "[user-1026]\nid=1026\nstate=enabled\nupload rate=300\ndownload rate=12k\n"
                             "[user-1027]\nid=1027\nstate=bogus\nupload rate=9\nschedule plan=" +
                             std::string(300, '1') +
                             "\n[user-1028]\nid=2000\nstate=enabled\nowner type=group\nprotocol type=rsync\n";
    vbw::WriteConfFile("bandwidth.ftp.conf", file);

    // A rate that is not a number fails the read, after the fields before it.
    VESK_BANDWIDTH_CONF conf;
    EXPECT_EQ(-1, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, &conf));
    EXPECT_EQ(BW_ERR_BAD_VALUE, VLIBCErrGet());
    EXPECT_EQ(VESK_BW_STATE_ENABLED, conf.iState);
    EXPECT_EQ(300u, conf.ullRate[VESK_BW_TRANSFER_UPLOAD]);
    EXPECT_TRUE(log.Contains("parm_table[5].fnFromHashStr failed.")) << log.Dump();
    EXPECT_TRUE(log.From("bandwidth_conf_get_by_id.cpp", "Init conf from hash failed. [0x4000 ")) << log.Dump();

    // An unknown state keeps the default; an over-long plan is cut to 255.
    conf = Read(VESK_BW_OWNER_USER, 1027);
    EXPECT_EQ(VESK_BW_STATE_NOTEXISTED, conf.iState);
    EXPECT_EQ(9u, conf.ullRate[VESK_BW_TRANSFER_UPLOAD]);
    EXPECT_EQ(std::string(255, '1'), conf.szSchedulePlan);
    EXPECT_TRUE(log.Contains("Unknown string value [bogus] for [state]")) << log.Dump();

    // Keys that disagree with the section's name win.
    EXPECT_EQ(Text(Conf(VESK_BW_OWNER_GROUP, 2000, VESK_BW_PROTOCOL_RSYNC, 0, 0)), Text(Read(VESK_BW_OWNER_USER, 1028)));
    EXPECT_EQ(file, vbw::ReadFile(kFtpFile)) << "reading must never change the file";
}

TEST_F(ConfStore, GlobalRecordDefaults)
{
    vbw::GlobalSpec settings;
    settings.state = VESK_BW_STATE_NOTEXISTED;
    VESK_BANDWIDTH_GLOBAL_CONF expected = vbw::GlobalConf(VESK_BW_PROTOCOL_FTP, settings), conf;
    expected.iCurState = VESK_BW_STATE_DISABLED;
    memset(&conf, 0xAB, sizeof(conf));
    ASSERT_EQ(0, VESKBandwidthGlobalConfGet(VESK_BW_PROTOCOL_FTP, &conf));
    EXPECT_TRUE(SameBytes(expected, conf));

    // A section with only a state keeps the other defaults; a bad name is skipped.
    vbw::WriteConfFile("bandwidth.global.conf", "[webdav]\nstate=schedule\n[rsync]\nstate=enabled\noccupy policy=greedy\n");
    ASSERT_EQ(0, VESKBandwidthGlobalConfGet(VESK_BW_PROTOCOL_WEBDAV, &conf));
    expected.iState = VESK_BW_STATE_SCHEDULE;
    expected.iProtocol = VESK_BW_PROTOCOL_WEBDAV;
    EXPECT_TRUE(SameBytes(expected, conf));
    ASSERT_EQ(0, VESKBandwidthGlobalConfGet(VESK_BW_PROTOCOL_RSYNC, &conf));
    EXPECT_EQ(VESK_BW_STATE_ENABLED, conf.iState);
    EXPECT_EQ(VESK_BW_OCCUPY_MAX, conf.iOccupyPolicy);
    EXPECT_TRUE(log.Contains("Unknown string value [greedy] for [occupy policy]")) << log.Dump();

    // Protocol 15 is refused before the record is touched.
    VESK_BANDWIDTH_GLOBAL_CONF before = conf;
    EXPECT_EQ(-1, VESKBandwidthGlobalConfGet(VESK_BW_PROTOCOL_ALL, &conf));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_TRUE(SameBytes(before, conf));

    // An unnamed protocol leaves the defaults behind.
    EXPECT_EQ(-1, VESKBandwidthGlobalConfGet(7, &conf));
    EXPECT_EQ(7, conf.iProtocol);
    EXPECT_EQ(VESK_BW_STATE_NOTEXISTED, conf.iState);
    EXPECT_TRUE(log.From("bandwidth_global_conf_get.cpp", "VESKBandwidthEnumToName failed, protocol_type=7"))
        << log.Dump();
}

TEST_F(ConfStore, GlobalStoreSignalsOncePerSuccessfulStore)
{
    vbw::GlobalSpec settings;
    settings.state = VESK_BW_STATE_NOTEXISTED;
    settings.userGroup = VESK_BW_POLICY_SUM;
    settings.interGroup = VESK_BW_POLICY_MIN;
    settings.occupy = VESK_BW_OCCUPY_WEIGHTED;
    settings.plan = "0101";
    VESK_BANDWIDTH_GLOBAL_CONF conf = vbw::GlobalConf(VESK_BW_PROTOCOL_WEBDAV, settings), read;
    ASSERT_EQ(0, VESKBandwidthGlobalConfSet(&conf)) << log.Dump();
    EXPECT_EQ(VESK_BW_STATE_DISABLED, conf.iState) << "NotExisted is stored as disabled";
    EXPECT_EQ(1, Hangups());
    std::string file = vbw::ReadFile(kGlobalFile);
    EXPECT_NE(std::string::npos, file.find("state=disabled\n")) << file;
    EXPECT_EQ(std::string::npos, file.find("protocol")) << "the protocol is the section's name only: " << file;
    ASSERT_EQ(0, VESKBandwidthGlobalConfGet(VESK_BW_PROTOCOL_WEBDAV, &read));
    conf.iCurState = VESK_BW_STATE_DISABLED;
    EXPECT_TRUE(SameBytes(conf, read));

    // Storing again replaces the section and signals again; protocol 15 is the section "all".
    conf.iState = VESK_BW_STATE_ENABLED;
    ASSERT_EQ(0, VESKBandwidthGlobalConfSet(&conf));
    EXPECT_EQ(2, Hangups());
    file = vbw::ReadFile(kGlobalFile);
    EXPECT_EQ(1, vbw::Occurrences(file, "[webdav]")) << file;
    EXPECT_NE(std::string::npos, file.find("state=enabled\n")) << file;
    conf.iProtocol = VESK_BW_PROTOCOL_ALL;
    ASSERT_EQ(0, VESKBandwidthGlobalConfSet(&conf));
    EXPECT_EQ(3, Hangups());
    EXPECT_EQ(1, vbw::Occurrences(vbw::ReadFile(kGlobalFile), "[all]"));

    // Failed stores send nothing and leave the file alone.
    file = vbw::ReadFile(kGlobalFile);
    conf.iProtocol = (VESK_BW_PROTOCOL_TYPE)7;
    EXPECT_EQ(-1, VESKBandwidthGlobalConfSet(&conf));
    EXPECT_TRUE(log.From("bandwidth_global_conf_set.cpp", "VESKBandwidthEnumToName failed, protocol=7")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthGlobalConfSet(nullptr));
    EXPECT_EQ(3, Hangups());
    EXPECT_EQ(file, vbw::ReadFile(kGlobalFile));
}

}  // namespace

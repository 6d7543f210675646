// Limit, global and status records to and from their key/value form; the
// configuration store (path rule, per-owner limit files, the global protocol
// file) on real files; and the text dumps of limit and global records.
#include <cstddef>
#include <cstring>
#include <string>

#include "vbw_throttle_fixture.h"

namespace {

using vbw::Conf;
using vbw::Has;
using vbw::Hash;
using vbw::Pairs;
using vbw::Printed;
using vbw::SameBytes;
using vbw::Text;

const std::string kDir = "/usr/vesk/etc/bandwidth/";
const std::string kFtpFile = kDir + "bandwidth.ftp.conf";
const std::string kGlobalFile = kDir + "bandwidth.global.conf";
const char kFtpRow[] = "   enabled                  ftp  user                alice        100        200\n";

// A record whose every byte is set, so that changes to fields without keys show.
template <typename Record> Record Filled(unsigned char byte)
{
    Record record;
    std::memset(&record, byte, sizeof record);
    return record;
}

// Alice's enabled ftp limit: rates 100/200, custom 50/60; other bytes 0x5a.
VESK_BANDWIDTH_CONF FtpUserLimit()
{
    VESK_BANDWIDTH_CONF conf = Filled<VESK_BANDWIDTH_CONF>(0x5a);
    VESK_BANDWIDTH_CONF fields = Conf(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, 100, 200);
    std::memcpy(&conf, &fields, offsetof(VESK_BANDWIDTH_CONF, ullCurRate));
    conf.ullRate[1] = conf.ullCurRate[1] = 100;
    conf.ullRate[2] = conf.ullCurRate[2] = 200;
    conf.ullCustomRate[1] = 50;
    conf.ullCustomRate[2] = 60;
    conf.szSchedulePlan[0] = '\0';
    return conf;
}

VESK_BANDWIDTH_STATUS FtpDownload()
{
    VESK_BANDWIDTH_STATUS status = vbw::Status(1234, 524288, 524288);
    status.id = status.uid = 1001;
    status.timestamp = 1700000000;
    std::strcpy(status.filename, "/share/a.iso");
    return status;
}

class ConfTest : public vbw::SandboxTest {
protected:
    void ExpectError(int code, const char *file)
    {
        EXPECT_EQ(code, VLIBCErrGet()) << log.Dump();
        EXPECT_STREQ(file, VLIBCErrorGetFile());
    }
    static int Hangups() { return vbw::Occurrences(vbw::ReadFile("/tmp/killall.args"), "-sighup veskbandwidth\n"); }
    static VESK_BANDWIDTH_CONF Read(int ownerType, unsigned int id, int protocol = VESK_BW_PROTOCOL_FTP)
    {
        VESK_BANDWIDTH_CONF conf = Filled<VESK_BANDWIDTH_CONF>(0xAB);
        EXPECT_EQ(0, VESKBandwidthConfGetByID(ownerType, id, protocol, &conf));
        return conf;
    }
    static std::string Row(const VESK_BANDWIDTH_CONF &conf, int result = 0)
    {
        return Printed([&](FILE *fp) { return VESKBandwidthConfDump(fp, &conf); }, result);
    }
    static std::string Row(const VESK_BANDWIDTH_GLOBAL_CONF &conf, int result = 0)
    {
        return Printed([&](FILE *fp) { return VESKBandwidthGlobalConfDump(fp, &conf); }, result);
    }
};

TEST_F(ConfTest, LimitRecordRoundTripsThroughItsNineKeys)
{
    VESK_BANDWIDTH_CONF conf = FtpUserLimit();
    Hash hash({{"stale", "gone"}});
    ASSERT_EQ(0, VESKBandwidthInitHashFromConf(hash.Address(), &conf)) << log.Dump();
    EXPECT_EQ((Pairs{{"id", "1026"}, {"state", "enabled"}, {"owner type", "user"}, {"protocol type", "ftp"},
                     {"upload rate", "100"}, {"download rate", "200"}, {"upload rate custom", "50"},
                     {"download rate custom", "60"}, {"schedule plan", ""}}),
              hash.Contents());

    // Back into a record: stored fields return, run-time fields and rate slots 0 and 3 stay.
    VESK_BANDWIDTH_CONF back = Filled<VESK_BANDWIDTH_CONF>(0x11), expected = back;
    ASSERT_EQ(0, VESKBandwidthInitConfFromHash(&back, hash));
    std::memcpy(&expected, &conf, offsetof(VESK_BANDWIDTH_CONF, iOwnerType) + sizeof(conf.iOwnerType));
    expected.iCurState = back.iCurState;
    std::memcpy(&expected.ullRate[1], &conf.ullRate[1], 2 * sizeof(uint64_t));
    std::memcpy(&expected.ullCustomRate[1], &conf.ullCustomRate[1], 2 * sizeof(uint64_t));
    expected.szSchedulePlan[0] = '\0';
    EXPECT_TRUE(SameBytes(expected, back));
    EXPECT_EQ(0, VESKBandwidthInitConfFromHash(&back, Hash()));  // no keys: the record stays as prepared
    EXPECT_TRUE(SameBytes(expected, back));

    // Values without names are left out, names without values skipped; add-ons are named.
    vbw::MakeDirs(kDir + "addon");
    vbw::WriteFile(kDir + "addon/backup_app_32.json", "{}");
    conf.iState = static_cast<VESK_BW_LIMIT_STATE>(7);
    conf.iProtocol = static_cast<VESK_BW_PROTOCOL_TYPE>(32);
    EXPECT_EQ(0, VESKBandwidthInitHashFromConf(hash.Address(), &conf));
    EXPECT_EQ(nullptr, hash["state"]);
    EXPECT_STREQ("backup_app", hash["protocol type"]);
    EXPECT_EQ(8u, hash.Contents().size());
    EXPECT_EQ(1, log.Count("bandwidth_conf_convert.cpp:")) << log.Dump();
    EXPECT_EQ(1, log.Count("Unknown value [7] for [state]")) << log.Dump();
    conf = FtpUserLimit();
    EXPECT_EQ(0, VESKBandwidthInitConfFromHash(&conf, Hash({{"state", "bogus"}, {"owner type", "Group"},
                                                             {"protocol type", "backup_app"}})));
    EXPECT_EQ(VESK_BW_STATE_ENABLED, conf.iState);
    EXPECT_EQ(VESK_BW_OWNER_USER, conf.iOwnerType);
    EXPECT_EQ(32, conf.iProtocol);
    EXPECT_TRUE(log.Contains("Unknown string value [bogus] for [state]")) << log.Dump();
    EXPECT_TRUE(log.Contains("Unknown string value [Group] for [owner type]")) << log.Dump();
}

TEST_F(ConfTest, LimitNumbersMustBeWholeAndAreCut)
{
    VESK_BANDWIDTH_CONF conf = FtpUserLimit();
    EXPECT_EQ(-1, VESKBandwidthInitConfFromHash(&conf, Hash({{"id", "1030"}, {"state", "disabled"},
                                                              {"upload rate", "12k"}, {"download rate", "7"}})));
    ExpectError(BW_ERR_BAD_VALUE, "bandwidth_conf_convert.cpp");
    EXPECT_TRUE(log.Contains("parm_table[4].fnFromHashStr failed.")) << log.Dump();
    // Earlier keys are in, the bad one keeps its digits, later ones are untouched.
    EXPECT_EQ("id 1030 states 0/2 protocol 4 owner 1 rates 100/200 rates 12/200 rates 50/60 plan ", Text(conf));

    EXPECT_EQ(0, VESKBandwidthInitConfFromHash(&conf, Hash({{"id", "4294967297"}, {"upload rate", ""},
                                                             {"download rate", " +42"}, {"upload rate custom", "-1"},
                                                             {"schedule plan", std::string(300, '1')}})));
    EXPECT_EQ("id 1 states 0/2 protocol 4 owner 1 rates 100/200 rates 0/42 rates 18446744073709551615/60 plan " +
                  std::string(255, '1'),
              Text(conf));
    EXPECT_EQ(-1, VESKBandwidthInitConfFromHash(&conf, Hash({{"id", "12 "}})));
    EXPECT_TRUE(log.Contains("parm_table[0].fnFromHashStr failed.")) << log.Dump();
}

// The global record's keys are checked byte for byte by the store below;
// here what the hash cannot set, and names of the wrong table.
TEST_F(ConfTest, GlobalRecordKeepsCurrentStateAndProtocolOutOfTheHash)
{
    VESK_BANDWIDTH_GLOBAL_CONF back = Filled<VESK_BANDWIDTH_GLOBAL_CONF>(0x7f), expected = back;
    ASSERT_EQ(0, VESKBandwidthInitGlobalConfFromHash(&back, Hash({{"protocol type", "ftp"}, {"state", "schedule"},
                                                                 {"user-group policy", "max"}})));
    expected.iState = VESK_BW_STATE_SCHEDULE;
    expected.iUserGroupPolicy = VESK_BW_POLICY_MAX;  // "max" is 5 here, 3 as an occupy policy
    EXPECT_TRUE(SameBytes(expected, back));

    // The inter-group table names only min, max and sum.
    expected.iInterGroupPolicy = VESK_BW_POLICY_USER_FIRST;
    Hash hash;
    ASSERT_EQ(0, VESKBandwidthInitHashFromGlobalConf(hash.Address(), &expected));
    EXPECT_EQ(nullptr, hash["inter-group policy"]);
    EXPECT_TRUE(log.Contains("Unknown value [2] for [inter-group policy]")) << log.Dump();
}

TEST_F(ConfTest, StatusRecordRoundTripsThroughItsTwelveKeys)
{
    VESK_BANDWIDTH_STATUS status = FtpDownload();
    Hash hash;
    ASSERT_EQ(0, VESKBandwidthInitHashFromStatus(hash.Address(), &status)) << log.Dump();
    EXPECT_EQ((Pairs{{"pid", "1234"}, {"id", "1001"}, {"uid", "1001"}, {"active", "1"}, {"timestamp", "1700000000"},
                     {"current speed", "524288"}, {"expect speed", "524288"}, {"filename", "/share/a.iso"},
                     {"owner type", "user"}, {"protocol type", "ftp"}, {"transfer type", "download"},
                     {"progress", "0"}}),
              hash.Contents());

    // Extremes keep their signs and widths.
    status.pid = -42;
    status.id = 4294967295u;
    status.timestamp = -5000000000LL;
    status.current_speed = UINT64_MAX;
    status.progress = 10000;
    ASSERT_EQ(0, VESKBandwidthInitHashFromStatus(hash.Address(), &status));
    EXPECT_STREQ("-42", hash["pid"]);
    EXPECT_STREQ("4294967295", hash["id"]);
    EXPECT_STREQ("-5000000000", hash["timestamp"]);
    EXPECT_STREQ("18446744073709551615", hash["current speed"]);
    VESK_BANDWIDTH_STATUS back = Filled<VESK_BANDWIDTH_STATUS>(0);
    ASSERT_EQ(0, VESKBandwidthInitStatusFromHash(&back, hash));
    EXPECT_TRUE(SameBytes(status, back));

    // A value without a name leaves its key out of the hash, which holds only the last record's keys.
    status.owner_type = static_cast<VESK_BW_OWNER_TYPE>(0);
    EXPECT_EQ(0, VESKBandwidthInitHashFromStatus(hash.Address(), &status));
    EXPECT_EQ(11u, hash.Contents().size());
    EXPECT_EQ(nullptr, hash["owner type"]);
    EXPECT_EQ(1, log.Count("bandwidth_status_convert.cpp:")) << log.Dump();
    EXPECT_EQ(1, log.Count("Unknown value [0] for [owner type]")) << log.Dump();
}

TEST_F(ConfTest, StatusReadChangesOnlyThePresentKeys)
{
    VESK_BANDWIDTH_STATUS status = FtpDownload(), expected = status;
    EXPECT_EQ(0, VESKBandwidthInitStatusFromHash(&status, Hash({{"pid", "12abc"}, {"filename", std::string(5000, 'f')},
                                                                {"transfer type", "sideways"}})));
    expected.pid = 12;  // signed fields ignore what follows the digits
    std::memset(expected.filename, 'f', 4095);
    expected.filename[4095] = '\0';
    EXPECT_TRUE(SameBytes(expected, status));
    EXPECT_TRUE(log.Contains("Unknown string value [sideways] for [transfer type]")) << log.Dump();

    EXPECT_EQ(0, VESKBandwidthInitStatusFromHash(&status, Hash({{"pid", "x"}, {"timestamp", "99 s"},
                                                                {"id", "4294967296"}, {"uid", "-1"}})));
    EXPECT_EQ(0, status.pid);
    EXPECT_EQ(99, status.timestamp);
    EXPECT_EQ(0u, status.id);
    EXPECT_EQ(4294967295u, status.uid);

    // Unsigned fields must parse whole: the read stops there.
    status.expect_speed = 99;
    EXPECT_EQ(-1, VESKBandwidthInitStatusFromHash(&status, Hash({{"active", "0"}, {"current speed", "12abc"},
                                                                 {"expect speed", "13"}})));
    ExpectError(BW_ERR_BAD_VALUE, "bandwidth_conf_convert.cpp");
    EXPECT_TRUE(log.From("bandwidth_status_convert.cpp", "parm_table[5].fnFromHashStr failed.")) << log.Dump();
    EXPECT_EQ(0u, status.active);
    EXPECT_EQ(12u, status.current_speed);
    EXPECT_EQ(99u, status.expect_speed);
}

TEST_F(ConfTest, PathRule)
{
    char path[4096];
    ASSERT_EQ(0, VESKBandwidthConfPath(VESK_BW_PROTOCOL_FTP, path, sizeof(path)));
    EXPECT_EQ(kFtpFile, path);
    ASSERT_EQ(0, VESKBandwidthConfPath(VESK_BW_PROTOCOL_ALL, path, sizeof(path)));
    EXPECT_EQ(kGlobalFile, path);
    ASSERT_EQ(0, VESKBandwidthConfPath(VESK_BW_PROTOCOL_LANTERNPOST, path, 10));
    EXPECT_STREQ("/usr/vesk", path);
    vbw::MakeDirs(kDir + "addon");
    vbw::WriteFile(kDir + "addon/backup_app_32.json", "{}");
    ASSERT_EQ(0, VESKBandwidthConfPath(32, path, sizeof(path)));
    EXPECT_EQ(kDir + "bandwidth.backup_app.conf", path);

    EXPECT_EQ(-1, VESKBandwidthConfPath(7, path, sizeof(path)));
    EXPECT_TRUE(log.From("bandwidth_conf_path.cpp", "Failed to get protocol for protocol_type [7] [0x")) << log.Dump();
}

TEST_F(ConfTest, UnstoredLimitReadsAsDefaultsAndBadArgumentsAreRefused)
{
    const VESK_BANDWIDTH_CONF defaults = Conf(VESK_BW_OWNER_GROUP, 100, VESK_BW_PROTOCOL_FTP, 0, 0, 0);
    EXPECT_EQ(Text(defaults), Text(Read(VESK_BW_OWNER_GROUP, 100)));
    EXPECT_FALSE(vbw::Exists(kFtpFile)) << "reading must not create the file";
    vbw::WriteConfFile("bandwidth.ftp.conf", "[user-1026]\nid=1026\nstate=enabled\nupload rate=5\n");
    EXPECT_EQ(Text(defaults), Text(Read(VESK_BW_OWNER_GROUP, 100)));  // another owner's section only
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();

    // A protocol without a name fails before the record is touched.
    VESK_BANDWIDTH_CONF conf = Filled<VESK_BANDWIDTH_CONF>(0xAB), before = conf;
    EXPECT_EQ(-1, VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026, 7, &conf));
    EXPECT_TRUE(SameBytes(before, conf));
    EXPECT_TRUE(log.Contains("VESKBandwidthConfPath failed for protocol [7] [0x")) << log.Dump();
    // An unnamed owner type fails after the defaults are in place.
    EXPECT_EQ(-1, VESKBandwidthConfGetByID(5, 1026, VESK_BW_PROTOCOL_FTP, &conf));
    EXPECT_EQ(Text(Conf(5, 1026, VESK_BW_PROTOCOL_FTP, 0, 0, 0)), Text(conf));
    EXPECT_TRUE(log.From("bandwidth_conf_get_by_id.cpp", "VESKBandwidthEnumToName failed, id=5")) << log.Dump();
}

TEST_F(ConfTest, StoreCreatesDirectoryAndFileThenReplacesTheSection)
{
    vbw::InstallKillallStandIn();
    VESK_BANDWIDTH_CONF stored = Conf(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, 500, 1000,
                                      VESK_BW_STATE_SCHEDULE, std::string(24, '1') + std::string(144, '2'));
    stored.ullCustomRate[VESK_BW_TRANSFER_UPLOAD] = 100;
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&stored)) << log.Dump();
    EXPECT_EQ(Text(stored), Text(Read(VESK_BW_OWNER_USER, 1026)));
    EXPECT_EQ(0, Hangups()) << "storing a limit sends no reload notice";

    // A group next to it, then the user again: one section each, the new rates.
    VESK_BANDWIDTH_CONF group = Conf(VESK_BW_OWNER_GROUP, 100, VESK_BW_PROTOCOL_FTP, 7, 8);
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&group));
    stored = Conf(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, 1, 2);
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&stored));
    const std::string file = vbw::ReadFile(kFtpFile);
    EXPECT_EQ(1, vbw::Occurrences(file, "[user-1026]")) << file;
    EXPECT_EQ(1, vbw::Occurrences(file, "[group-100]")) << file;
    EXPECT_EQ(Text(stored), Text(Read(VESK_BW_OWNER_USER, 1026)));
    EXPECT_EQ(Text(group), Text(Read(VESK_BW_OWNER_GROUP, 100)));
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();

    // Failed stores change nothing.
    stored.iOwnerType = (VESK_BW_OWNER_TYPE)5;
    EXPECT_EQ(-1, VESKBandwidthConfSetByID(&stored));
    EXPECT_TRUE(log.From("bandwidth_conf_set_by_id.cpp", "VESKBandwidthEnumToName failed, protocol=5")) << log.Dump();
    stored.iOwnerType = VESK_BW_OWNER_USER;
    stored.iProtocol = (VESK_BW_PROTOCOL_TYPE)7;
    EXPECT_EQ(-1, VESKBandwidthConfSetByID(&stored));
    EXPECT_TRUE(log.Contains("VESKBandwidthConfPath failed for protocol [7] [0x")) << log.Dump();
    EXPECT_EQ(file, vbw::ReadFile(kFtpFile));
}

TEST_F(ConfTest, StoresReportADirectoryThatCannotBeMade)
{
    vbw::InstallKillallStandIn();
    vbw::MakeDirs("/usr/vesk");
    vbw::WriteFile("/usr/vesk/etc", "not a directory");
    VESK_BANDWIDTH_CONF conf = Conf(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, 5, 10);
    EXPECT_EQ(-1, VESKBandwidthConfSetByID(&conf));
    VESK_BANDWIDTH_GLOBAL_CONF global = vbw::GlobalConf(VESK_BW_PROTOCOL_FTP);
    EXPECT_EQ(-1, VESKBandwidthGlobalConfSet(&global));
    for (const char *module : {"bandwidth_conf_set_by_id.cpp", "bandwidth_global_conf_set.cpp"}) {
        EXPECT_TRUE(log.From(module, "VESKFSMkdirP failed. [/usr/vesk/etc/bandwidth/] [0x")) << log.Dump();
    }
    EXPECT_EQ(0, Hangups());
    EXPECT_EQ("not a directory", vbw::ReadFile("/usr/vesk/etc"));
}

TEST_F(ConfTest, MalformedStoredValues)
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

TEST_F(ConfTest, GlobalRecordDefaults)
{
    vbw::GlobalSettings settings;
    settings.state = VESK_BW_STATE_NOTEXISTED;
    VESK_BANDWIDTH_GLOBAL_CONF expected = vbw::GlobalConf(VESK_BW_PROTOCOL_FTP, settings);
    VESK_BANDWIDTH_GLOBAL_CONF conf = Filled<VESK_BANDWIDTH_GLOBAL_CONF>(0xAB);
    expected.iCurState = VESK_BW_STATE_DISABLED;
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

    // An unnamed protocol leaves the defaults behind.
    EXPECT_EQ(-1, VESKBandwidthGlobalConfGet(7, &conf));
    EXPECT_EQ(7, conf.iProtocol);
    EXPECT_EQ(VESK_BW_STATE_NOTEXISTED, conf.iState);
    EXPECT_TRUE(log.From("bandwidth_global_conf_get.cpp", "VESKBandwidthEnumToName failed, protocol_type=7"))
        << log.Dump();
}

TEST_F(ConfTest, GlobalStoreSignalsOncePerSuccessfulStore)
{
    vbw::InstallKillallStandIn();
    VESK_BANDWIDTH_GLOBAL_CONF conf = vbw::GlobalConf(
        VESK_BW_PROTOCOL_WEBDAV,
        {VESK_BW_STATE_NOTEXISTED, VESK_BW_POLICY_SUM, VESK_BW_POLICY_MIN, VESK_BW_OCCUPY_WEIGHTED, "0101"});
    VESK_BANDWIDTH_GLOBAL_CONF read;
    ASSERT_EQ(0, VESKBandwidthGlobalConfSet(&conf)) << log.Dump();
    EXPECT_EQ(VESK_BW_STATE_DISABLED, conf.iState) << "NotExisted is stored as disabled";
    EXPECT_EQ(1, Hangups());
    EXPECT_EQ("[webdav]\nstate=disabled\nuser-group policy=sum\ninter-group policy=min\noccupy policy=weighted\n"
              "schedule plan=0101\n",
              vbw::ReadFile(kGlobalFile));
    ASSERT_EQ(0, VESKBandwidthGlobalConfGet(VESK_BW_PROTOCOL_WEBDAV, &read));
    conf.iCurState = VESK_BW_STATE_DISABLED;
    EXPECT_TRUE(SameBytes(conf, read));

    // Storing again replaces the section and signals again; protocol 15 is the section "all".
    conf.iState = VESK_BW_STATE_ENABLED;
    ASSERT_EQ(0, VESKBandwidthGlobalConfSet(&conf));
    std::string file = vbw::ReadFile(kGlobalFile);
    EXPECT_EQ(1, vbw::Occurrences(file, "[webdav]")) << file;
    EXPECT_TRUE(Has(file, "state=enabled\n")) << file;
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

TEST_F(ConfTest, LimitDumpHeaderAndRows)
{
    EXPECT_EQ("     State             Protocol  Type                 Name U/L rate(KB/s) D/L rate(KB/s)\n",
              Printed(VESKBandwidthConfDumpHeader));
    // The rates in force are printed, not the configured ones.
    VESK_BANDWIDTH_CONF conf = FtpUserLimit();
    conf.ullRate[1] = 999;
    EXPECT_EQ(kFtpRow, Row(conf));
    // A limit record of a throttle configuration begins with the same fields.
    VESK_BANDWIDTH_LIMIT limit = vbw::Limit(VESK_BW_OWNER_USER, 1027, 0, 12345678901ULL, VESK_BW_PROTOCOL_RSYNC);
    limit.iState = VESK_BW_STATE_SCHEDULE;
    EXPECT_EQ("  schedule                rsync  user                  bob          0 12345678901\n",
              Row(*(const VESK_BANDWIDTH_CONF *)&limit));
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
    // A stored limit of a group read back has no rates in force.
    conf = Conf(VESK_BW_OWNER_GROUP, 100, VESK_BW_PROTOCOL_WEBDAV, 500, 600, VESK_BW_STATE_DISABLED);
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&conf)) << log.Dump();
    EXPECT_EQ("  disabled               webdav group                users          0          0\n",
              Row(Read(VESK_BW_OWNER_GROUP, 100, VESK_BW_PROTOCOL_WEBDAV)));

    // Values without a name print as unknown.
    conf = Conf(VESK_BW_OWNER_USER, 1027, 7, 0, 0, 7);
    conf.ullCurRate[VESK_BW_TRANSFER_UPLOAD] = 1;
    conf.ullCurRate[VESK_BW_TRANSFER_DOWNLOAD] = 2;
    EXPECT_EQ("unknown(7)           unknown(7)  user                  bob          1          2\n", Row(conf));
    EXPECT_TRUE(log.Contains("Unknown value [7] for [state]")) << log.Dump();

    // An owner that cannot be named refuses the row.
    const struct {
        int ownerType;
        unsigned int id;
        const char *message;
    } cases[] = {{VESK_BW_OWNER_ALL, 1026, "Unknown conf type. id:[1026] "},
                 {VESK_BW_OWNER_USER, 4242, "Get User failed. id:[4242] [0x"},
                 {VESK_BW_OWNER_GROUP, 4242, "Get Group failed. id:[4242] [0x"}};
    for (const auto &c : cases) {
        EXPECT_EQ("", Row(Conf(c.ownerType, c.id, VESK_BW_PROTOCOL_FTP, 0, 0), -1));
        EXPECT_TRUE(log.From("bandwidth_conf_dump.cpp", c.message)) << log.Dump();
    }
    Row(Conf(VESK_BW_OWNER_ALL, 1026, VESK_BW_PROTOCOL_FTP, 0, 0), -1);
    EXPECT_EQ(BW_ERR_UNKNOWN_CONF_TYPE, VLIBCErrGet());
    EXPECT_STREQ("bandwidth_conf_dump.cpp", VLIBCErrorGetFile());
}

TEST_F(ConfTest, GlobalDumpHeaderAndRows)
{
    EXPECT_EQ("     State             Protocol UserGroupPolicy InterGroupPolicy    OccupyPolicy    SchedulePlan\n",
              Printed(VESKBandwidthGlobalConfDumpHeader));
    // A full week's plan is printed whole as the last column.
    std::string plan;
    for (int day = 0; day < 7; ++day) {
        plan += std::string(8, '0') + std::string(10, '1') + std::string(6, '0');
    }
    VESK_BANDWIDTH_GLOBAL_CONF conf = vbw::GlobalConf(
        VESK_BW_PROTOCOL_WEBDAV,
        {VESK_BW_STATE_SCHEDULE, VESK_BW_POLICY_USER_FIRST, VESK_BW_POLICY_MAX, VESK_BW_OCCUPY_MAX, plan});
    EXPECT_EQ("  schedule               webdav      user-first             max             max " + plan + "\n",
              Row(conf));
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
    // The inter-group table has no user-first: a value of another table is unnamed here.
    conf = vbw::GlobalConf(VESK_BW_PROTOCOL_FTP,
                           {VESK_BW_STATE_ENABLED, 9, VESK_BW_POLICY_USER_FIRST, VESK_BW_OCCUPY_NONE, ""});
    EXPECT_EQ("   enabled                  ftp      unknown(9)      unknown(2)            none                \n",
              Row(conf));

    // An unnamed protocol refuses the row.
    conf.iProtocol = (VESK_BW_PROTOCOL_TYPE)7;
    EXPECT_EQ("", Row(conf, -1));
    EXPECT_TRUE(log.From("bandwidth_global_conf_dump.cpp", "VESKBandwidthEnumToName failed, protocol=7")) << log.Dump();
}

}  // namespace

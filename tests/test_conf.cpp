// Limit and global records to and from their key/value form (the status
// record's numbers too), the limit and global files, and their dumps.
#include <cstring>

#include "vbw_throttle_fixture.h"

namespace {

using vbw::Conf;
using vbw::Hash;
using vbw::Pairs;
using vbw::SameBytes;

const std::string kDir = "/usr/vesk/etc/bandwidth/";
const std::string kGlobalFile = kDir + "bandwidth.global.conf";

// A record whose every byte is set, so that changes to fields without keys show.
template <typename Record>
Record Filled(unsigned char byte)
{
    Record record;
    std::memset(&record, byte, sizeof record);
    return record;
}

class ConfTest : public vbw::SandboxTest {
protected:
    static int Hangups() { return vbw::Occurrences(vbw::ReadFile("/tmp/killall.args"), "-sighup veskbandwidth\n"); }
    static std::string Row(const VESK_BANDWIDTH_CONF &conf, int result = 0)
    {
        return vbw::Printed([&](FILE *fp) { return VESKBandwidthConfDump(fp, &conf); }, result);
    }
    static std::string Row(const VESK_BANDWIDTH_GLOBAL_CONF &conf, int result = 0)
    {
        return vbw::Printed([&](FILE *fp) { return VESKBandwidthGlobalConfDump(fp, &conf); }, result);
    }
};

TEST_F(ConfTest, LimitRecordRoundTripsThroughItsNineKeys)
{
    VESK_BANDWIDTH_CONF conf = Conf(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, 100, 200);
    conf.ullCustomRate[1] = 50;
    conf.ullCustomRate[2] = 60;
    Hash hash({{"stale", "gone"}});
    ASSERT_EQ(0, VESKBandwidthInitHashFromConf(hash.Address(), &conf)) << log.Dump();
    EXPECT_EQ((Pairs{{"id", "1026"},
                     {"state", "enabled"},
                     {"owner type", "user"},
                     {"protocol type", "ftp"},
                     {"upload rate", "100"},
                     {"download rate", "200"},
                     {"upload rate custom", "50"},
                     {"download rate custom", "60"},
                     {"schedule plan", ""}}),
              hash.Contents());

    // Back into a record: the stored fields return, run-time fields and rate slots 0 and 3 stay.
    VESK_BANDWIDTH_CONF back = Filled<VESK_BANDWIDTH_CONF>(0x11), expected = back;
    ASSERT_EQ(0, VESKBandwidthInitConfFromHash(&back, hash));
    expected.id = 1026;
    expected.iState = VESK_BW_STATE_ENABLED;
    expected.iProtocol = VESK_BW_PROTOCOL_FTP;
    expected.iOwnerType = VESK_BW_OWNER_USER;
    expected.ullRate[1] = 100, expected.ullRate[2] = 200;
    expected.ullCustomRate[1] = 50, expected.ullCustomRate[2] = 60;
    expected.szSchedulePlan[0] = '\0';
    EXPECT_TRUE(SameBytes(expected, back));

    // Names that no table knows are logged and leave their fields alone.
    EXPECT_EQ(0, VESKBandwidthInitConfFromHash(&back, Hash({{"state", "bogus"}, {"owner type", "Group"}})));
    EXPECT_TRUE(SameBytes(expected, back));
    EXPECT_TRUE(log.Contains("Unknown string value [Group] for [owner type]")) << log.Dump();
}

// Unsigned fields must parse whole and are cut to their width; the signed
// status fields ignore what follows their digits.  A failed key stops the
// read: earlier keys are in, the failed field keeps its digits.
TEST_F(ConfTest, NumbersInEveryRecord)
{
    const struct {
        bool status;
        const char *key, *text;
        int result;
        const char *value;  // as the record gives it back
    } cases[] = {
        {false, "upload rate", "12k", -1, "12"},
        {false, "upload rate", "", 0, "0"},
        {false, "upload rate", " +42", 0, "42"},
        {false, "upload rate", "-1", 0, "18446744073709551615"},
        {false, "id", "4294967297", 0, "1"},
        {false, "id", "12 ", -1, "12"},
        {true, "current speed", "12abc", -1, "12"},
        {true, "uid", "-1", 0, "4294967295"},
        {true, "pid", "12abc", 0, "12"},
        {true, "timestamp", "99 s", 0, "99"},
    };
    for (const auto &c : cases) {
        VESK_BANDWIDTH_CONF conf = Conf(VESK_BW_OWNER_USER, 5, VESK_BW_PROTOCOL_FTP, 7, 7);
        VESK_BANDWIDTH_STATUS status = vbw::Status(5);
        Hash in({{"state", "disabled"}, {"active", "0"}, {c.key, c.text}}), out;
        EXPECT_EQ(c.result,
                  c.status ? VESKBandwidthInitStatusFromHash(&status, in) : VESKBandwidthInitConfFromHash(&conf, in))
            << c.key << "=" << c.text;
        ASSERT_EQ(0, c.status ? VESKBandwidthInitHashFromStatus(out.Address(), &status)
                              : VESKBandwidthInitHashFromConf(out.Address(), &conf));
        EXPECT_STREQ(c.value, out[c.key]) << c.key << "=" << c.text;
        if (c.result == 0 || std::string(c.key) != "id") {
            EXPECT_STREQ(c.status ? "0" : "disabled", out[c.status ? "active" : "state"]) << c.key;
        }
        if (c.result < 0) {
            EXPECT_EQ(BW_ERR_BAD_VALUE, VLIBCErrGet()) << c.key;
            EXPECT_STREQ("bandwidth_conf_convert.cpp", VLIBCErrorGetFile());
        }
    }
    EXPECT_TRUE(log.From("bandwidth_status_convert.cpp", "fnFromHashStr failed.")) << log.Dump();
}

TEST_F(ConfTest, GlobalRecordDefaultsStoreAndOneSignalPerStore)
{
    vbw::InstallKillallStandIn();
    VESK_BANDWIDTH_GLOBAL_CONF conf = Filled<VESK_BANDWIDTH_GLOBAL_CONF>(0xAB);
    VESK_BANDWIDTH_GLOBAL_CONF expected = vbw::GlobalConf(VESK_BW_PROTOCOL_WEBDAV, {0, 2, 5, 3, ""});
    expected.iCurState = VESK_BW_STATE_DISABLED;
    ASSERT_EQ(0, VESKBandwidthGlobalConfGet(VESK_BW_PROTOCOL_WEBDAV, &conf));
    EXPECT_TRUE(SameBytes(expected, conf));

    conf = vbw::GlobalConf(VESK_BW_PROTOCOL_WEBDAV, {0, VESK_BW_POLICY_SUM, 4, VESK_BW_OCCUPY_WEIGHTED, "0101"});
    ASSERT_EQ(0, VESKBandwidthGlobalConfSet(&conf)) << log.Dump();
    EXPECT_EQ(VESK_BW_STATE_DISABLED, conf.iState) << "NotExisted is stored as disabled";
    EXPECT_EQ("[webdav]\nstate=disabled\nuser-group policy=sum\ninter-group policy=min\noccupy policy=weighted\n"
              "schedule plan=0101\n",
              vbw::ReadFile(kGlobalFile));
    conf.iState = VESK_BW_STATE_ENABLED;  // stored again: the section is replaced
    ASSERT_EQ(0, VESKBandwidthGlobalConfSet(&conf));
    EXPECT_EQ(1, vbw::Occurrences(vbw::ReadFile(kGlobalFile), "[webdav]"));

    // Failed stores send nothing.  A directory that cannot be made is logged by the module that stores.
    conf.iProtocol = (VESK_BW_PROTOCOL_TYPE)7;
    EXPECT_EQ(-1, VESKBandwidthGlobalConfSet(&conf));
    EXPECT_TRUE(log.From("bandwidth_global_conf_set.cpp", "VESKBandwidthEnumToName failed, protocol=7")) << log.Dump();
    VESK_BANDWIDTH_CONF limit = Conf(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, 1, 2);
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&limit));  // a limit store sends no reload notice
    ASSERT_EQ(0, rename("/usr/vesk/etc", "/usr/vesk/old"));
    vbw::WriteFile("/usr/vesk/etc", "not a directory");
    conf.iProtocol = VESK_BW_PROTOCOL_FTP;
    EXPECT_EQ(-1, VESKBandwidthGlobalConfSet(&conf));
    EXPECT_EQ(-1, VESKBandwidthConfSetByID(&limit));
    for (const char *module : {"bandwidth_conf_set_by_id.cpp", "bandwidth_global_conf_set.cpp"}) {
        EXPECT_TRUE(log.From(module, "VESKFSMkdirP failed. [/usr/vesk/etc/bandwidth/] [0x")) << log.Dump();
    }
    EXPECT_EQ(2, Hangups());  // one per successful store
}

TEST_F(ConfTest, DumpRows)
{
    EXPECT_EQ("     State             Protocol  Type                 Name U/L rate(KB/s) D/L rate(KB/s)\n",
              vbw::Printed(VESKBandwidthConfDumpHeader));
    // The rates in force are printed; a limit record of a configuration begins with the same fields.
    VESK_BANDWIDTH_LIMIT limit = vbw::Limit(VESK_BW_OWNER_USER, 1027, 0, 12345678901ULL, VESK_BW_PROTOCOL_RSYNC);
    limit.iState = VESK_BW_STATE_SCHEDULE;
    limit.ullRate[2] = 999;
    EXPECT_EQ("  schedule                rsync  user                  bob          0 12345678901\n",
              Row(*(const VESK_BANDWIDTH_CONF *)&limit));
    EXPECT_EQ("  disabled               webdav group                users          0          0\n",
              Row(Conf(VESK_BW_OWNER_GROUP, 100, VESK_BW_PROTOCOL_WEBDAV, 5, 6, VESK_BW_STATE_DISABLED)));
    EXPECT_EQ("unknown(7)           unknown(7)  user                  bob          0          0\n",
              Row(Conf(VESK_BW_OWNER_USER, 1027, 7, 0, 0, 7)));
    EXPECT_EQ("", Row(Conf(VESK_BW_OWNER_ALL, 1026, VESK_BW_PROTOCOL_FTP, 0, 0), -1));
    EXPECT_EQ(BW_ERR_UNKNOWN_CONF_TYPE, VLIBCErrGet());

    EXPECT_EQ("     State             Protocol UserGroupPolicy InterGroupPolicy    OccupyPolicy    SchedulePlan\n",
              vbw::Printed(VESKBandwidthGlobalConfDumpHeader));
    const std::string plan = vbw::WeekPlan('1');
    EXPECT_EQ("  schedule               webdav      user-first             max             max " + plan + "\n",
              Row(vbw::GlobalConf(VESK_BW_PROTOCOL_WEBDAV, {VESK_BW_STATE_SCHEDULE, 2, 5, 3, plan})));
    // The inter-group table has no user-first: a value of another table is unnamed here.
    EXPECT_EQ("   enabled                  ftp      unknown(9)      unknown(2)            none                \n",
              Row(vbw::GlobalConf(VESK_BW_PROTOCOL_FTP, {VESK_BW_STATE_ENABLED, 9, 2, 0, ""})));
    EXPECT_EQ("", Row(vbw::GlobalConf(7), -1));
}

}  // namespace

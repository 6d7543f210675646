// Limit, global and status records to and from their key/value form.
#include <cstddef>
#include <cstring>
#include <functional>
#include <string>

#include "vbw_throttle_fixture.h"

namespace {

using vbw::Hash;
using vbw::Pairs;
using vbw::SameBytes;

// A record whose every byte is set, so that changes to fields without keys show.
template <typename Record>
Record Filled(unsigned char byte)
{
    Record record;
    std::memset(&record, byte, sizeof record);
    return record;
}

VESK_BANDWIDTH_CONF FtpUserLimit()
{
    VESK_BANDWIDTH_CONF conf = Filled<VESK_BANDWIDTH_CONF>(0x5a);
    conf.id = 1026;
    conf.iState = VESK_BW_STATE_ENABLED;
    conf.iOwnerType = VESK_BW_OWNER_USER;
    conf.iProtocol = VESK_BW_PROTOCOL_FTP;
    conf.ullRate[1] = 100;
    conf.ullRate[2] = 200;
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

class ConvertTest : public vbw::SandboxTest {
protected:
    void ExpectError(int code, const char *file)
    {
        EXPECT_EQ(code, VLIBCErrGet()) << log.Dump();
        EXPECT_STREQ(file, VLIBCErrorGetFile());
    }
};

TEST_F(ConvertTest, LimitRecordRoundTripsThroughItsNineKeys)
{
    VESK_BANDWIDTH_CONF conf = FtpUserLimit();
    Hash hash({{"stale", "gone"}});
    ASSERT_EQ(0, VESKBandwidthInitHashFromConf(hash.Address(), &conf)) << log.Dump();
    EXPECT_EQ((Pairs{{"id", "1026"}, {"state", "enabled"}, {"owner type", "user"}, {"protocol type", "ftp"},
                     {"upload rate", "100"}, {"download rate", "200"}, {"upload rate custom", "50"},
                     {"download rate custom", "60"}, {"schedule plan", ""}}),
              hash.Contents());

    // Back into a record: stored fields return, run-time fields and rate slots 0 and 3 stay.
    VESK_BANDWIDTH_CONF back = Filled<VESK_BANDWIDTH_CONF>(0x11);
    VESK_BANDWIDTH_CONF expected = back;
    ASSERT_EQ(0, VESKBandwidthInitConfFromHash(&back, hash));
    expected.id = conf.id;
    expected.iState = conf.iState;
    expected.iOwnerType = conf.iOwnerType;
    expected.iProtocol = conf.iProtocol;
    std::memcpy(&expected.ullRate[1], &conf.ullRate[1], 2 * sizeof(uint64_t));
    std::memcpy(&expected.ullCustomRate[1], &conf.ullCustomRate[1], 2 * sizeof(uint64_t));
    expected.szSchedulePlan[0] = '\0';
    EXPECT_TRUE(SameBytes(expected, back));

    // A hash without keys leaves the record as prepared.
    EXPECT_EQ(0, VESKBandwidthInitConfFromHash(&back, Hash()));
    EXPECT_TRUE(SameBytes(expected, back));
}

TEST_F(ConvertTest, EnumerationsWithoutNamesAreSkippedNotFailed)
{
    vbw::MakeDirs("/usr/vesk/etc/bandwidth/addon");
    vbw::WriteFile("/usr/vesk/etc/bandwidth/addon/backup_app_32.json", "{}");
    VESK_BANDWIDTH_CONF conf = FtpUserLimit();
    conf.iState = static_cast<VESK_BW_LIMIT_STATE>(7);
    conf.iProtocol = static_cast<VESK_BW_PROTOCOL_TYPE>(32);
    Hash hash;
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

TEST_F(ConvertTest, LimitNumbersMustBeWholeAndAreCut)
{
    VESK_BANDWIDTH_CONF conf = FtpUserLimit();
    Hash bad({{"id", "1030"}, {"state", "disabled"}, {"upload rate", "12k"}, {"download rate", "7"}});
    EXPECT_EQ(-1, VESKBandwidthInitConfFromHash(&conf, bad));
    ExpectError(BW_ERR_BAD_VALUE, "bandwidth_conf_convert.cpp");
    EXPECT_TRUE(log.Contains("parm_table[4].fnFromHashStr failed.")) << log.Dump();
    // Earlier keys are in, the bad one keeps its digits, later ones are untouched.
    EXPECT_EQ(1030u, conf.id);
    EXPECT_EQ(VESK_BW_STATE_DISABLED, conf.iState);
    EXPECT_EQ(12u, conf.ullRate[1]);
    EXPECT_EQ(200u, conf.ullRate[2]);

    Hash lenient({{"id", "4294967297"}, {"upload rate", ""}, {"download rate", " +42"}, {"upload rate custom", "-1"},
                  {"schedule plan", std::string(300, '1')}});
    EXPECT_EQ(0, VESKBandwidthInitConfFromHash(&conf, lenient));
    EXPECT_EQ(1u, conf.id);
    EXPECT_EQ(0u, conf.ullRate[1]);
    EXPECT_EQ(42u, conf.ullRate[2]);
    EXPECT_EQ(UINT64_MAX, conf.ullCustomRate[1]);
    EXPECT_EQ(std::string(255, '1'), conf.szSchedulePlan);

    EXPECT_EQ(-1, VESKBandwidthInitConfFromHash(&conf, Hash({{"id", "12 "}})));
    EXPECT_TRUE(log.Contains("parm_table[0].fnFromHashStr failed.")) << log.Dump();
}

TEST_F(ConvertTest, GlobalRecordKeepsCurrentStateAndProtocolOutOfTheHash)
{
    VESK_BANDWIDTH_GLOBAL_CONF global = {VESK_BW_STATE_ENABLED, VESK_BW_STATE_SCHEDULE, VESK_BW_PROTOCOL_RSYNC,
                                         VESK_BW_POLICY_GROUP_FIRST, VESK_BW_POLICY_SUM, VESK_BW_OCCUPY_MAX, "0110"};
    Hash hash;
    ASSERT_EQ(0, VESKBandwidthInitHashFromGlobalConf(hash.Address(), &global));
    EXPECT_EQ((Pairs{{"state", "schedule"}, {"user-group policy", "group-first"}, {"inter-group policy", "sum"},
                     {"occupy policy", "max"}, {"schedule plan", "0110"}}),
              hash.Contents());

    // Even a hash that names them does not set them; "max" is 3 as occupy policy, 5 as group policy.
    VLIBCSzHashSetValue(hash.Address(), "protocol type", "ftp");
    VLIBCSzHashSetValue(hash.Address(), "user-group policy", "max");
    VESK_BANDWIDTH_GLOBAL_CONF back = Filled<VESK_BANDWIDTH_GLOBAL_CONF>(0x7f);
    ASSERT_EQ(0, VESKBandwidthInitGlobalConfFromHash(&back, hash));
    global.iCurState = back.iCurState = VESK_BW_STATE_ENABLED;
    global.iProtocol = back.iProtocol = VESK_BW_PROTOCOL_RSYNC;
    global.iUserGroupPolicy = VESK_BW_POLICY_MAX;
    EXPECT_EQ(0, std::memcmp(&global, &back, offsetof(VESK_BANDWIDTH_GLOBAL_CONF, szSchedulePlan)));
    EXPECT_STREQ("0110", back.szSchedulePlan);

    // The inter-group table names only min, max and sum.
    global.iInterGroupPolicy = VESK_BW_POLICY_USER_FIRST;
    ASSERT_EQ(0, VESKBandwidthInitHashFromGlobalConf(hash.Address(), &global));
    EXPECT_EQ(nullptr, hash["inter-group policy"]);
    EXPECT_TRUE(log.Contains("Unknown value [2] for [inter-group policy]")) << log.Dump();
}

TEST_F(ConvertTest, ConversionsCheckTheirArgumentsAndTouchNothing)
{
    VESK_BANDWIDTH_CONF conf = FtpUserLimit();
    VESK_BANDWIDTH_STATUS status = FtpDownload();
    Hash hash({{"id", "5"}, {"pid", "5"}});
    VLIBC_SZHASH *none = nullptr;
    const struct {
        std::function<int()> call;
        const char *condition, *file;
    } cases[] = {
        {[&] { return VESKBandwidthInitHashFromConf(nullptr, &conf); }, "((void *)0) != ppHash", "conf"},
        {[&] { return VESKBandwidthInitHashFromConf(hash.Address(), nullptr); }, "NULL != pConf", "conf"},
        {[&] { return VESKBandwidthInitConfFromHash(&conf, nullptr); }, "((void *)0) != pHash", "conf"},
        {[&] { return VESKBandwidthInitHashFromStatus(&none, &status); }, "((void *)0) != *ppHash", "status"},
        {[&] { return VESKBandwidthInitStatusFromHash(nullptr, hash); }, "NULL != pStatus", "status"},
    };
    for (const auto &c : cases) {
        log.Clear();
        EXPECT_EQ(-1, c.call()) << c.condition;
        ExpectError(BW_ERR_BAD_PARAMETERS, (std::string("bandwidth_") + c.file + "_convert.cpp").c_str());
        EXPECT_EQ(1, log.Count("Invaild Argument (" + std::string(c.condition) + ")=[0]")) << log.Dump();
    }
    EXPECT_EQ((Pairs{{"id", "5"}, {"pid", "5"}}), hash.Contents());
    EXPECT_TRUE(SameBytes(FtpUserLimit(), conf));
    EXPECT_TRUE(SameBytes(FtpDownload(), status));
}

TEST_F(ConvertTest, StatusRecordRoundTripsThroughItsTwelveKeys)
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

TEST_F(ConvertTest, StatusReadChangesOnlyThePresentKeys)
{
    VESK_BANDWIDTH_STATUS status = FtpDownload();
    VESK_BANDWIDTH_STATUS expected = status;
    EXPECT_EQ(0, VESKBandwidthInitStatusFromHash(&status, Hash({{"pid", "12abc"}, {"filename", std::string(5000, 'f')},
                                                                {"transfer type", "sideways"}})));
    expected.pid = 12;  // signed fields ignore what follows the digits
    std::memset(expected.filename, 'f', 4095);
    expected.filename[4095] = '\0';
    EXPECT_TRUE(SameBytes(expected, status));
    EXPECT_TRUE(log.Contains("Unknown string value [sideways] for [transfer type]")) << log.Dump();

    Hash lenient({{"pid", "x"}, {"timestamp", "99 s"}, {"id", "4294967296"}, {"uid", "-1"}});
    EXPECT_EQ(0, VESKBandwidthInitStatusFromHash(&status, lenient));
    EXPECT_EQ(0, status.pid);
    EXPECT_EQ(99, status.timestamp);
    EXPECT_EQ(0u, status.id);
    EXPECT_EQ(4294967295u, status.uid);

    // Unsigned fields must parse whole: the read stops there.
    status.expect_speed = 99;
    Hash bad({{"pid", "5"}, {"id", "6"}, {"uid", "7"}, {"active", "0"}, {"timestamp", "8"},
              {"current speed", "12abc"}, {"expect speed", "13"}});
    EXPECT_EQ(-1, VESKBandwidthInitStatusFromHash(&status, bad));
    ExpectError(BW_ERR_BAD_VALUE, "bandwidth_conf_convert.cpp");
    EXPECT_TRUE(log.From("bandwidth_status_convert.cpp", "parm_table[5].fnFromHashStr failed.")) << log.Dump();
    EXPECT_EQ(12u, status.current_speed);
    EXPECT_EQ(99u, status.expect_speed);
    EXPECT_EQ(5, status.pid);
    EXPECT_EQ(6u, status.id);
    EXPECT_EQ(7u, status.uid);
    EXPECT_EQ(0u, status.active);
    EXPECT_EQ(8, status.timestamp);
}

}  // namespace

// Text dumps of limit records and global records: exact header and row
// layouts, names in place of numbers, and rows refused or marked when a value
// cannot be named.
#include <string>

#include "vbw_throttle_fixture.h"

namespace {

using vbw::Printed;

class ConfDump : public vbw::SandboxTest {
protected:
    static std::string Row(const VESK_BANDWIDTH_CONF &conf, int result = 0)
    {
        return Printed([&](FILE *fp) { return VESKBandwidthConfDump(fp, &conf); }, result);
    }
    static std::string Row(const VESK_BANDWIDTH_GLOBAL_CONF &conf, int result = 0)
    {
        return Printed([&](FILE *fp) { return VESKBandwidthGlobalConfDump(fp, &conf); }, result);
    }
    static VESK_BANDWIDTH_GLOBAL_CONF Global(int protocol, int state, int userGroup, int interGroup, int occupy)
    {
        VESK_BANDWIDTH_GLOBAL_CONF conf = vbw::GlobalConf(protocol, {state, userGroup, interGroup, occupy, ""});
        conf.iCurState = VESK_BW_STATE_DISABLED;
        return conf;
    }
};

TEST_F(ConfDump, LimitHeaderAndRows)
{
    EXPECT_EQ("     State             Protocol  Type                 Name U/L rate(KB/s) D/L rate(KB/s)\n",
              Printed(VESKBandwidthConfDumpHeader));

    // The rates in force are printed, not the configured ones.
    VESK_BANDWIDTH_CONF conf = vbw::Conf(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, 999, 0);
    conf.iCurState = VESK_BW_STATE_DISABLED;
    conf.ullCurRate[VESK_BW_TRANSFER_UPLOAD] = 100;
    conf.ullCurRate[VESK_BW_TRANSFER_DOWNLOAD] = 200;
    EXPECT_EQ("   enabled                  ftp  user                alice        100        200\n", Row(conf));

    // A limit record of a throttle configuration begins with the same fields.
    VESK_BANDWIDTH_LIMIT limit = vbw::Limit(VESK_BW_OWNER_USER, 1027, 0, 12345678901ULL, VESK_BW_PROTOCOL_RSYNC);
    limit.iState = VESK_BW_STATE_SCHEDULE;
    EXPECT_EQ("  schedule                rsync  user                  bob          0 12345678901\n",
              Row(*(const VESK_BANDWIDTH_CONF *)&limit));
    EXPECT_EQ(0, log.Lines().size()) << log.Dump();

    // A stored limit of a group read back has no rates in force.
    conf = vbw::Conf(VESK_BW_OWNER_GROUP, 100, VESK_BW_PROTOCOL_WEBDAV, 500, 600, VESK_BW_STATE_DISABLED);
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&conf)) << log.Dump();
    ASSERT_EQ(0, VESKBandwidthConfGetByID(VESK_BW_OWNER_GROUP, 100, VESK_BW_PROTOCOL_WEBDAV, &conf));
    EXPECT_EQ("  disabled               webdav group                users          0          0\n", Row(conf));
}

TEST_F(ConfDump, UnnamedValuesPrintAsUnknown)
{
    VESK_BANDWIDTH_CONF conf = vbw::Conf(VESK_BW_OWNER_USER, 1027, 7, 0, 0, 7);
    conf.ullCurRate[VESK_BW_TRANSFER_UPLOAD] = 1;
    conf.ullCurRate[VESK_BW_TRANSFER_DOWNLOAD] = 2;
    EXPECT_EQ("unknown(7)           unknown(7)  user                  bob          1          2\n", Row(conf));
    EXPECT_TRUE(log.Contains("Unknown value [7] for [state]")) << log.Dump();

    // The inter-group table has no user-first: a value of another table is unnamed here.
    EXPECT_EQ("   enabled                  ftp      unknown(9)      unknown(2)            none                \n",
              Row(Global(VESK_BW_PROTOCOL_FTP, VESK_BW_STATE_ENABLED, 9, VESK_BW_POLICY_USER_FIRST, VESK_BW_OCCUPY_NONE)));
}

TEST_F(ConfDump, LimitRowsThatCannotBePrinted)
{
    const struct {
        int ownerType;
        unsigned int id;
        const char *message;
    } cases[] = {{VESK_BW_OWNER_ALL, 1026, "Unknown conf type. id:[1026] "},
                 {VESK_BW_OWNER_USER, 4242, "Get User failed. id:[4242] [0x"},
                 {VESK_BW_OWNER_GROUP, 4242, "Get Group failed. id:[4242] [0x"}};
    for (const auto &c : cases) {
        EXPECT_EQ("", Row(vbw::Conf(c.ownerType, c.id, VESK_BW_PROTOCOL_FTP, 0, 0), -1));
        EXPECT_TRUE(log.From("bandwidth_conf_dump.cpp", c.message)) << log.Dump();
    }
    VESK_BANDWIDTH_CONF conf = vbw::Conf(VESK_BW_OWNER_ALL, 1026, VESK_BW_PROTOCOL_FTP, 0, 0);
    Row(conf, -1);
    EXPECT_EQ(BW_ERR_UNKNOWN_CONF_TYPE, VLIBCErrGet());
    EXPECT_STREQ("bandwidth_conf_dump.cpp", VLIBCErrorGetFile());

    EXPECT_EQ("", Printed([&](FILE *fp) { return VESKBandwidthConfDump(fp, nullptr); }, -1));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_TRUE(log.Contains("Invaild Argument (NULL != pConf)=[0]")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthConfDump(nullptr, &conf));
    EXPECT_EQ(-1, VESKBandwidthConfDumpHeader(nullptr));
    EXPECT_EQ(2, log.Count("Invaild Argument (((void *)0) != fp)=[0]")) << log.Dump();
}

TEST_F(ConfDump, GlobalHeaderAndRows)
{
    EXPECT_EQ("     State             Protocol UserGroupPolicy InterGroupPolicy    OccupyPolicy    SchedulePlan\n",
              Printed(VESKBandwidthGlobalConfDumpHeader));

    // A full week's plan is printed whole as the last column.
    VESK_BANDWIDTH_GLOBAL_CONF conf = Global(VESK_BW_PROTOCOL_WEBDAV, VESK_BW_STATE_SCHEDULE,
                                             VESK_BW_POLICY_USER_FIRST, VESK_BW_POLICY_MAX, VESK_BW_OCCUPY_MAX);
    std::string plan;
    for (int day = 0; day < 7; ++day) {
        plan += std::string(8, '0') + std::string(10, '1') + std::string(6, '0');
    }
    strcpy(conf.szSchedulePlan, plan.c_str());
    EXPECT_EQ("  schedule               webdav      user-first             max             max " + plan + "\n",
              Row(conf));
    EXPECT_EQ(0, log.Lines().size()) << log.Dump();

    // An unnamed protocol refuses the row.
    conf = Global(7, VESK_BW_STATE_ENABLED, VESK_BW_POLICY_SUM, VESK_BW_POLICY_SUM, VESK_BW_OCCUPY_ALL);
    EXPECT_EQ("", Row(conf, -1));
    EXPECT_TRUE(log.From("bandwidth_global_conf_dump.cpp", "VESKBandwidthEnumToName failed, protocol=7")) << log.Dump();
    EXPECT_EQ("", Printed([&](FILE *fp) { return VESKBandwidthGlobalConfDump(fp, nullptr); }, -1));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_EQ(-1, VESKBandwidthGlobalConfDump(nullptr, &conf));
    EXPECT_EQ(-1, VESKBandwidthGlobalConfDumpHeader(nullptr));
    EXPECT_EQ(2, log.Count("Invaild Argument (((void *)0) != fp)=[0]")) << log.Dump();
}

}  // namespace

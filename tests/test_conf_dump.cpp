// Text dumps of limit records and global records: exact header and row
// layouts, names in place of numbers, and rows refused or marked when a value
// cannot be named.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <string>

#include "vbw_test.h"
#include "veskbandwidth.h"

namespace {

class ConfDump : public vbw::SandboxTest {
protected:
    // What fn printed to a stream of its own, and its result.
    static std::string Printed(const std::function<int(FILE *)> &fn, int *pResult)
    {
        char *buffer = nullptr;
        size_t size = 0;
        FILE *fp = open_memstream(&buffer, &size);
        if (fp == nullptr) {
            ADD_FAILURE() << "open_memstream";
            return "";
        }
        *pResult = fn(fp);
        fclose(fp);
        std::string text(buffer, size);
        free(buffer);
        return text;
    }

    static VESK_BANDWIDTH_CONF Limit(int ownerType, unsigned int id, int protocol, int state)
    {
        VESK_BANDWIDTH_CONF conf;
        memset(&conf, 0, sizeof(conf));
        conf.id = id;
        conf.iOwnerType = (VESK_BW_OWNER_TYPE)ownerType;
        conf.iProtocol = (VESK_BW_PROTOCOL_TYPE)protocol;
        conf.iState = (VESK_BW_LIMIT_STATE)state;
        return conf;
    }

    static VESK_BANDWIDTH_GLOBAL_CONF Global(int protocol, int state, int userGroup, int interGroup, int occupy)
    {
        VESK_BANDWIDTH_GLOBAL_CONF conf;
        memset(&conf, 0, sizeof(conf));
        conf.iProtocol = (VESK_BW_PROTOCOL_TYPE)protocol;
        conf.iState = (VESK_BW_LIMIT_STATE)state;
        conf.iCurState = VESK_BW_STATE_DISABLED;
        conf.iUserGroupPolicy = (VESK_BW_GROUP_POLICY)userGroup;
        conf.iInterGroupPolicy = (VESK_BW_GROUP_POLICY)interGroup;
        conf.iOccupyPolicy = (VESK_BW_OCCUPY_POLICY)occupy;
        return conf;
    }
};

TEST_F(ConfDump, LimitHeaderAndRows)
{
    int result = -1;
    EXPECT_EQ("     State             Protocol  Type                 Name U/L rate(KB/s) D/L rate(KB/s)\n",
              Printed(VESKBandwidthConfDumpHeader, &result));
    EXPECT_EQ(0, result);

    // The rates in force are printed, not the configured ones.
    VESK_BANDWIDTH_CONF conf = Limit(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, VESK_BW_STATE_ENABLED);
    conf.iCurState = VESK_BW_STATE_DISABLED;
    conf.ullCurRate[VESK_BW_TRANSFER_UPLOAD] = 100;
    conf.ullCurRate[VESK_BW_TRANSFER_DOWNLOAD] = 200;
    conf.ullRate[VESK_BW_TRANSFER_UPLOAD] = 999;
    EXPECT_EQ("   enabled                  ftp  user                alice        100        200\n",
              Printed([&](FILE *fp) { return VESKBandwidthConfDump(fp, &conf); }, &result));
    EXPECT_EQ(0, result);

    // A limit record of a throttle configuration begins with the same fields.
    VESK_BANDWIDTH_LIMIT limit;
    memset(&limit, 0, sizeof(limit));
    limit.id = 1027;
    limit.iState = VESK_BW_STATE_SCHEDULE;
    limit.iProtocol = VESK_BW_PROTOCOL_RSYNC;
    limit.iOwnerType = VESK_BW_OWNER_USER;
    limit.ullCurRate[VESK_BW_TRANSFER_DOWNLOAD] = 12345678901ULL;
    EXPECT_EQ("  schedule                rsync  user                  bob          0 12345678901\n",
              Printed([&](FILE *fp) { return VESKBandwidthConfDump(fp, (const VESK_BANDWIDTH_CONF *)&limit); },
                      &result));
    EXPECT_EQ(0, log.Lines().size()) << log.Dump();
}

TEST_F(ConfDump, StoredLimitOfAGroupPrintsNoRatesInForce)
{
    VESK_BANDWIDTH_CONF conf = Limit(VESK_BW_OWNER_GROUP, 100, VESK_BW_PROTOCOL_WEBDAV, VESK_BW_STATE_DISABLED);
    conf.ullRate[VESK_BW_TRANSFER_UPLOAD] = 500;
    conf.ullRate[VESK_BW_TRANSFER_DOWNLOAD] = 600;
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&conf)) << log.Dump();
    VESK_BANDWIDTH_CONF read;
    ASSERT_EQ(0, VESKBandwidthConfGetByID(VESK_BW_OWNER_GROUP, 100, VESK_BW_PROTOCOL_WEBDAV, &read));

    int result = -1;
    EXPECT_EQ("  disabled               webdav group                users          0          0\n",
              Printed([&](FILE *fp) { return VESKBandwidthConfDump(fp, &read); }, &result));
    EXPECT_EQ(0, result);
}

TEST_F(ConfDump, UnnamedValuesPrintAsUnknown)
{
    VESK_BANDWIDTH_CONF conf = Limit(VESK_BW_OWNER_USER, 1027, 7, 7);
    conf.ullCurRate[VESK_BW_TRANSFER_UPLOAD] = 1;
    conf.ullCurRate[VESK_BW_TRANSFER_DOWNLOAD] = 2;
    int result = -1;
    EXPECT_EQ("unknown(7)           unknown(7)  user                  bob          1          2\n",
              Printed([&](FILE *fp) { return VESKBandwidthConfDump(fp, &conf); }, &result));
    EXPECT_EQ(0, result);
    EXPECT_TRUE(log.Contains("Unknown value [7] for [state]")) << log.Dump();

    // The inter-group table has no user-first: a value of another table is unnamed here.
    VESK_BANDWIDTH_GLOBAL_CONF global =
        Global(VESK_BW_PROTOCOL_FTP, VESK_BW_STATE_ENABLED, 9, VESK_BW_POLICY_USER_FIRST, VESK_BW_OCCUPY_NONE);
    EXPECT_EQ("   enabled                  ftp      unknown(9)      unknown(2)            none                \n",
              Printed([&](FILE *fp) { return VESKBandwidthGlobalConfDump(fp, &global); }, &result));
    EXPECT_EQ(0, result);
}

TEST_F(ConfDump, LimitRowsThatCannotBePrinted)
{
    int result = 0;
    VESK_BANDWIDTH_CONF conf = Limit(VESK_BW_OWNER_ALL, 1026, VESK_BW_PROTOCOL_FTP, VESK_BW_STATE_ENABLED);
    EXPECT_EQ("", Printed([&](FILE *fp) { return VESKBandwidthConfDump(fp, &conf); }, &result));
    EXPECT_EQ(-1, result);
    EXPECT_EQ(BW_ERR_UNKNOWN_CONF_TYPE, VLIBCErrGet());
    EXPECT_STREQ("bandwidth_conf_dump.cpp", VLIBCErrorGetFile());
    EXPECT_TRUE(log.Contains("bandwidth_conf_dump.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("Unknown conf type. id:[1026] ")) << log.Dump();

    conf = Limit(VESK_BW_OWNER_USER, 4242, VESK_BW_PROTOCOL_FTP, VESK_BW_STATE_ENABLED);
    EXPECT_EQ("", Printed([&](FILE *fp) { return VESKBandwidthConfDump(fp, &conf); }, &result));
    EXPECT_EQ(-1, result);
    EXPECT_TRUE(log.Contains("Get User failed. id:[4242] [0x")) << log.Dump();

    conf = Limit(VESK_BW_OWNER_GROUP, 4242, VESK_BW_PROTOCOL_FTP, VESK_BW_STATE_ENABLED);
    EXPECT_EQ("", Printed([&](FILE *fp) { return VESKBandwidthConfDump(fp, &conf); }, &result));
    EXPECT_EQ(-1, result);
    EXPECT_TRUE(log.Contains("Get Group failed. id:[4242] [0x")) << log.Dump();

    log.Clear();
    EXPECT_EQ("", Printed([&](FILE *fp) { return VESKBandwidthConfDump(fp, nullptr); }, &result));
    EXPECT_EQ(-1, result);
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_TRUE(log.Contains("Invaild Argument (NULL != pConf)=[0]")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthConfDump(nullptr, &conf));
    EXPECT_EQ(-1, VESKBandwidthConfDumpHeader(nullptr));
    EXPECT_EQ(2, log.Count("Invaild Argument (((void *)0) != fp)=[0]")) << log.Dump();
}

TEST_F(ConfDump, GlobalHeaderAndRows)
{
    int result = -1;
    EXPECT_EQ("     State             Protocol UserGroupPolicy InterGroupPolicy    OccupyPolicy    SchedulePlan\n",
              Printed(VESKBandwidthGlobalConfDumpHeader, &result));
    EXPECT_EQ(0, result);

    // A full week's plan is printed whole as the last column.
    VESK_BANDWIDTH_GLOBAL_CONF conf = Global(VESK_BW_PROTOCOL_WEBDAV, VESK_BW_STATE_SCHEDULE,
                                             VESK_BW_POLICY_USER_FIRST, VESK_BW_POLICY_MAX, VESK_BW_OCCUPY_MAX);
    std::string plan;
    for (int day = 0; day < 7; ++day) {
        plan += std::string(8, '0') + std::string(10, '1') + std::string(6, '0');
    }
    strcpy(conf.szSchedulePlan, plan.c_str());
    EXPECT_EQ("  schedule               webdav      user-first             max             max " + plan + "\n",
              Printed([&](FILE *fp) { return VESKBandwidthGlobalConfDump(fp, &conf); }, &result));
    EXPECT_EQ(0, result);
    EXPECT_EQ(0, log.Lines().size()) << log.Dump();
}

TEST_F(ConfDump, GlobalRowsThatCannotBePrinted)
{
    int result = 0;
    VESK_BANDWIDTH_GLOBAL_CONF conf =
        Global(7, VESK_BW_STATE_ENABLED, VESK_BW_POLICY_SUM, VESK_BW_POLICY_SUM, VESK_BW_OCCUPY_ALL);
    EXPECT_EQ("", Printed([&](FILE *fp) { return VESKBandwidthGlobalConfDump(fp, &conf); }, &result));
    EXPECT_EQ(-1, result);
    EXPECT_TRUE(log.Contains("bandwidth_global_conf_dump.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("VESKBandwidthEnumToName failed, protocol=7")) << log.Dump();

    EXPECT_EQ("", Printed([&](FILE *fp) { return VESKBandwidthGlobalConfDump(fp, nullptr); }, &result));
    EXPECT_EQ(-1, result);
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_EQ(-1, VESKBandwidthGlobalConfDump(nullptr, &conf));
    EXPECT_EQ(-1, VESKBandwidthGlobalConfDumpHeader(nullptr));
    EXPECT_EQ(2, log.Count("Invaild Argument (((void *)0) != fp)=[0]")) << log.Dump();
}

}  // namespace

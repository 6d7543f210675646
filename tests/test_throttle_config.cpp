// Building a transfer's throttle configuration from the limit files, and
// resolving its schedules for one hour of the week.
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "vbw_test.h"
#include "vbw_throttle_fixture.h"
#include "veskbandwidth.h"

namespace {

const int64_t kMonday10Utc = 1704103200LL * 1000000;  // 2024-01-01 10:00 UTC, slot 34

void Global(const std::string &state, const std::string &policy)
{
    vbw::WriteConfFile("bandwidth.global.conf", "[ftp]\nstate=" + state + "\nuser-group policy=" + policy + "\n");
}

void Limits(const std::string &sections)
{
    vbw::WriteConfFile("bandwidth.ftp.conf", sections);
}

class ThrottleConfigTest : public vbw::SandboxTest {
protected:
    void SetUp() override
    {
        SandboxTest::SetUp();
        setenv("TZ", "UTC", 1);
        tzset();
        memset(&config, 0, sizeof(config));
    }
    void TearDown() override
    {
        VESKBandwidthConfigFree(&config);
        vbw::FakeGroupList(nullptr);
    }
    // A configuration holding one limit record of the given state and plan,
    // normal rates 100/200 and custom rates 10/20.
    void OneLimit(int state, const std::string &plan)
    {
        config.iLimitCount = 1;
        config.pLimit = (VESK_BANDWIDTH_LIMIT *)calloc(1, sizeof(VESK_BANDWIDTH_LIMIT));
        config.pLimit[0] = vbw::Limit(VESK_BW_OWNER_USER, 1026, 0, 0);
        config.pLimit[0].iState = config.pLimit[0].iCurState = (VESK_BW_LIMIT_STATE)state;
        config.pLimit[0].ullRate[1] = 100;
        config.pLimit[0].ullRate[2] = 200;
        config.pLimit[0].ullCustomRate[1] = 10;
        config.pLimit[0].ullCustomRate[2] = 20;
        snprintf(config.pLimit[0].szSchedulePlan, sizeof(config.pLimit[0].szSchedulePlan), "%s", plan.c_str());
    }
    VESK_BANDWIDTH_CONFIG config;
};

std::string PlanWith(size_t slot, char hour)
{
    std::string plan(168, '1');
    plan[slot] = hour;
    return plan;
}

TEST_F(ThrottleConfigTest, ArgumentsAreCheckedBeforeAnythingIsWritten)
{
    config.uid = 77;
    EXPECT_EQ(-1, VESKBandwidthConfigGet(1026, VESK_BW_PROTOCOL_ALL, &config));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_TRUE(log.Contains("Invaild Argument ((0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type)=[0]"))
        << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthConfigGet((uid_t)-1, VESK_BW_PROTOCOL_FTP, &config));
    EXPECT_TRUE(log.Contains("Invaild Argument ((uid_t)((uid_t) -1) != uid)=[0]")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthConfigGet(1026, VESK_BW_PROTOCOL_FTP, NULL));
    EXPECT_EQ(77u, config.uid);
}

TEST_F(ThrottleConfigTest, DisabledGlobalStateReadsNoLimitFile)
{
    Limits("[user-1026]\nstate=enabled\ndownload rate=12x\n");  // unreadable record
    Global("disabled", "min");
    ASSERT_EQ(0, VESKBandwidthConfigGet(1026, VESK_BW_PROTOCOL_FTP, &config)) << log.Dump();
    EXPECT_EQ(0, config.iLimitCount);
    EXPECT_EQ(nullptr, config.pLimit);
    EXPECT_EQ(VESK_BW_STATE_DISABLED, config.globalConf.iCurState);
    EXPECT_EQ(0, VESKBandwidthConfCheckEnabled(&config));

    Global("enabled", "min");
    VESKBandwidthConfigFree(&config);
    EXPECT_EQ(-1, VESKBandwidthConfigGet(1026, VESK_BW_PROTOCOL_FTP, &config));
    EXPECT_EQ(-1, config.iLimitCount);
    EXPECT_TRUE(log.Contains("VESKBandwidthLimitGet failed. uid:[1026]")) << log.Dump();
}

TEST_F(ThrottleConfigTest, MissingGlobalRecordStillReadsAndResolvesLimits)
{
    Limits("[user-1026]\nstate=enabled\nupload rate=100\ndownload rate=200\n"
           "[group-101]\nstate=disabled\nupload rate=5\n"
           "[group-103]\nstate=schedule\nschedule plan=" + std::string(168, '1') + "\n");
    ASSERT_EQ(0, VESKBandwidthConfigGet(1026, VESK_BW_PROTOCOL_FTP, &config)) << log.Dump();
    EXPECT_EQ(VESK_BW_STATE_NOTEXISTED, config.globalConf.iCurState);
    ASSERT_EQ(2, config.iLimitCount);
    EXPECT_EQ(1u, config.blUserConfExist);
    EXPECT_EQ(1u, config.blGroupConfExist);
    EXPECT_EQ(1026u, config.pLimit[0].id);
    EXPECT_EQ(VESK_BW_STATE_ENABLED, config.pLimit[0].iCurState);
    EXPECT_EQ(200u, config.pLimit[0].ullCurRate[VESK_BW_TRANSFER_DOWNLOAD]);
    EXPECT_EQ(103u, config.pLimit[1].id);
    EXPECT_EQ(VESK_BW_OWNER_GROUP, config.pLimit[1].iOwnerType);
    EXPECT_EQ(VESK_BW_STATE_ENABLED, config.pLimit[1].iCurState);
    EXPECT_EQ(0u, config.pLimit[1].ullMaxSpeedBps + config.pLimit[1].ullOccupyShare);
}

TEST_F(ThrottleConfigTest, UserOnlyPolicyNeverLooksUpTheUser)
{
    // uid 4000 has no account: any lookup of its groups would fail.
    Global("enabled", "user-only");
    Limits("[user-4000]\nstate=enabled\n[group-100]\nstate=enabled\n");
    ASSERT_EQ(0, VESKBandwidthConfigGet(4000, VESK_BW_PROTOCOL_FTP, &config)) << log.Dump();
    ASSERT_EQ(1, config.iLimitCount);
    EXPECT_EQ(4000u, config.pLimit[0].id);
    EXPECT_EQ(1u, config.blUserConfExist);
    EXPECT_EQ(0u, config.blGroupConfExist);

    Limits("[user-4000]\nstate=disabled\n");
    VESKBandwidthConfigFree(&config);
    ASSERT_EQ(0, VESKBandwidthConfigGet(4000, VESK_BW_PROTOCOL_FTP, &config));
    EXPECT_EQ(0, config.iLimitCount);
    EXPECT_EQ(nullptr, config.pLimit);
    EXPECT_EQ(0u, config.blUserConfExist);

    Global("enabled", "min");
    VESKBandwidthConfigFree(&config);
    EXPECT_EQ(-1, VESKBandwidthConfigGet(4000, VESK_BW_PROTOCOL_FTP, &config));
    EXPECT_TRUE(log.Contains("VESKUserGetByUID failed. uid:[4000]")) << log.Dump();
}

TEST_F(ThrottleConfigTest, GroupRecordsFollowTheGroupList)
{
    Global("enabled", "min");
    Limits("[group-100]\nstate=enabled\n[group-103]\nstate=schedule\n");
    ASSERT_EQ(0, VESKBandwidthConfigGet(1026, VESK_BW_PROTOCOL_FTP, &config)) << log.Dump();
    ASSERT_EQ(2, config.iLimitCount);
    EXPECT_EQ(0u, config.blUserConfExist);
    EXPECT_EQ(1u, config.blGroupConfExist);
    EXPECT_EQ(100u, config.pLimit[0].id);
    EXPECT_EQ(103u, config.pLimit[1].id);

    const std::vector<std::string> reversed = {"103", "", "100"};  // "" is gid 0
    Limits("[group-100]\nstate=enabled\n[group-103]\nstate=schedule\n[group-0]\nstate=enabled\n");
    vbw::FakeGroupList(&reversed);
    VESKBandwidthConfigFree(&config);
    ASSERT_EQ(0, VESKBandwidthConfigGet(1026, VESK_BW_PROTOCOL_FTP, &config)) << log.Dump();
    ASSERT_EQ(3, config.iLimitCount);
    EXPECT_EQ(103u, config.pLimit[0].id);
    EXPECT_EQ(0u, config.pLimit[1].id);
    EXPECT_EQ(100u, config.pLimit[2].id);
}

TEST_F(ThrottleConfigTest, GroupListEntryWithTextAfterTheDigitsFails)
{
    const std::vector<std::string> groups = {"100", "12a"};
    vbw::FakeGroupList(&groups);
    Limits("[user-1026]\nstate=enabled\n");
    VESK_BANDWIDTH_GLOBAL_CONF global;
    memset(&global, 0, sizeof(global));
    global.iProtocol = VESK_BW_PROTOCOL_FTP;
    global.iUserGroupPolicy = VESK_BW_POLICY_MIN;
    VESK_BANDWIDTH_LIMIT sentinel;
    VESK_BANDWIDTH_LIMIT *pLimit = &sentinel;
    uint32_t blUser = 7, blGroup = 7;
    EXPECT_EQ(-1, VESKBandwidthLimitInit(1026, &global, &pLimit, &blUser, &blGroup));
    EXPECT_EQ(BW_ERR_BAD_VALUE, VLIBCErrGet());
    EXPECT_TRUE(log.Contains("bandwidth_limit_init.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("invalid gid [12a]")) << log.Dump();
    EXPECT_EQ(&sentinel, pLimit);
    EXPECT_EQ(1u, blUser);
    EXPECT_EQ(0u, blGroup);
}

TEST_F(ThrottleConfigTest, LimitScheduleAtMondayTen)
{
    struct Case {
        std::string plan;
        VESK_BW_LIMIT_STATE state;
        uint64_t upload;
    } cases[] = {
        {PlanWith(34, '0'), VESK_BW_STATE_DISABLED, 0},
        {PlanWith(34, '1'), VESK_BW_STATE_ENABLED, 100},
        {PlanWith(34, '2'), VESK_BW_STATE_ENABLED, 10},
        {"", VESK_BW_STATE_ENABLED, 10},  // past its end a plan reads zero bytes: custom rates
    };
    for (const Case &c : cases) {
        OneLimit(VESK_BW_STATE_SCHEDULE, c.plan);
        EXPECT_EQ(1, VESKBandwidthInitConfig(&config, kMonday10Utc));
        EXPECT_EQ(c.state, config.pLimit[0].iCurState) << c.plan;
        EXPECT_EQ(c.upload, config.pLimit[0].ullCurRate[VESK_BW_TRANSFER_UPLOAD]) << c.plan;
        EXPECT_EQ(c.state == VESK_BW_STATE_ENABLED, 1 == VESKBandwidthIsUserGroupLimitEnable(&config));
        VESKBandwidthConfigFree(&config);
    }

    // Local time decides: at UTC-5 the same moment is Monday 05:00.
    setenv("TZ", "EST5", 1);
    tzset();
    OneLimit(VESK_BW_STATE_SCHEDULE, PlanWith(29, '2'));
    VESKBandwidthInitConfig(&config, kMonday10Utc);
    EXPECT_EQ(10u, config.pLimit[0].ullCurRate[VESK_BW_TRANSFER_UPLOAD]);

    // Seconds are truncated toward zero: -0.999999 s is the epoch, Thursday 00:00 UTC (slot 96).
    setenv("TZ", "UTC", 1);
    tzset();
    config.pLimit[0].szSchedulePlan[95] = '0';
    config.pLimit[0].szSchedulePlan[96] = '1';
    VESKBandwidthInitConfig(&config, -999999);
    EXPECT_EQ(100u, config.pLimit[0].ullCurRate[VESK_BW_TRANSFER_UPLOAD]);
}

TEST_F(ThrottleConfigTest, EnabledRecordTakesItsNormalRatesWithoutSchedule)
{
    OneLimit(VESK_BW_STATE_ENABLED, PlanWith(34, '0'));
    config.pLimit[0].iCurState = VESK_BW_STATE_NOTEXISTED;
    EXPECT_EQ(0, VESKBandwidthInitConfig(&config, kMonday10Utc));
    EXPECT_EQ(VESK_BW_STATE_ENABLED, config.pLimit[0].iCurState);
    EXPECT_EQ(200u, config.pLimit[0].ullCurRate[VESK_BW_TRANSFER_DOWNLOAD]);
}

TEST_F(ThrottleConfigTest, GlobalScheduleAtMondayTen)
{
    struct Case {
        std::string plan;
        VESK_BW_LIMIT_STATE state;
    } cases[] = {{PlanWith(34, '1'), VESK_BW_STATE_ENABLED},
                 {PlanWith(34, '0'), VESK_BW_STATE_DISABLED},
                 {PlanWith(34, '2'), VESK_BW_STATE_DISABLED},
                 {"", VESK_BW_STATE_DISABLED}};
    for (const Case &c : cases) {
        config.globalConf.iState = VESK_BW_STATE_SCHEDULE;
        snprintf(config.globalConf.szSchedulePlan, sizeof(config.globalConf.szSchedulePlan), "%s", c.plan.c_str());
        EXPECT_EQ(1, VESKBandwidthInitConfig(&config, kMonday10Utc));
        EXPECT_EQ(c.state, config.globalConf.iCurState) << c.plan;
    }
}

TEST_F(ThrottleConfigTest, EnabledCheckAndRelease)
{
    EXPECT_EQ(0, VESKBandwidthConfCheckEnabled(NULL));
    EXPECT_EQ(0, VESKBandwidthIsUserGroupLimitEnable(NULL));
    OneLimit(VESK_BW_STATE_ENABLED, "");
    config.iLimitCount = 2;  // only the count is read
    config.globalConf.iCurState = VESK_BW_STATE_ENABLED;
    EXPECT_EQ(1, VESKBandwidthConfCheckEnabled(&config));
    config.globalConf.iCurState = VESK_BW_STATE_DISABLED;
    EXPECT_EQ(0, VESKBandwidthConfCheckEnabled(&config));
    config.globalConf.iCurState = VESK_BW_STATE_ENABLED;
    config.iLimitCount = 0;
    EXPECT_EQ(0, VESKBandwidthConfCheckEnabled(&config));

    config.iLimitCount = 1;
    VESKBandwidthConfigFree(&config);
    EXPECT_EQ(nullptr, config.pLimit);
    EXPECT_EQ(0, config.globalConf.iCurState);
    VESKBandwidthConfigFree(&config);  // a released record frees nothing
}

}  // namespace

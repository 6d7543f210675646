// Building a transfer's throttle configuration from the limit files, and
// resolving its schedules for one hour of the week.
#include <stdlib.h>
#include <time.h>

#include "vbw_throttle_fixture.h"

namespace {

const int64_t kMonday10Utc = 1704103200LL * 1000000;  // 2024-01-01 10:00 UTC: slot 34

void Global(const std::string &state, const std::string &policy)
{
    vbw::WriteConfFile("bandwidth.global.conf", "[ftp]\nstate=" + state + "\nuser-group policy=" + policy + "\n");
}

void Limits(const std::string &sections)
{
    vbw::WriteConfFile("bandwidth.ftp.conf", sections);
}

std::string PlanWith(size_t slot, char hour)
{
    std::string plan(168, '1');
    plan[slot] = hour;
    return plan;
}

class ThrottleConfigTest : public vbw::ConfigTest {
protected:
    void SetUp() override
    {
        ConfigTest::SetUp();
        TimeZone("UTC");
    }
    static void TimeZone(const char *zone)
    {
        setenv("TZ", zone, 1);
        tzset();
    }
    int Get(uid_t uid)
    {
        VESKBandwidthConfigFree(&config);
        return VESKBandwidthConfigGet(uid, VESK_BW_PROTOCOL_FTP, &config);
    }
    std::vector<unsigned> Ids()
    {
        std::vector<unsigned> ids;
        for (int i = 0; i < config.iLimitCount; i++) {
            ids.push_back(config.pLimit[i].id);
        }
        return ids;
    }
    // One limit record of the given state and plan: normal rates 100/200, custom 10/20.
    VESK_BANDWIDTH_LIMIT &OneLimit(int state, const std::string &plan)
    {
        VESK_BANDWIDTH_LIMIT limit = vbw::Limit(VESK_BW_OWNER_USER, 1026, 0, 0);
        limit.iState = limit.iCurState = (VESK_BW_LIMIT_STATE)state;
        limit.ullRate[1] = 100, limit.ullRate[2] = 200, limit.ullCustomRate[1] = 10, limit.ullCustomRate[2] = 20;
        snprintf(limit.szSchedulePlan, sizeof(limit.szSchedulePlan), "%s", plan.c_str());
        Use({limit});
        return config.pLimit[0];
    }
};

TEST_F(ThrottleConfigTest, UserRecordFirstThenGroupsInListOrder)
{
    // Disabled globally: no limit file is read, not even a malformed one.
    Limits("[user-1026]\nstate=enabled\ndownload rate=12x\n");
    Global("disabled", "min");
    ASSERT_EQ(0, Get(1026)) << log.Dump();
    EXPECT_EQ(nullptr, config.pLimit);
    Global("enabled", "min");
    EXPECT_EQ(-1, Get(1026));
    EXPECT_TRUE(log.Contains("VESKBandwidthLimitGet failed. uid:[1026]")) << log.Dump();

    Limits("[user-1026]\nstate=enabled\ndownload rate=200\n[group-101]\nstate=disabled\n"
           "[group-103]\nstate=schedule\nschedule plan=" +
           vbw::WeekPlan('1') + "\n");
    ASSERT_EQ(0, Get(1026)) << log.Dump();
    EXPECT_EQ(std::vector<unsigned>({1026, 103}), Ids());  // alice: groups 100, 101, 103
    EXPECT_EQ(1u, config.blUserConfExist);
    EXPECT_EQ(1u, config.blGroupConfExist);
    const std::vector<std::string> reversed = {"103", "", "100"};  // an empty entry is gid 0
    Limits("[group-100]\nstate=enabled\n[group-103]\nstate=schedule\n[group-0]\nstate=enabled\n");
    vbw::FakeGroupList(&reversed);
    ASSERT_EQ(0, Get(1026));
    EXPECT_EQ(std::vector<unsigned>({103, 0, 100}), Ids());
    EXPECT_EQ(0u, config.blUserConfExist);

    const std::vector<std::string> bad = {"100", "12a"};
    vbw::FakeGroupList(&bad);
    EXPECT_EQ(-1, Get(1026));
    EXPECT_EQ(BW_ERR_BAD_VALUE, VLIBCErrGet());
    EXPECT_STREQ("bandwidth_limit_init.cpp", VLIBCErrorGetFile());
    EXPECT_TRUE(log.From("bandwidth_limit_init.cpp", "invalid gid [12a]")) << log.Dump();
}

TEST_F(ThrottleConfigTest, ScheduleBoundaries)
{
    struct {
        std::string plan;
        VESK_BW_LIMIT_STATE state;
        uint64_t upload;
    } cases[] = {{PlanWith(34, '0'), VESK_BW_STATE_DISABLED, 0},
                 {PlanWith(34, '1'), VESK_BW_STATE_ENABLED, 100},
                 {PlanWith(34, '2'), VESK_BW_STATE_ENABLED, 10},
                 {std::string(34, '0') + "1" + std::string(133, '0'), VESK_BW_STATE_ENABLED, 100},
                 {"", VESK_BW_STATE_ENABLED, 10}};  // past its end a plan reads zero bytes: custom rates
    for (const auto &c : cases) {
        VESK_BANDWIDTH_LIMIT &limit = OneLimit(VESK_BW_STATE_SCHEDULE, c.plan);
        EXPECT_EQ(1, VESKBandwidthInitConfig(&config, kMonday10Utc));
        EXPECT_EQ(c.state, limit.iCurState) << c.plan;
        EXPECT_EQ(c.upload, limit.ullCurRate[VESK_BW_TRANSFER_UPLOAD]) << c.plan;
        EXPECT_EQ(c.state == VESK_BW_STATE_ENABLED, 1 == VESKBandwidthIsUserGroupLimitEnable(&config));
    }
    // Local time decides: at UTC-5 the same moment is Monday 05:00.
    TimeZone("EST5");
    OneLimit(VESK_BW_STATE_SCHEDULE, PlanWith(29, '2'));
    VESKBandwidthInitConfig(&config, kMonday10Utc);
    EXPECT_EQ(10u, config.pLimit[0].ullCurRate[VESK_BW_TRANSFER_UPLOAD]);
    // Seconds are truncated toward zero: -0.999999 s is the epoch, Thursday 00:00 UTC (slot 96).
    TimeZone("UTC");
    OneLimit(VESK_BW_STATE_SCHEDULE, PlanWith(95, '0'));
    VESKBandwidthInitConfig(&config, -999999);
    EXPECT_EQ(100u, config.pLimit[0].ullCurRate[VESK_BW_TRANSFER_UPLOAD]);

    // The global plan: only "1" turns limiting on.
    for (char hour : {'1', '0', '2'}) {
        config.globalConf.iState = VESK_BW_STATE_SCHEDULE;
        snprintf(config.globalConf.szSchedulePlan, 256, "%s", PlanWith(34, hour).c_str());
        EXPECT_EQ(1, VESKBandwidthInitConfig(&config, kMonday10Utc));
        EXPECT_EQ('1' == hour, 1 == VESKBandwidthConfCheckEnabled(&config)) << hour;
    }
}

// Group records with a share, in order, and never more than the caller's array holds.
TEST_F(ThrottleConfigTest, OccupiedGroupsStopAtTheCallersCapacity)
{
    std::vector<std::pair<unsigned, uint64_t>> shares = {{vbw::kAlice, 10000}, {100, 0}};
    for (unsigned i = 0; i < BW_OCC_GROUPS_MAX + 76; ++i) {
        shares.emplace_back(5000 + i, 1);
    }
    Occupy(shares);
    std::vector<uint32_t> groups(BW_OCC_GROUPS_MAX + 1, 0xDEADBEEF);
    int count = -1;
    ASSERT_EQ(0, VESKBandwidthOccGroupsGet(groups.data(), &count, &config));
    EXPECT_EQ(BW_OCC_GROUPS_MAX, count);
    EXPECT_EQ(5000u, groups[0]);  // alice's own record and a group without a share are left out
    EXPECT_EQ(0xDEADBEEF, groups[BW_OCC_GROUPS_MAX]);
    EXPECT_EQ(1, log.Count("more than 1024 occupied groups")) << log.Dump();
}

}  // namespace

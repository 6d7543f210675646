// The expected speed of a transfer: one limit shared among the transfers in
// its status file, and the limits in force joined by the three policies.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "vbw_test.h"
#include "vbw_throttle_fixture.h"
#include "veskbandwidth.h"

namespace {

const int kDown = VESK_BW_TRANSFER_DOWNLOAD;

class ExpectSpeedTest : public vbw::SandboxTest {
protected:
    void SetUp() override
    {
        SandboxTest::SetUp();
        memset(&config, 0, sizeof(config));
        config.uid = 1026;
    }
    void TearDown() override { free(config.pLimit); }

    void Use(const std::vector<VESK_BANDWIDTH_LIMIT> &limits, int userGroup, int interGroup, int occupy)
    {
        free(config.pLimit);
        config.iLimitCount = (int)limits.size();
        config.pLimit = (VESK_BANDWIDTH_LIMIT *)calloc(limits.size() + 1, sizeof(VESK_BANDWIDTH_LIMIT));
        std::copy(limits.begin(), limits.end(), config.pLimit);
        config.globalConf.iUserGroupPolicy = (VESK_BW_GROUP_POLICY)userGroup;
        config.globalConf.iInterGroupPolicy = (VESK_BW_GROUP_POLICY)interGroup;
        config.globalConf.iOccupyPolicy = (VESK_BW_OCCUPY_POLICY)occupy;
    }
    uint64_t Speed(int blShare = 0)
    {
        uint64_t speed = 12345;
        EXPECT_EQ(0, VESKBandwidthExpectSpeedEstimateByPolicy(kDown, &config, &speed, blShare)) << log.Dump();
        return speed;
    }
    std::vector<uint64_t> Shares()
    {
        std::vector<uint64_t> shares;
        for (int i = 0; i < config.iLimitCount; i++) {
            shares.push_back(config.pLimit[i].ullOccupyShare);
        }
        return shares;
    }
    VESK_BANDWIDTH_CONFIG config;
};

VESK_BANDWIDTH_LIMIT User(uint64_t download) { return vbw::Limit(VESK_BW_OWNER_USER, 1026, 0, download); }
VESK_BANDWIDTH_LIMIT Group(unsigned gid, uint64_t download) { return vbw::Limit(VESK_BW_OWNER_GROUP, gid, 0, download); }
typedef std::vector<uint64_t> ShareList;

uint64_t Estimate(const VESK_BANDWIDTH_LIMIT &limit)
{
    uint64_t speed = 0;
    EXPECT_EQ(0, VESKBandwidthExpectSpeedEstimate(1026, &limit, kDown, &speed, getpid()));
    return speed;
}

TEST_F(ExpectSpeedTest, UserLimitIsSharedAmongTheUsersTransfers)
{
    const VESK_BANDWIDTH_LIMIT user = User(512);
    EXPECT_EQ(524288u, Estimate(user));
    vbw::WriteStatusFile("user", 1026, {{5001, 1026, 100000}, {5002, 1026, 200000}});
    EXPECT_EQ(224288u, Estimate(user));  // the leftover beats 524288 / 3
    vbw::WriteStatusFile("user", 1026, {{5001, 1026, 300000}, {5002, 1026, 300000}});
    EXPECT_EQ(174762u, Estimate(user));
}

TEST_F(ExpectSpeedTest, GroupLimitIsSplitByUsersThenByTransfers)
{
    const VESK_BANDWIDTH_LIMIT group = Group(100, 1000);
    const std::vector<vbw::StatusEntry> slow = {
        {5001, 1026, 10000}, {5002, 1027, 10000}, {5003, 1030, 10000}, {5004, 1030, 10000}};
    vbw::WriteStatusFile("group", 100, slow);
    EXPECT_EQ(1024000u - 40000u, Estimate(group));
    const std::vector<vbw::StatusEntry> busy = {
        {5001, 1026, 300000}, {5002, 1027, 300000}, {5003, 1030, 300000}, {5004, 1030, 300000}};
    vbw::WriteStatusFile("group", 100, busy);
    EXPECT_EQ(170666u, Estimate(group));  // T = 2, U = 3
}

TEST_F(ExpectSpeedTest, OwnAndInactiveEntriesDoNotCount)
{
    const VESK_BANDWIDTH_LIMIT group = Group(100, 1000);
    vbw::StatusEntry own = {getpid(), 1026, 900000};
    vbw::StatusEntry active = {5003, 1027, 300000};
    vbw::StatusEntry inactive = {5002, 1027, 0, 0};
    // The list runs in reverse file order: B's inactive entry comes first and keeps B out of the users.
    vbw::WriteStatusFile("group", 100, {active, inactive, own});
    EXPECT_EQ(1024000u, Estimate(group));
    vbw::WriteStatusFile("group", 100, {inactive, active, own});
    EXPECT_EQ(1024000u - 300000u, Estimate(group));  // now B counts: F = 512000 < R
}

TEST_F(ExpectSpeedTest, UnlimitedUserAgainstALimitedGroup)
{
    for (int blShare : {0, 1}) {
        Use({User(0), Group(100, 100)}, VESK_BW_POLICY_MIN, VESK_BW_POLICY_MIN, VESK_BW_OCCUPY_NONE);
        EXPECT_EQ(102400u, Speed(blShare));
        EXPECT_EQ(0u, config.pLimit[0].ullMaxSpeedBps);
        config.globalConf.iUserGroupPolicy = VESK_BW_POLICY_MAX;
        EXPECT_EQ(0u, Speed(blShare));
        config.globalConf.iUserGroupPolicy = VESK_BW_POLICY_SUM;
        EXPECT_EQ(0u, Speed(blShare));
        config.globalConf.iUserGroupPolicy = VESK_BW_POLICY_USER_ONLY;
        EXPECT_EQ(0u, Speed(blShare));
    }
}

TEST_F(ExpectSpeedTest, InterGroupPolicyAndOccupiedGroup)
{
    const std::vector<VESK_BANDWIDTH_LIMIT> groups = {Group(100, 0), Group(101, 200), Group(102, 100)};
    Use(groups, VESK_BW_POLICY_GROUP_ONLY, VESK_BW_POLICY_MIN, VESK_BW_OCCUPY_MIN);
    EXPECT_EQ(102400u, Speed());
    EXPECT_EQ(ShareList({0, 0, 10000}), Shares());
    Use(groups, VESK_BW_POLICY_GROUP_ONLY, VESK_BW_POLICY_MAX, VESK_BW_OCCUPY_MAX);
    EXPECT_EQ(0u, Speed());
    EXPECT_EQ(ShareList({10000, 0, 0}), Shares());
    Use({Group(100, 300), Group(101, 300)}, VESK_BW_POLICY_GROUP_ONLY, VESK_BW_POLICY_SUM, VESK_BW_OCCUPY_MIN);
    EXPECT_EQ(614400u, Speed());
    EXPECT_EQ(ShareList({10000, 0}), Shares());  // a tie goes to the earlier record
    config.globalConf.iOccupyPolicy = VESK_BW_OCCUPY_MAX;
    Speed();
    EXPECT_EQ(ShareList({10000, 0}), Shares());
}

TEST_F(ExpectSpeedTest, WeightedShares)
{
    Use({Group(100, 0), Group(101, 0), Group(102, 300)}, VESK_BW_POLICY_GROUP_ONLY, VESK_BW_POLICY_MIN,
        VESK_BW_OCCUPY_WEIGHTED);
    Speed();
    EXPECT_EQ(ShareList({5000, 5000, 0}), Shares());
    Use({User(50), Group(100, 100), Group(101, 300)}, VESK_BW_POLICY_MIN, VESK_BW_POLICY_MIN, 42);
    EXPECT_EQ(51200u, Speed());
    EXPECT_EQ(ShareList({0, 2500, 7500}), Shares());  // any unknown occupy policy weighs
    Use({Group(100, 100)}, VESK_BW_POLICY_GROUP_ONLY, VESK_BW_POLICY_MIN, VESK_BW_OCCUPY_WEIGHTED);
    Speed();
    EXPECT_EQ(ShareList({10000}), Shares());
}

TEST_F(ExpectSpeedTest, OccupyAllBooksEveryGroupInForce)
{
    std::vector<VESK_BANDWIDTH_LIMIT> limits = {User(64), Group(100, 100), Group(101, 0), Group(102, 10)};
    limits[3].iCurState = VESK_BW_STATE_DISABLED;
    limits[3].ullOccupyShare = 77;
    Use(limits, VESK_BW_POLICY_USER_FIRST, VESK_BW_POLICY_MIN, VESK_BW_OCCUPY_ALL);
    EXPECT_EQ(65536u, Speed());
    EXPECT_EQ(ShareList({0, 10000, 10000, 77}), Shares());
}

TEST_F(ExpectSpeedTest, NothingInForce)
{
    std::vector<VESK_BANDWIDTH_LIMIT> limits = {User(64), Group(100, 100)};
    for (VESK_BANDWIDTH_LIMIT &limit : limits) {
        limit.iCurState = VESK_BW_STATE_DISABLED;
        limit.ullMaxSpeedBps = 5;
        limit.ullOccupyShare = 6;
    }
    Use(limits, VESK_BW_POLICY_MIN, VESK_BW_POLICY_MIN, VESK_BW_OCCUPY_WEIGHTED);
    EXPECT_EQ(0u, Speed(1));
    EXPECT_EQ(ShareList({6, 6}), Shares());
    EXPECT_EQ(5u, config.pLimit[1].ullMaxSpeedBps);

    // A negative count (a failed build) is a list with nothing in force, but the policy is still examined.
    config.iLimitCount = -1;
    EXPECT_EQ(0u, Speed());
    config.globalConf.iUserGroupPolicy = (VESK_BW_GROUP_POLICY)9;
    uint64_t speed = 1;
    EXPECT_EQ(-1, VESKBandwidthExpectSpeedEstimateByPolicy(kDown, &config, &speed, 0));
    EXPECT_TRUE(log.Contains("unknown group policy [9] ")) << log.Dump();
    config.iLimitCount = 0;  // an empty list is not examined at all
    EXPECT_EQ(0u, Speed());
}

TEST_F(ExpectSpeedTest, RefusedArgumentsAndPolicies)
{
    Use({Group(100, 100), Group(101, 100)}, VESK_BW_POLICY_MIN, 3, VESK_BW_OCCUPY_NONE);
    uint64_t speed = 1;
    EXPECT_EQ(-1, VESKBandwidthExpectSpeedEstimateByPolicy(VESK_BW_TRANSFER_ALL, &config, &speed, 0));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_EQ(-1, VESKBandwidthExpectSpeedEstimate(1026, &config.pLimit[0], VESK_BW_TRANSFER_ALL, &speed, 1));
    EXPECT_TRUE(log.Contains("Invaild Argument (VESK_BW_TRANSFER_ALL != transfer_type)=[0]")) << log.Dump();

    EXPECT_EQ(-1, VESKBandwidthExpectSpeedEstimateByPolicy(kDown, &config, &speed, 0));
    EXPECT_TRUE(log.Contains("unknown inter_group_policy [3] ")) << log.Dump();
    config.iLimitCount = 1;  // a single group never looks at the inter-group policy
    EXPECT_EQ(102400u, Speed());

    // A limit whose status file cannot be named fails the shared pass only.
    config.pLimit[0].iOwnerType = (VESK_BW_OWNER_TYPE)7;
    EXPECT_EQ(102400u, Speed(0));
    speed = 1;
    EXPECT_EQ(-1, VESKBandwidthExpectSpeedEstimateByPolicy(kDown, &config, &speed, 1));
    EXPECT_EQ(1u, speed);
    EXPECT_TRUE(log.Contains("VESKBandwidthExpectSpeedEstimate failed.")) << log.Dump();
}

// ---------------------------------------------------------------------------
// An independent model of the whole evaluation, against random configurations
// and status files.

typedef std::map<std::string, std::vector<vbw::StatusEntry>> StatusFiles;  // "user-1026" -> sections

struct Outcome {
    int rc = 0;
    uint64_t speed = 0;
    std::vector<uint64_t> maxSpeed, share;
    bool operator==(const Outcome &o) const
    {
        return rc == o.rc && speed == o.speed && maxSpeed == o.maxSpeed && share == o.share;
    }
};

// Tightness of a limit: 0 is unlimited, looser than any speed.
long double Rank(uint64_t speed) { return 0 == speed ? 1e30L : (long double)speed; }
uint64_t Plus(uint64_t a, uint64_t b) { return (0 == a || 0 == b) ? 0 : a + b; }

uint64_t ModelShare(uint64_t limit, const std::vector<vbw::StatusEntry> &listed, int transfer, int protocol)
{
    std::vector<vbw::StatusEntry> fresh;
    for (const vbw::StatusEntry &e : listed) {
        bool protocolMatch = (("ftp" == e.protocol) ? VESK_BW_PROTOCOL_FTP : VESK_BW_PROTOCOL_WEBDAV) & protocol;
        if (e.age <= 30 && protocolMatch && (e.transfer & transfer)) {
            fresh.insert(fresh.begin(), e);  // the list runs in reverse file order
        }
    }
    std::set<unsigned> seen, users = {1026};
    uint64_t mine = 1, left = limit;
    for (const vbw::StatusEntry &e : fresh) {
        bool first = seen.insert(e.uid).second;
        if (0 == e.active || getpid() == e.pid) {
            continue;
        }
        mine += (1026 == e.uid) ? 1 : 0;
        if (1026 != e.uid && first) {
            users.insert(e.uid);
        }
        left = (e.current >= left) ? 0 : left - e.current;
    }
    return std::max<uint64_t>(limit / (mine * users.size()), left);
}

Outcome Model(const VESK_BANDWIDTH_CONFIG &cfg, int transfer, int blShare, StatusFiles &files)
{
    Outcome out;
    for (int i = 0; i < cfg.iLimitCount; i++) {
        out.maxSpeed.push_back(cfg.pLimit[i].ullMaxSpeedBps);
        out.share.push_back(cfg.pLimit[i].ullOccupyShare);
    }
    out.speed = 999;
    const VESK_BANDWIDTH_GLOBAL_CONF &g = cfg.globalConf;
    if (0 == cfg.iLimitCount) {
        out.speed = 0;
        return out;
    }
    bool haveUser = false;
    uint64_t userSpeed = 0;
    std::vector<int> groups;
    for (int i = 0; i < cfg.iLimitCount; i++) {
        const VESK_BANDWIDTH_LIMIT &l = cfg.pLimit[i];
        if (VESK_BW_STATE_DISABLED == l.iCurState) {
            continue;
        }
        bool isUser = VESK_BW_OWNER_USER == l.iOwnerType;
        uint64_t rate = l.ullCurRate[transfer] * 1024;
        std::string file = (isUser ? "user-" : "group-") + std::to_string(l.id);
        out.maxSpeed[i] = (1 == blShare && rate) ? ModelShare(rate, files[file], transfer, l.iProtocol) : rate;
        if (isUser) {
            haveUser = true;
            userSpeed = out.maxSpeed[i];
            continue;
        }
        out.share[i] = (VESK_BW_OCCUPY_ALL == g.iOccupyPolicy) ? 10000 : 0;
        groups.push_back(i);
        if (groups.size() > 1 && (g.iInterGroupPolicy < 4 || g.iInterGroupPolicy > 6)) {
            out.rc = -1;
            return out;
        }
    }
    auto byRank = [&](int a, int b) { return Rank(out.maxSpeed[a]) < Rank(out.maxSpeed[b]); };
    int minIdx = groups.empty() ? -1 : *std::min_element(groups.begin(), groups.end(), byRank);
    int maxIdx = groups.empty() ? -1 : *std::max_element(groups.begin(), groups.end(), byRank);
    uint64_t sum = groups.empty() ? 0 : out.maxSpeed[groups[0]];
    for (size_t k = 1; k < groups.size(); k++) {
        sum = Plus(sum, out.maxSpeed[groups[k]]);
    }
    uint64_t groupSpeed = groups.empty()                             ? 0
                          : VESK_BW_POLICY_MIN == g.iInterGroupPolicy ? out.maxSpeed[minIdx]
                          : VESK_BW_POLICY_MAX == g.iInterGroupPolicy ? out.maxSpeed[maxIdx]
                                                                      : sum;
    bool haveGroup = !groups.empty();
    uint64_t one = haveUser ? userSpeed : groupSpeed;
    uint64_t lower = Rank(groupSpeed) < Rank(userSpeed) ? groupSpeed : userSpeed;
    uint64_t higher = Rank(groupSpeed) > Rank(userSpeed) ? groupSpeed : userSpeed;
    switch (g.iUserGroupPolicy) {
    case 0: out.speed = userSpeed; break;
    case 1: out.speed = groupSpeed; break;
    case 2: out.speed = one; break;
    case 3: out.speed = haveGroup ? groupSpeed : userSpeed; break;
    case 4: out.speed = (haveUser && haveGroup) ? lower : one; break;
    case 5: out.speed = (haveUser && haveGroup) ? higher : one; break;
    case 6: out.speed = (haveUser && haveGroup) ? Plus(userSpeed, groupSpeed) : one; break;
    default: out.rc = -1; return out;
    }
    if (!haveGroup || VESK_BW_OCCUPY_NONE == g.iOccupyPolicy || VESK_BW_OCCUPY_ALL == g.iOccupyPolicy) {
        return out;
    }
    if (VESK_BW_OCCUPY_MIN == g.iOccupyPolicy || VESK_BW_OCCUPY_MAX == g.iOccupyPolicy) {
        out.share[VESK_BW_OCCUPY_MIN == g.iOccupyPolicy ? minIdx : maxIdx] = 10000;
        return out;
    }
    uint64_t zeros = std::count_if(groups.begin(), groups.end(), [&](int i) { return 0 == out.maxSpeed[i]; });
    for (int i = 0; i < cfg.iLimitCount; i++) {
        if (VESK_BW_OWNER_USER == cfg.pLimit[i].iOwnerType) {
            continue;
        }
        if (0 == out.maxSpeed[i]) {
            out.share[i] = zeros ? 10000 / zeros : 0;
        } else if (0 == zeros) {
            out.share[i] = out.maxSpeed[i] * 10000 / sum;
        }
    }
    return out;
}

Outcome Library(VESK_BANDWIDTH_CONFIG &cfg, int transfer, int blShare)
{
    Outcome out;
    out.speed = 999;
    out.rc = VESKBandwidthExpectSpeedEstimateByPolicy(transfer, &cfg, &out.speed, blShare);
    for (int i = 0; i < cfg.iLimitCount; i++) {
        out.maxSpeed.push_back(cfg.pLimit[i].ullMaxSpeedBps);
        out.share.push_back(cfg.pLimit[i].ullOccupyShare);
    }
    return out;
}

std::string Describe(const Outcome &o)
{
    std::string text = "rc " + std::to_string(o.rc) + " speed " + std::to_string(o.speed) + " |";
    for (size_t i = 0; i < o.share.size(); i++) {
        text += " " + std::to_string(o.maxSpeed[i]) + "/" + std::to_string(o.share[i]);
    }
    return text;
}

TEST_F(ExpectSpeedTest, MatchesAnIndependentModel)
{
    std::mt19937 rng(20240101);
    auto pick = [&](int n) { return (int)(rng() % (unsigned)n); };
    const char *owners[] = {"user-1026", "group-100", "group-101", "group-102", "group-103"};
    for (int round = 0; round < 300; round++) {
        StatusFiles files;
        for (const char *owner : owners) {
            std::vector<vbw::StatusEntry> &entries = files[owner];
            int count = pick(6);
            for (int k = 0; k < count; k++) {
                vbw::StatusEntry e = {k == 0 && pick(3) == 0 ? getpid() : 6000 + k, 1026u + pick(4),
                                      (uint64_t)pick(400000), pick(8) ? 1u : 0u, 1 + pick(2)};
                e.protocol = pick(5) ? "ftp" : "webdav";
                e.age = pick(10) ? 0 : 100;
                entries.push_back(e);
            }
            std::string owner_s(owner);
            size_t dash = owner_s.find('-');
            vbw::WriteStatusFile(owner_s.substr(0, dash), std::stoul(owner_s.substr(dash + 1)), entries);
        }
        std::vector<VESK_BANDWIDTH_LIMIT> limits;
        int count = pick(20) ? pick(5) : -1;
        for (int i = 0; i < count; i++) {
            bool user = (i == 0 && pick(2)) || pick(12) == 0;
            VESK_BANDWIDTH_LIMIT l = user ? User(0) : Group(100 + i, 0);
            l.ullCurRate[1] = pick(4) ? 1 + pick(800) : 0;
            l.ullCurRate[2] = pick(4) ? 1 + pick(800) : 0;
            l.iCurState = pick(4) ? VESK_BW_STATE_ENABLED : VESK_BW_STATE_DISABLED;
            l.ullMaxSpeedBps = pick(3) ? 0 : pick(500000);
            l.ullOccupyShare = pick(3) ? 0 : pick(10000);
            limits.push_back(l);
        }
        int userGroup = pick(15) ? pick(7) : 7;
        int interGroup = pick(10) ? 4 + pick(3) : pick(4);
        int occupy = pick(10) ? pick(5) : 6;
        Use(limits, userGroup, interGroup, occupy);
        config.iLimitCount = count;
        int transfer = 1 + pick(2);
        int blShare = pick(6) ? pick(2) : 2;
        Outcome expected = Model(config, transfer, blShare, files);
        Outcome actual = Library(config, transfer, blShare);
        ASSERT_EQ(Describe(expected), Describe(actual))
            << "round " << round << " policies " << userGroup << "/" << interGroup << "/" << occupy << " share "
            << blShare << " transfer " << transfer;
    }
}

}  // namespace

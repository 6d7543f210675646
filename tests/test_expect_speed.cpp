// The expected speed of a transfer: one limit shared among the transfers in
// its status file, and the limits in force joined by the three policies.
#include <unistd.h>

#include <algorithm>
#include <random>
#include <set>

#include "vbw_throttle_fixture.h"

namespace {

const int kDown = VESK_BW_TRANSFER_DOWNLOAD;

class ExpectSpeedTest : public vbw::SandboxTest {};

VESK_BANDWIDTH_LIMIT U(uint64_t kbs)
{
    return vbw::Limit(VESK_BW_OWNER_USER, 1026, kbs, kbs);
}
VESK_BANDWIDTH_LIMIT G(unsigned gid, uint64_t kbs)
{
    return vbw::Limit(VESK_BW_OWNER_GROUP, gid, kbs, kbs);
}

// "speed | share share ..." after one evaluation ("fail | ..." on -1), with
// each record's share followed by "/speed" when asked.
std::string Eval(VESK_BANDWIDTH_CONFIG &config, int transfer, int blShare, bool blSpeeds = false)
{
    uint64_t speed = 999;
    int rc = VESKBandwidthExpectSpeedEstimateByPolicy(transfer, &config, &speed, blShare);
    std::string text = (0 == rc) ? std::to_string(speed) + " |" : "fail |";
    for (int i = 0; i < config.iLimitCount; i++) {
        text += " " + std::to_string(config.pLimit[i].ullOccupyShare);
        text += blSpeeds ? "/" + std::to_string(config.pLimit[i].ullMaxSpeedBps) : "";
    }
    return text;
}

// ---------------------------------------------------------------------------
// An independent model of the whole evaluation, against random configurations
// and status files.

// Speeds in the order of tightness (0, unlimited, is the loosest), and their sum.
long double Rank(uint64_t speed)
{
    return 0 == speed ? 1e30L : (long double)speed;
}

uint64_t Plus(uint64_t a, uint64_t b)
{
    return (0 == a || 0 == b) ? 0 : a + b;
}

uint64_t ModelShare(uint64_t limit, const std::vector<vbw::StatusEntry> &file, int transfer)
{
    std::set<unsigned> seen, users = {1026};
    uint64_t mine = 1, left = limit;
    for (auto e = file.rbegin(); e != file.rend(); ++e) {  // listed newest first
        if (e->age > 30 || "ftp" != e->protocol || !(e->transfer & transfer)) {
            continue;
        }
        bool first = seen.insert(e->uid).second;
        if (0 == e->active || getpid() == e->pid) {
            continue;
        }
        mine += (1026 == e->uid) ? 1 : 0;
        if (1026 != e->uid && first) {
            users.insert(e->uid);
        }
        left = (e->current >= left) ? 0 : left - e->current;
    }
    return std::max<uint64_t>(limit / (mine * users.size()), left);
}

std::string Model(VESK_BANDWIDTH_CONFIG cfg, std::vector<VESK_BANDWIDTH_LIMIT> l, int transfer, int blShare,
                  std::map<unsigned, std::vector<vbw::StatusEntry>> &files)
{
    const VESK_BANDWIDTH_GLOBAL_CONF &g = cfg.globalConf;
    auto out = [&](const std::string &speed) {
        std::string text = speed + " |";
        for (int i = 0; i < cfg.iLimitCount; i++) {
            text += " " + std::to_string(l[i].ullOccupyShare) + "/" + std::to_string(l[i].ullMaxSpeedBps);
        }
        return text;
    };
    if (0 == cfg.iLimitCount) {
        return out("0");
    }
    std::vector<int> users, groups;
    for (int i = 0; i < cfg.iLimitCount; i++) {
        if (VESK_BW_STATE_DISABLED == l[i].iCurState) {
            continue;
        }
        uint64_t rate = l[i].ullCurRate[transfer] * 1024;
        l[i].ullMaxSpeedBps = (1 == blShare && rate) ? ModelShare(rate, files[l[i].id], transfer) : rate;
        if (VESK_BW_OWNER_USER == l[i].iOwnerType) {
            users.push_back(i);
            continue;
        }
        l[i].ullOccupyShare = (VESK_BW_OCCUPY_ALL == g.iOccupyPolicy) ? 10000 : 0;
        groups.push_back(i);
        if (groups.size() > 1 && (g.iInterGroupPolicy < 4 || g.iInterGroupPolicy > 6)) {
            return out("fail");
        }
    }
    auto byRank = [&](int a, int b) { return Rank(l[a].ullMaxSpeedBps) < Rank(l[b].ullMaxSpeedBps); };
    bool haveUser = !users.empty(), haveGroup = !groups.empty();
    uint64_t user = haveUser ? l[users.back()].ullMaxSpeedBps : 0, group = 0, sum = 0;
    int minIdx = haveGroup ? *std::min_element(groups.begin(), groups.end(), byRank) : 0;
    int maxIdx = haveGroup ? *std::max_element(groups.begin(), groups.end(), byRank) : 0;
    for (size_t k = 0; k < groups.size(); k++) {
        sum = k ? Plus(sum, l[groups[k]].ullMaxSpeedBps) : l[groups[k]].ullMaxSpeedBps;
    }
    if (haveGroup) {
        group = (4 == g.iInterGroupPolicy)   ? l[minIdx].ullMaxSpeedBps
                : (5 == g.iInterGroupPolicy) ? l[maxIdx].ullMaxSpeedBps
                                             : sum;
    }
    uint64_t one = haveUser ? user : group, tighter = Rank(group) < Rank(user) ? group : user;
    uint64_t looser = Rank(group) > Rank(user) ? group : user;
    const uint64_t both[] = {user, group, one, haveGroup ? group : user, tighter, looser, Plus(user, group)};
    if (g.iUserGroupPolicy < 0 || g.iUserGroupPolicy > 6) {
        return out("fail");
    }
    uint64_t speed = (g.iUserGroupPolicy < 4 || (haveUser && haveGroup)) ? both[g.iUserGroupPolicy] : one;
    if (haveGroup && (2 == g.iOccupyPolicy || 3 == g.iOccupyPolicy)) {
        l[2 == g.iOccupyPolicy ? minIdx : maxIdx].ullOccupyShare = 10000;
    } else if (haveGroup && 0 != g.iOccupyPolicy && 1 != g.iOccupyPolicy) {
        uint64_t zeros = std::count_if(groups.begin(), groups.end(), [&](int i) { return !l[i].ullMaxSpeedBps; });
        for (int i = 0; i < cfg.iLimitCount; i++) {
            if (VESK_BW_OWNER_USER != l[i].iOwnerType && (0 == l[i].ullMaxSpeedBps || 0 == zeros)) {
                l[i].ullOccupyShare = l[i].ullMaxSpeedBps ? l[i].ullMaxSpeedBps * 10000 / sum
                                      : zeros             ? 10000 / zeros
                                                          : 0;
            }
        }
    }
    return out(std::to_string(speed));
}

TEST_F(ExpectSpeedTest, MatchesAnIndependentModel)
{
    std::mt19937 rng(20240101);
    auto pick = [&](int n) { return (int)(rng() % (unsigned)n); };
    for (int round = 0; round < 300; round++) {
        std::map<unsigned, std::vector<vbw::StatusEntry>> files;  // by id: user 1026, groups 100..103
        for (unsigned id : {1026u, 100u, 101u, 102u, 103u}) {
            for (int k = pick(6); k > 0; k--) {
                vbw::StatusEntry e = {pick(4) ? 6000 + k : getpid(), 1026u + pick(4), (uint64_t)pick(400000)};
                e.active = pick(8) ? 1 : 0, e.transfer = 1 + pick(2), e.age = pick(10) ? 0 : 100;
                e.protocol = pick(5) ? "ftp" : "webdav";
                files[id].push_back(e);
            }
            vbw::WriteStatusFile(1026 == id ? "user" : "group", id, files[id]);
        }
        std::vector<VESK_BANDWIDTH_LIMIT> limits;
        for (int i = 0, n = pick(5); i < n; i++) {
            VESK_BANDWIDTH_LIMIT l = ((i == 0 && pick(2)) || pick(12) == 0) ? U(0) : G(100 + i, 0);
            l.ullCurRate[1] = pick(4) ? 1 + pick(800) : 0;
            l.ullCurRate[2] = pick(4) ? 1 + pick(800) : 0;
            l.iCurState = pick(4) ? VESK_BW_STATE_ENABLED : VESK_BW_STATE_DISABLED;
            l.ullMaxSpeedBps = pick(3) ? 0 : pick(500000);
            l.ullOccupyShare = pick(3) ? 0 : pick(10000);
            limits.push_back(l);
        }
        VESK_BANDWIDTH_CONFIG config = {1026, pick(20) ? (int)limits.size() : -1, 0, 0, limits.data(), {}};
        config.globalConf.iUserGroupPolicy = (VESK_BW_GROUP_POLICY)(pick(15) ? pick(7) : 7);
        config.globalConf.iInterGroupPolicy = (VESK_BW_GROUP_POLICY)(pick(10) ? 4 + pick(3) : pick(4));
        config.globalConf.iOccupyPolicy = (VESK_BW_OCCUPY_POLICY)(pick(10) ? pick(5) : 6);
        int transfer = 1 + pick(2), blShare = pick(6) ? pick(2) : 2;

        std::string expected = Model(config, limits, transfer, blShare, files);
        std::string actual = Eval(config, transfer, blShare, true);
        ASSERT_EQ(expected, actual) << "round " << round << " share " << blShare << " transfer " << transfer;
    }
}

}  // namespace

// Taking a transfer's sections out of the status files of its user and
// groups, by its own process or forced from outside, and switching it off.
#include <unistd.h>

#include "vbw_throttle_fixture.h"

namespace {

using vbw::kDown;
using vbw::kUp;
const pid_t kOther = 5000;

bool Has(const std::string &owner, pid_t pid, int transfer)
{
    return vbw::HasSection("/tmp/bandwidth/" + owner, vbw::SectionName(pid, transfer));
}

class StatusRemoveTest : public vbw::ConfigTest {
protected:
    void SetUp() override
    {
        ConfigTest::SetUp();
        Populate();
    }
    // Alice (1026) is in groups 100, 101 and 103; group 102 is not hers.
    void Populate()
    {
        const std::vector<vbw::StatusEntry> entries = {
            {getpid(), 1026, 10, 1, kUp}, {getpid(), 1026, 20, 1, kDown}, {kOther, 1026, 30, 1, kDown}};
        vbw::WriteStatusFile("user", 1026, entries);
        for (unsigned gid : {100, 101, 102, 103}) {
            vbw::WriteStatusFile("group", gid, entries);
        }
    }
    // Alice's own limit (never a group) and the given groups with their shares.
    void Occupy(const std::vector<std::pair<unsigned, uint64_t>> &groups)
    {
        std::vector<VESK_BANDWIDTH_LIMIT> limits = {vbw::Limit(VESK_BW_OWNER_USER, 1026, 0, 100)};
        limits[0].ullOccupyShare = 10000;
        for (const auto &group : groups) {
            limits.push_back(vbw::Limit(VESK_BW_OWNER_GROUP, group.first, 0, 100));
            limits.back().ullOccupyShare = group.second;
        }
        Use(limits);
        config.blGroupConfExist = 1;
    }
};

TEST_F(StatusRemoveTest, OwnSectionsLeaveTheUserAndTheOccupiedGroups)
{
    Occupy({{100, 5000}, {101, 0}, {103, 10000}});
    ASSERT_EQ(0, VESKBandwidthStatusRemove(&config, VESK_BW_TRANSFER_ALL)) << log.Dump();
    for (const char *owner : {"user-1026", "group-100", "group-103"}) {
        EXPECT_FALSE(Has(owner, getpid(), kUp)) << owner;
        EXPECT_FALSE(Has(owner, getpid(), kDown)) << owner;
        EXPECT_TRUE(Has(owner, kOther, kDown)) << owner;
    }
    EXPECT_TRUE(Has("group-101", getpid(), kDown));  // share 0: not occupied

    Populate();
    ASSERT_EQ(0, VESKBandwidthStatusRemove(&config, kDown));
    EXPECT_TRUE(Has("user-1026", getpid(), kUp));
    EXPECT_FALSE(Has("user-1026", getpid(), kDown));
    EXPECT_FALSE(Has("group-103", getpid(), kDown));

    Populate();
    config.blGroupConfExist = 0;
    ASSERT_EQ(0, VESKBandwidthStatusRemove(&config, VESK_BW_TRANSFER_ALL));
    EXPECT_FALSE(Has("user-1026", getpid(), kDown));
    EXPECT_TRUE(Has("group-100", getpid(), kDown));

    // By a list of occupied groups: group 200 has no file, nothing to do there.
    Populate();
    const std::string before = vbw::ReadFile("/tmp/bandwidth/group-100");
    const unsigned groups[] = {100, 200, 103};
    ASSERT_EQ(0, VESKBandwidthStatusRemoveByOccGroups(groups, 0, VESK_BW_TRANSFER_ALL));
    EXPECT_EQ(before, vbw::ReadFile("/tmp/bandwidth/group-100"));
    ASSERT_EQ(0, VESKBandwidthStatusRemoveByOccGroups(groups, 3, kUp)) << log.Dump();
    EXPECT_FALSE(Has("group-100", getpid(), kUp));
    EXPECT_TRUE(Has("group-100", getpid(), kDown));
    EXPECT_FALSE(Has("group-103", getpid(), kUp));
    EXPECT_TRUE(Has("group-101", getpid(), kUp));
    EXPECT_TRUE(Has("user-1026", getpid(), kUp));
}

TEST_F(StatusRemoveTest, ForcedRemovalVisitsEveryGroupOfTheUser)
{
    ASSERT_EQ(0, VESKBandwidthStatusForceRemoveAllByUID(1026, VESK_BW_TRANSFER_ALL)) << log.Dump();
    for (const char *owner : {"user-1026", "group-100", "group-101", "group-103"}) {
        EXPECT_FALSE(Has(owner, getpid(), kDown)) << owner;
        EXPECT_TRUE(Has(owner, kOther, kDown)) << owner;
    }
    EXPECT_TRUE(Has("group-102", getpid(), kDown));

    ASSERT_EQ(0, VESKBandwidthStatusForceRemoveAllByUserName("alice", kDown, kOther)) << log.Dump();
    EXPECT_FALSE(Has("group-101", kOther, kDown));
    EXPECT_TRUE(Has("group-102", kOther, kDown));
}

TEST_F(StatusRemoveTest, ForcedRemovalFailures)
{
    const std::string before = vbw::ReadFile("/tmp/bandwidth/user-1026");
    EXPECT_EQ(-1, VESKBandwidthStatusForceRemoveAllByUserName("alice", VESK_BW_TRANSFER_ALL, -1));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_EQ(before, vbw::ReadFile("/tmp/bandwidth/user-1026"));
    EXPECT_TRUE(log.Contains("VESKBandwidthIStatusRemove failed. uid:[1026]")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthStatusForceRemoveAllByUserName("zoe", VESK_BW_TRANSFER_ALL, kOther));
    EXPECT_TRUE(log.Contains("VESKUserGet failed. name:[zoe]")) << log.Dump();

    // A gid with text after its digits ends the walk over the groups there.
    const std::vector<std::string> groups = {"100", "100x", "103"};
    vbw::FakeGroupList(&groups);
    EXPECT_EQ(-1, VESKBandwidthStatusForceRemoveAllByUID(1026, VESK_BW_TRANSFER_ALL));
    EXPECT_EQ(BW_ERR_BAD_VALUE, VLIBCErrGet());
    EXPECT_TRUE(log.From("bandwidth_status_remove.cpp", "invalid gid [100x]")) << log.Dump();
    EXPECT_TRUE(log.Contains("VESKBandwidthIStatusForceRemoveAll failed. name:[alice]")) << log.Dump();
    EXPECT_FALSE(Has("user-1026", getpid(), kDown));
    EXPECT_FALSE(Has("group-100", getpid(), kDown));
    EXPECT_TRUE(Has("group-103", getpid(), kDown));
}

TEST_F(StatusRemoveTest, SetActiveRewritesOnlyTheUsersSection)
{
    ASSERT_EQ(0, VESKBandwidthStatusSetActiveByUserName("alice", kDown, kOther, 0)) << log.Dump();
    std::map<std::string, std::string> section =
        vbw::ReadSection("/tmp/bandwidth/user-1026", vbw::SectionName(kOther, kDown));
    EXPECT_EQ("0", section["active"]);
    EXPECT_EQ("30", section["current speed"]);
    EXPECT_EQ("user", section["owner type"]);
    EXPECT_EQ("1", vbw::ReadSection("/tmp/bandwidth/group-100", vbw::SectionName(kOther, kDown))["active"]);

    EXPECT_EQ(-1, VESKBandwidthStatusSetActiveByUserName("alice", kDown, kOther + 1, 0));
    EXPECT_TRUE(log.Contains("Get section [5001-2] from [/tmp/bandwidth/user-1026] failed.")) << log.Dump();
    EXPECT_TRUE(log.Contains("VESKBandwidthStatusGet failed. name:[alice]")) << log.Dump();
}

}  // namespace

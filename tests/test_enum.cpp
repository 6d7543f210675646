// Name tables, value/name lookups and add-on protocols with their caches.
#include <cstdio>
#include <string>
#include <vector>

#include "vbw_test.h"
#include "veskbandwidth.h"

namespace {

const std::string kAddonDir = "/usr/vesk/etc/bandwidth/addon/";

class EnumTest : public vbw::SandboxTest {
protected:
    static void AddAddon(const std::string &file) { vbw::WriteFile(kAddonDir + file, "{}\n"); }
    static void RemoveAddon(const std::string &file) { ASSERT_EQ(0, std::remove((kAddonDir + file).c_str())); }

    void SetUp() override
    {
        vbw::SandboxTest::SetUp();
        vbw::MakeDirs(kAddonDir);
    }

    // The name of a value, or "<result>" when the lookup does not return 1.
    static std::string Name(const VESK_BW_ENUM_ENTRY *table, int value, int size = 256)
    {
        char name[256] = "";
        int result = VESKBandwidthEnumToName(table, value, name, size);
        return result == 1 ? std::string(name) : "<" + std::to_string(result) + ">";
    }

    void ExpectError(int code)
    {
        EXPECT_EQ(code, VLIBCErrGet()) << log.Dump();
        EXPECT_STREQ("bandwidth_enum.cpp", VLIBCErrorGetFile());
    }
};

struct Row {
    const VESK_BW_ENUM_ENTRY *table;
    int value;
    const char *name;
};

TEST_F(EnumTest, EveryTableRowConvertsBothWays)
{
    const std::vector<Row> rows = {
        {VESK_BW_OWNER_TYPE_NAMES, 1, "user"},
        {VESK_BW_OWNER_TYPE_NAMES, 2, "group"},
        {VESK_BW_OWNER_TYPE_NAMES, 3, "all"},
        {VESK_BW_TRANSFER_TYPE_NAMES, 1, "upload"},
        {VESK_BW_TRANSFER_TYPE_NAMES, 2, "download"},
        {VESK_BW_PROTOCOL_TYPE_NAMES, 1, "lanternpost"},
        {VESK_BW_PROTOCOL_TYPE_NAMES, 2, "webdav"},
        {VESK_BW_PROTOCOL_TYPE_NAMES, 4, "ftp"},
        {VESK_BW_PROTOCOL_TYPE_NAMES, 8, "rsync"},
        {VESK_BW_PROTOCOL_TYPE_NAMES, 15, "all"},
        {VESK_BW_LIMIT_STATE_NAMES, 0, "NotExisted"},
        {VESK_BW_LIMIT_STATE_NAMES, 1, "enabled"},
        {VESK_BW_LIMIT_STATE_NAMES, 2, "disabled"},
        {VESK_BW_LIMIT_STATE_NAMES, 3, "schedule"},
        {VESK_BW_USER_GROUP_POLICY_NAMES, 0, "user-only"},
        {VESK_BW_USER_GROUP_POLICY_NAMES, 1, "group-only"},
        {VESK_BW_USER_GROUP_POLICY_NAMES, 2, "user-first"},
        {VESK_BW_USER_GROUP_POLICY_NAMES, 3, "group-first"},
        {VESK_BW_USER_GROUP_POLICY_NAMES, 4, "min"},
        {VESK_BW_USER_GROUP_POLICY_NAMES, 5, "max"},
        {VESK_BW_USER_GROUP_POLICY_NAMES, 6, "sum"},
        {VESK_BW_INTER_GROUP_POLICY_NAMES, 4, "min"},
        {VESK_BW_INTER_GROUP_POLICY_NAMES, 5, "max"},
        {VESK_BW_INTER_GROUP_POLICY_NAMES, 6, "sum"},
        {VESK_BW_OCCUPY_POLICY_NAMES, 0, "none"},
        {VESK_BW_OCCUPY_POLICY_NAMES, 1, "all"},
        {VESK_BW_OCCUPY_POLICY_NAMES, 2, "min"},
        {VESK_BW_OCCUPY_POLICY_NAMES, 3, "max"},
        {VESK_BW_OCCUPY_POLICY_NAMES, 4, "weighted"},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(row.name, Name(row.table, row.value)) << row.value;
        EXPECT_EQ(row.value, VESKBandwidthEnumToValue(row.table, row.name)) << row.name;
    }
    // A found name or value, 0 included, leaves no error behind.
    EXPECT_EQ(0, VLIBCErrGet());
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(EnumTest, RowsMissingFromATableGoToTheAddonSearch)
{
    // Upload|download and the user-group-only policies have no row.
    EXPECT_EQ("<-1>", Name(VESK_BW_TRANSFER_TYPE_NAMES, VESK_BW_TRANSFER_ALL));
    ExpectError(BW_ERR_GLOB_FAILED);
    EXPECT_TRUE(log.Contains("bandwidth_enum.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("glob failed, iProtocol=3")) << log.Dump();
    EXPECT_TRUE(log.Contains("VESKBandwidthEnumToNameAddon failed, protocol=3")) << log.Dump();
    EXPECT_EQ("<-1>", Name(VESK_BW_INTER_GROUP_POLICY_NAMES, VESK_BW_POLICY_USER_ONLY));

    // Names are compared exactly, case included.
    EXPECT_EQ(-1, VESKBandwidthEnumToValue(VESK_BW_LIMIT_STATE_NAMES, "Enabled"));
    ExpectError(BW_ERR_GLOB_FAILED);
    EXPECT_TRUE(log.Contains("glob failed, protocol=Enabled")) << log.Dump();
    EXPECT_TRUE(log.Contains("VESKBandwidthEnumToValueAddon failed, protocol=Enabled")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthEnumToValue(VESK_BW_INTER_GROUP_POLICY_NAMES, "user-only"));

    // Any table falls back to add-on numbers.
    AddAddon("triple_3.json");
    AddAddon("seven_7.json");
    EXPECT_EQ("triple", Name(VESK_BW_TRANSFER_TYPE_NAMES, VESK_BW_TRANSFER_ALL));
    EXPECT_EQ("seven", Name(VESK_BW_LIMIT_STATE_NAMES, 7));
    EXPECT_EQ(7, VESKBandwidthEnumToValue(VESK_BW_OWNER_TYPE_NAMES, "seven"));
}

TEST_F(EnumTest, AllMeansWhatTheTableSays)
{
    EXPECT_EQ(VESK_BW_OWNER_ALL, VESKBandwidthEnumToValue(VESK_BW_OWNER_TYPE_NAMES, "all"));
    EXPECT_EQ(VESK_BW_PROTOCOL_ALL, VESKBandwidthEnumToValue(VESK_BW_PROTOCOL_TYPE_NAMES, "all"));
    EXPECT_EQ(VESK_BW_OCCUPY_ALL, VESKBandwidthEnumToValue(VESK_BW_OCCUPY_POLICY_NAMES, "all"));
    EXPECT_EQ(VESK_BW_OCCUPY_MIN, VESKBandwidthEnumToValue(VESK_BW_OCCUPY_POLICY_NAMES, "min"));
    EXPECT_EQ(VESK_BW_POLICY_MIN, VESKBandwidthEnumToValue(VESK_BW_USER_GROUP_POLICY_NAMES, "min"));
}

TEST_F(EnumTest, ShortBufferGetsACutName)
{
    char name[8] = "xxxxxxx";
    EXPECT_EQ(1, VESKBandwidthEnumToName(VESK_BW_PROTOCOL_TYPE_NAMES, VESK_BW_PROTOCOL_LANTERNPOST, name, 4));
    EXPECT_STREQ("lan", name);
    EXPECT_EQ('x', name[4]);
}

TEST_F(EnumTest, BadArgumentsNameTheFailedCondition)
{
    char name[16];
    EXPECT_EQ(-1, VESKBandwidthEnumToName(nullptr, 1, name, sizeof name));
    EXPECT_TRUE(log.Contains("Invaild Argument (((void *)0) != enum_list)=[0]")) << log.Dump();
    ExpectError(BW_ERR_BAD_PARAMETERS);
    EXPECT_EQ(-1, VESKBandwidthEnumToName(VESK_BW_OWNER_TYPE_NAMES, 1, nullptr, sizeof name));
    EXPECT_TRUE(log.Contains("Invaild Argument (((void *)0) != szProtocol)=[0]")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthEnumToName(VESK_BW_OWNER_TYPE_NAMES, 1, name, 0));
    EXPECT_TRUE(log.Contains("Invaild Argument (cbProtocol > 0)=[0]")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthEnumToValue(nullptr, "user"));
    EXPECT_EQ(-1, VESKBandwidthEnumToValue(VESK_BW_OWNER_TYPE_NAMES, nullptr));
    EXPECT_TRUE(log.Contains("Invaild Argument (NULL != szName)=[0]")) << log.Dump();
    ExpectError(BW_ERR_BAD_PARAMETERS);

    log.Clear();
    EXPECT_EQ(-1, VESKBandwidthEnumToNameAddon(1, nullptr, 16));
    EXPECT_EQ(-1, VESKBandwidthEnumToNameAddon(1, name, 0));
    EXPECT_EQ(-1, VESKBandwidthEnumToValueAddon(nullptr));
    EXPECT_EQ(-1, VESKBandwidthEnumToValueAddon(""));
    EXPECT_EQ(4, log.Count("Bad parameter")) << log.Dump();
    ExpectError(BW_ERR_BAD_PARAMETERS);
}

TEST_F(EnumTest, AddonFileDeclaresNameAndNumber)
{
    AddAddon("backup_app_32.json");
    char name[256];
    EXPECT_EQ(1, VESKBandwidthEnumToNameAddon(32, name, sizeof name));
    EXPECT_STREQ("backup_app", name);
    EXPECT_EQ(32, VESKBandwidthEnumToValueAddon("backup_app"));
    EXPECT_EQ("backup_app", Name(VESK_BW_PROTOCOL_TYPE_NAMES, 32));
    EXPECT_EQ(32, VESKBandwidthEnumToValue(VESK_BW_PROTOCOL_TYPE_NAMES, "backup_app"));
    // The search by name is a prefix search up to an underscore.
    EXPECT_EQ(32, VESKBandwidthEnumToValueAddon("backup"));

    char path[128];
    EXPECT_EQ(0, VESKBandwidthGetAddonConfigPath(32, path, sizeof path));
    EXPECT_STREQ("/usr/vesk/etc/bandwidth/addon//backup_app_32.json", path);
    EXPECT_EQ(0, VESKBandwidthGetAddonConfigPath(32, path, 12));
    EXPECT_STREQ("/usr/vesk/e", path);
}

TEST_F(EnumTest, AddonNumberIsTheLeadingDigits)
{
    AddAddon("odd_12x.json");
    AddAddon("nodigits_x.json");
    EXPECT_EQ(12, VESKBandwidthEnumToValueAddon("odd"));
    // A file without digits declares nothing: the table lookup reports "not found".
    EXPECT_EQ(0, VESKBandwidthEnumToValue(VESK_BW_PROTOCOL_TYPE_NAMES, "nodigits"));
    ExpectError(BW_ERR_NOT_FOUND);
}

TEST_F(EnumTest, AmbiguousAddonsFail)
{
    AddAddon("x_16.json");
    AddAddon("y_16.json");
    char name[256];
    EXPECT_EQ(-1, VESKBandwidthEnumToNameAddon(16, name, sizeof name));
    ExpectError(BW_ERR_ADDON_AMBIGUOUS);
    EXPECT_TRUE(log.Contains("glob multi match, iProtocol=16")) << log.Dump();

    AddAddon("my_app_20.json");
    AddAddon("my_tool_21.json");
    EXPECT_EQ(-1, VESKBandwidthEnumToValueAddon("my"));
    ExpectError(BW_ERR_ADDON_AMBIGUOUS);
    EXPECT_TRUE(log.Contains("glob multi match, protocol=my")) << log.Dump();
}

TEST_F(EnumTest, MissingAddonFailsEveryLookup)
{
    char name[256];
    EXPECT_EQ(-1, VESKBandwidthEnumToNameAddon(40, name, sizeof name));
    ExpectError(BW_ERR_GLOB_FAILED);
    EXPECT_EQ(-1, VESKBandwidthEnumToValueAddon("nothing"));
    EXPECT_TRUE(log.Contains("glob failed, protocol=nothing")) << log.Dump();

    char path[256] = "untouched";
    EXPECT_EQ(-1, VESKBandwidthGetAddonConfigPath(40, path, sizeof path));
    EXPECT_STREQ("untouched", path);
    EXPECT_TRUE(log.Contains("VESKBandwidthEnumToNameAddon failed")) << log.Dump();
    // The lookup's error stays; the path call adds none of its own.
    ExpectError(BW_ERR_GLOB_FAILED);
}

TEST_F(EnumTest, FoundAddonsAreCachedForTheProcess)
{
    AddAddon("media_sync_64.json");
    char name[256];
    ASSERT_EQ(1, VESKBandwidthEnumToNameAddon(64, name, sizeof name));
    ASSERT_EQ(64, VESKBandwidthEnumToValueAddon("media_sync"));

    // Gone from the directory, still known: the second lookups never search it.
    RemoveAddon("media_sync_64.json");
    AddAddon("other_64.json");
    AddAddon("media_sync_65.json");
    EXPECT_EQ(1, VESKBandwidthEnumToNameAddon(64, name, sizeof name));
    EXPECT_STREQ("media_sync", name);
    EXPECT_EQ(64, VESKBandwidthEnumToValueAddon("media_sync"));
}

TEST_F(EnumTest, CachedNameIsTheCutOne)
{
    AddAddon("longname_9.json");
    char name[256];
    ASSERT_EQ(1, VESKBandwidthEnumToNameAddon(9, name, 5));
    EXPECT_STREQ("long", name);
    RemoveAddon("longname_9.json");
    EXPECT_EQ(1, VESKBandwidthEnumToNameAddon(9, name, sizeof name));
    EXPECT_STREQ("long", name);
}

TEST_F(EnumTest, MissesAreNotCached)
{
    char name[256];
    ASSERT_EQ(-1, VESKBandwidthEnumToNameAddon(48, name, sizeof name));
    ASSERT_EQ(-1, VESKBandwidthEnumToValueAddon("late"));
    AddAddon("late_48.json");
    EXPECT_EQ(1, VESKBandwidthEnumToNameAddon(48, name, sizeof name));
    EXPECT_STREQ("late", name);
    EXPECT_EQ(48, VESKBandwidthEnumToValueAddon("late"));
}

}  // namespace

// Name tables, value/name lookups and add-on protocols with their caches.
#include <cstdio>
#include <sstream>
#include <string>

#include "vbw_test.h"
#include "veskbandwidth.h"

namespace {

const std::string kAddonDir = "/usr/vesk/etc/bandwidth/addon/";

class EnumTest : public vbw::SandboxTest {
protected:
    void SetUp() override
    {
        vbw::SandboxTest::SetUp();
        vbw::MakeDirs(kAddonDir);
    }
    static void Add(const std::string &file) { vbw::WriteFile(kAddonDir + file, "{}\n"); }
    static void Remove(const std::string &file) { ASSERT_EQ(0, std::remove((kAddonDir + file).c_str())); }

    // The name of a value, or "<result>" when the lookup does not return 1.
    static std::string Name(const VESK_BW_ENUM_ENTRY *table, int value, int size = 256)
    {
        char name[256] = "";
        int result = VESKBandwidthEnumToName(table, value, name, size);
        return result == 1 ? std::string(name) : "<" + std::to_string(result) + ">";
    }
    static std::string AddonName(int value)
    {
        char name[256] = "";
        int result = VESKBandwidthEnumToNameAddon(value, name, sizeof name);
        return result == 1 ? std::string(name) : "<" + std::to_string(result) + ">";
    }
    void ExpectError(int code)
    {
        EXPECT_EQ(code, VLIBCErrGet()) << log.Dump();
        EXPECT_STREQ("bandwidth_enum.cpp", VLIBCErrorGetFile());
    }
};

TEST_F(EnumTest, EveryTableRowConvertsBothWays)
{
    const struct {
        const VESK_BW_ENUM_ENTRY *table;
        const char *names;  // the names of values 0, 1, 2, ... ("-" for no row)
    } tables[] = {
        {VESK_BW_OWNER_TYPE_NAMES, "- user group all"},
        {VESK_BW_TRANSFER_TYPE_NAMES, "- upload download"},
        {VESK_BW_PROTOCOL_TYPE_NAMES, "- lanternpost webdav - ftp - - - rsync - - - - - - all"},
        {VESK_BW_LIMIT_STATE_NAMES, "NotExisted enabled disabled schedule"},
        {VESK_BW_USER_GROUP_POLICY_NAMES, "user-only group-only user-first group-first min max sum"},
        {VESK_BW_INTER_GROUP_POLICY_NAMES, "- - - - min max sum"},
        {VESK_BW_OCCUPY_POLICY_NAMES, "none all min max weighted"},
    };
    for (const auto &table : tables) {
        std::istringstream names(table.names);
        std::string name;
        for (int value = 0; names >> name; ++value) {
            if (name != "-") {
                EXPECT_EQ(name, Name(table.table, value)) << value;
                EXPECT_EQ(value, VESKBandwidthEnumToValue(table.table, name.c_str())) << name;
            }
        }
    }
    // Found names and values, 0 included, leave no error and no log behind.
    EXPECT_EQ(0, VLIBCErrGet());
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(EnumTest, ValuesAndNamesMissingFromATableGoToTheAddonSearch)
{
    EXPECT_EQ("<-1>", Name(VESK_BW_TRANSFER_TYPE_NAMES, VESK_BW_TRANSFER_ALL));
    ExpectError(BW_ERR_GLOB_FAILED);
    EXPECT_TRUE(log.Contains("bandwidth_enum.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("glob failed, iProtocol=3")) << log.Dump();
    EXPECT_TRUE(log.Contains("VESKBandwidthEnumToNameAddon failed, protocol=3")) << log.Dump();
    EXPECT_EQ("<-1>", Name(VESK_BW_INTER_GROUP_POLICY_NAMES, VESK_BW_POLICY_USER_ONLY));
    // Case counts: "Enabled" is no state.
    EXPECT_EQ(-1, VESKBandwidthEnumToValue(VESK_BW_LIMIT_STATE_NAMES, "Enabled"));
    ExpectError(BW_ERR_GLOB_FAILED);
    EXPECT_TRUE(log.Contains("glob failed, protocol=Enabled")) << log.Dump();
    EXPECT_TRUE(log.Contains("VESKBandwidthEnumToValueAddon failed, protocol=Enabled")) << log.Dump();

    Add("triple_3.json");
    Add("seven_7.json");
    EXPECT_EQ("triple", Name(VESK_BW_TRANSFER_TYPE_NAMES, VESK_BW_TRANSFER_ALL));
    EXPECT_EQ("seven", Name(VESK_BW_LIMIT_STATE_NAMES, 7));
    EXPECT_EQ(7, VESKBandwidthEnumToValue(VESK_BW_OWNER_TYPE_NAMES, "seven"));
    // A 4-byte buffer gets a cut name.
    EXPECT_EQ("lan", Name(VESK_BW_PROTOCOL_TYPE_NAMES, VESK_BW_PROTOCOL_LANTERNPOST, 4));
}

TEST_F(EnumTest, BadArgumentsAreReported)
{
    char name[16];
    EXPECT_EQ(-1, VESKBandwidthEnumToName(nullptr, 1, name, sizeof name));
    EXPECT_EQ(-1, VESKBandwidthEnumToName(VESK_BW_OWNER_TYPE_NAMES, 1, nullptr, sizeof name));
    EXPECT_EQ(-1, VESKBandwidthEnumToName(VESK_BW_OWNER_TYPE_NAMES, 1, name, 0));
    EXPECT_EQ(-1, VESKBandwidthEnumToValue(nullptr, "user"));
    EXPECT_EQ(-1, VESKBandwidthEnumToValue(VESK_BW_OWNER_TYPE_NAMES, nullptr));
    for (const char *condition : {"((void *)0) != enum_list", "((void *)0) != szProtocol", "cbProtocol > 0",
                                  "NULL != szName"}) {
        EXPECT_TRUE(log.Contains("Invaild Argument (" + std::string(condition) + ")=[0]")) << log.Dump();
    }
    ExpectError(BW_ERR_BAD_PARAMETERS);

    log.Clear();
    EXPECT_EQ(-1, VESKBandwidthEnumToNameAddon(1, nullptr, 16));
    EXPECT_EQ(-1, VESKBandwidthEnumToNameAddon(1, name, 0));
    EXPECT_EQ(-1, VESKBandwidthEnumToValueAddon(nullptr));
    EXPECT_EQ(-1, VESKBandwidthEnumToValueAddon(""));
    EXPECT_EQ(4, log.Count("Bad parameter")) << log.Dump();
    ExpectError(BW_ERR_BAD_PARAMETERS);
}

TEST_F(EnumTest, AddonFileNamesGiveNameAndNumber)
{
    Add("backup_app_32.json");
    Add("odd_12x.json");
    Add("nodigits_x.json");
    EXPECT_EQ("backup_app", Name(VESK_BW_PROTOCOL_TYPE_NAMES, 32));
    EXPECT_EQ(32, VESKBandwidthEnumToValue(VESK_BW_PROTOCOL_TYPE_NAMES, "backup_app"));
    EXPECT_EQ(32, VESKBandwidthEnumToValueAddon("backup"));  // a prefix up to '_' matches
    EXPECT_EQ(12, VESKBandwidthEnumToValueAddon("odd"));
    // A file without digits declares nothing: "not found".
    EXPECT_EQ(0, VESKBandwidthEnumToValue(VESK_BW_PROTOCOL_TYPE_NAMES, "nodigits"));
    ExpectError(BW_ERR_NOT_FOUND);

    char path[128];
    EXPECT_EQ(0, VESKBandwidthGetAddonConfigPath(32, path, sizeof path));
    EXPECT_STREQ("/usr/vesk/etc/bandwidth/addon//backup_app_32.json", path);
    EXPECT_EQ(0, VESKBandwidthGetAddonConfigPath(32, path, 12));
    EXPECT_STREQ("/usr/vesk/e", path);
}

TEST_F(EnumTest, AmbiguousOrMissingAddonsFail)
{
    Add("x_16.json");
    Add("y_16.json");
    Add("my_app_20.json");
    Add("my_tool_21.json");
    EXPECT_EQ("<-1>", AddonName(16));
    ExpectError(BW_ERR_ADDON_AMBIGUOUS);
    EXPECT_EQ(-1, VESKBandwidthEnumToValueAddon("my"));
    ExpectError(BW_ERR_ADDON_AMBIGUOUS);
    EXPECT_TRUE(log.Contains("glob multi match, iProtocol=16")) << log.Dump();
    EXPECT_TRUE(log.Contains("glob multi match, protocol=my")) << log.Dump();

    char path[256] = "untouched";
    EXPECT_EQ(-1, VESKBandwidthGetAddonConfigPath(40, path, sizeof path));
    EXPECT_STREQ("untouched", path);
    EXPECT_TRUE(log.Contains("VESKBandwidthEnumToNameAddon failed")) << log.Dump();
    ExpectError(BW_ERR_GLOB_FAILED);  // left by the lookup
}

TEST_F(EnumTest, FoundAddonsAreCachedAsAnsweredMissesAreNot)
{
    Add("media_sync_64.json");
    Add("longname_9.json");
    char name[256];
    ASSERT_EQ("media_sync", AddonName(64));
    ASSERT_EQ(64, VESKBandwidthEnumToValueAddon("media_sync"));
    ASSERT_EQ(1, VESKBandwidthEnumToNameAddon(9, name, 5));
    ASSERT_EQ("<-1>", AddonName(48));
    ASSERT_EQ(-1, VESKBandwidthEnumToValueAddon("late"));

    // The directory changes; cached answers stay, with the name cut as first answered.
    Remove("media_sync_64.json");
    Remove("longname_9.json");
    Add("other_64.json");
    Add("media_sync_65.json");
    Add("late_48.json");
    EXPECT_EQ("media_sync", AddonName(64));
    EXPECT_EQ(64, VESKBandwidthEnumToValueAddon("media_sync"));
    EXPECT_EQ("long", AddonName(9));
    EXPECT_EQ("late", AddonName(48));
    EXPECT_EQ(48, VESKBandwidthEnumToValueAddon("late"));
}

}  // namespace

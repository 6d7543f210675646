// What every module shares: missing arguments refused with their condition
// text, name tables, value/name lookups, add-on protocols with their caches,
// and the speed and time arithmetic, where a speed of 0 means unlimited.
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <sstream>
#include <string>

#include "vbw_throttle_fixture.h"

namespace {

using vbw::Hash;

class ArgumentTest : public vbw::SandboxTest {};

// Each call fails with BW_ERR_BAD_PARAMETERS recorded by its module, logs
// "Invaild Argument (<condition>)=[0]" from there, and changes nothing.
TEST_F(ArgumentTest, EveryEntryPointRefusesMissingArgumentsByTheirCondition)
{
    VESK_BANDWIDTH_CONF conf = vbw::Conf(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, 1, 2);
    VESK_BANDWIDTH_GLOBAL_CONF global = vbw::GlobalConf(VESK_BW_PROTOCOL_FTP);
    VESK_BANDWIDTH_STATUS status = vbw::Status(1234), *list = nullptr;
    VESK_BANDWIDTH_LIMIT limit = vbw::Limit(VESK_BW_OWNER_USER, 1026, 1, 2);
    VESK_BANDWIDTH_CONFIG config = {77, 0, 0, 0, nullptr, global};
    const VESK_BANDWIDTH_CONF confBefore = conf;
    const VESK_BANDWIDTH_STATUS statusBefore = status;
    Hash hash({{"id", "5"}, {"pid", "5"}});
    VLIBC_SZHASH *none = nullptr;
    char text[16];
    int64_t when = 0;
    uint64_t speed = 0;
    const char *file = "/tmp/bandwidth/user-1026";
    const struct {
        std::function<int()> call;
        const char *condition, *module;
    } cases[] = {
        {[&] { return VLIBCSzHashSetValue(&none, "k", nullptr); }, "szValue != nullptr", "vesk_hash"},
        {[&] { return VESKBandwidthEnumToName(nullptr, 1, text, 16); }, "((void *)0) != enum_list", "bandwidth_enum"},
        {[&] { return VESKBandwidthEnumToName(VESK_BW_OWNER_TYPE_NAMES, 1, nullptr, 16); }, "((void *)0) != szProtocol",
         "bandwidth_enum"},
        {[&] { return VESKBandwidthEnumToName(VESK_BW_OWNER_TYPE_NAMES, 1, text, 0); }, "cbProtocol > 0",
         "bandwidth_enum"},
        {[&] { return VESKBandwidthEnumToValue(VESK_BW_OWNER_TYPE_NAMES, nullptr); }, "NULL != szName",
         "bandwidth_enum"},
        {[&] { return VESKBandwidthInitHashFromConf(nullptr, &conf); }, "((void *)0) != ppHash",
         "bandwidth_conf_convert"},
        {[&] { return VESKBandwidthInitHashFromConf(hash.Address(), nullptr); }, "NULL != pConf",
         "bandwidth_conf_convert"},
        {[&] { return VESKBandwidthInitConfFromHash(&conf, nullptr); }, "((void *)0) != pHash",
         "bandwidth_conf_convert"},
        {[&] { return VESKBandwidthInitHashFromStatus(&none, &status); }, "((void *)0) != *ppHash",
         "bandwidth_status_convert"},
        {[&] { return VESKBandwidthInitStatusFromHash(nullptr, hash); }, "NULL != pStatus", "bandwidth_status_convert"},
        {[&] { return VESKBandwidthConfPath(VESK_BW_PROTOCOL_FTP, nullptr, 16); }, "((void *)0) != szConfPath",
         "bandwidth_conf_path"},
        {[&] { return VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_ALL, &conf); },
         "(0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type", "bandwidth_conf_get_by_id"},
        {[&] { return VESKBandwidthConfSetByID(nullptr); }, "((void *)0) != pConf", "bandwidth_conf_set_by_id"},
        {[&] { return VESKBandwidthGlobalConfGet(VESK_BW_PROTOCOL_ALL, &global); },
         "(0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type", "bandwidth_global_conf_get"},
        {[&] { return VESKBandwidthGlobalConfSet(nullptr); }, "((void *)0) != pConf", "bandwidth_global_conf_set"},
        {[&] { return VESKBandwidthConfDump(stdout, nullptr); }, "NULL != pConf", "bandwidth_conf_dump"},
        {[&] { return VESKBandwidthConfDumpHeader(nullptr); }, "((void *)0) != fp", "bandwidth_conf_dump"},
        {[&] { return VESKBandwidthGlobalConfDump(stdout, nullptr); }, "NULL != pConf", "bandwidth_global_conf_dump"},
        {[&] { return VESKBandwidthGlobalConfDumpHeader(nullptr); }, "((void *)0) != fp", "bandwidth_global_conf_dump"},
        {[&] { return VESKBandwidthStatusSetSection(nullptr, "1-1", hash); }, "((void *)0) != szFile",
         "bandwidth_status_set_section"},
        {[&] { return VESKBandwidthStatusRemoveSection(file, nullptr); }, "NULL != szSection",
         "bandwidth_status_set_section"},
        {[&] { return VESKBandwidthIStatusGetAll(nullptr, 15, 3, &list, 0); }, "((void *)0) != szStatusFile",
         "bandwidth_status_get_all"},
        {[&] { return VESKBandwidthIStatusGetAll(file, 15, 3, nullptr, 0); }, "NULL != pStatusList",
         "bandwidth_status_get_all"},
        {[&] { return VESKBandwidthIStatusGet(VESK_BW_OWNER_USER, 1026, 1, VESK_BW_TRANSFER_ALL, &status); },
         "VESK_BW_TRANSFER_ALL != transfer_type", "bandwidth_status_get"},
        {[&] { return VESKBandwidthStatusInit(&config, vbw::kDown, nullptr, &when, &status); },
         "((void *)0) != szFileName", "bandwidth_status_init"},
        {[&] { return VESKBandwidthStatusSave((uid_t)-1, nullptr, &status); }, "(uid_t)((uid_t) -1) != uid",
         "bandwidth_status_save"},
        {[&] { return VESKBandwidthStatusDump(nullptr, &status); }, "((void *)0) != fp", "bandwidth_status_dump"},
        {[&] { return VESKBandwidthStatusDump(stdout, nullptr); }, "NULL != pStatus", "bandwidth_status_dump"},
        {[&] { return VESKBandwidthConfigGet(1026, VESK_BW_PROTOCOL_ALL, &config); },
         "(0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type", "bandwidth_config_get"},
        {[&] { return VESKBandwidthConfigGet((uid_t)-1, VESK_BW_PROTOCOL_FTP, &config); }, "(uid_t)((uid_t) -1) != uid",
         "bandwidth_config_get"},
        {[&] { return VESKBandwidthExpectSpeedEstimate(1026, &limit, VESK_BW_TRANSFER_ALL, &speed, getpid()); },
         "VESK_BW_TRANSFER_ALL != transfer_type", "bandwidth_expect_speed_estimate"},
    };
    for (const auto &c : cases) {
        const std::string module = std::string(c.module) + ".cpp";
        log.Clear();
        EXPECT_GT(0, c.call()) << c.condition;
        EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet()) << c.condition;
        EXPECT_EQ(module, VLIBCErrorGetFile());
        EXPECT_TRUE(log.From(module, "Invaild Argument (" + std::string(c.condition) + ")=[0]")) << log.Dump();
    }
    EXPECT_EQ((vbw::Pairs{{"id", "5"}, {"pid", "5"}}), hash.Contents());
    EXPECT_TRUE(vbw::SameBytes(confBefore, conf));
    EXPECT_TRUE(vbw::SameBytes(statusBefore, status));
    EXPECT_TRUE(vbw::SameBytes(vbw::GlobalConf(VESK_BW_PROTOCOL_FTP), global));
    EXPECT_EQ(77u, config.uid);
    EXPECT_EQ(nullptr, list);
    EXPECT_FALSE(vbw::Exists("/tmp/bandwidth"));
}

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
        int result = table != nullptr ? VESKBandwidthEnumToName(table, value, name, size)
                                      : VESKBandwidthEnumToNameAddon(value, name, size);
        return result == 1 ? std::string(name) : "<" + std::to_string(result) + ">";
    }
    static std::string AddonName(int value, int size = 256) { return Name(nullptr, value, size); }
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
    EXPECT_TRUE(log.From("bandwidth_enum.cpp", "glob failed, iProtocol=3")) << log.Dump();
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
    EXPECT_EQ("lan", Name(VESK_BW_PROTOCOL_TYPE_NAMES, VESK_BW_PROTOCOL_LANTERNPOST, 4));  // cut to the buffer
}

TEST_F(EnumTest, AddonLookupsRefuseMissingArguments)
{
    char name[16];
    EXPECT_EQ(-1, VESKBandwidthEnumToNameAddon(1, nullptr, 16));
    EXPECT_EQ(-1, VESKBandwidthEnumToNameAddon(1, name, 0));
    EXPECT_EQ(-1, VESKBandwidthEnumToValueAddon(nullptr));
    EXPECT_EQ(-1, VESKBandwidthEnumToValueAddon(""));
    EXPECT_EQ(4, log.Count("Bad parameter")) << log.Dump();
    ExpectError(BW_ERR_BAD_PARAMETERS);
}

TEST_F(EnumTest, AddonFileNamesGiveNameAndNumberOnceAndOnlyOnce)
{
    for (const char *file : {"backup_app_32.json", "odd_12x.json", "nodigits_x.json", "x_16.json", "y_16.json",
                             "my_app_20.json", "my_tool_21.json"}) {
        Add(file);
    }
    EXPECT_EQ("backup_app", Name(VESK_BW_PROTOCOL_TYPE_NAMES, 32));
    EXPECT_EQ(32, VESKBandwidthEnumToValue(VESK_BW_PROTOCOL_TYPE_NAMES, "backup_app"));
    EXPECT_EQ(32, VESKBandwidthEnumToValueAddon("backup"));  // a prefix up to '_' matches
    EXPECT_EQ(12, VESKBandwidthEnumToValueAddon("odd"));
    // A file without digits declares nothing: "not found".
    EXPECT_EQ(0, VESKBandwidthEnumToValue(VESK_BW_PROTOCOL_TYPE_NAMES, "nodigits"));
    ExpectError(BW_ERR_NOT_FOUND);
    char path[128] = "untouched";
    EXPECT_EQ(-1, VESKBandwidthGetAddonConfigPath(40, path, sizeof path));
    EXPECT_STREQ("untouched", path);
    EXPECT_TRUE(log.Contains("VESKBandwidthEnumToNameAddon failed")) << log.Dump();
    ExpectError(BW_ERR_GLOB_FAILED);  // left by the lookup
    EXPECT_EQ(0, VESKBandwidthGetAddonConfigPath(32, path, sizeof path));
    EXPECT_STREQ("/usr/vesk/etc/bandwidth/addon//backup_app_32.json", path);
    EXPECT_EQ(0, VESKBandwidthGetAddonConfigPath(32, path, 12));
    EXPECT_STREQ("/usr/vesk/e", path);

    // Two files of one number, or of one name prefix, are ambiguous.
    EXPECT_EQ("<-1>", AddonName(16));
    ExpectError(BW_ERR_ADDON_AMBIGUOUS);
    EXPECT_EQ(-1, VESKBandwidthEnumToValueAddon("my"));
    ExpectError(BW_ERR_ADDON_AMBIGUOUS);
    EXPECT_TRUE(log.Contains("glob multi match, iProtocol=16")) << log.Dump();
    EXPECT_TRUE(log.Contains("glob multi match, protocol=my")) << log.Dump();
}

TEST_F(EnumTest, FoundAddonsAreCachedAsAnsweredMissesAreNot)
{
    Add("media_sync_64.json");
    Add("longname_9.json");
    ASSERT_EQ("media_sync", AddonName(64));
    ASSERT_EQ(64, VESKBandwidthEnumToValueAddon("media_sync"));
    ASSERT_EQ("long", AddonName(9, 5));
    ASSERT_EQ("<-1>", AddonName(48));
    ASSERT_EQ(-1, VESKBandwidthEnumToValueAddon("late"));

    // The directory changes; cached answers stay, with the name cut as first answered.
    Remove("media_sync_64.json");
    Remove("longname_9.json");
    for (const char *file : {"other_64.json", "media_sync_65.json", "late_48.json"}) {
        Add(file);
    }
    EXPECT_EQ("media_sync", AddonName(64));
    EXPECT_EQ(64, VESKBandwidthEnumToValueAddon("media_sync"));
    EXPECT_EQ("long", AddonName(9));
    EXPECT_EQ("late", AddonName(48));
    EXPECT_EQ(48, VESKBandwidthEnumToValueAddon("late"));
}

class ArithTest : public vbw::SandboxTest {};

TEST_F(ArithTest, ZeroIsTheLoosestLimitAndEstimatesTruncate)
{
    const struct {
        uint64_t a, b;
        int less, larger;
        uint64_t sum;
    } cases[] = {
        {0, 5, 0, 1, 0}, {5, 0, 1, 0, 0},     {0, 0, 0, 0, 0},          {7, 7, 0, 0, 14},
        {3, 7, 1, 0, 10}, {9, 7, 0, 1, 16},   {UINT64_MAX, 2, 0, 1, 1},  // the sum wraps
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.less, VESKBandwidthIsLessThan(c.a, c.b)) << c.a << " < " << c.b;
        EXPECT_EQ(c.larger, VESKBandwidthIsLargerThan(c.a, c.b)) << c.a << " > " << c.b;
        EXPECT_EQ(c.sum, VESKBandwidthSum(c.a, c.b)) << c.a << " + " << c.b;
    }

    // A speed takes at least one microsecond; a sleep is what remains of the chunk's due time.
    EXPECT_EQ(65536000000u, VESKBandwidthSpeedEstimate(0, 65536));
    EXPECT_EQ(65536000000u, VESKBandwidthSpeedEstimate(-5, 65536));
    EXPECT_EQ(131072u, VESKBandwidthSpeedEstimate(500000, 65536));
    EXPECT_EQ(3u, VESKBandwidthSpeedEstimate(3000000, 10));
    EXPECT_EQ(250000, VESKBandwidthSleepEstimate(250000, 65536, 131072));
    EXPECT_EQ(0, VESKBandwidthSleepEstimate(600000, 65536, 131072));
    EXPECT_EQ(0, VESKBandwidthSleepEstimate(0, 1u << 30, 0));  // unlimited never waits
    EXPECT_EQ(499999, VESKBandwidthSleepEstimate(-100, 65536, 131072));
    EXPECT_EQ(333332, VESKBandwidthSleepEstimate(1, 1, 3));  // 1 byte at 3 B/s is due after 333333 us
}

}  // namespace

// What every module shares: argument checks by kind, and add-on protocols
// with their caches.
#include <unistd.h>

#include <cstdio>
#include <functional>

#include "vbw_throttle_fixture.h"

namespace {

class CommonTest : public vbw::SandboxTest {};

// One call per kind of check: it fails with BW_ERR_BAD_PARAMETERS recorded
// by its module, logs the condition's text from there, and writes nothing.
TEST_F(CommonTest, ArgumentChecksLogTheirConditionFromTheirModule)
{
    VESK_BANDWIDTH_CONF conf = vbw::Conf(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_FTP, 1, 2), before = conf;
    VESK_BANDWIDTH_STATUS status = vbw::Status(1234);
    VESK_BANDWIDTH_LIMIT limit = vbw::Limit(VESK_BW_OWNER_USER, 1026, 1, 2);
    VESK_BANDWIDTH_CONFIG config = {77, 0, 0, 0, nullptr, vbw::GlobalConf(VESK_BW_PROTOCOL_FTP)};
    VLIBC_SZHASH *none = nullptr;
    char text[16];
    uint64_t speed = 0;
    const struct {
        std::function<int()> call;
        const char *condition, *module;
    } cases[] = {
        {[&] { return VESKBandwidthEnumToName(nullptr, 1, text, 16); }, "((void *)0) != enum_list", "bandwidth_enum"},
        {[&] { return VESKBandwidthEnumToName(VESK_BW_OWNER_TYPE_NAMES, 1, text, 0); }, "cbProtocol > 0",
         "bandwidth_enum"},
        {[&] { return VESKBandwidthInitHashFromStatus(&none, &status); }, "((void *)0) != *ppHash",
         "bandwidth_status_convert"},
        {[&] { return VESKBandwidthConfGetByID(VESK_BW_OWNER_USER, 1026, VESK_BW_PROTOCOL_ALL, &conf); },
         "(0x0001 | 0x0002 | 0x0004 | 0x0008)!= protocol_type", "bandwidth_conf_get_by_id"},
        {[&] { return VESKBandwidthConfigGet(UID_ERR, VESK_BW_PROTOCOL_FTP, &config); }, "(uid_t)((uid_t) -1) != uid",
         "bandwidth_config_get"},
        {[&] { return VESKBandwidthExpectSpeedEstimate(1026, &limit, VESK_BW_TRANSFER_ALL, &speed, getpid()); },
         "VESK_BW_TRANSFER_ALL != transfer_type", "bandwidth_expect_speed_estimate"},
        {[&] { return VESKBandwidthGlobalConfDump(stdout, nullptr); }, "NULL != pConf", "bandwidth_global_conf_dump"},
        {[&] { return VLIBCSzHashSetValue(&none, "k", nullptr); }, "szValue != nullptr", "vesk_hash"},
    };
    for (const auto &c : cases) {
        const std::string module = std::string(c.module) + ".cpp";
        log.Clear();
        EXPECT_GT(0, c.call()) << c.condition;
        EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet()) << c.condition;
        EXPECT_EQ(module, VLIBCErrorGetFile());
        EXPECT_TRUE(log.From(module, "Invaild Argument (" + std::string(c.condition) + ")=[0]")) << log.Dump();
    }
    EXPECT_TRUE(vbw::SameBytes(before, conf));
    EXPECT_EQ(77u, config.uid);
    EXPECT_EQ(nullptr, none);
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
    // The name of a value (table nullptr: the add-on lookup), or "<result>" when not 1.
    static std::string Name(const VESK_BW_ENUM_ENTRY *table, int value, int size = 256)
    {
        char name[256] = "";
        int result = table != nullptr ? VESKBandwidthEnumToName(table, value, name, size)
                                      : VESKBandwidthEnumToNameAddon(value, name, size);
        return result == 1 ? std::string(name) : "<" + std::to_string(result) + ">";
    }
};

TEST_F(EnumTest, AddonFilesDeclareNameAndNumberOnceAndOnlyOnce)
{
    // Nothing in the add-on directory: the search fails, in every table; case counts.
    EXPECT_EQ("<-1>", Name(VESK_BW_TRANSFER_TYPE_NAMES, VESK_BW_TRANSFER_ALL));
    EXPECT_EQ(-1, VESKBandwidthEnumToValue(VESK_BW_LIMIT_STATE_NAMES, "Enabled"));
    EXPECT_EQ(BW_ERR_GLOB_FAILED, VLIBCErrGet());
    EXPECT_TRUE(log.From("bandwidth_enum.cpp", "glob failed, iProtocol=3")) << log.Dump();

    for (const char *file :
         {"backup_app_32.json", "nodigits_x.json", "x_16.json", "y_16.json", "my_app_20.json", "my_tool_21.json"}) {
        Add(file);
    }
    EXPECT_EQ("backup_app", Name(VESK_BW_LIMIT_STATE_NAMES, 32));
    EXPECT_EQ("bac", Name(VESK_BW_PROTOCOL_TYPE_NAMES, 32, 4));  // cut to the buffer
    EXPECT_EQ(32, VESKBandwidthEnumToValue(VESK_BW_PROTOCOL_TYPE_NAMES, "backup_app"));
    EXPECT_EQ(0, VESKBandwidthEnumToValue(VESK_BW_PROTOCOL_TYPE_NAMES, "nodigits"));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    char path[128];
    EXPECT_EQ(0, VESKBandwidthGetAddonConfigPath(32, path, sizeof path));
    EXPECT_STREQ("/usr/vesk/etc/bandwidth/addon//backup_app_32.json", path);

    // Two files of one number, or of one name prefix, are ambiguous.
    EXPECT_EQ("<-1>", Name(nullptr, 16));
    EXPECT_EQ(BW_ERR_ADDON_AMBIGUOUS, VLIBCErrGet());
    EXPECT_EQ(-1, VESKBandwidthEnumToValueAddon("my"));
    EXPECT_EQ(BW_ERR_ADDON_AMBIGUOUS, VLIBCErrGet());
    EXPECT_EQ(-1, VESKBandwidthEnumToValueAddon(""));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_TRUE(log.From("bandwidth_enum.cpp", "Bad parameter")) << log.Dump();
}

TEST_F(EnumTest, FoundAddonsAreCachedMissesAreNot)
{
    Add("media_sync_64.json");
    ASSERT_EQ("media", Name(nullptr, 64, 6));
    ASSERT_EQ(64, VESKBandwidthEnumToValueAddon("media_sync"));
    ASSERT_EQ("<-1>", Name(nullptr, 48));
    ASSERT_EQ(0, std::remove((kAddonDir + "media_sync_64.json").c_str()));
    Add("other_64.json");
    Add("late_48.json");
    EXPECT_EQ("media", Name(nullptr, 64));  // cached as first answered, cut
    EXPECT_EQ(64, VESKBandwidthEnumToValueAddon("media_sync"));
    EXPECT_EQ("late", Name(nullptr, 48));
}

}  // namespace

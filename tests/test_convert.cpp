// Limit, global and status records to and from their key/value form.
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "vbw_test.h"
#include "veskbandwidth.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

// A platform string hash for one test.
class Hash {
public:
    Hash() : hash_(VLIBCSzHashAlloc(16)) {}
    Hash(std::initializer_list<std::pair<std::string, std::string>> pairs) : Hash()
    {
        for (const auto &pair : pairs) {
            EXPECT_GE(VLIBCSzHashSetValue(&hash_, pair.first.c_str(), pair.second.c_str()), 0);
        }
    }
    ~Hash() { VLIBCSzHashFree(hash_); }
    Hash(const Hash &) = delete;
    Hash &operator=(const Hash &) = delete;

    VLIBC_SZHASH **Address() { return &hash_; }
    const VLIBC_SZHASH *Get() const { return hash_; }
    Pairs Contents() const
    {
        Pairs pairs;
        for (int i = 0; i < VLIBCSzHashCount(hash_); ++i) {
            pairs.emplace_back(VLIBCSzHashKeyAt(hash_, i), VLIBCSzHashValueAt(hash_, i));
        }
        return pairs;
    }
    bool Has(const char *key) const { return VLIBCSzHashGetValue(hash_, key) != nullptr; }

private:
    VLIBC_SZHASH *hash_;
};

class ConvertTest : public vbw::SandboxTest {
protected:
    void ExpectBadValue(const char *file)
    {
        EXPECT_EQ(BW_ERR_BAD_VALUE, VLIBCErrGet());
        EXPECT_STREQ(file, VLIBCErrorGetFile());
    }
};

// A record whose every byte is set, so that changes to fields without keys show.
template <typename Record>
Record Filled(unsigned char byte)
{
    Record record;
    std::memset(&record, byte, sizeof record);
    return record;
}

VESK_BANDWIDTH_CONF FtpUserLimit()
{
    VESK_BANDWIDTH_CONF conf = Filled<VESK_BANDWIDTH_CONF>(0x5a);
    conf.id = 1026;
    conf.iState = VESK_BW_STATE_ENABLED;
    conf.iOwnerType = VESK_BW_OWNER_USER;
    conf.iProtocol = VESK_BW_PROTOCOL_FTP;
    conf.ullRate[VESK_BW_TRANSFER_UPLOAD] = 100;
    conf.ullRate[VESK_BW_TRANSFER_DOWNLOAD] = 200;
    conf.ullCustomRate[VESK_BW_TRANSFER_UPLOAD] = 50;
    conf.ullCustomRate[VESK_BW_TRANSFER_DOWNLOAD] = 60;
    conf.szSchedulePlan[0] = '\0';
    return conf;
}

// ---------------------------------------------------------------- limit records

TEST_F(ConvertTest, LimitRecordGivesItsNineKeysInTableOrder)
{
    VESK_BANDWIDTH_CONF conf = FtpUserLimit();
    Hash hash({{"stale", "gone"}});
    ASSERT_EQ(0, VESKBandwidthInitHashFromConf(hash.Address(), &conf)) << log.Dump();
    const Pairs expected = {{"id", "1026"},           {"state", "enabled"},
                            {"owner type", "user"},   {"protocol type", "ftp"},
                            {"upload rate", "100"},   {"download rate", "200"},
                            {"upload rate custom", "50"}, {"download rate custom", "60"},
                            {"schedule plan", ""}};
    EXPECT_EQ(expected, hash.Contents());

    // Back into a record: the stored fields return, the run-time ones stay as they were.
    VESK_BANDWIDTH_CONF back = Filled<VESK_BANDWIDTH_CONF>(0x11);
    ASSERT_EQ(0, VESKBandwidthInitConfFromHash(&back, hash.Get()));
    VESK_BANDWIDTH_CONF expectedBack = Filled<VESK_BANDWIDTH_CONF>(0x11);
    expectedBack.id = conf.id;
    expectedBack.iState = conf.iState;
    expectedBack.iOwnerType = conf.iOwnerType;
    expectedBack.iProtocol = conf.iProtocol;
    std::memcpy(&expectedBack.ullRate[1], &conf.ullRate[1], 2 * sizeof(uint64_t));
    std::memcpy(&expectedBack.ullCustomRate[1], &conf.ullCustomRate[1], 2 * sizeof(uint64_t));
    std::strcpy(expectedBack.szSchedulePlan, "");
    EXPECT_EQ(0, std::memcmp(&expectedBack, &back, sizeof back));
}

TEST_F(ConvertTest, UnnamedEnumerationValueIsLeftOut)
{
    VESK_BANDWIDTH_CONF conf = FtpUserLimit();
    conf.iState = static_cast<VESK_BW_LIMIT_STATE>(7);
    Hash hash;
    EXPECT_EQ(0, VESKBandwidthInitHashFromConf(hash.Address(), &conf));
    EXPECT_FALSE(hash.Has("state"));
    EXPECT_EQ(8, VLIBCSzHashCount(hash.Get()));
    EXPECT_EQ(1, log.Count("bandwidth_conf_convert.cpp:")) << log.Dump();
    EXPECT_EQ(1, log.Count("Unknown value [7] for [state]")) << log.Dump();
}

TEST_F(ConvertTest, AddonProtocolTravelsByName)
{
    vbw::MakeDirs("/usr/vesk/etc/bandwidth/addon");
    vbw::WriteFile("/usr/vesk/etc/bandwidth/addon/backup_app_32.json", "{}");
    VESK_BANDWIDTH_CONF conf = FtpUserLimit();
    conf.iProtocol = static_cast<VESK_BW_PROTOCOL_TYPE>(32);
    Hash hash;
    ASSERT_EQ(0, VESKBandwidthInitHashFromConf(hash.Address(), &conf));
    EXPECT_STREQ("backup_app", VLIBCSzHashGetValue(hash.Get(), "protocol type"));
    VESK_BANDWIDTH_CONF back = FtpUserLimit();
    ASSERT_EQ(0, VESKBandwidthInitConfFromHash(&back, hash.Get()));
    EXPECT_EQ(32, back.iProtocol);
}

TEST_F(ConvertTest, RatesMustBeWholeNumbers)
{
    VESK_BANDWIDTH_CONF conf = FtpUserLimit();
    Hash hash({{"id", "1030"}, {"state", "disabled"}, {"upload rate", "12k"}, {"download rate", "7"}});
    EXPECT_EQ(-1, VESKBandwidthInitConfFromHash(&conf, hash.Get()));
    ExpectBadValue("bandwidth_conf_convert.cpp");
    EXPECT_TRUE(log.Contains("bandwidth_conf_convert.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("parm_table[4].fnFromHashStr failed.")) << log.Dump();
    // Earlier keys are in, the bad one keeps its digits, later ones are untouched.
    EXPECT_EQ(1030u, conf.id);
    EXPECT_EQ(VESK_BW_STATE_DISABLED, conf.iState);
    EXPECT_EQ(12u, conf.ullRate[VESK_BW_TRANSFER_UPLOAD]);
    EXPECT_EQ(200u, conf.ullRate[VESK_BW_TRANSFER_DOWNLOAD]);

    Hash lenient({{"upload rate", ""}, {"download rate", " +42"}, {"upload rate custom", "-1"}});
    EXPECT_EQ(0, VESKBandwidthInitConfFromHash(&conf, lenient.Get()));
    EXPECT_EQ(0u, conf.ullRate[VESK_BW_TRANSFER_UPLOAD]);
    EXPECT_EQ(42u, conf.ullRate[VESK_BW_TRANSFER_DOWNLOAD]);
    EXPECT_EQ(UINT64_MAX, conf.ullCustomRate[VESK_BW_TRANSFER_UPLOAD]);
}

TEST_F(ConvertTest, IdIsCutTo32Bits)
{
    VESK_BANDWIDTH_CONF conf = FtpUserLimit();
    Hash big({{"id", "4294967297"}});
    EXPECT_EQ(0, VESKBandwidthInitConfFromHash(&conf, big.Get()));
    EXPECT_EQ(1u, conf.id);
    Hash minus({{"id", "-1"}});
    EXPECT_EQ(0, VESKBandwidthInitConfFromHash(&conf, minus.Get()));
    EXPECT_EQ(4294967295u, conf.id);
    Hash trailing({{"id", "12 "}});
    EXPECT_EQ(-1, VESKBandwidthInitConfFromHash(&conf, trailing.Get()));
    EXPECT_TRUE(log.Contains("parm_table[0].fnFromHashStr failed.")) << log.Dump();
}

TEST_F(ConvertTest, UnknownNamesKeepTheCallersValue)
{
    VESK_BANDWIDTH_CONF conf = FtpUserLimit();
    Hash hash({{"state", "bogus"}, {"owner type", "Group"}, {"protocol type", "webdav"}});
    EXPECT_EQ(0, VESKBandwidthInitConfFromHash(&conf, hash.Get()));
    EXPECT_EQ(VESK_BW_STATE_ENABLED, conf.iState);
    EXPECT_EQ(VESK_BW_OWNER_USER, conf.iOwnerType);
    EXPECT_EQ(VESK_BW_PROTOCOL_WEBDAV, conf.iProtocol);
    EXPECT_TRUE(log.Contains("Unknown string value [bogus] for [state]")) << log.Dump();
    EXPECT_TRUE(log.Contains("Unknown string value [Group] for [owner type]")) << log.Dump();
}

TEST_F(ConvertTest, SchedulePlanIsCutToItsField)
{
    VESK_BANDWIDTH_CONF conf = FtpUserLimit();
    Hash hash({{"schedule plan", std::string(300, '1')}});
    EXPECT_EQ(0, VESKBandwidthInitConfFromHash(&conf, hash.Get()));
    EXPECT_EQ(std::string(255, '1'), conf.szSchedulePlan);
}

TEST_F(ConvertTest, EmptyHashLeavesTheRecordAsPrepared)
{
    VESK_BANDWIDTH_CONF conf = FtpUserLimit();
    VESK_BANDWIDTH_CONF before = conf;
    VESK_BANDWIDTH_GLOBAL_CONF global = Filled<VESK_BANDWIDTH_GLOBAL_CONF>(0x33);
    VESK_BANDWIDTH_GLOBAL_CONF globalBefore = global;
    Hash hash;
    EXPECT_EQ(0, VESKBandwidthInitConfFromHash(&conf, hash.Get()));
    EXPECT_EQ(0, VESKBandwidthInitGlobalConfFromHash(&global, hash.Get()));
    EXPECT_EQ(0, std::memcmp(&before, &conf, sizeof conf));
    EXPECT_EQ(0, std::memcmp(&globalBefore, &global, sizeof global));
}

// ---------------------------------------------------------------- global records

TEST_F(ConvertTest, GlobalRecordKeepsCurrentStateAndProtocolOutOfTheHash)
{
    VESK_BANDWIDTH_GLOBAL_CONF global = Filled<VESK_BANDWIDTH_GLOBAL_CONF>(0);
    global.iCurState = VESK_BW_STATE_ENABLED;
    global.iState = VESK_BW_STATE_SCHEDULE;
    global.iProtocol = VESK_BW_PROTOCOL_RSYNC;
    global.iUserGroupPolicy = VESK_BW_POLICY_GROUP_FIRST;
    global.iInterGroupPolicy = VESK_BW_POLICY_SUM;
    global.iOccupyPolicy = VESK_BW_OCCUPY_WEIGHTED;
    std::strcpy(global.szSchedulePlan, "0110");
    Hash hash;
    ASSERT_EQ(0, VESKBandwidthInitHashFromGlobalConf(hash.Address(), &global));
    const Pairs expected = {{"state", "schedule"},
                            {"user-group policy", "group-first"},
                            {"inter-group policy", "sum"},
                            {"occupy policy", "weighted"},
                            {"schedule plan", "0110"}};
    EXPECT_EQ(expected, hash.Contents());

    // Even a hash that names them does not set them.
    VLIBCSzHashSetValue(hash.Address(), "protocol type", "ftp");
    VLIBCSzHashSetValue(hash.Address(), "iCurState", "enabled");
    VESK_BANDWIDTH_GLOBAL_CONF back = Filled<VESK_BANDWIDTH_GLOBAL_CONF>(0x7f);
    ASSERT_EQ(0, VESKBandwidthInitGlobalConfFromHash(&back, hash.Get()));
    EXPECT_EQ(0x7f7f7f7f, back.iCurState);
    EXPECT_EQ(0x7f7f7f7f, back.iProtocol);
    EXPECT_EQ(VESK_BW_STATE_SCHEDULE, back.iState);
    EXPECT_EQ(VESK_BW_POLICY_GROUP_FIRST, back.iUserGroupPolicy);
    EXPECT_EQ(VESK_BW_POLICY_SUM, back.iInterGroupPolicy);
    EXPECT_EQ(VESK_BW_OCCUPY_WEIGHTED, back.iOccupyPolicy);
    EXPECT_STREQ("0110", back.szSchedulePlan);
}

TEST_F(ConvertTest, InterGroupPolicyNamesOnlyMinMaxSum)
{
    VESK_BANDWIDTH_GLOBAL_CONF global = Filled<VESK_BANDWIDTH_GLOBAL_CONF>(0);
    global.iInterGroupPolicy = VESK_BW_POLICY_USER_FIRST;
    global.iOccupyPolicy = VESK_BW_OCCUPY_MAX;
    Hash hash;
    ASSERT_EQ(0, VESKBandwidthInitHashFromGlobalConf(hash.Address(), &global));
    EXPECT_FALSE(hash.Has("inter-group policy"));
    EXPECT_STREQ("max", VLIBCSzHashGetValue(hash.Get(), "occupy policy"));
    EXPECT_TRUE(log.Contains("Unknown value [2] for [inter-group policy]")) << log.Dump();

    // "max" means 3 as an occupy policy and 5 as a group policy.
    Hash names({{"user-group policy", "max"}, {"occupy policy", "max"}});
    ASSERT_EQ(0, VESKBandwidthInitGlobalConfFromHash(&global, names.Get()));
    EXPECT_EQ(VESK_BW_POLICY_MAX, global.iUserGroupPolicy);
    EXPECT_EQ(VESK_BW_OCCUPY_MAX, global.iOccupyPolicy);
}

TEST_F(ConvertTest, RecordConversionsCheckTheirArguments)
{
    VESK_BANDWIDTH_CONF conf = FtpUserLimit();
    VESK_BANDWIDTH_GLOBAL_CONF global = Filled<VESK_BANDWIDTH_GLOBAL_CONF>(0);
    Hash hash({{"id", "5"}});
    VLIBC_SZHASH *none = nullptr;

    EXPECT_EQ(-1, VESKBandwidthInitHashFromConf(nullptr, &conf));
    EXPECT_EQ(-1, VESKBandwidthInitHashFromGlobalConf(nullptr, &global));
    EXPECT_EQ(2, log.Count("Invaild Argument (((void *)0) != ppHash)=[0]")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthInitHashFromConf(&none, &conf));
    EXPECT_EQ(-1, VESKBandwidthInitHashFromGlobalConf(&none, &global));
    EXPECT_EQ(2, log.Count("Invaild Argument (((void *)0) != *ppHash)=[0]")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthInitHashFromConf(hash.Address(), nullptr));
    EXPECT_EQ(-1, VESKBandwidthInitHashFromGlobalConf(hash.Address(), nullptr));
    EXPECT_EQ(-1, VESKBandwidthInitConfFromHash(nullptr, hash.Get()));
    EXPECT_EQ(-1, VESKBandwidthInitGlobalConfFromHash(nullptr, hash.Get()));
    EXPECT_EQ(4, log.Count("Invaild Argument (NULL != pConf)=[0]")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthInitConfFromHash(&conf, nullptr));
    EXPECT_EQ(-1, VESKBandwidthInitGlobalConfFromHash(&global, nullptr));
    EXPECT_EQ(2, log.Count("Invaild Argument (((void *)0) != pHash)=[0]")) << log.Dump();
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_STREQ("bandwidth_conf_convert.cpp", VLIBCErrorGetFile());

    // Nothing was touched on the way.
    EXPECT_EQ((Pairs{{"id", "5"}}), hash.Contents());
    EXPECT_EQ(1026u, conf.id);
}

// ---------------------------------------------------------------- status records

VESK_BANDWIDTH_STATUS FtpDownload()
{
    VESK_BANDWIDTH_STATUS status = Filled<VESK_BANDWIDTH_STATUS>(0);
    status.pid = 1234;
    status.id = 1001;
    status.uid = 1001;
    status.active = 1;
    status.timestamp = 1700000000;
    status.current_speed = 524288;
    status.expect_speed = 524288;
    std::strcpy(status.filename, "/share/a.iso");
    status.owner_type = VESK_BW_OWNER_USER;
    status.protocol_type = VESK_BW_PROTOCOL_FTP;
    status.transfer_type = VESK_BW_TRANSFER_DOWNLOAD;
    status.progress = 0;
    return status;
}

TEST_F(ConvertTest, StatusRecordGivesItsTwelveKeysInTableOrder)
{
    VESK_BANDWIDTH_STATUS status = FtpDownload();
    Hash hash;
    ASSERT_EQ(0, VESKBandwidthInitHashFromStatus(hash.Address(), &status)) << log.Dump();
    const Pairs expected = {{"pid", "1234"},         {"id", "1001"},
                            {"uid", "1001"},         {"active", "1"},
                            {"timestamp", "1700000000"}, {"current speed", "524288"},
                            {"expect speed", "524288"},  {"filename", "/share/a.iso"},
                            {"owner type", "user"},  {"protocol type", "ftp"},
                            {"transfer type", "download"}, {"progress", "0"}};
    EXPECT_EQ(expected, hash.Contents());

    VESK_BANDWIDTH_STATUS back = Filled<VESK_BANDWIDTH_STATUS>(0x44);
    ASSERT_EQ(0, VESKBandwidthInitStatusFromHash(&back, hash.Get()));
    back.pNext = nullptr;
    std::memset(back.filename + sizeof "/share/a.iso", 0, sizeof back.filename - sizeof "/share/a.iso");
    EXPECT_EQ(0, std::memcmp(&status, &back, sizeof back));
}

TEST_F(ConvertTest, StatusExtremesKeepTheirSigns)
{
    VESK_BANDWIDTH_STATUS status = FtpDownload();
    status.pid = -42;
    status.id = 4294967295u;
    status.timestamp = -5000000000LL;
    status.current_speed = UINT64_MAX;
    status.progress = 10000;
    Hash hash;
    ASSERT_EQ(0, VESKBandwidthInitHashFromStatus(hash.Address(), &status));
    EXPECT_STREQ("-42", VLIBCSzHashGetValue(hash.Get(), "pid"));
    EXPECT_STREQ("4294967295", VLIBCSzHashGetValue(hash.Get(), "id"));
    EXPECT_STREQ("-5000000000", VLIBCSzHashGetValue(hash.Get(), "timestamp"));
    EXPECT_STREQ("18446744073709551615", VLIBCSzHashGetValue(hash.Get(), "current speed"));
    EXPECT_STREQ("10000", VLIBCSzHashGetValue(hash.Get(), "progress"));

    VESK_BANDWIDTH_STATUS back = FtpDownload();
    ASSERT_EQ(0, VESKBandwidthInitStatusFromHash(&back, hash.Get()));
    EXPECT_EQ(-42, back.pid);
    EXPECT_EQ(-5000000000LL, back.timestamp);
    EXPECT_EQ(UINT64_MAX, back.current_speed);
}

TEST_F(ConvertTest, StatusWithoutOwnerNameHasElevenKeys)
{
    VESK_BANDWIDTH_STATUS status = FtpDownload();
    Hash hash;
    ASSERT_EQ(0, VESKBandwidthInitHashFromStatus(hash.Address(), &status));
    ASSERT_TRUE(hash.Has("owner type"));
    // A second record in the same hash replaces the first completely.
    status.owner_type = static_cast<VESK_BW_OWNER_TYPE>(0);
    EXPECT_EQ(0, VESKBandwidthInitHashFromStatus(hash.Address(), &status));
    EXPECT_EQ(11, VLIBCSzHashCount(hash.Get()));
    EXPECT_FALSE(hash.Has("owner type"));
    EXPECT_EQ(1, log.Count("bandwidth_status_convert.cpp:")) << log.Dump();
    EXPECT_EQ(1, log.Count("Unknown value [0] for [owner type]")) << log.Dump();
}

TEST_F(ConvertTest, StatusReadChangesOnlyThePresentKeys)
{
    VESK_BANDWIDTH_STATUS status = FtpDownload();
    VESK_BANDWIDTH_STATUS expected = status;
    expected.pid = 77;
    std::strcpy(expected.filename, "/b");
    Hash hash({{"pid", "77"}, {"filename", "/b"}});
    EXPECT_EQ(0, VESKBandwidthInitStatusFromHash(&status, hash.Get()));
    EXPECT_EQ(0, std::memcmp(&expected, &status, sizeof status));
}

TEST_F(ConvertTest, StatusUnsignedFieldsMustParseWhole)
{
    VESK_BANDWIDTH_STATUS status = Filled<VESK_BANDWIDTH_STATUS>(0);
    status.expect_speed = 99;
    Hash hash({{"pid", "5"},
               {"id", "6"},
               {"uid", "7"},
               {"active", "1"},
               {"timestamp", "8"},
               {"current speed", "12abc"},
               {"expect speed", "13"}});
    EXPECT_EQ(-1, VESKBandwidthInitStatusFromHash(&status, hash.Get()));
    ExpectBadValue("bandwidth_conf_convert.cpp");
    EXPECT_TRUE(log.Contains("bandwidth_status_convert.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("parm_table[5].fnFromHashStr failed.")) << log.Dump();
    EXPECT_EQ(12u, status.current_speed);
    EXPECT_EQ(99u, status.expect_speed);
    EXPECT_EQ(5, status.pid);
    EXPECT_EQ(6u, status.id);
    EXPECT_EQ(7u, status.uid);
    EXPECT_EQ(1u, status.active);
    EXPECT_EQ(8, status.timestamp);

    Hash progress({{"progress", "50%"}});
    EXPECT_EQ(-1, VESKBandwidthInitStatusFromHash(&status, progress.Get()));
    EXPECT_TRUE(log.Contains("parm_table[11].fnFromHashStr failed.")) << log.Dump();
}

TEST_F(ConvertTest, StatusSignedFieldsReadLeniently)
{
    VESK_BANDWIDTH_STATUS status = FtpDownload();
    Hash digits({{"pid", "12abc"}, {"timestamp", "99 seconds"}});
    EXPECT_EQ(0, VESKBandwidthInitStatusFromHash(&status, digits.Get()));
    EXPECT_EQ(12, status.pid);
    EXPECT_EQ(99, status.timestamp);
    Hash letters({{"pid", "x"}, {"timestamp", ""}});
    EXPECT_EQ(0, VESKBandwidthInitStatusFromHash(&status, letters.Get()));
    EXPECT_EQ(0, status.pid);
    EXPECT_EQ(0, status.timestamp);
    Hash wide({{"pid", "4294967297"}});
    EXPECT_EQ(0, VESKBandwidthInitStatusFromHash(&status, wide.Get()));
    EXPECT_EQ(1, status.pid);
}

TEST_F(ConvertTest, StatusIdsWrapAt32Bits)
{
    VESK_BANDWIDTH_STATUS status = FtpDownload();
    Hash hash({{"id", "4294967296"}, {"uid", "-1"}});
    EXPECT_EQ(0, VESKBandwidthInitStatusFromHash(&status, hash.Get()));
    EXPECT_EQ(0u, status.id);
    EXPECT_EQ(4294967295u, status.uid);
}

TEST_F(ConvertTest, StatusFilenameIsCutTo4095)
{
    VESK_BANDWIDTH_STATUS status = FtpDownload();
    Hash hash({{"filename", std::string(5000, 'f')}});
    EXPECT_EQ(0, VESKBandwidthInitStatusFromHash(&status, hash.Get()));
    EXPECT_EQ(std::string(4095, 'f'), status.filename);

    Hash back;
    ASSERT_EQ(0, VESKBandwidthInitHashFromStatus(back.Address(), &status));
    EXPECT_EQ(std::string(4095, 'f'), VLIBCSzHashGetValue(back.Get(), "filename"));
}

TEST_F(ConvertTest, StatusUnknownTransferTypeKeepsTheField)
{
    VESK_BANDWIDTH_STATUS status = FtpDownload();
    Hash hash({{"transfer type", "sideways"}, {"protocol type", "rsync"}});
    EXPECT_EQ(0, VESKBandwidthInitStatusFromHash(&status, hash.Get()));
    EXPECT_EQ(VESK_BW_TRANSFER_DOWNLOAD, status.transfer_type);
    EXPECT_EQ(VESK_BW_PROTOCOL_RSYNC, status.protocol_type);
    EXPECT_TRUE(log.Contains("Unknown string value [sideways] for [transfer type]")) << log.Dump();
}

TEST_F(ConvertTest, StatusConversionsCheckTheirArguments)
{
    VESK_BANDWIDTH_STATUS status = FtpDownload();
    Hash hash({{"pid", "5"}});
    VLIBC_SZHASH *none = nullptr;
    EXPECT_EQ(-1, VESKBandwidthInitHashFromStatus(nullptr, &status));
    EXPECT_TRUE(log.Contains("Invaild Argument (((void *)0) != ppHash)=[0]")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthInitHashFromStatus(&none, &status));
    EXPECT_TRUE(log.Contains("Invaild Argument (((void *)0) != *ppHash)=[0]")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthInitHashFromStatus(hash.Address(), nullptr));
    EXPECT_EQ(-1, VESKBandwidthInitStatusFromHash(nullptr, hash.Get()));
    EXPECT_EQ(2, log.Count("Invaild Argument (NULL != pStatus)=[0]")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthInitStatusFromHash(&status, nullptr));
    EXPECT_TRUE(log.Contains("Invaild Argument (((void *)0) != pHash)=[0]")) << log.Dump();
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_STREQ("bandwidth_status_convert.cpp", VLIBCErrorGetFile());
    EXPECT_EQ((Pairs{{"pid", "5"}}), hash.Contents());
    EXPECT_EQ(1234, status.pid);
}

}  // namespace

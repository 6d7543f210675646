// Status dump: one fixed-width line per transfer, names of owner, protocol and
// direction, speeds in KiB/s and progress in percent.
#include <string>

#include "vbw_throttle_fixture.h"

namespace {

class StatusDumpTest : public vbw::SandboxTest {
protected:
    std::string Dump(int result = 0)
    {
        return vbw::Printed([&](FILE *fp) { return VESKBandwidthStatusDump(fp, &status_); }, result);
    }

    VESK_BANDWIDTH_STATUS status_ = Transfer();

    static VESK_BANDWIDTH_STATUS Transfer()
    {
        VESK_BANDWIDTH_STATUS status = vbw::Status(4321, 524288, 1048576);
        status.timestamp = 1700000000;
        snprintf(status.filename, sizeof status.filename, "/volume1/share/a.iso");
        status.progress = 2550;
        return status;
    }
};

TEST_F(StatusDumpTest, OneFixedWidthLinePerTransfer)
{
    EXPECT_EQ("                         alice        ftp   download  4321 1700000000"
              "    1024.00     512.00 25.50 /volume1/share/a.iso\n",
              Dump());

    // A group copy prints the group's name.
    status_.owner_type = VESK_BW_OWNER_GROUP;
    status_.id = 102;
    status_.protocol_type = VESK_BW_PROTOCOL_WEBDAV;
    status_.transfer_type = VESK_BW_TRANSFER_UPLOAD;
    EXPECT_EQ("                         media     webdav     upload  4321 1700000000"
              "    1024.00     512.00 25.50 /volume1/share/a.iso\n",
              Dump());

    // Values without a name print as unknown.
    status_.protocol_type = (VESK_BW_PROTOCOL_TYPE)64;
    status_.transfer_type = VESK_BW_TRANSFER_ALL;
    EXPECT_NE(std::string::npos, Dump().find("media unknown(64) unknown(3)  4321 1700000000"));
}

TEST_F(StatusDumpTest, SpeedsAndProgressColumns)
{
    const struct {
        uint64_t expect, current;
        uint32_t progress;
        const char *columns;
    } cases[] = {
        {0, 0, 5, "      0.00       0.00 0.05 "},
        {1536, 1, 10000, "      1.50       0.00 100.00 "},
        {1ull << 40, 3ull << 30, 0, "1073741824.00 3145728.00 0.00 "},
    };
    for (const auto &c : cases) {
        status_.expect_speed = c.expect;
        status_.current_speed = c.current;
        status_.progress = c.progress;
        std::string line = Dump();
        EXPECT_NE(std::string::npos, line.find(std::string("1700000000 ") + c.columns)) << line;
    }
}

TEST_F(StatusDumpTest, FailuresPrintNothing)
{
    status_.id = 4242;
    EXPECT_EQ("", Dump(-1));
    EXPECT_TRUE(log.From("bandwidth_status_dump.cpp", "VESKUserGetByUID failed. [4242] [0x")) << log.Dump();
    status_.owner_type = VESK_BW_OWNER_GROUP;
    status_.id = 4343;
    EXPECT_EQ("", Dump(-1));
    EXPECT_TRUE(log.Contains("VESKGroupGetByGID failed. [4343] [0x")) << log.Dump();

    EXPECT_EQ(-1, VESKBandwidthStatusDump(nullptr, &status_));
    EXPECT_TRUE(log.Contains("Invaild Argument (((void *)0) != fp)=[0]")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthStatusDump(stdout, nullptr));
    EXPECT_TRUE(log.Contains("Invaild Argument (NULL != pStatus)=[0]")) << log.Dump();
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
}

}  // namespace

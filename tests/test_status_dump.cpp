// Status dump: one fixed-width line per transfer, names of owner, protocol and
// direction, speeds in KiB/s and progress in percent.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "vbw_test.h"
#include "veskbandwidth.h"

namespace {

class StatusDumpTest : public vbw::SandboxTest {
protected:
    void SetUp() override
    {
        vbw::SandboxTest::SetUp();
        status_.pid = 4321;
        status_.id = status_.uid = 1026;
        status_.active = 1;
        status_.timestamp = 1700000000;
        status_.expect_speed = 1048576;
        status_.current_speed = 524288;
        snprintf(status_.filename, sizeof status_.filename, "/volume1/share/a.iso");
        status_.owner_type = VESK_BW_OWNER_USER;
        status_.protocol_type = VESK_BW_PROTOCOL_FTP;
        status_.transfer_type = VESK_BW_TRANSFER_DOWNLOAD;
        status_.progress = 2550;
    }

    // The call's result and what it printed.
    std::pair<int, std::string> Dump()
    {
        char *text = nullptr;
        size_t size = 0;
        FILE *fp = open_memstream(&text, &size);
        int result = VESKBandwidthStatusDump(fp, &status_);
        fclose(fp);
        std::string printed(text, size);
        free(text);
        return {result, printed};
    }

    VESK_BANDWIDTH_STATUS status_ = {};
};

TEST_F(StatusDumpTest, UserTransferPrintsOneFixedWidthLine)
{
    EXPECT_EQ(std::make_pair(0, std::string("                         alice        ftp   download  4321 1700000000"
                                            "    1024.00     512.00 25.50 /volume1/share/a.iso\n")),
              Dump());
}

TEST_F(StatusDumpTest, GroupCopyPrintsTheGroupName)
{
    status_.owner_type = VESK_BW_OWNER_GROUP;
    status_.id = 102;
    status_.protocol_type = VESK_BW_PROTOCOL_WEBDAV;
    status_.transfer_type = VESK_BW_TRANSFER_UPLOAD;
    EXPECT_EQ(std::make_pair(0, std::string("                         media     webdav     upload  4321 1700000000"
                                            "    1024.00     512.00 25.50 /volume1/share/a.iso\n")),
              Dump());
}

TEST_F(StatusDumpTest, SpeedsAndProgressColumns)
{
    struct Case {
        uint64_t expect, current;
        uint32_t progress;
        const char *columns;
    } cases[] = {
        {0, 0, 5, "      0.00       0.00 0.05 "},
        {1536, 1, 10000, "      1.50       0.00 100.00 "},
        {1ull << 40, 3ull << 30, 0, "1073741824.00 3145728.00 0.00 "},
    };
    for (const Case &c : cases) {
        status_.expect_speed = c.expect;
        status_.current_speed = c.current;
        status_.progress = c.progress;
        auto result = Dump();
        EXPECT_EQ(0, result.first);
        EXPECT_NE(std::string::npos, result.second.find(std::string("1700000000 ") + c.columns)) << result.second;
    }
}

TEST_F(StatusDumpTest, ValueWithoutNamePrintsUnknown)
{
    status_.protocol_type = (VESK_BW_PROTOCOL_TYPE)64;
    status_.transfer_type = VESK_BW_TRANSFER_ALL;
    EXPECT_EQ(std::make_pair(0, std::string("                         alice unknown(64) unknown(3)  4321 1700000000"
                                            "    1024.00     512.00 25.50 /volume1/share/a.iso\n")),
              Dump());
}

TEST_F(StatusDumpTest, FailuresPrintNothing)
{
    status_.id = 4242;
    EXPECT_EQ(std::make_pair(-1, std::string()), Dump());
    EXPECT_TRUE(log.Contains("bandwidth_status_dump.cpp:") && log.Contains("VESKUserGetByUID failed. [4242] [0x"))
        << log.Dump();

    status_.owner_type = VESK_BW_OWNER_GROUP;
    status_.id = 4343;
    EXPECT_EQ(std::make_pair(-1, std::string()), Dump());
    EXPECT_TRUE(log.Contains("VESKGroupGetByGID failed. [4343] [0x")) << log.Dump();

    EXPECT_EQ(-1, VESKBandwidthStatusDump(nullptr, &status_));
    EXPECT_TRUE(log.Contains("Invaild Argument (((void *)0) != fp)=[0]")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthStatusDump(stdout, nullptr));
    EXPECT_TRUE(log.Contains("Invaild Argument (NULL != pStatus)=[0]")) << log.Dump();
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
}

}  // namespace

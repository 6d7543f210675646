// Status enumeration: freshness at the 30/31 second boundary on both sides of
// the clock, garbage collection of stale sections and leftover temporary
// files, filters, merge, list order and the contract on the caller's head.
#include <unistd.h>

#include <ctime>

#include "vbw_throttle_fixture.h"

namespace {

using namespace std::string_literals;
const std::string kFile = "/tmp/bandwidth/user-1026";
const int kUpload = VESK_BW_TRANSFER_UPLOAD;

// Alice's transfer by pid; age in seconds before now.
vbw::StatusEntry Entry(pid_t pid, int64_t age = 0, const char *protocol = "ftp", int transfer = vbw::kDown,
                       uint64_t expect = 1000, uint64_t current = 500)
{
    return {pid, 1026, current, 1, transfer, protocol, age, expect};
}

class StatusEnumTest : public vbw::SandboxTest {
protected:
    void TearDown() override { VESKBandwidthStatusListFree(&list_); }

    int GetAll(int protocols = VESK_BW_PROTOCOL_ALL, unsigned transfers = VESK_BW_TRANSFER_ALL, int merge = 0,
               const std::string &file = kFile)
    {
        VESKBandwidthStatusListFree(&list_);
        return VESKBandwidthIStatusGetAll(file.c_str(), protocols, transfers, &list_, merge);
    }

    // Runs `body(now)` until the clock did not tick during it, so that ages
    // measured from `now` are exactly the ages the enumeration saw.
    static bool WithinOneSecond(const std::function<void(time_t)> &body)
    {
        for (int attempt = 0; attempt < 5; ++attempt) {
            time_t now = time(nullptr);
            body(now);
            if (time(nullptr) == now) {
                return true;
            }
        }
        return false;
    }

    std::vector<pid_t> Pids() const
    {
        std::vector<pid_t> pids;
        for (VESK_BANDWIDTH_STATUS *p = list_; p != nullptr; p = p->pNext) {
            pids.push_back(p->pid);
        }
        return pids;
    }

    static std::vector<std::string> FileSections()  // sorted
    {
        std::vector<std::string> names;
        for (const auto &[name, pairs] : vbw::ReadSections(kFile)) {
            names.push_back(name);
        }
        return names;
    }

    VESK_BANDWIDTH_STATUS *list_ = nullptr;
};

// Fresh is at most 30 seconds old, or at most 30 seconds ahead (a clock
// step); a section further away either way is collected, whatever its
// protocol and direction.
TEST_F(StatusEnumTest, ThirtySecondsIsFreshThirtyOneIsCollected)
{
    int count = -1;
    ASSERT_TRUE(WithinOneSecond([&](time_t) {
        vbw::WriteStatusFile("user", 1026, {Entry(1, 30), Entry(2, 31), Entry(3, -30), Entry(4, -31),
                                            Entry(5, -100000), Entry(6, 31, "webdav", kUpload), Entry(7)});
        count = GetAll(VESK_BW_PROTOCOL_FTP, VESK_BW_TRANSFER_DOWNLOAD);
    }));
    EXPECT_EQ(3, count);
    EXPECT_EQ((std::vector<pid_t>{7, 3, 1}), Pids());  // file order reversed
    EXPECT_STREQ("/share/f3", list_->pNext->filename);
    EXPECT_EQ((std::vector<std::string>{"1-2", "3-2", "7-2"}), FileSections());
}

TEST_F(StatusEnumTest, MasksSelectAndMergeSumsPerProtocolAndDirection)
{
    std::vector<vbw::StatusEntry> entries = {Entry(1, 0, "ftp", vbw::kDown, 100, 10), Entry(2, 0, "webdav"),
                                             Entry(3, 0, "ftp", kUpload, 700, 70),
                                             Entry(4, 0, "ftp", vbw::kDown, 300, 30)};
    vbw::WriteStatusFile("user", 1026, entries);
    EXPECT_EQ(4, GetAll(VESK_BW_PROTOCOL_ALL, VESK_BW_TRANSFER_ALL, 2));  // any value but 1: no merge
    EXPECT_EQ(1, GetAll(VESK_BW_PROTOCOL_WEBDAV | VESK_BW_PROTOCOL_RSYNC, VESK_BW_TRANSFER_ALL));
    EXPECT_EQ(0, GetAll(VESK_BW_PROTOCOL_RSYNC, VESK_BW_TRANSFER_ALL));
    ASSERT_EQ(3, GetAll(VESK_BW_PROTOCOL_ALL, VESK_BW_TRANSFER_ALL, 1));
    EXPECT_EQ((std::vector<pid_t>{3, 2, 1}), Pids());  // the merged record keeps the first section's fields
    EXPECT_TRUE(list_->pNext->pNext->expect_speed == 400 && list_->pNext->pNext->current_speed == 40);
    entries.push_back(Entry(5, 0, "ftp", vbw::kDown, 0, 40));
    vbw::WriteStatusFile("user", 1026, entries);
    ASSERT_EQ(1, GetAll(VESK_BW_PROTOCOL_FTP, VESK_BW_TRANSFER_DOWNLOAD, 1));
    EXPECT_EQ(0u, list_->expect_speed);  // unlimited wins
}

TEST_F(StatusEnumTest, UnconvertibleSectionIsSkippedAndKept)
{
    vbw::WriteStatusFile("user", 1026, {Entry(1)});
    vbw::WriteFile(kFile, vbw::ReadFile(kFile) + "[2-2]\nid=12abc\n", 0666);
    EXPECT_EQ(1, GetAll());
    EXPECT_TRUE(log.From("bandwidth_status_get_all.cpp", "Init status from hash failed. [0x4000")) << log.Dump();
    EXPECT_EQ((std::vector<std::string>{"1-2", "2-2"}), FileSections());
}

TEST_F(StatusEnumTest, HeadIsWrittenOnlyForAListOfRecords)
{
    VESK_BANDWIDTH_STATUS sentinel = {};
    VESK_BANDWIDTH_STATUS *head = &sentinel;
    EXPECT_EQ(0, VESKBandwidthIStatusGetAll(kFile.c_str(), 15, 3, &head, 0));  // absent file
    vbw::WriteStatusFile("user", 1026, {Entry(1, 40)});
    EXPECT_EQ(0, VESKBandwidthIStatusGetAll(kFile.c_str(), 15, 3, &head, 0));  // only stale ones
    EXPECT_EQ(-1, VESKBandwidthIStatusGetAll(nullptr, 15, 3, &head, 0));
    EXPECT_EQ(&sentinel, head);

    EXPECT_EQ(-1, VESKBandwidthStatusGetAll(7, 1026, 15, 3, &list_));
    EXPECT_TRUE(log.From("bandwidth_status_get_all.cpp", "VESKBandwidthEnumToName failed, protocol=7")) << log.Dump();
}

// A temporary file of a killed writer goes once unchanged for more than 10
// seconds: when handed to the enumeration, and when any status file of the
// directory is enumerated.  A link is judged itself, never followed.
TEST_F(StatusEnumTest, LeftoverTemporaryFilesAreCollectedAfterTenSeconds)
{
    vbw::WriteStatusFile("group", 100, {Entry(1)});
    vbw::WriteFile("/tmp/victim", "keep\n", 0644);
    const std::string handed = kFile + ".Ab12Cd", link = kFile + ".Zz99Yy", young = kFile + ".Yy88Xx";
    std::vector<bool> kept;
    ASSERT_TRUE(WithinOneSecond([&](time_t now) {
        vbw::WriteFile(handed, "[1-2]\ntimestamp=" + std::to_string(now) + "\n", 0600);
        for (time_t age : {10, 11}) {
            vbw::SetModified(handed, now - age);
            EXPECT_EQ(0, GetAll(15, 3, 0, handed));  // never read as a status file
            kept.push_back(vbw::Exists(handed));
        }
    }));
    EXPECT_EQ((std::vector<bool>{true, false}), std::vector<bool>(kept.end() - 2, kept.end()));

    ASSERT_EQ(0, symlink("/tmp/victim", link.c_str()));
    vbw::WriteFile(young, "", 0600);
    for (const std::string &path : {link, "/tmp/victim"s, "/tmp/bandwidth/group-100.Qq77Pp"s}) {
        vbw::WriteFile(path, "[1-2]\n", 0600);
        vbw::SetModified(path, time(nullptr) - 11);
    }
    EXPECT_EQ(1, GetAll(15, 3, 0, "/tmp/bandwidth/group-100"));
    EXPECT_EQ((std::vector<std::string>{"/tmp/bandwidth/group-100", young}), vbw::Paths("/tmp/bandwidth/*"));
    EXPECT_EQ("[1-2]\n", vbw::ReadFile("/tmp/victim"));
}

}  // namespace

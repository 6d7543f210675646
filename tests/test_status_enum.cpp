// Status enumeration: freshness at the 30/31 second boundary, garbage
// collection of stale sections and leftover temporary files, filters, merge,
// list order and the contract on the caller's list head.
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "vbw_throttle_fixture.h"

namespace {

const std::string kFile = "/tmp/bandwidth/user-1026";
const int kUpload = VESK_BW_TRANSFER_UPLOAD;

// Alice's transfer by pid: current speed 500, expect speed 1000 unless given.
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
    // measured from `now` are exactly the ages the enumeration saw; the body
    // records what it observed, the caller checks it afterwards.
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
        for (const auto &section : vbw::ReadSections(kFile)) {
            names.push_back(section.first);
        }
        return names;
    }

    VESK_BANDWIDTH_STATUS *list_ = nullptr;
};

TEST_F(StatusEnumTest, ThirtySecondsIsFreshThirtyOneIsCollected)
{
    int count = -1;
    ASSERT_TRUE(WithinOneSecond([&](time_t) {
        vbw::WriteStatusFile("user", 1026, {Entry(1, 30), Entry(2, 31), Entry(3, -100), Entry(4, 31, "webdav", kUpload)});
        count = GetAll(VESK_BW_PROTOCOL_FTP, VESK_BW_TRANSFER_DOWNLOAD);
    }));
    EXPECT_EQ(2, count);
    EXPECT_EQ((std::vector<pid_t>{3, 1}), Pids());  // file order reversed
    EXPECT_STREQ("/share/f1", list_->pNext->filename);
    EXPECT_EQ(1026u, list_->uid);
    // The stale webdav upload goes too, although the filters leave it out.
    EXPECT_EQ((std::vector<std::string>{"1-2", "3-2"}), FileSections());
}

TEST_F(StatusEnumTest, MasksSelectProtocolsAndDirections)
{
    vbw::WriteStatusFile("user", 1026, {Entry(1, 0, "ftp", kUpload), Entry(2, 0, "webdav"), Entry(3, 0, "rsync"),
                                        Entry(4, 0, "lanternpost", kUpload)});
    EXPECT_EQ(4, GetAll(VESK_BW_PROTOCOL_ALL, VESK_BW_TRANSFER_ALL));
    EXPECT_EQ((std::vector<pid_t>{4, 3, 2, 1}), Pids());
    EXPECT_EQ(2, GetAll(VESK_BW_PROTOCOL_ALL, kUpload));
    EXPECT_EQ((std::vector<pid_t>{4, 1}), Pids());
    EXPECT_EQ(2, GetAll(VESK_BW_PROTOCOL_WEBDAV | VESK_BW_PROTOCOL_RSYNC, VESK_BW_TRANSFER_ALL));
    EXPECT_EQ((std::vector<pid_t>{3, 2}), Pids());
    EXPECT_EQ(0, GetAll(VESK_BW_PROTOCOL_FTP, VESK_BW_TRANSFER_DOWNLOAD));
    EXPECT_EQ(nullptr, list_);
}

TEST_F(StatusEnumTest, MergeSumsSpeedsPerProtocolAndDirection)
{
    std::vector<vbw::StatusEntry> entries = {Entry(1, 0, "ftp", vbw::kDown, 100, 10),
                                             Entry(2, 0, "ftp", vbw::kDown, 200, 20),
                                             Entry(3, 0, "ftp", kUpload, 700, 70), Entry(4, 0, "ftp", vbw::kDown, 300, 30)};
    vbw::WriteStatusFile("user", 1026, entries);
    ASSERT_EQ(2, GetAll(VESK_BW_PROTOCOL_ALL, VESK_BW_TRANSFER_ALL, 1));
    EXPECT_EQ((std::vector<pid_t>{3, 1}), Pids());  // the merged record keeps the first section's fields
    EXPECT_EQ(600u, list_->pNext->expect_speed);
    EXPECT_EQ(60u, list_->pNext->current_speed);
    EXPECT_EQ(700u, list_->expect_speed);

    // Any value but 1 keeps one record per section.
    EXPECT_EQ(4, GetAll(VESK_BW_PROTOCOL_ALL, VESK_BW_TRANSFER_ALL, 2));

    entries.push_back(Entry(5, 0, "ftp", vbw::kDown, 0, 40));
    vbw::WriteStatusFile("user", 1026, entries);
    ASSERT_EQ(1, GetAll(VESK_BW_PROTOCOL_FTP, VESK_BW_TRANSFER_DOWNLOAD, 1));
    EXPECT_EQ(0u, list_->expect_speed);  // unlimited wins
    EXPECT_EQ(100u, list_->current_speed);
}

TEST_F(StatusEnumTest, UnconvertibleSectionIsSkippedAndKept)
{
    vbw::WriteStatusFile("user", 1026, {Entry(1)});
    vbw::WriteFile(kFile, vbw::ReadFile(kFile) + "[2-2]\nid=12abc\n", 0666);
    EXPECT_EQ(1, GetAll());
    EXPECT_EQ((std::vector<pid_t>{1}), Pids());
    EXPECT_TRUE(log.From("bandwidth_status_get_all.cpp", "Init status from hash failed. [0x4000")) << log.Dump();
    EXPECT_EQ((std::vector<std::string>{"1-2", "2-2"}), FileSections());
}

TEST_F(StatusEnumTest, HeadIsWrittenOnlyForAListOfRecords)
{
    VESK_BANDWIDTH_STATUS sentinel = {};
    VESK_BANDWIDTH_STATUS *head = &sentinel;
    EXPECT_EQ(0, VESKBandwidthIStatusGetAll(kFile.c_str(), 15, 3, &head, 0));  // absent file
    vbw::WriteStatusFile("user", 1026, {});
    EXPECT_EQ(0, VESKBandwidthIStatusGetAll(kFile.c_str(), 15, 3, &head, 0));  // no sections
    vbw::WriteStatusFile("user", 1026, {Entry(1, 40)});
    EXPECT_EQ(0, VESKBandwidthIStatusGetAll(kFile.c_str(), 15, 3, &head, 0));  // only stale ones
    EXPECT_EQ(-1, VESKBandwidthIStatusGetAll(nullptr, 15, 3, &head, 0));
    EXPECT_EQ(&sentinel, head);

    // The owner type and id name the file.
    vbw::WriteStatusFile("user", 1026, {Entry(1)});
    EXPECT_EQ(1, VESKBandwidthStatusGetAll(VESK_BW_OWNER_USER, 1026, 15, 3, &list_));
    ASSERT_NE(nullptr, list_);
    EXPECT_EQ(1, list_->pid);
    VESKBandwidthStatusListFree(&list_);
    EXPECT_EQ(nullptr, list_);
    EXPECT_EQ(0, VESKBandwidthStatusGetAll(VESK_BW_OWNER_GROUP, 1026, 15, 3, &list_));
    EXPECT_EQ(-1, VESKBandwidthStatusGetAll(7, 1026, 15, 3, &list_));
    EXPECT_TRUE(log.From("bandwidth_status_get_all.cpp", "VESKBandwidthEnumToName failed, protocol=7")) << log.Dump();
}

TEST_F(StatusEnumTest, TemporaryFilesAreDeletedAfterTenSeconds)
{
    const std::string temp = kFile + ".Ab12Cd";
    vbw::MakeDirs("/tmp/bandwidth", 0777);
    std::vector<int> counts;
    bool keptAtTen = false;
    ASSERT_TRUE(WithinOneSecond([&](time_t now) {
        vbw::WriteFile(temp, "[1-2]\ntimestamp=" + std::to_string(now) + "\n", 0600);
        vbw::SetModified(temp, now - 10);
        counts = {GetAll(15, 3, 0, temp)};
        keptAtTen = vbw::Exists(temp);
        vbw::SetModified(temp, now - 11);
        counts.push_back(GetAll(15, 3, 0, temp));
    }));
    EXPECT_EQ((std::vector<int>{0, 0}), counts);  // never read as a status file
    EXPECT_EQ(nullptr, list_);
    EXPECT_TRUE(keptAtTen);
    EXPECT_FALSE(vbw::Exists(temp));
}

TEST_F(StatusEnumTest, LinksAreRemovedOrLeftButNeverFollowed)
{
    // At a temporary path: the link itself ages, not its target.
    const std::string temp = kFile + ".Zz99Yy";
    vbw::WriteFile("/tmp/victim", "keep\n", 0644);
    vbw::MakeDirs("/tmp/bandwidth", 0777);
    ASSERT_EQ(0, symlink("/tmp/victim", temp.c_str()));
    time_t now = time(nullptr);
    vbw::SetModified("/tmp/victim", now - 100);
    EXPECT_EQ(0, GetAll(15, 3, 0, temp));
    EXPECT_TRUE(vbw::Exists(temp));
    vbw::SetModified(temp, now - 100);
    EXPECT_EQ(0, GetAll(15, 3, 0, temp));
    EXPECT_FALSE(vbw::Exists(temp));
    EXPECT_EQ("keep\n", vbw::ReadFile("/tmp/victim"));

    // At the status path: the stale section cannot be collected through the link.
    const std::string content = "[1-2]\npid=1\nid=1026\ntimestamp=" + std::to_string(now - 100) + "\n";
    vbw::WriteFile("/tmp/victim", content, 0666);
    ASSERT_EQ(0, symlink("/tmp/victim", kFile.c_str()));
    EXPECT_EQ(0, GetAll());
    EXPECT_EQ(content, vbw::ReadFile("/tmp/victim"));
    struct stat st;
    EXPECT_TRUE(lstat(kFile.c_str(), &st) == 0 && S_ISLNK(st.st_mode));
}

}  // namespace

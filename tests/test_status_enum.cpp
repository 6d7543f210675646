// Status enumeration: freshness at the 30/31 second boundary, garbage
// collection of stale sections and leftover temporary files, filters, merge,
// list order and the contract on the caller's list head.
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "vbw_test.h"
#include "veskbandwidth.h"
#include "vesk_file.h"

namespace {

const std::string kDir = "/tmp/bandwidth/";
const std::string kFile = kDir + "user-1026";

struct Entry {
    pid_t pid;
    int64_t age;  // seconds before now
    int protocol = VESK_BW_PROTOCOL_FTP;
    int transfer = VESK_BW_TRANSFER_DOWNLOAD;
    uint64_t expect = 1000;
    uint64_t current = 500;
};

class StatusEnumTest : public vbw::SandboxTest {
protected:
    void SetUp() override
    {
        vbw::SandboxTest::SetUp();
        vbw::MakeDirs(kDir, 0777);
    }
    void TearDown() override { VESKBandwidthStatusListFree(&list_); }

    static std::string Section(const Entry &e) { return std::to_string(e.pid) + "-" + std::to_string(e.transfer); }

    // Appends the sections in order, their timestamps `age` seconds before `now`.
    static void Save(const std::vector<Entry> &entries, time_t now)
    {
        VLIBC_SZHASH *hash = VLIBCSzHashAlloc(16);
        for (const Entry &e : entries) {
            VESK_BANDWIDTH_STATUS status = {};
            status.pid = e.pid;
            status.id = status.uid = 1026;
            status.active = 1;
            status.timestamp = (int64_t)now - e.age;
            status.expect_speed = e.expect;
            status.current_speed = e.current;
            snprintf(status.filename, sizeof status.filename, "/share/%d", e.pid);
            status.owner_type = VESK_BW_OWNER_USER;
            status.protocol_type = (VESK_BW_PROTOCOL_TYPE)e.protocol;
            status.transfer_type = (VESK_BW_TRANSFER_TYPE)e.transfer;
            ASSERT_EQ(0, VESKBandwidthInitHashFromStatus(&hash, &status));
            ASSERT_EQ(1, VESKBandwidthStatusAddSection(kFile.c_str(), Section(e).c_str(), hash));
        }
        VLIBCSzHashFree(hash);
    }

    int GetAll(int protocols = VESK_BW_PROTOCOL_ALL, unsigned transfers = VESK_BW_TRANSFER_ALL, int merge = 0)
    {
        VESKBandwidthStatusListFree(&list_);
        return VESKBandwidthIStatusGetAll(kFile.c_str(), protocols, transfers, &list_, merge);
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

    static std::vector<std::string> FileSections()
    {
        VLIBC_SZLIST *names = VLIBCSzListAlloc(16);
        int count = VLIBCFileEnumSection(kFile.c_str(), &names);
        std::vector<std::string> result;
        for (int i = 0; i < count; ++i) {
            result.push_back(VLIBCSzListGet(names, i));
        }
        VLIBCSzListFree(names);
        return result;
    }

    static void SetAge(const std::string &path, time_t now, int age)
    {
        struct timeval times[2] = {{now - age, 0}, {now - age, 0}};
        ASSERT_EQ(0, lutimes(path.c_str(), times)) << path;
    }

    VESK_BANDWIDTH_STATUS *list_ = nullptr;
};

TEST_F(StatusEnumTest, ThirtySecondsIsFreshThirtyOneIsCollected)
{
    int count = -1;
    ASSERT_TRUE(WithinOneSecond([&](time_t now) {
        unlink(kFile.c_str());
        Save({{1, 30}, {2, 31}, {3, -100}, {4, 31, VESK_BW_PROTOCOL_WEBDAV, VESK_BW_TRANSFER_UPLOAD}}, now);
        count = GetAll(VESK_BW_PROTOCOL_FTP, VESK_BW_TRANSFER_DOWNLOAD);
    }));
    EXPECT_EQ(2, count);
    EXPECT_EQ((std::vector<pid_t>{3, 1}), Pids());
    // The stale webdav upload goes too, although the filters leave it out.
    EXPECT_EQ((std::vector<std::string>{"1-2", "3-2"}), FileSections());
}

TEST_F(StatusEnumTest, FileOrderGivesReversedList)
{
    Save({{11, 0}, {12, 0}, {13, 0}}, time(nullptr));
    EXPECT_EQ(3, GetAll());
    EXPECT_EQ((std::vector<pid_t>{13, 12, 11}), Pids());
    EXPECT_STREQ("/share/12", list_->pNext->filename);
    EXPECT_EQ(1026u, list_->uid);
}

TEST_F(StatusEnumTest, MasksSelectProtocolsAndDirections)
{
    Save({{1, 0, VESK_BW_PROTOCOL_FTP, VESK_BW_TRANSFER_UPLOAD},
          {2, 0, VESK_BW_PROTOCOL_WEBDAV, VESK_BW_TRANSFER_DOWNLOAD},
          {3, 0, VESK_BW_PROTOCOL_RSYNC, VESK_BW_TRANSFER_DOWNLOAD},
          {4, 0, VESK_BW_PROTOCOL_LANTERNPOST, VESK_BW_TRANSFER_UPLOAD}},
         time(nullptr));
    EXPECT_EQ(4, GetAll(VESK_BW_PROTOCOL_ALL, VESK_BW_TRANSFER_ALL));
    EXPECT_EQ(2, GetAll(VESK_BW_PROTOCOL_ALL, VESK_BW_TRANSFER_UPLOAD));
    EXPECT_EQ((std::vector<pid_t>{4, 1}), Pids());
    EXPECT_EQ(2, GetAll(VESK_BW_PROTOCOL_WEBDAV | VESK_BW_PROTOCOL_RSYNC, VESK_BW_TRANSFER_ALL));
    EXPECT_EQ((std::vector<pid_t>{3, 2}), Pids());
    EXPECT_EQ(0, GetAll(VESK_BW_PROTOCOL_FTP, VESK_BW_TRANSFER_DOWNLOAD));
    EXPECT_EQ(nullptr, list_);
}

TEST_F(StatusEnumTest, MergeSumsSpeedsPerProtocolAndDirection)
{
    Save({{1, 0, VESK_BW_PROTOCOL_FTP, VESK_BW_TRANSFER_DOWNLOAD, 100, 10},
          {2, 0, VESK_BW_PROTOCOL_FTP, VESK_BW_TRANSFER_DOWNLOAD, 200, 20},
          {3, 0, VESK_BW_PROTOCOL_FTP, VESK_BW_TRANSFER_UPLOAD, 700, 70},
          {4, 0, VESK_BW_PROTOCOL_FTP, VESK_BW_TRANSFER_DOWNLOAD, 300, 30}},
         time(nullptr));
    ASSERT_EQ(2, GetAll(VESK_BW_PROTOCOL_ALL, VESK_BW_TRANSFER_ALL, 1));
    EXPECT_EQ((std::vector<pid_t>{3, 1}), Pids());  // the merged record keeps the first section's fields
    EXPECT_EQ(600u, list_->pNext->expect_speed);
    EXPECT_EQ(60u, list_->pNext->current_speed);
    EXPECT_EQ(700u, list_->expect_speed);

    // Any value but 1 keeps one record per section.
    EXPECT_EQ(4, GetAll(VESK_BW_PROTOCOL_ALL, VESK_BW_TRANSFER_ALL, 2));

    Save({{5, 0, VESK_BW_PROTOCOL_FTP, VESK_BW_TRANSFER_DOWNLOAD, 0, 40}}, time(nullptr));
    ASSERT_EQ(1, GetAll(VESK_BW_PROTOCOL_FTP, VESK_BW_TRANSFER_DOWNLOAD, 1));
    EXPECT_EQ(0u, list_->expect_speed);  // unlimited wins
    EXPECT_EQ(100u, list_->current_speed);
}

TEST_F(StatusEnumTest, UnconvertibleSectionIsSkippedAndKept)
{
    Save({{1, 0}}, time(nullptr));
    VLIBC_SZHASH *hash = VLIBCSzHashAlloc(4);
    ASSERT_LE(0, VLIBCSzHashSetValue(&hash, "id", "12abc"));
    ASSERT_EQ(1, VESKBandwidthStatusAddSection(kFile.c_str(), "2-2", hash));
    VLIBCSzHashFree(hash);

    EXPECT_EQ(1, GetAll());
    EXPECT_EQ((std::vector<pid_t>{1}), Pids());
    EXPECT_TRUE(log.Contains("bandwidth_status_get_all.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("Init status from hash failed. [0x4000")) << log.Dump();
    EXPECT_EQ((std::vector<std::string>{"1-2", "2-2"}), FileSections());
}

TEST_F(StatusEnumTest, HeadIsWrittenOnlyForAListOfRecords)
{
    VESK_BANDWIDTH_STATUS sentinel = {};
    VESK_BANDWIDTH_STATUS *head = &sentinel;
    EXPECT_EQ(0, VESKBandwidthIStatusGetAll(kFile.c_str(), 15, 3, &head, 0));  // absent file
    vbw::WriteFile(kFile, "", 0666);
    EXPECT_EQ(0, VESKBandwidthIStatusGetAll(kFile.c_str(), 15, 3, &head, 0));  // no sections
    Save({{1, 40}}, time(nullptr));
    EXPECT_EQ(0, VESKBandwidthIStatusGetAll(kFile.c_str(), 15, 3, &head, 0));  // only stale ones
    EXPECT_EQ(&sentinel, head);

    EXPECT_EQ(-1, VESKBandwidthIStatusGetAll(nullptr, 15, 3, &head, 0));
    EXPECT_TRUE(log.Contains("Invaild Argument (((void *)0) != szStatusFile)=[0]")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthIStatusGetAll(kFile.c_str(), 15, 3, nullptr, 0));
    EXPECT_TRUE(log.Contains("Invaild Argument (NULL != pStatusList)=[0]")) << log.Dump();
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_EQ(&sentinel, head);

    VESKBandwidthStatusListFree(nullptr);
}

TEST_F(StatusEnumTest, OwnerTypeAndIdNameTheFile)
{
    Save({{1, 0}}, time(nullptr));
    EXPECT_EQ(1, VESKBandwidthStatusGetAll(VESK_BW_OWNER_USER, 1026, 15, 3, &list_));
    ASSERT_NE(nullptr, list_);
    EXPECT_EQ(1, list_->pid);
    VESKBandwidthStatusListFree(&list_);
    EXPECT_EQ(nullptr, list_);
    EXPECT_EQ(0, VESKBandwidthStatusGetAll(VESK_BW_OWNER_GROUP, 1026, 15, 3, &list_));

    EXPECT_EQ(-1, VESKBandwidthStatusGetAll(7, 1026, 15, 3, &list_));
    EXPECT_TRUE(log.Contains("bandwidth_status_get_all.cpp:") &&
                log.Contains("VESKBandwidthEnumToName failed, protocol=7"))
        << log.Dump();
}

TEST_F(StatusEnumTest, TemporaryFilesAreDeletedAfterTenSeconds)
{
    const std::string temp = kFile + ".Ab12Cd";
    std::vector<int> counts;
    bool keptAtTen = false;
    ASSERT_TRUE(WithinOneSecond([&](time_t now) {
        vbw::WriteFile(temp, "[1-2]\ntimestamp=" + std::to_string(now) + "\n", 0600);
        SetAge(temp, now, 10);
        counts = {VESKBandwidthIStatusGetAll(temp.c_str(), 15, 3, &list_, 0)};
        keptAtTen = vbw::Exists(temp);
        SetAge(temp, now, 11);
        counts.push_back(VESKBandwidthIStatusGetAll(temp.c_str(), 15, 3, &list_, 0));
    }));
    EXPECT_EQ((std::vector<int>{0, 0}), counts);  // never read as a status file
    EXPECT_EQ(nullptr, list_);
    EXPECT_TRUE(keptAtTen);
    EXPECT_FALSE(vbw::Exists(temp));
}

TEST_F(StatusEnumTest, LinkAtATemporaryPathIsRemovedButNeverFollowed)
{
    const std::string temp = kFile + ".Zz99Yy";
    const std::string target = "/tmp/victim";
    vbw::WriteFile(target, "keep\n", 0644);
    ASSERT_EQ(0, symlink(target.c_str(), temp.c_str()));
    time_t now = time(nullptr);
    SetAge(target, now, 100);
    EXPECT_EQ(0, VESKBandwidthIStatusGetAll(temp.c_str(), 15, 3, &list_, 0));
    struct stat st;
    EXPECT_EQ(0, lstat(temp.c_str(), &st));  // the link itself is new
    SetAge(temp, now, 100);
    EXPECT_EQ(0, VESKBandwidthIStatusGetAll(temp.c_str(), 15, 3, &list_, 0));
    EXPECT_NE(0, lstat(temp.c_str(), &st));
    EXPECT_EQ("keep\n", vbw::ReadFile(target));
}

TEST_F(StatusEnumTest, LinkAtTheStatusPathLeavesItsTargetUntouched)
{
    const std::string target = "/tmp/victim";
    time_t now = time(nullptr);
    const std::string content = "[1-2]\npid=1\nid=1026\ntimestamp=" + std::to_string(now - 100) + "\n";
    vbw::WriteFile(target, content, 0666);
    ASSERT_EQ(0, symlink(target.c_str(), kFile.c_str()));

    EXPECT_EQ(0, GetAll());  // the stale section cannot be collected through the link
    EXPECT_EQ(content, vbw::ReadFile(target));
    struct stat st;
    EXPECT_TRUE(lstat(kFile.c_str(), &st) == 0 && S_ISLNK(st.st_mode));
}

}  // namespace

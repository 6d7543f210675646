// Hostile input from other local users: planted executables, links and huge
// files, bad files among good ones, and appends of long records racing each
// other.  (Forged names and values, and damaged files, are fuzzed.)
#include <unistd.h>

#include "vbw_throttle_fixture.h"

namespace {

using namespace vbw;

const std::string kUserFile = "/tmp/bandwidth/user-1026";

class ReliabilityHostile : public SandboxTest {
protected:
    void SetUp() override
    {
        SandboxTest::SetUp();
        MakeDirs("/tmp/bandwidth");
        ASSERT_EQ(0, chmod("/tmp/bandwidth", 0777));  // every user's transfers write here
    }
};

// Bytes this process has read so far.
uint64_t BytesRead()
{
    return strtoull(ReadFile("/proc/self/io").c_str() + strlen("rchar:"), nullptr, 10);
}

// bob plants set-id executables at status paths; root's save of his
// transfer, and root's listing that collects a stale section, rewrite them:
// the new files carry no execute, set-id or sticky bit.
TEST_F(ReliabilityHostile, RewritesNeverKeepExecuteOrSetIdBits)
{
    const std::string userFile = "/tmp/bandwidth/user-1027", groupFile = "/tmp/bandwidth/group-100";
    const std::string elf = std::string("\x7f"
                                        "ELF\x02\x01\x01",
                                        7) +
                            "\n[1-2]\ntimestamp=1\n";
    for (const auto &[path, mode] : {std::make_pair(userFile, 04755), std::make_pair(groupFile, 06755)}) {
        WriteFile(path, elf, 0644);
        ASSERT_EQ(0, chown(path.c_str(), 1027, 100));
        ASSERT_EQ(0, chmod(path.c_str(), (mode_t)mode));
    }
    VESK_BANDWIDTH_STATUS status = Status(getpid());
    status.uid = status.id = 1027;
    ASSERT_EQ(0, VESKBandwidthStatusSave(1027, nullptr, &status)) << log.Dump();
    EXPECT_EQ(0, EnumerateFile(groupFile));
    for (const std::string &path : {userFile, groupFile}) {
        EXPECT_EQ(0644u, Stat(path).st_mode & 07777) << path;
        EXPECT_EQ(0u, Stat(path).st_uid) << path;
    }
    EXPECT_FALSE(Has(ReadFile(groupFile), "[1-2]"));
}

// /tmp/bandwidth replaced by a link before first use: the save fails, says
// why, and nothing is created where the link points.
TEST_F(ReliabilityHostile, StatusDirectoryThatIsALinkIsRefused)
{
    ASSERT_EQ(0, rmdir("/tmp/bandwidth"));
    MakeDirs("/tmp/elsewhere");
    ASSERT_EQ(0, symlink("/tmp/elsewhere", "/tmp/bandwidth"));
    VESK_BANDWIDTH_STATUS status = Status(getpid());
    EXPECT_EQ(-1, VESKBandwidthStatusSave(kAlice, nullptr, &status));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
    EXPECT_TRUE(log.Contains("[/tmp/bandwidth/] is a symbolic link")) << log.Dump();
    EXPECT_EQ(-1, VESKBandwidthStatusGet(VESK_BW_OWNER_USER, kAlice, kDown, &status));
    EXPECT_EQ(0, EnumerateFile(kUserFile));
    EXPECT_TRUE(Paths("/tmp/elsewhere/*").empty());
}

// A planted sparse file of 1 GiB, and one of 100,000 dead sections: a save
// and a listing read a bounded part of it and heal it, keeping its fresh
// sections, which stay listed.
TEST_F(ReliabilityHostile, HugeFilesAreReadWithABoundAndHealed)
{
    const StatusEntry fresh = {5, kAlice, 100, 1, kDown, "ftp", 0, 100};
    std::string dead;
    for (int i = 1; i <= 100000; ++i) {
        dead += "[" + std::to_string(i) + "-1]\ntimestamp=1\n";
    }
    for (int save = 0; save < 2; ++save) {
        for (int shape = 0; shape < 2; ++shape) {
            WriteStatusFile("user", kAlice, {fresh});
            const std::string kept = ReadFile(kUserFile);
            if (shape == 0) {
                ASSERT_EQ(0, truncate(kUserFile.c_str(), 1LL << 30));
            } else {
                WriteFile(kUserFile, kept + dead, 0666);
            }
            const uint64_t before = BytesRead();
            VESK_BANDWIDTH_STATUS status = Status(getpid());
            EXPECT_EQ(save ? 0 : 1,
                      save ? VESKBandwidthStatusSave(kAlice, nullptr, &status) : EnumerateFile(kUserFile));
            EXPECT_LT(BytesRead() - before, 3u << 20) << save << shape;
            EXPECT_EQ(save ? 2u : 1u, ReadSections(kUserFile).size()) << save << shape;
            EXPECT_EQ(kept, ReadFile(kUserFile).substr(0, kept.size())) << save << shape;
        }
    }
}

// A directory, a FIFO and a file bob cannot read among the status files:
// bob's listing of each lists nothing there and goes on to the next.
TEST_F(ReliabilityHostile, BadStatusFilesAreSkipped)
{
    MakeDirs("/tmp/bandwidth/group-100");
    ASSERT_EQ(0, mkfifo("/tmp/bandwidth/group-101", 0666));
    WriteStatusFile("group", 103, {{5, kAlice}});
    ASSERT_EQ(0, chmod("/tmp/bandwidth/group-103", 0600));
    WriteStatusFile("user", kAlice, {{5, kAlice}});
    pid_t child = Fork([] {
        if (setuid(1027) != 0) {
            return 100;
        }
        int results = 0;  // each result + 1, in base 3
        for (const char *file : {"user-1026", "group-103", "group-101", "group-100"}) {
            results = results * 3 + EnumerateFile(std::string("/tmp/bandwidth/") + file) + 1;
        }
        return results;
    });
    EXPECT_EQ(((2 * 3 + 1) * 3 + 1) * 3 + 1, WaitExit(child, 10000));
}

// Records larger than a stdio buffer, appended by several processes at once,
// never interleave: every section is one writer's whole record.
TEST_F(ReliabilityHostile, LongAppendsNeverInterleave)
{
    const int kWriters = 6, kSections = 40;
    WriteFile(kUserFile, "", 0666);
    std::vector<pid_t> children;
    for (int w = 0; w < kWriters; ++w) {
        children.push_back(Fork([] {
            VESK_BANDWIDTH_STATUS status = Status(getpid());
            memset(status.filename, 'a' + getpid() % 26, sizeof(status.filename) - 1);
            Hash hash;
            int appended = VESKBandwidthInitHashFromStatus(hash.Address(), &status) == 0 ? 0 : -1000;
            for (int k = 1; k <= kSections; ++k) {
                std::string section = std::to_string(getpid()) + "-" + std::to_string(k);
                appended += VESKBandwidthStatusAddSection(kUserFile.c_str(), section.c_str(), hash);
            }
            return appended == kSections ? 0 : 1;
        }));
    }
    for (pid_t pid : children) {
        EXPECT_EQ(0, WaitExit(pid, 60000));
    }
    Sections sections = ReadSections(kUserFile);
    EXPECT_EQ((size_t)(kWriters * kSections), sections.size());
    for (auto &[name, pairs] : sections) {
        EXPECT_TRUE(pairs.size() == 12 && pairs["filename"] == std::string(4095, 'a' + atoi(name.c_str()) % 26))
            << name;
    }
}

}  // namespace

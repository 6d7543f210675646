// The status file writer: replace, remove and append of one section, with the
// bytes outside the section kept, modes and the file-creation mask, symbolic
// links never followed, and concurrent writers and readers of one file.
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "vbw_throttle_fixture.h"
#include "vesk_file.h"

namespace {

const std::string kDir = "/tmp/bandwidth/";
const std::string kFile = kDir + "user-1026";

// Names in the status directory, sorted.
std::vector<std::string> DirEntries()
{
    std::vector<std::string> names;
    for (const std::string &path : vbw::Paths(kDir + "*")) {
        names.push_back(path.substr(kDir.size()));
    }
    return names;
}

// What the platform writes for a section, so that the expectations hold
// whatever its exact pair syntax.
std::string SectionText(const char *section, const VLIBC_SZHASH *hash)
{
    return vbw::Printed([&](FILE *fp) { return VLIBCFileHash2File(fp, section, hash, 0); });
}

class StatusWriterTest : public vbw::SandboxTest {
protected:
    void SetUp() override
    {
        vbw::SandboxTest::SetUp();
        vbw::MakeDirs(kDir, 0777);
    }
    vbw::Hash hash{{"a", "1"}};
};

// Three sections, comments, blank and unknown lines, a line longer than any
// stdio buffer, and a last line without its newline.
const std::string kHead = "# status file\nx" + std::string(70000, 'y') + "\n\n[100-1]\na=1\n\n";
const std::string kMiddle = "[200-2]\n; kept note\nb=2\n\n";
const std::string kTail = "[300-1]\nc=3";

TEST_F(StatusWriterTest, ReplaceAndRemoveKeepEveryByteOutsideTheSection)
{
    vbw::WriteFile(kFile, kHead + kMiddle + kTail, 0666);
    vbw::Hash pairs({{"current speed", "512"}, {"filename", "/a b.iso"}});
    EXPECT_EQ(1, VESKBandwidthStatusSetSection(kFile.c_str(), "200-2", pairs)) << log.Dump();
    EXPECT_EQ(kHead + SectionText("200-2", pairs) + "; kept note\n" + kTail, vbw::ReadFile(kFile));
    EXPECT_EQ(std::vector<std::string>{"user-1026"}, DirEntries());

    // Removing drops pairs and blank lines but keeps comments.
    vbw::WriteFile(kFile, kHead + kMiddle + kTail, 0666);
    EXPECT_EQ(1, VESKBandwidthStatusRemoveSection(kFile.c_str(), "200-2"));
    EXPECT_EQ(kHead + "; kept note\n" + kTail, vbw::ReadFile(kFile));
    EXPECT_EQ(1, VESKBandwidthStatusRemoveSection(kFile.c_str(), "300-1"));
    EXPECT_EQ(kHead + "; kept note\n", vbw::ReadFile(kFile));

    // A section present twice is replaced or removed at both places.
    vbw::WriteFile(kFile, "[7-1]\na=1\n[8-1]\nb=2\n[7-1]\na=3\n", 0666);
    vbw::Hash nine({{"a", "9"}});
    EXPECT_EQ(1, VESKBandwidthStatusSetSection(kFile.c_str(), "7-1", nine));
    EXPECT_EQ(SectionText("7-1", nine) + "[8-1]\nb=2\n" + SectionText("7-1", nine), vbw::ReadFile(kFile));
    EXPECT_EQ(1, VESKBandwidthStatusRemoveSection(kFile.c_str(), "7-1"));
    EXPECT_EQ("[8-1]\nb=2\n", vbw::ReadFile(kFile));
}

TEST_F(StatusWriterTest, MissingSectionRewritesSameBytesIntoANewInode)
{
    const std::string content = kHead + kTail;
    vbw::WriteFile(kFile, content, 0640);
    ASSERT_EQ(0, chown(kFile.c_str(), 1026, 100));
    struct stat before = vbw::Stat(kFile);
    umask(022);

    EXPECT_EQ(0, VESKBandwidthStatusSetSection(kFile.c_str(), "999-2", hash));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    EXPECT_EQ(0, VESKBandwidthStatusRemoveSection(kFile.c_str(), "999-2"));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());

    struct stat after = vbw::Stat(kFile);
    EXPECT_EQ(content, vbw::ReadFile(kFile));
    EXPECT_NE(before.st_ino, after.st_ino);
    EXPECT_EQ(0u, after.st_uid);  // the rewriting process owns the new file
    EXPECT_EQ(0640u, after.st_mode & 07777);
    EXPECT_EQ(022u, umask(022));

    for (mode_t mode : {0666, 0600, 0644}) {
        ASSERT_EQ(0, chmod(kFile.c_str(), mode));
        umask(027);
        EXPECT_EQ(0, VESKBandwidthStatusSetSection(kFile.c_str(), "1-1", hash));
        EXPECT_EQ(mode, vbw::Stat(kFile).st_mode & 07777);
        EXPECT_EQ(027u, umask(027));
    }
}

TEST_F(StatusWriterTest, MaskIsRestoredWhenTheTemporaryFileCannotBeCreated)
{
    vbw::WriteFile(kFile, "[1-1]\na=1\n", 0666);
    ASSERT_EQ(0, chmod(kDir.c_str(), 0755));  // only root may create files here
    pid_t child = vbw::Fork([&] {
        if (setuid(1026) != 0) {
            return 10;
        }
        umask(023);
        int result = VESKBandwidthStatusSetSection(kFile.c_str(), "1-1", hash);
        if (result != -1 || VLIBCErrGet() != BW_ERR_FILE_OPEN) {
            return 11;
        }
        return umask(0) == 023 ? 0 : 12;
    });
    EXPECT_EQ(0, vbw::WaitExit(child, 10000));
    EXPECT_EQ("[1-1]\na=1\n", vbw::ReadFile(kFile));
    EXPECT_EQ(std::vector<std::string>{"user-1026"}, DirEntries());
}

// A missing file, a directory or a symbolic link (to a file or dangling) is
// never rewritten or appended to through its path.
TEST_F(StatusWriterTest, RewriteNeedsARegularFileAndNeverFollowsALink)
{
    const std::string content = "[5-2]\nsecret=1\n", link = kDir + "user-1027", dangling = kDir + "user-1028";
    vbw::WriteFile("/tmp/victim", content, 0644);
    ASSERT_EQ(0, symlink("/tmp/victim", link.c_str()));
    ASSERT_EQ(0, symlink("/tmp/created-through-link", dangling.c_str()));
    vbw::MakeDirs(kDir + "user-1029");
    for (const std::string &path : {kFile, link, kDir + "user-1029"}) {
        EXPECT_EQ(-1, VESKBandwidthStatusSetSection(path.c_str(), "5-2", hash)) << path;
        EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet()) << path;
        EXPECT_EQ(-1, VESKBandwidthStatusRemoveSection(path.c_str(), "5-2")) << path;
        EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet()) << path;
    }
    for (const std::string &path : {link, dangling}) {
        EXPECT_EQ(-1, VESKBandwidthStatusAddSection(path.c_str(), "6-1", hash)) << path;
        EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet()) << path;
    }
    EXPECT_EQ(content, vbw::ReadFile("/tmp/victim"));
    EXPECT_TRUE(S_ISLNK(vbw::Stat(link).st_mode));
    EXPECT_FALSE(vbw::Exists("/tmp/created-through-link"));
    EXPECT_EQ((std::vector<std::string>{"user-1027", "user-1028", "user-1029"}), DirEntries());
}

TEST_F(StatusWriterTest, AppendSeparatesTheNewSectionByOneNewline)
{
    const std::string section = SectionText("5-2", hash);
    umask(0);
    EXPECT_EQ(1, VESKBandwidthStatusAddSection(kFile.c_str(), "5-2", hash));  // missing: created
    EXPECT_EQ("\n" + section, vbw::ReadFile(kFile));
    EXPECT_EQ(0666u, vbw::Stat(kFile).st_mode & 07777);

    const std::pair<std::string, std::string> cases[] = {
        {"", "\n"}, {"[1-1]\nb=2\n", "[1-1]\nb=2\n"}, {"[1-1]\nb=2", "[1-1]\nb=2\n"}};
    for (const auto &c : cases) {
        vbw::WriteFile(kFile, c.first, 0666);
        EXPECT_EQ(1, VESKBandwidthStatusAddSection(kFile.c_str(), "5-2", hash)) << c.first;
        EXPECT_EQ(c.second + section, vbw::ReadFile(kFile)) << c.first;
    }

    // An existing section is left alone; failures write no log line.
    const std::string content = "[1-1]\nb=2\n[5-2]\nold=1";
    vbw::WriteFile(kFile, content, 0666);
    log.Clear();
    EXPECT_EQ(0, VESKBandwidthStatusAddSection(kFile.c_str(), "5-2", hash));
    EXPECT_EQ(content, vbw::ReadFile(kFile));
    EXPECT_EQ(-1, VESKBandwidthStatusAddSection(nullptr, "5-2", hash));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_EQ(-1, VESKBandwidthStatusAddSection(kDir.c_str(), "5-2", hash));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

// Writer w's section at the given round, saved through its hash.
int SaveRecord(int (*write)(const char *, const char *, const VLIBC_SZHASH *), int w, int round)
{
    VESK_BANDWIDTH_STATUS status = vbw::Status(1000 + w, 1024u * (unsigned)round, 1024u * (unsigned)round);
    status.transfer_type = VESK_BW_TRANSFER_UPLOAD;
    status.progress = (uint32_t)round;
    vbw::Hash hash;
    EXPECT_EQ(0, VESKBandwidthInitHashFromStatus(hash.Address(), &status));
    return write(kFile.c_str(), vbw::SectionName(status.pid, VESK_BW_TRANSFER_UPLOAD).c_str(), hash);
}

// True when the file, read at once, holds every writer's section with its twelve pairs.
bool FileIsWhole(int writers)
{
    vbw::Sections sections = vbw::ReadSections(kFile);
    return (int)sections.size() == writers && std::all_of(sections.begin(), sections.end(), [](const auto &section) {
               return section.second.size() == 12;
           });
}

// True when the enumeration lists every writer's record, each whole.
bool ListIsWhole(int writers)
{
    VESK_BANDWIDTH_STATUS *list = nullptr;
    int count = VESKBandwidthIStatusGetAll(kFile.c_str(), VESK_BW_PROTOCOL_ALL, VESK_BW_TRANSFER_ALL, &list, 0);
    bool whole = count == writers;
    for (VESK_BANDWIDTH_STATUS *p = list; p != nullptr; p = p->pNext) {
        whole = whole && p->uid == 1026 && p->filename == "/share/f" + std::to_string(p->pid);
    }
    VESKBandwidthStatusListFree(&list);
    return whole;
}

// Writers save their own sections over and over while readers read the file
// whole and enumerate it: no reader ever meets a torn file, and no temporary
// file stays behind.
TEST_F(StatusWriterTest, ConcurrentWritersNeverShowATornFile)
{
    const int kWriters = 4, kReaders = 3, kRounds = 150;
    umask(0);
    for (int w = 0; w < kWriters; ++w) {
        ASSERT_EQ(1, SaveRecord(VESKBandwidthStatusAddSection, w, 0));
    }
    auto *stop = static_cast<volatile int *>(
        mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, (void *)stop);
    *stop = 0;

    std::vector<pid_t> writers, readers;
    for (int w = 0; w < kWriters; ++w) {
        writers.push_back(vbw::Fork([&] {
            for (int round = 1; round <= kRounds; ++round) {
                if (SaveRecord(VESKBandwidthStatusSetSection, w, round) != 1) {
                    return 1;
                }
            }
            return 0;
        }));
    }
    for (int r = 0; r < kReaders; ++r) {
        readers.push_back(vbw::Fork([&] {
            for (int reads = 0; *stop == 0 || reads == 0; ++reads) {
                if (!FileIsWhole(kWriters) || !ListIsWhole(kWriters)) {
                    return 2;
                }
            }
            return 0;
        }));
    }
    for (pid_t pid : writers) {
        EXPECT_EQ(0, vbw::WaitExit(pid, 100000));
    }
    *stop = 1;
    for (pid_t pid : readers) {
        EXPECT_EQ(0, vbw::WaitExit(pid, 100000));
    }
    munmap((void *)stop, sizeof(int));
    EXPECT_TRUE(FileIsWhole(kWriters));
    EXPECT_EQ(std::vector<std::string>{"user-1026"}, DirEntries());
}

}  // namespace

// Both faces of the section writer (the status writer and the platform's):
// bytes outside the changed section kept, modes, links never followed, every
// failing system call of a rewrite or an append leaving the file as it was,
// and concurrent writers and readers of one file.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "vbw_throttle_fixture.h"
#include "vesk_file.h"

namespace {

// The system calls of a writer that a test can make fail: while t_failAt is
// n, the nth of them (counted in this thread in t_calls) fails with EIO.
enum Call { kWrite, kFsync, kRename, kMkostemp };
thread_local int t_failAt = 0, t_calls = 0, t_failed = -1;
// Runs before the next mkostemp, then is cleared.
std::function<void()> g_beforeMkostemp;

bool Fails(Call call)
{
    if (call == kMkostemp && g_beforeMkostemp) {
        std::exchange(g_beforeMkostemp, nullptr)();
    }
    if (t_failAt == 0 || ++t_calls != t_failAt) {
        return false;
    }
    t_failed = call;
    errno = EIO;
    return true;
}

}  // namespace

// The libraries' calls bind to these definitions of the executable (exported
// whatever the default visibility), which fail or go on to the C library's.
#define VBW_INTERPOSE(result, name, params, args, call)                                                                \
    extern "C" __attribute__((visibility("default"))) result name params                                               \
    {                                                                                                                  \
        static auto real = reinterpret_cast<result(*) params>(dlsym(RTLD_NEXT, #name));                                \
        return Fails(call) ? -1 : real args;                                                                           \
    }
VBW_INTERPOSE(ssize_t, write, (int fd, const void *p, size_t cb), (fd, p, cb), kWrite)
VBW_INTERPOSE(int, fsync, (int fd), (fd), kFsync)
VBW_INTERPOSE(int, renameat, (int fromDir, const char *from, int toDir, const char *to), (fromDir, from, toDir, to),
              kRename)
VBW_INTERPOSE(int, mkostemp, (char *szTemplate, int iFlags), (szTemplate, iFlags), kMkostemp)

namespace {

const std::string kDir = "/tmp/bandwidth/";
const std::string kFile = kDir + "user-1026";

// What the platform writes for a section.
std::string SectionText(const char *section, const VLIBC_SZHASH *hash)
{
    return vbw::Printed([&](FILE *fp) { return VLIBCFileHash2File(fp, section, hash, 0); });
}

class StatusWriterTest : public vbw::SandboxTest {
protected:
    void SetUp() override
    {
        vbw::SandboxTest::SetUp();
        vbw::MakeDirs(kDir);
        ASSERT_EQ(0, chmod(kDir.c_str(), 0777));  // every user's transfers write here
    }
    vbw::Hash hash{{"a", "1"}};
};

// Comments, blank and unknown lines, a line longer than any stdio buffer, and
// a last line without its newline.
const std::string kHead = "# status file\nx" + std::string(70000, 'y') + "\n\n[100-1]\na=1\n\n";
const std::string kTail = "[300-1]\nc=3";

TEST_F(StatusWriterTest, ReplaceAndRemoveKeepEveryByteOutsideTheSectionAndItsModes)
{
    // The new pairs go where the section was, its comments stay after them;
    // a section present twice is replaced or removed at both places.
    vbw::WriteFile(kFile, kHead + "[7-1]\n; kept\nb=2\n\n[8-1]\n[7-1]\na=3\n" + kTail, 0666);
    EXPECT_EQ(1, VESKBandwidthStatusSetSection(kFile.c_str(), "7-1", hash)) << log.Dump();
    const std::string text = SectionText("7-1", hash);
    EXPECT_EQ(kHead + text + "; kept\n[8-1]\n" + text + kTail, vbw::ReadFile(kFile));
    EXPECT_EQ(1, VESKBandwidthStatusRemoveSection(kFile.c_str(), "7-1"));
    EXPECT_EQ(kHead + "; kept\n[8-1]\n" + kTail, vbw::ReadFile(kFile));

    // A missing section: the status writer rewrites the same bytes into a
    // new file of its own, the platform's leaves the file untouched.
    const std::string content = kHead + kTail;
    vbw::WriteFile(kFile, content, 0640);
    ASSERT_EQ(0, chown(kFile.c_str(), 1026, 100));
    const ino_t before = vbw::Stat(kFile).st_ino;
    EXPECT_EQ(0, VLIBCFileSetSection(kFile.c_str(), "999-2", nullptr, hash, 0));
    EXPECT_EQ(0, VLIBCFileRemoveSection(kFile.c_str(), "999-2"));
    EXPECT_EQ(before, vbw::Stat(kFile).st_ino);
    EXPECT_EQ(0, VESKBandwidthStatusRemoveSection(kFile.c_str(), "999-2"));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    EXPECT_EQ(content, vbw::ReadFile(kFile));
    EXPECT_NE(before, vbw::Stat(kFile).st_ino);
    // The rewriting process owns the new file, with the read and write bits of the old one.
    umask(027);
    EXPECT_EQ(1, VLIBCFileAddSection(kFile.c_str(), "1-1", hash, 0));
    EXPECT_EQ(0, VESKBandwidthStatusSetSection(kFile.c_str(), "2-1", hash));
    EXPECT_TRUE(vbw::Stat(kFile).st_uid == 0 && (vbw::Stat(kFile).st_mode & 07777) == 0640 && umask(0) == 027);
}

TEST_F(StatusWriterTest, AppendSeparatesTheNewSectionByOneNewline)
{
    const std::string section = SectionText("5-2", hash);
    umask(0);
    EXPECT_EQ(1, VESKBandwidthStatusAddSection(kFile.c_str(), "5-2", hash));  // missing: created
    EXPECT_EQ("\n" + section, vbw::ReadFile(kFile));
    EXPECT_EQ(0666u, vbw::Stat(kFile).st_mode & 07777);
    vbw::WriteFile(kFile, "[1-1]\nb=2", 0666);
    EXPECT_EQ(1, VESKBandwidthStatusAddSection(kFile.c_str(), "5-2", hash));
    EXPECT_EQ("[1-1]\nb=2\n" + section, vbw::ReadFile(kFile));

    // An existing section is left alone; failures write no log line.
    vbw::WriteFile(kFile, "[1-1]\nb=2\n[5-2]\nold=1", 0666);
    log.Clear();
    EXPECT_EQ(0, VESKBandwidthStatusAddSection(kFile.c_str(), "5-2", hash));
    EXPECT_EQ("[1-1]\nb=2\n[5-2]\nold=1", vbw::ReadFile(kFile));
    EXPECT_EQ(-1, VESKBandwidthStatusAddSection(nullptr, "5-2", hash));
    EXPECT_TRUE(VLIBCErrGet() == BW_ERR_BAD_PARAMETERS && log.Lines().empty()) << log.Dump();
}

// Each writer of both faces: a missing file, a directory, a link to a file,
// a dangling link and a second hard link are never written through.
TEST_F(StatusWriterTest, WritersNeedTheirOwnRegularFile)
{
    const std::function<int(const char *)> writers[] = {
        [&](const char *p) { return VESKBandwidthStatusRemoveSection(p, "5-2"); },
        [&](const char *p) { return VLIBCFileSetSection(p, "5-2", nullptr, hash, 0); },
        [&](const char *p) { return VESKBandwidthStatusAddSection(p, "6-1", hash); },
        [&](const char *p) { return VLIBCFileAddSection(p, "6-1", hash, 0); },
        [&](const char *p) { return VLIBCFileTouch(p); }};
    const std::string content = "[5-2]\nsecret=1\n", missing = kDir + "user-1", dir = kDir + "user-2",
                      link = kDir + "user-3", dangling = kDir + "user-4", hard = kDir + "user-5";
    vbw::WriteFile("/tmp/victim", content, 0644);
    vbw::MakeDirs(dir);
    ASSERT_EQ(0, symlink("/tmp/victim", link.c_str()));
    ASSERT_EQ(0, symlink("/tmp/made-through-link", dangling.c_str()));
    ASSERT_EQ(0, ::link("/tmp/victim", hard.c_str()));
    for (size_t w = 0; w < std::size(writers); ++w) {
        // The appends and the touch create a missing file; only the status
        // append writes into the file it opens, the others replace it.
        std::vector<std::string> paths = {dir, link, dangling, w < 2 ? missing : w == 2 ? hard : dir};
        for (const std::string &path : paths) {
            EXPECT_TRUE(writers[w](path.c_str()) == -1 && VLIBCErrGet() == BW_ERR_FILE_OPEN) << w << " " << path;
        }
    }
    EXPECT_TRUE(vbw::ReadFile("/tmp/victim") == content && !vbw::Exists("/tmp/made-through-link"));
    EXPECT_EQ((std::vector<std::string>{dir, link, dangling, hard}), vbw::Paths(kDir + "*"));
}

// A link that another user puts in place of the file while a writer
// rewrites it is replaced by the rename, never followed.
TEST_F(StatusWriterTest, LinkPlantedDuringARewriteIsReplaced)
{
    vbw::WriteFile("/tmp/victim", "[1-2]\nkeep=1\n", 0666);
    vbw::WriteFile(kFile, "[10-2]\na=0\n", 0666);
    g_beforeMkostemp = [] {
        ASSERT_EQ(0, seteuid(1027));
        EXPECT_TRUE(unlink(kFile.c_str()) == 0 && symlink("/tmp/victim", kFile.c_str()) == 0);
        ASSERT_EQ(0, seteuid(0));
    };
    EXPECT_EQ(1, VESKBandwidthStatusSetSection(kFile.c_str(), "10-2", hash));
    EXPECT_FALSE(g_beforeMkostemp) << "no temporary file was created";
    EXPECT_EQ(SectionText("10-2", hash), vbw::ReadFile(kFile));
    EXPECT_TRUE(S_ISREG(vbw::Stat(kFile).st_mode) && vbw::ReadFile("/tmp/victim") == "[1-2]\nkeep=1\n");
}

// Every write, fsync, rename and mkostemp of a rewrite of either face, and
// the write of an append, failed in turn: the call fails with the code of
// that step, the file keeps its bytes, no temporary file stays, and the mask
// is the caller's.  An append's failing fsync does not change its answer.
TEST_F(StatusWriterTest, EveryFailingCallLeavesTheFileAsItWas)
{
    struct Writer {
        const char *name;
        std::function<int()> run;
        int done;     // the result when nothing fails
        bool append;  // the status append: one write, and an fsync whose failure does not count
    } writers[] = {
        {"status replace", [&] { return VESKBandwidthStatusSetSection(kFile.c_str(), "2-2", hash); }, 1, false},
        {"status replace, absent", [&] { return VESKBandwidthStatusSetSection(kFile.c_str(), "9-2", hash); }, 0, false},
        {"status remove", [&] { return VESKBandwidthStatusRemoveSection(kFile.c_str(), "2-2"); }, 1, false},
        {"status append", [&] { return VESKBandwidthStatusAddSection(kFile.c_str(), "9-2", hash); }, 1, true},
        {"platform replace", [&] { return VLIBCFileSetSection(kFile.c_str(), "2-2", nullptr, hash, 0); }, 1, false},
        {"platform remove", [&] { return VLIBCFileRemoveSection(kFile.c_str(), "2-2"); }, 1, false},
        {"platform append", [&] { return VLIBCFileAddSection(kFile.c_str(), "9-2", hash, 0); }, 1, false},
    };
    const std::string content = "[1-1]\nb=2\n[2-2]\nc=3\n";
    const int codes[] = {BW_ERR_FILE_WRITE, BW_ERR_FILE_WRITE, BW_ERR_RENAME_FAILED, BW_ERR_FILE_OPEN};
    for (const Writer &writer : writers) {
        std::vector<int> failed;
        for (int n = 1;; ++n) {
            vbw::WriteFile(kFile, content, 0666);
            umask(022);
            t_failAt = n;
            t_calls = 0;
            int result = writer.run();
            t_failAt = 0;
            if (t_calls < n) {
                EXPECT_EQ(writer.done, result) << writer.name;
                break;
            }
            failed.push_back(t_failed);
            EXPECT_EQ(022u, umask(022)) << writer.name;
            EXPECT_EQ(std::vector<std::string>{kFile}, vbw::Paths(kDir + "*")) << writer.name;
            bool ignored = writer.append && t_failed == kFsync;
            EXPECT_EQ(ignored ? 1 : -1, result) << writer.name << ", call " << n;
            EXPECT_TRUE(ignored || (codes[t_failed] == VLIBCErrGet() && content == vbw::ReadFile(kFile)))
                << writer.name << ", call " << n;
        }
        std::sort(failed.begin(), failed.end());
        const std::vector<int> rewrite = {kWrite, kFsync, kRename, kMkostemp}, append = {kWrite, kFsync};
        EXPECT_EQ(writer.append ? append : rewrite, failed) << writer.name;
    }
}

// Writer w's section at the given round, saved through its hash.
int SaveRecord(int (*save)(const char *, const char *, const VLIBC_SZHASH *), int w, int round)
{
    VESK_BANDWIDTH_STATUS status = vbw::Status(1000 + w, 1024u * (unsigned)round, 1024u * (unsigned)round);
    vbw::Hash hash;
    VESKBandwidthInitHashFromStatus(hash.Address(), &status);
    return save(kFile.c_str(), vbw::SectionName(status.pid, vbw::kDown).c_str(), hash);
}

// True when the enumeration lists every writer's record whole.
bool FileIsWhole(int writers)
{
    VESK_BANDWIDTH_STATUS *list = nullptr;
    bool whole = writers == VESKBandwidthIStatusGetAll(kFile.c_str(), 15, 3, &list, 0);
    for (VESK_BANDWIDTH_STATUS *p = list; p != nullptr; p = p->pNext) {
        whole = whole && p->uid == 1026 && p->filename == "/share/f" + std::to_string(p->pid);
    }
    VESKBandwidthStatusListFree(&list);
    return whole;
}

// Writers save their own sections over and over while readers enumerate the
// file: no reader ever meets a torn file, and no temporary file stays behind.
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
    std::vector<pid_t> children;
    for (int c = 0; c < kWriters + kReaders; ++c) {
        children.push_back(vbw::Fork([&] {
            for (int round = 1; c < kWriters && round <= kRounds; ++round) {
                if (SaveRecord(VESKBandwidthStatusSetSection, c, round) != 1) {
                    return 1;
                }
            }
            for (int reads = 0; c >= kWriters && (*stop == 0 || reads == 0); ++reads) {
                if (!FileIsWhole(kWriters)) {
                    return 2;
                }
            }
            return 0;
        }));
    }
    for (size_t c = 0; c < children.size(); ++c) {
        *stop = c == kWriters ? 1 : *stop;  // the readers stop once every writer is done
        EXPECT_EQ(0, vbw::WaitExit(children[c], 100000)) << c;
    }
    munmap((void *)stop, sizeof(int));
    EXPECT_TRUE(FileIsWhole(kWriters));
    EXPECT_EQ(std::vector<std::string>{kFile}, vbw::Paths(kDir + "*"));
}

}  // namespace

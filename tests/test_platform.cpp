// The platform layer: string hash and list, section files, accounts,
// directories and processes.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "vbw_test.h"
#include "vesk_account.h"
#include "vesk_error.h"
#include "vesk_file.h"
#include "vesk_hash.h"
#include "vesk_system.h"

namespace {

const std::string kFile = "/tmp/sections.conf";

// A hash of the given pairs, released with its scope.
struct Hash {
    explicit Hash(std::initializer_list<std::pair<const char *, const char *>> pairs)
    {
        for (const auto &[key, value] : pairs) {
            EXPECT_EQ(0, VLIBCSzHashSetValue(&hash, key, value));
        }
    }
    ~Hash() { VLIBCSzHashFree(hash); }
    VLIBC_SZHASH *hash = VLIBCSzHashAlloc(4);
};

std::string Section(const std::string &file, const char *section)
{
    VLIBC_SZHASH *hash = nullptr;
    int rc = VLIBCFileGetSection(file.c_str(), section, &hash);
    std::string text = std::to_string(rc) + ":";
    for (int i = 0; i < VLIBCSzHashCount(hash); ++i) {
        text += std::string(VLIBCSzHashKeyAt(hash, i)) + "=" + VLIBCSzHashValueAt(hash, i) + ";";
    }
    VLIBCSzHashFree(hash);
    return text;
}

ino_t Inode(const std::string &path)
{
    struct stat st {};
    stat(path.c_str(), &st);
    return st.st_ino;
}

class PlatformTest : public vbw::SandboxTest {};

TEST_F(PlatformTest, HashKeepsInsertionOrderAndReplacesInPlace)
{
    Hash h({{"b", "1"}, {"a", "2"}, {"c", "3"}});
    ASSERT_EQ(0, VLIBCSzHashSetValue(&h.hash, "a", "two"));
    ASSERT_EQ(3, VLIBCSzHashCount(h.hash));
    EXPECT_STREQ("b", VLIBCSzHashKeyAt(h.hash, 0));
    EXPECT_STREQ("a", VLIBCSzHashKeyAt(h.hash, 1));
    EXPECT_STREQ("two", VLIBCSzHashValueAt(h.hash, 1));
    EXPECT_STREQ("two", VLIBCSzHashGetValue(h.hash, "a"));
    EXPECT_EQ(nullptr, VLIBCSzHashGetValue(h.hash, "missing"));
    EXPECT_EQ(nullptr, VLIBCSzHashKeyAt(h.hash, 3));
    EXPECT_EQ(0, VLIBCHashRemoveAll(h.hash));
    EXPECT_EQ(0, VLIBCSzHashCount(h.hash));
    EXPECT_EQ(nullptr, VLIBCSzHashGetValue(h.hash, "a"));

    VLIBC_SZLIST *list = nullptr;
    ASSERT_EQ(0, VLIBCSzListPush(&list, "x"));
    ASSERT_EQ(0, VLIBCSzListPush(&list, "y"));
    EXPECT_EQ(2, VLIBCSzListCount(list));
    EXPECT_STREQ("y", VLIBCSzListGet(list, 1));
    EXPECT_EQ(nullptr, VLIBCSzListGet(list, 2));
    VLIBCSzListFree(list);
}

TEST_F(PlatformTest, ReaderTakesPairsOfTheFirstSectionOnly)
{
    vbw::WriteFile(kFile,
                   "stray=before any section\n"
                   "[one]\n"
                   "# comment=not a pair\n"
                   "current speed=12 = 3\n"
                   "\n"
                   "no equals sign\n"
                   "[a]b]\n"
                   "key=still one\n"
                   "[two]\n"
                   "k=\n"
                   "[one]\n"
                   "late=ignored");
    EXPECT_EQ("1:current speed=12 = 3;key=still one;", Section(kFile, "one"));
    EXPECT_EQ("1:k=;", Section(kFile, "two"));
    EXPECT_EQ("0:", Section(kFile, "three"));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    EXPECT_EQ("-1:", Section("/tmp/missing.conf", "one"));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());

    VLIBC_SZLIST *names = nullptr;
    ASSERT_EQ(3, VLIBCFileEnumSection(kFile.c_str(), &names));
    EXPECT_STREQ("one", VLIBCSzListGet(names, 0));
    EXPECT_STREQ("two", VLIBCSzListGet(names, 1));
    EXPECT_STREQ("one", VLIBCSzListGet(names, 2));
    VLIBCSzListFree(names);
}

TEST_F(PlatformTest, WritersKeepEveryByteOutsideTheirSection)
{
    const std::string before = "; head\n[a]\nx=1\n\n[b]\n# keep me\ny=2\n\n[c]\nz=3";
    vbw::WriteFile(kFile, before, 0640);
    ino_t inode = Inode(kFile);
    Hash h({{"y", "20"}, {"w", "21"}});

    ASSERT_EQ(1, VLIBCFileSetSection(kFile.c_str(), "b", nullptr, h.hash, 0));
    EXPECT_EQ("; head\n[a]\nx=1\n\n[b]\ny=20\nw=21\n# keep me\n[c]\nz=3", vbw::ReadFile(kFile));
    EXPECT_NE(inode, Inode(kFile));
    struct stat st {};
    ASSERT_EQ(0, stat(kFile.c_str(), &st));
    EXPECT_EQ(0640u, st.st_mode & 07777);

    // Absent: nothing written.
    inode = Inode(kFile);
    EXPECT_EQ(0, VLIBCFileSetSection(kFile.c_str(), "nope", nullptr, h.hash, 0));
    EXPECT_EQ(inode, Inode(kFile));

    ASSERT_EQ(1, VLIBCFileRemoveSection(kFile.c_str(), "c"));
    EXPECT_EQ("; head\n[a]\nx=1\n\n[b]\ny=20\nw=21\n# keep me\n", vbw::ReadFile(kFile));
    EXPECT_EQ(0, VLIBCFileRemoveSection(kFile.c_str(), "c"));

    // Appending after a last line without newline, and refusing a duplicate.
    vbw::WriteFile(kFile, "[a]\nx=1");
    ASSERT_EQ(1, VLIBCFileAddSection(kFile.c_str(), "d", h.hash, 0));
    EXPECT_EQ("[a]\nx=1\n[d]\ny=20\nw=21\n", vbw::ReadFile(kFile));
    EXPECT_EQ(0, VLIBCFileAddSection(kFile.c_str(), "a", h.hash, 0));
    EXPECT_EQ("[a]\nx=1\n[d]\ny=20\nw=21\n", vbw::ReadFile(kFile));

    // A section present twice is replaced at both places.
    vbw::WriteFile(kFile, "[s]\na=1\n[t]\n[s]\nb=2\n");
    Hash one({{"n", "1"}});
    ASSERT_EQ(1, VLIBCFileSetSection(kFile.c_str(), "s", nullptr, one.hash, 0));
    EXPECT_EQ("[s]\nn=1\n[t]\n[s]\nn=1\n", vbw::ReadFile(kFile));

    // The add creates a missing file; the others do not.
    EXPECT_EQ(1, VLIBCFileAddSection("/tmp/new.conf", "s", one.hash, 0));
    EXPECT_EQ("[s]\nn=1\n", vbw::ReadFile("/tmp/new.conf"));
    EXPECT_EQ(-1, VLIBCFileSetSection("/tmp/none.conf", "s", nullptr, one.hash, 0));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
    EXPECT_FALSE(vbw::Exists("/tmp/none.conf"));
}

TEST_F(PlatformTest, ValuesCannotBreakTheirLineAndBadNamesAreRefused)
{
    vbw::WriteFile(kFile, "[a]\nx=1\n");
    Hash hostile({{"file", "evil\n[1234-2]\nactive=0"}, {"v", "[ok]"}});
    ASSERT_EQ(1, VLIBCFileAddSection(kFile.c_str(), "1234-2", hostile.hash, 0));
    EXPECT_EQ("[a]\nx=1\n[1234-2]\nfile=evil[1234-2]active=0\nv=[ok]\n", vbw::ReadFile(kFile));
    EXPECT_EQ("1:file=evil[1234-2]active=0;v=[ok];", Section(kFile, "1234-2"));

    const std::string before = vbw::ReadFile(kFile);
    for (const char *key : {"a=b", "", "[x", "#x", ";x", "a\nb"}) {
        Hash bad({{key, "1"}});
        EXPECT_EQ(-1, VLIBCFileSetSection(kFile.c_str(), "a", nullptr, bad.hash, 0)) << key;
        EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    }
    for (const char *section : {"a]b", "a\nb"}) {
        EXPECT_EQ(-1, VLIBCFileAddSection(kFile.c_str(), section, hostile.hash, 0)) << section;
    }
    EXPECT_EQ(before, vbw::ReadFile(kFile));

    EXPECT_EQ(1, VLIBCIFileIsSection("[x]\n", 4));
    EXPECT_EQ(0, VLIBCIFileIsSection("[x]y\n", 5));
    EXPECT_EQ(0, VLIBCIFileIsSection("[]x]\n", 5));
    EXPECT_EQ(1, VLIBCIFileMatchSection("[1234-2]\n", 9, "1234-2"));
    EXPECT_EQ(0, VLIBCIFileMatchSection("[1234-2]\n", 9, "1234-"));
    EXPECT_EQ(0, VLIBCIFileMatchSection("[1234-2]\n", 9, "1234-22"));
}

TEST_F(PlatformTest, WritersNeverFollowAPlantedLink)
{
    vbw::WriteFile("/tmp/target", "[a]\nx=1\n");
    ASSERT_EQ(0, symlink("/tmp/target", kFile.c_str()));
    Hash h({{"x", "2"}});
    EXPECT_EQ(-1, VLIBCFileSetSection(kFile.c_str(), "a", nullptr, h.hash, 0));
    EXPECT_EQ(-1, VLIBCFileAddSection(kFile.c_str(), "b", h.hash, 0));
    EXPECT_EQ(-1, VLIBCFileTouch(kFile.c_str()));
    EXPECT_EQ("[a]\nx=1\n", vbw::ReadFile("/tmp/target"));
}

TEST_F(PlatformTest, ReaderSeesChangesMadeByOtherProcesses)
{
    vbw::WriteFile(kFile, "[a]\nx=1\n");
    ASSERT_EQ("1:x=1;", Section(kFile, "a"));  // now cached

    // Rewritten in place with the same size (another writer's bytes).
    vbw::WriteFile(kFile, "[a]\nx=2\n");
    EXPECT_EQ("1:x=2;", Section(kFile, "a"));

    // Replaced by rename from a child process.
    pid_t child = fork();
    if (child == 0) {
        Hash h({{"x", "3"}});
        _exit(VLIBCFileSetSection(kFile.c_str(), "a", nullptr, h.hash, 0) == 1 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_EQ(0, status);
    EXPECT_EQ("1:x=3;", Section(kFile, "a"));

    // Appended to.
    int fd = open(kFile.c_str(), O_WRONLY | O_APPEND);
    ASSERT_EQ(6, write(fd, "[b]\ny\n", 6));
    close(fd);
    EXPECT_EQ("1:", Section(kFile, "b"));
    VLIBC_SZLIST *names = nullptr;
    EXPECT_EQ(2, VLIBCFileEnumSection(kFile.c_str(), &names));
    VLIBCSzListFree(names);
}

TEST_F(PlatformTest, TouchAndExist)
{
    EXPECT_EQ(0, VLIBCFileExist("/tmp/t"));
    mode_t old = umask(0);
    EXPECT_EQ(0, VLIBCFileTouch("/tmp/t"));
    umask(old);
    EXPECT_EQ(1, VLIBCFileExist("/tmp/t"));
    struct stat st {};
    ASSERT_EQ(0, stat("/tmp/t", &st));
    EXPECT_EQ(0666u, st.st_mode & 07777);
    vbw::WriteFile("/tmp/t", "keep");
    EXPECT_EQ(0, VLIBCFileTouch("/tmp/t"));
    EXPECT_EQ("keep", vbw::ReadFile("/tmp/t"));
    EXPECT_EQ(-1, VLIBCFileTouch("/tmp/no/such/dir/t"));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
}

TEST_F(PlatformTest, AccountsComeFromTheSystemDatabase)
{
    VESK_USER *user = nullptr;
    ASSERT_EQ(0, VESKUserGet("alice", &user));
    EXPECT_STREQ("alice", user->szName);
    EXPECT_EQ(1026u, user->uid);
    EXPECT_EQ(100u, user->gid);
    VESKUserFree(user);
    ASSERT_EQ(0, VESKUserGetByUID(1027, &user));
    EXPECT_STREQ("bob", user->szName);
    VESKUserFree(user);
    EXPECT_EQ(-1, VESKUserGet("mallory", &user));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    EXPECT_EQ(-1, VESKUserGetByUID(4242, &user));

    uid_t uid = 0;
    gid_t gid = 0;
    ASSERT_EQ(0, VESKUserGetUGID("dave", &uid, &gid));
    EXPECT_EQ(1029u, uid);
    EXPECT_EQ(101u, gid);
    ASSERT_EQ(0, VESKUserGetUGID("erin", &uid, nullptr));
    EXPECT_EQ(1030u, uid);

    VESK_GROUP *group = nullptr;
    ASSERT_EQ(0, VESKGroupGetByGID(102, &group));
    EXPECT_STREQ("media", group->szName);
    VESKGroupFree(group);
    EXPECT_EQ(-1, VESKGroupGetByGID(4242, &group));

    VLIBC_SZLIST *groups = VLIBGroupInfoListGet("alice", 0);
    ASSERT_NE(nullptr, groups);
    std::string all;
    for (int i = 0; i < VLIBCSzListCount(groups); ++i) {
        all += std::string(VLIBCSzListGet(groups, i)) + ",";
    }
    EXPECT_EQ("100,101,103,", all);
    VLIBCSzListFree(groups);
    EXPECT_EQ(nullptr, VLIBGroupInfoListGet("mallory", 0));
}

TEST_F(PlatformTest, GroupListHasNoFixedCap)
{
    std::string groups = vbw::ReadFile("/etc/group");
    for (int gid = 2000; gid < 3100; ++gid) {
        groups += "g" + std::to_string(gid) + ":x:" + std::to_string(gid) + ":frank\n";
    }
    vbw::WriteFile("/etc/group", groups);
    VLIBC_SZLIST *list = VLIBGroupInfoListGet("frank", 0);
    ASSERT_NE(nullptr, list);
    ASSERT_EQ(1101, VLIBCSzListCount(list));
    EXPECT_STREQ("100", VLIBCSzListGet(list, 0));
    EXPECT_STREQ("3099", VLIBCSzListGet(list, 1100));
    VLIBCSzListFree(list);
}

TEST_F(PlatformTest, MkdirExecAndPidFiles)
{
    mode_t old = umask(0);
    EXPECT_EQ(0, VESKFSMkdirP("/tmp/a/b/c/", 0, 1, (uid_t)-1, (gid_t)-1, 0777));
    umask(old);
    struct stat st {};
    ASSERT_EQ(0, stat("/tmp/a/b/c", &st));
    EXPECT_EQ(0777u, st.st_mode & 07777);
    EXPECT_EQ(0, VESKFSMkdirP("/tmp/a/b/c", 0, 1, 1026, 100, -1));  // exists: success, untouched
    EXPECT_EQ(-1, VESKFSMkdirP("/tmp/x/y", 0, 0, (uid_t)-1, (gid_t)-1, -1));
    vbw::WriteFile("/tmp/file", "");
    EXPECT_EQ(-1, VESKFSMkdirP("/tmp/file", 0, 1, (uid_t)-1, (gid_t)-1, -1));
    EXPECT_EQ(0, VESKFSMkdirP("/tmp/owned", 0, 1, 1026, 100, -1));
    ASSERT_EQ(0, stat("/tmp/owned", &st));
    EXPECT_EQ(1026u, st.st_uid);
    EXPECT_EQ(0755u & ~old, st.st_mode & 07777);

    EXPECT_EQ(0, VLIBCExec("/bin/sh", "-c", "test \"$0\" = x", "x", nullptr));
    EXPECT_EQ(3, VLIBCExec("/bin/sh", "-c", "exit 3", nullptr, "ignored after the first NULL"));
    EXPECT_EQ(127, VLIBCExec("/no/such/program", nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(0, VLIBCExec("/bin/sh", "-c", "test $# -eq 0", nullptr, nullptr));

    const char *pidFile = "/tmp/pid";
    EXPECT_EQ(-1, VLIBCReadPidFile(pidFile));
    vbw::WriteFile(pidFile, " 1234\n");
    EXPECT_EQ(1234, VLIBCReadPidFile(pidFile));
    for (const char *bad : {"", "12x\n", "0\n", "-5\n", "99999999999\n"}) {
        vbw::WriteFile(pidFile, bad);
        EXPECT_EQ(-1, VLIBCReadPidFile(pidFile)) << bad;
    }
}

}  // namespace

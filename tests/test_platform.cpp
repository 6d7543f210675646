// Platform string hash and list, error state, accounts, directories and processes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "vbw_throttle_fixture.h"
#include "vesk_account.h"
#include "vesk_system.h"

namespace {

using Names = std::vector<std::string>;

class PlatformTest : public vbw::SandboxTest {};

Names Strings(VLIBC_SZLIST *pList)
{
    Names strings;
    for (int i = 0; i < VLIBCSzListCount(pList); ++i) {
        strings.push_back(VLIBCSzListGet(pList, i));
    }
    VLIBCSzListFree(pList);
    return strings;
}

// The user's group list, or {"NULL"} when the call fails.
Names Groups(const char *szUser)
{
    VLIBC_SZLIST *pList = VLIBGroupInfoListGet(szUser, 0);
    return pList == nullptr ? Names{"NULL"} : Strings(pList);
}

TEST_F(PlatformTest, HashAndListKeepInsertionOrderAndCopies)
{
    VLIBC_SZHASH *pHash = nullptr;  // SetValue allocates; keys and values are copied
    char key[32];
    for (int i = 0; i < 5000; ++i) {  // past the size where the hash builds its index
        snprintf(key, sizeof(key), "key-%d", i);
        ASSERT_EQ(0, VLIBCSzHashSetValue(&pHash, key, key + 4));
    }
    strcpy(key, "overwritten");
    ASSERT_EQ(0, VLIBCSzHashSetValue(&pHash, "key-3", "again"));  // replaced in place
    EXPECT_EQ(5000, VLIBCSzHashCount(pHash));
    EXPECT_STREQ("key-2500", VLIBCSzHashKeyAt(pHash, 2500));
    EXPECT_STREQ("again", VLIBCSzHashValueAt(pHash, 3));
    EXPECT_STREQ("4999", VLIBCSzHashGetValue(pHash, "key-4999"));
    EXPECT_EQ(0, VLIBCHashRemoveAll(pHash));  // emptied, it serves small sections again
    ASSERT_EQ(0, VLIBCSzHashSetValue(&pHash, "key-1", "a"));
    ASSERT_EQ(0, VLIBCSzHashSetValue(&pHash, "key-1", "b"));
    EXPECT_EQ((vbw::Pairs{{"key-1", "b"}}), (vbw::Pairs{{VLIBCSzHashKeyAt(pHash, 0), VLIBCSzHashValueAt(pHash, 0)}}));
    EXPECT_EQ(1, VLIBCSzHashCount(pHash));
    VLIBCSzHashFree(pHash);

    VLIBC_SZLIST *pList = nullptr;  // Push allocates
    ASSERT_EQ(0, VLIBCSzListPush(&pList, "first"));
    ASSERT_EQ(0, VLIBCSzListPush(&pList, "second"));
    EXPECT_EQ(nullptr, VLIBCSzListGet(pList, 2));
    EXPECT_EQ((Names{"first", "second"}), Strings(pList));
}

TEST_F(PlatformTest, ErrorStateIsPerThreadAndCopiesTheFileName)
{
    char name[] = "module.cpp";
    VLIBCErrSetEx(BW_ERR_NOT_FOUND, name, 42);
    strcpy(name, "xxxxxx.cpp");
    std::string seen;
    std::thread([&] {
        seen = std::to_string(VLIBCErrGet()) + VLIBCErrorGetFile();
        VLIBCErrSetEx(BW_ERR_FILE_OPEN, "other.cpp", 7);
    }).join();
    EXPECT_EQ("0", seen);  // a new thread starts without an error
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    EXPECT_STREQ("module.cpp", VLIBCErrorGetFile());
    EXPECT_EQ(42, VLIBCErrorGetLine());
}

// Accounts come from the sandbox's fixture /etc/passwd and /etc/group; group
// lists give the primary group first, each group once.
TEST_F(PlatformTest, AccountsAndGroupListsNeedNoFixedCap)
{
    EXPECT_EQ((Names{"102", "103"}), Groups("erin"));  // also listed in media
    EXPECT_EQ(Names{"NULL"}, Groups("mallory"));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    // alice in 1500 more groups; one group with 3000 members; a user with a long comment.
    std::string groups = vbw::ReadFile("/etc/group"), members = "member";
    for (int i = 0; i < 1500; ++i) {
        groups += "g" + std::to_string(i) + ":x:" + std::to_string(5000 + i) + ":bob,alice\n";
    }
    for (int i = 1; i < 3000; ++i) {
        members += ",member" + std::to_string(i);
    }
    vbw::WriteFile("/etc/group", groups + "crowd:x:9000:" + members + "\n");
    vbw::WriteFile("/etc/passwd", vbw::ReadFile("/etc/passwd") + "long:x:2000:100:" + std::string(20000, 'c') +
                                      ":/home/long:/bin/sh\n");

    Names gids = Groups("alice");
    ASSERT_EQ(1503u, gids.size());
    EXPECT_EQ((Names{"100", "101", "103", "5000"}), Names(gids.begin(), gids.begin() + 4));
    EXPECT_EQ("6499", gids[1502]);
    VESK_GROUP *pGroup = nullptr;
    ASSERT_EQ(0, VESKGroupGetByGID(9000, &pGroup));
    EXPECT_STREQ("crowd", pGroup->szName);
    VESKGroupFree(pGroup);
    VESK_USER *pUser = nullptr;
    ASSERT_EQ(0, VESKUserGetByUID(2000, &pUser));
    EXPECT_STREQ("long", pUser->szName);
    VESKUserFree(pUser);
}

TEST_F(PlatformTest, MkdirPCreatesParentsWithModeAndOwner)
{
    umask(022);
    ASSERT_EQ(0, VESKFSMkdirP("/usr/vesk/etc/bandwidth/", 0, 1, 1026, 100, 0770));
    for (const char *dir : {"/usr/vesk", "/usr/vesk/etc/bandwidth"}) {
        struct stat st = vbw::Stat(dir);
        EXPECT_EQ(S_IFDIR | 0750u, st.st_mode) << dir;
        EXPECT_EQ(1026u, st.st_uid) << dir;
        EXPECT_EQ(100u, st.st_gid) << dir;
    }
    EXPECT_EQ(0u, vbw::Stat("/usr").st_uid);  // existing directories are left alone

    vbw::WriteFile("/tmp/file", "x");  // a file in the way or a missing parent without -p fails
    EXPECT_GT(0, VESKFSMkdirP("/tmp/file/sub", 0, 1, (uid_t)-1, (gid_t)-1, -1));
    EXPECT_GT(0, VESKFSMkdirP("/tmp/none/sub", 0, 0, (uid_t)-1, (gid_t)-1, -1));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
    EXPECT_FALSE(vbw::Exists("/tmp/none"));
}

// The child's output never reaches the caller's standard output or error.
TEST_F(PlatformTest, ExecPassesArgumentsUpToTheFirstNullAndSilencesTheChild)
{
    fflush(stdout);
    fflush(stderr);
    int saved[2] = {dup(1), dup(2)};
    int out = open("/tmp/out", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(out, 1);
    dup2(out, 2);
    int status = VLIBCExec("/bin/sh", "-c", "echo out; echo err >&2; exit 3", nullptr, nullptr);
    dup2(saved[0], 1);
    dup2(saved[1], 2);
    for (int fd : {out, saved[0], saved[1]}) {
        close(fd);
    }
    EXPECT_EQ(3, status);
    EXPECT_EQ("", vbw::ReadFile("/tmp/out"));

    EXPECT_EQ(0, VLIBCExec("/bin/sh", "-c", "printf '%s|' \"$0\" \"$#\" > /tmp/args", "zero", nullptr));
    EXPECT_EQ("zero|0|", vbw::ReadFile("/tmp/args"));
    EXPECT_EQ(0, VLIBCExec("/bin/sh", "-c", "printf '%s|' \"$0\" \"$#\" > /tmp/args", nullptr, "ignored"));
    EXPECT_EQ("/bin/sh|0|", vbw::ReadFile("/tmp/args"));  // argv[0] is the path
    EXPECT_EQ(0, VLIBCExec("/bin/sh", "-c", "[ \"$0\" = '$HOME' ] && [ \"$1\" = '*' ]", "$HOME", "*"));  // no shell
    EXPECT_EQ(127, VLIBCExec("/no/such/program", nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, VLIBCExec("/bin/sh", "-c", "kill -9 $$", nullptr, nullptr));
}

TEST_F(PlatformTest, ReadPidFileAcceptsOnlyAPositiveNumber)
{
    const char *szPath = "/run/test.pid";
    for (const auto &[text, pid] : std::vector<std::pair<std::string, int>>{
             {"  4321\n", 4321}, {"17", 17}, {"", -1}, {"\n", -1}, {"0\n", -1}, {"-5\n", -1}, {"12a\n", -1},
             {"1 2\n", -1}, {"99999999999\n", -1}, {"+7\n", -1}, {std::string(100, ' ') + "5\n", -1}}) {
        vbw::WriteFile(szPath, text);
        EXPECT_EQ(pid, VLIBCReadPidFile(szPath)) << text;
        EXPECT_TRUE(pid > 0 || BW_ERR_BAD_VALUE == VLIBCErrGet()) << text;
    }
    EXPECT_EQ(-1, VLIBCReadPidFile("/run/missing.pid"));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
}

}  // namespace

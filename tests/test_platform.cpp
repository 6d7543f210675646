// Platform string hash, string list, error state, accounts and group lists
// (against the sandbox's fixture /etc/passwd and /etc/group), directories
// and processes.
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

TEST_F(PlatformTest, HashAndListKeepInsertionOrderAndGrow)
{
    vbw::Hash hash({{"zeta", "1"}, {"alpha", "2"}, {"current speed", "3"}});
    ASSERT_EQ(0, VLIBCSzHashSetValue(hash.Address(), "alpha", "second"));  // replaced in place
    EXPECT_EQ((vbw::Pairs{{"zeta", "1"}, {"alpha", "second"}, {"current speed", "3"}}), hash.Contents());
    EXPECT_EQ(nullptr, hash["absent"]);
    EXPECT_EQ(nullptr, VLIBCSzHashKeyAt(hash, 3));
    EXPECT_EQ(nullptr, VLIBCSzHashValueAt(hash, -1));
    EXPECT_EQ(0, VLIBCHashRemoveAll(hash));
    EXPECT_EQ(nullptr, hash["zeta"]);
    ASSERT_EQ(0, VLIBCSzHashSetValue(hash.Address(), "mid", "again"));
    EXPECT_EQ((vbw::Pairs{{"mid", "again"}}), hash.Contents());

    VLIBC_SZHASH *pHash = nullptr;  // SetValue allocates; keys and values are copied
    char key[32], value[32];
    for (int i = 0; i < 5000; ++i) {
        snprintf(key, sizeof(key), "key-%d", i);
        snprintf(value, sizeof(value), "value-%d", i);
        ASSERT_EQ(0, VLIBCSzHashSetValue(&pHash, key, value));
    }
    strcpy(key, "overwritten");
    strcpy(value, "overwritten");
    ASSERT_EQ(5000, VLIBCSzHashCount(pHash));
    EXPECT_STREQ("value-0", VLIBCSzHashGetValue(pHash, "key-0"));
    EXPECT_STREQ("value-4999", VLIBCSzHashGetValue(pHash, "key-4999"));
    EXPECT_STREQ("key-2500", VLIBCSzHashKeyAt(pHash, 2500));
    ASSERT_EQ(0, VLIBCSzHashSetValue(&pHash, "key-3", "again"));  // replaced in a large hash too
    EXPECT_EQ(5000, VLIBCSzHashCount(pHash));
    EXPECT_STREQ("again", VLIBCSzHashGetValue(pHash, "key-3"));
    EXPECT_EQ(0, VLIBCHashRemoveAll(pHash));  // emptied, it serves small sections again
    EXPECT_EQ(nullptr, VLIBCSzHashGetValue(pHash, "key-0"));
    ASSERT_EQ(0, VLIBCSzHashSetValue(&pHash, "key-1", "a"));
    ASSERT_EQ(0, VLIBCSzHashSetValue(&pHash, "key-1", "b"));
    EXPECT_EQ(1, VLIBCSzHashCount(pHash));
    EXPECT_STREQ("b", VLIBCSzHashGetValue(pHash, "key-1"));
    VLIBCSzHashFree(pHash);
    VLIBCSzHashFree(nullptr);

    pHash = nullptr;
    EXPECT_GT(0, VLIBCSzHashSetValue(nullptr, "k", "v"));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_GT(0, VLIBCSzHashSetValue(&pHash, nullptr, "v"));
    EXPECT_GT(0, VLIBCSzHashSetValue(&pHash, "k", nullptr));
    EXPECT_EQ(nullptr, pHash);

    // A list keeps push order and copies what it is given.
    VLIBC_SZLIST *pList = nullptr;  // Push allocates
    std::string text = "first";
    ASSERT_EQ(0, VLIBCSzListPush(&pList, text.c_str()));
    text = "changed";
    ASSERT_EQ(0, VLIBCSzListPush(&pList, "second"));
    EXPECT_GT(0, VLIBCSzListPush(&pList, nullptr));
    EXPECT_EQ(nullptr, VLIBCSzListGet(pList, 2));
    EXPECT_EQ(nullptr, VLIBCSzListGet(pList, -1));
    EXPECT_EQ((Names{"first", "second"}), Strings(pList));
    EXPECT_EQ(0, VLIBCSzListCount(nullptr));
}

TEST_F(PlatformTest, ErrorStateIsPerThreadAndCopiesTheFileName)
{
    std::string seen;
    std::thread([&] { seen = std::to_string(VLIBCErrGet() + VLIBCErrorGetLine()) + VLIBCErrorGetFile(); }).join();
    EXPECT_EQ("0", seen);  // a new thread starts without an error

    char name[] = "module.cpp";
    VLIBCErrSetEx(BW_ERR_NOT_FOUND, name, 42);
    strcpy(name, "xxxxxx.cpp");
    std::thread([&] { VLIBCErrSetEx(BW_ERR_FILE_OPEN, "other.cpp", 7); }).join();
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    EXPECT_STREQ("module.cpp", VLIBCErrorGetFile());
    EXPECT_EQ(42, VLIBCErrorGetLine());

    std::string longName(1000, 'n');
    VLIBCErrSetEx(BW_ERR_FILE_READ, longName.c_str(), 1);
    EXPECT_EQ(0, strncmp(longName.c_str(), VLIBCErrorGetFile(), strlen(VLIBCErrorGetFile())));
    VLIBCErrSetEx(BW_ERR_FILE_READ, nullptr, 2);
    EXPECT_STREQ("", VLIBCErrorGetFile());
}

TEST_F(PlatformTest, LooksUpUsersAndGroups)
{
    VESK_USER *pUser = nullptr;
    ASSERT_EQ(0, VESKUserGet("dave", &pUser));
    EXPECT_STREQ("dave", pUser->szName);
    EXPECT_EQ(1029u, pUser->uid);
    EXPECT_EQ(101u, pUser->gid);
    VESKUserFree(pUser);
    ASSERT_EQ(0, VESKUserGetByUID(1030, &pUser));
    EXPECT_STREQ("erin", pUser->szName);
    EXPECT_EQ(102u, pUser->gid);
    VESKUserFree(pUser);
    uid_t uid = 0;
    gid_t gid = 0;
    EXPECT_EQ(0, VESKUserGetUGID("alice", &uid, nullptr));
    EXPECT_EQ(1026u, uid);
    EXPECT_EQ(0, VESKUserGetUGID("bob", &uid, &gid));
    EXPECT_EQ(1027u, uid);
    EXPECT_EQ(100u, gid);
    VESK_GROUP *pGroup = nullptr;
    ASSERT_EQ(0, VESKGroupGetByGID(103, &pGroup));
    EXPECT_STREQ("backup", pGroup->szName);
    VESKGroupFree(pGroup);

    // The primary group first, each group once.
    EXPECT_EQ((Names{"100", "101", "103"}), Groups("alice"));
    EXPECT_EQ((Names{"100", "102", "103"}), Groups("bob"));
    EXPECT_EQ((Names{"102", "103"}), Groups("erin"));  // also listed in media
    EXPECT_EQ((Names{"100"}), Groups("frank"));

    // Unknown accounts are not found.
    pUser = nullptr;
    pGroup = nullptr;
    EXPECT_GT(0, VESKUserGet("mallory", &pUser));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    EXPECT_GT(0, VESKUserGetByUID(4242, &pUser));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    EXPECT_GT(0, VESKGroupGetByGID(4242, &pGroup));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    EXPECT_GT(0, VESKUserGetUGID("mallory", &uid, nullptr));
    EXPECT_TRUE(nullptr == pUser && nullptr == pGroup);
    EXPECT_EQ(Names{"NULL"}, Groups("mallory"));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
}

TEST_F(PlatformTest, LargeDatabaseEntriesNeedNoFixedCap)
{
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
    for (const char *dir : {"/usr/vesk", "/usr/vesk/etc", "/usr/vesk/etc/bandwidth"}) {
        struct stat st = vbw::Stat(dir);
        EXPECT_EQ(S_IFDIR | 0750u, st.st_mode) << dir;
        EXPECT_EQ(1026u, st.st_uid) << dir;
        EXPECT_EQ(100u, st.st_gid) << dir;
    }
    EXPECT_EQ(0u, vbw::Stat("/usr").st_uid);  // existing directories are left alone
    EXPECT_EQ(0, VESKFSMkdirP("/usr/vesk/etc/bandwidth", 0, 1, 0, 0, -1));
    EXPECT_EQ(1026u, vbw::Stat("/usr/vesk/etc/bandwidth").st_uid);

    umask(0);
    ASSERT_EQ(0, VESKFSMkdirP("/tmp/bandwidth/", 0, 1, (uid_t)-1, (gid_t)-1, 0777));
    EXPECT_EQ(0777u, vbw::Stat("/tmp/bandwidth").st_mode & 07777);
    EXPECT_EQ(0u, vbw::Stat("/tmp/bandwidth").st_uid);
    ASSERT_EQ(0, VESKFSMkdirP("/tmp//deep///a/b", 0, 1, (uid_t)-1, (gid_t)-1, -1));
    EXPECT_EQ(0755u, vbw::Stat("/tmp/deep/a").st_mode & 07777);

    // A file in the way or a missing parent without -p fails.
    vbw::WriteFile("/tmp/file", "x");
    EXPECT_GT(0, VESKFSMkdirP("/tmp/file", 0, 1, (uid_t)-1, (gid_t)-1, -1));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
    EXPECT_GT(0, VESKFSMkdirP("/tmp/file/sub", 0, 1, (uid_t)-1, (gid_t)-1, -1));
    EXPECT_GT(0, VESKFSMkdirP("/tmp/none/sub", 0, 0, (uid_t)-1, (gid_t)-1, -1));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
    EXPECT_FALSE(vbw::Exists("/tmp/none"));
    EXPECT_EQ(0, VESKFSMkdirP("/tmp/single", 0, 0, (uid_t)-1, (gid_t)-1, -1));
    EXPECT_TRUE(vbw::Exists("/tmp/single"));
}

TEST_F(PlatformTest, ExecPassesArgumentsUpToTheFirstNullAndReturnsTheExitStatus)
{
    EXPECT_EQ(3, VLIBCExec("/bin/sh", "-c", "exit 3", nullptr, nullptr));
    EXPECT_EQ(0, VLIBCExec("/bin/sh", "-c", "printf '%s|' \"$0\" \"$@\" > /tmp/args", "zero", "one"));
    EXPECT_EQ("zero|one|", vbw::ReadFile("/tmp/args"));
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

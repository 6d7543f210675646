// Platform accounts, group lists, directories and processes, against the
// sandbox's fixture /etc/passwd and /etc/group.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "vesk_account.h"
#include "vesk_error.h"
#include "vesk_hash.h"
#include "vesk_system.h"
#include "vbw_test.h"

namespace {

class PlatformSystem : public vbw::SandboxTest {};

// The user's group list, or {"NULL"} when the call fails.
std::vector<std::string> Groups(const char *szUser)
{
    VLIBC_SZLIST *pList = VLIBGroupInfoListGet(szUser, 0);
    if (pList == nullptr) {
        return {"NULL"};
    }
    std::vector<std::string> gids;
    for (int i = 0; i < VLIBCSzListCount(pList); ++i) {
        gids.push_back(VLIBCSzListGet(pList, i));
    }
    VLIBCSzListFree(pList);
    return gids;
}

struct stat Stat(const char *szPath)
{
    struct stat st = {};
    EXPECT_EQ(0, stat(szPath, &st)) << szPath;
    return st;
}

// ---------------------------------------------------------------- accounts

TEST_F(PlatformSystem, LooksUpUsersAndGroups)
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
    EXPECT_EQ(103u, pGroup->gid);
    VESKGroupFree(pGroup);
}

TEST_F(PlatformSystem, UnknownAccountsAreNotFound)
{
    VESK_USER *pUser = nullptr;
    VESK_GROUP *pGroup = nullptr;
    uid_t uid = 0;
    EXPECT_GT(0, VESKUserGet("mallory", &pUser));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    EXPECT_GT(0, VESKUserGetByUID(4242, &pUser));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    EXPECT_GT(0, VESKGroupGetByGID(4242, &pGroup));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    EXPECT_GT(0, VESKUserGetUGID("mallory", &uid, nullptr));
    EXPECT_EQ(nullptr, pUser);
    EXPECT_EQ(nullptr, pGroup);
    EXPECT_EQ(std::vector<std::string>{"NULL"}, Groups("mallory"));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
}

TEST_F(PlatformSystem, GroupListHasThePrimaryGroupFirstAndEachGroupOnce)
{
    EXPECT_EQ((std::vector<std::string>{"100", "101", "103"}), Groups("alice"));
    EXPECT_EQ((std::vector<std::string>{"100", "102", "103"}), Groups("bob"));
    EXPECT_EQ((std::vector<std::string>{"102", "103"}), Groups("erin"));  // also listed in media
    EXPECT_EQ((std::vector<std::string>{"100"}), Groups("frank"));
}

TEST_F(PlatformSystem, LargeDatabaseEntriesNeedNoFixedCap)
{
    // alice in 1500 more groups; one group with 3000 members; a user with a long comment.
    std::string groups = vbw::ReadFile("/etc/group");
    for (int i = 0; i < 1500; ++i) {
        groups += "g" + std::to_string(i) + ":x:" + std::to_string(5000 + i) + ":bob,alice\n";
    }
    std::string members;
    for (int i = 0; i < 3000; ++i) {
        members += (i ? ",member" : "member") + std::to_string(i);
    }
    groups += "crowd:x:9000:" + members + "\n";
    vbw::WriteFile("/etc/group", groups);
    vbw::WriteFile("/etc/passwd", vbw::ReadFile("/etc/passwd") + "long:x:2000:100:" + std::string(20000, 'c') +
                                      ":/home/long:/bin/sh\n");

    std::vector<std::string> gids = Groups("alice");
    ASSERT_EQ(1503u, gids.size());
    EXPECT_EQ("100", gids[0]);
    EXPECT_EQ("101", gids[1]);
    EXPECT_EQ("103", gids[2]);
    EXPECT_EQ("5000", gids[3]);
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

// ---------------------------------------------------------------- directories

TEST_F(PlatformSystem, MkdirPCreatesParentsWithModeAndOwner)
{
    umask(022);
    ASSERT_EQ(0, VESKFSMkdirP("/usr/vesk/etc/bandwidth/", 0, 1, 1026, 100, 0770));
    for (const char *dir : {"/usr/vesk", "/usr/vesk/etc", "/usr/vesk/etc/bandwidth"}) {
        struct stat st = Stat(dir);
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << dir;
        EXPECT_EQ(0750u, st.st_mode & 07777) << dir;
        EXPECT_EQ(1026u, st.st_uid) << dir;
        EXPECT_EQ(100u, st.st_gid) << dir;
    }
    EXPECT_EQ(0u, Stat("/usr").st_uid);  // existing directories are left alone

    EXPECT_EQ(0, VESKFSMkdirP("/usr/vesk/etc/bandwidth", 0, 1, 0, 0, -1));
    EXPECT_EQ(1026u, Stat("/usr/vesk/etc/bandwidth").st_uid);

    umask(0);
    ASSERT_EQ(0, VESKFSMkdirP("/tmp/bandwidth/", 0, 1, (uid_t)-1, (gid_t)-1, 0777));
    EXPECT_EQ(0777u, Stat("/tmp/bandwidth").st_mode & 07777);
    EXPECT_EQ(0u, Stat("/tmp/bandwidth").st_uid);
    ASSERT_EQ(0, VESKFSMkdirP("/tmp//deep///a/b", 0, 1, (uid_t)-1, (gid_t)-1, -1));
    EXPECT_EQ(0755u, Stat("/tmp/deep/a").st_mode & 07777);
}

TEST_F(PlatformSystem, MkdirPFailsOnAFileOrAMissingParent)
{
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

// ---------------------------------------------------------------- processes

TEST_F(PlatformSystem, ExecPassesArgumentsUpToTheFirstNullAndReturnsTheExitStatus)
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

TEST_F(PlatformSystem, ReadPidFileAcceptsOnlyAPositiveNumber)
{
    const char *szPath = "/run/test.pid";
    vbw::WriteFile(szPath, "  4321\n");
    EXPECT_EQ(4321, VLIBCReadPidFile(szPath));
    vbw::WriteFile(szPath, "17");
    EXPECT_EQ(17, VLIBCReadPidFile(szPath));
    for (const char *text : {"", "\n", "0\n", "-5\n", "12a\n", "1 2\n", "99999999999\n", "+7\n"}) {
        vbw::WriteFile(szPath, text);
        EXPECT_EQ(-1, VLIBCReadPidFile(szPath)) << text;
        EXPECT_EQ(BW_ERR_BAD_VALUE, VLIBCErrGet());
    }
    vbw::WriteFile(szPath, std::string(100, ' ') + "5\n");
    EXPECT_EQ(-1, VLIBCReadPidFile(szPath));
    EXPECT_EQ(-1, VLIBCReadPidFile("/run/missing.pid"));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
}

}  // namespace

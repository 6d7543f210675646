// Platform section files: reading, atomic rewriting, syntax safety, the cache.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "vesk_error.h"
#include "vesk_file.h"
#include "vesk_hash.h"
#include "vbw_test.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

const char kDir[] = "/tmp/ptest";
const char kPath[] = "/tmp/ptest/file.conf";

class PlatformFile : public vbw::SandboxTest {
protected:
    void SetUp() override
    {
        vbw::SandboxTest::SetUp();
        vbw::MakeDirs(kDir);
    }
    void TearDown() override
    {
        VLIBCSzHashFree(hash_);
        VLIBCSzListFree(list_);
    }

    // A hash holding the pairs, in order; owned by the fixture.
    const VLIBC_SZHASH *Hash(std::initializer_list<std::pair<const char *, const char *>> pairs)
    {
        VLIBCSzHashFree(hash_);
        hash_ = VLIBCSzHashAlloc(8);
        for (const auto &pair : pairs) {
            EXPECT_EQ(0, VLIBCSzHashSetValue(&hash_, pair.first, pair.second));
        }
        return hash_;
    }

    // The section's pairs in order; the GetSection result in *piResult.
    Pairs Read(const char *szSection, int *piResult = nullptr, const char *szPath = kPath)
    {
        VLIBC_SZHASH *pHash = nullptr;
        int iResult = VLIBCFileGetSection(szPath, szSection, &pHash);
        if (piResult != nullptr) {
            *piResult = iResult;
        }
        Pairs pairs;
        for (int i = 0; i < VLIBCSzHashCount(pHash); ++i) {
            pairs.emplace_back(VLIBCSzHashKeyAt(pHash, i), VLIBCSzHashValueAt(pHash, i));
        }
        VLIBCSzHashFree(pHash);
        return pairs;
    }

    std::vector<std::string> Sections(const char *szPath = kPath)
    {
        VLIBCSzListFree(list_);
        list_ = nullptr;
        int count = VLIBCFileEnumSection(szPath, &list_);
        std::vector<std::string> names;
        for (int i = 0; i < VLIBCSzListCount(list_); ++i) {
            names.push_back(VLIBCSzListGet(list_, i));
        }
        EXPECT_EQ(count, static_cast<int>(names.size()));
        return names;
    }

    VLIBC_SZHASH *hash_ = nullptr;
    VLIBC_SZLIST *list_ = nullptr;
};

struct stat Stat(const char *szPath)
{
    struct stat st;
    memset(&st, 0, sizeof(st));
    EXPECT_EQ(0, lstat(szPath, &st)) << szPath;
    return st;
}

// Runs the function in a child process and waits for it.
template <typename F>
void InChild(F f)
{
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        f();
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

// Replaces the file by rename, as another writer would.
void RenameOver(const std::string &content)
{
    std::string temp = std::string(kPath) + ".other";
    vbw::WriteFile(temp, content);
    ASSERT_EQ(0, rename(temp.c_str(), kPath));
}

// ---------------------------------------------------------------- readers

TEST_F(PlatformFile, ReadsPairsOfTheFirstSectionOfItsName)
{
    vbw::WriteFile(kPath,
                   "outside=1\n"
                   "[user-1026]\n"
                   "# comment=no\n"
                   "; also=no\n"
                   "\n"
                   "current speed=5\n"
                   "path=/a=b/c \r\n"
                   "noequals\n"
                   "=empty key\n"
                   "[bad=header\n"
                   "[x]y=z\n"
                   "current speed=7\n"
                   "[user-1026]\n"
                   "second=copy\n"
                   "[last]\n"
                   "tail=no newline");
    int iResult = 0;
    EXPECT_EQ((Pairs{{"current speed", "7"}, {"path", "/a=b/c \r"}}), Read("user-1026", &iResult));
    EXPECT_EQ(1, iResult);
    EXPECT_EQ((Pairs{{"tail", "no newline"}}), Read("last"));
    EXPECT_EQ((std::vector<std::string>{"user-1026", "last"}), Sections());

    EXPECT_EQ(Pairs{}, Read("user-1027", &iResult));
    EXPECT_EQ(0, iResult);
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
}

TEST_F(PlatformFile, GetSectionAddsToTheCallersHash)
{
    vbw::WriteFile(kPath, "[s]\nb=2\na=1\n[empty]\n");
    VLIBC_SZHASH *pHash = VLIBCSzHashAlloc(4);
    ASSERT_EQ(0, VLIBCSzHashSetValue(&pHash, "a", "old"));
    ASSERT_EQ(0, VLIBCSzHashSetValue(&pHash, "kept", "yes"));
    EXPECT_EQ(1, VLIBCFileGetSection(kPath, "s", &pHash));
    EXPECT_EQ(3, VLIBCSzHashCount(pHash));
    EXPECT_STREQ("1", VLIBCSzHashGetValue(pHash, "a"));
    EXPECT_STREQ("a", VLIBCSzHashKeyAt(pHash, 0));
    EXPECT_STREQ("yes", VLIBCSzHashGetValue(pHash, "kept"));
    VLIBCSzHashFree(pHash);

    VLIBC_SZHASH *pNew = nullptr;
    EXPECT_EQ(1, VLIBCFileGetSection(kPath, "empty", &pNew));
    ASSERT_NE(nullptr, pNew);  // an empty section still hands out a hash
    EXPECT_EQ(0, VLIBCSzHashCount(pNew));
    VLIBCSzHashFree(pNew);
}

TEST_F(PlatformFile, ReadersFailOnMissingFilesAndDirectories)
{
    VLIBC_SZHASH *pHash = nullptr;
    VLIBC_SZLIST *pList = nullptr;
    EXPECT_EQ(-1, VLIBCFileGetSection("/tmp/ptest/missing", "s", &pHash));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
    EXPECT_EQ(-1, VLIBCFileEnumSection(kDir, &pList));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
    EXPECT_EQ(nullptr, pHash);
    EXPECT_EQ(nullptr, pList);
    EXPECT_EQ(0, VLIBCFileExist("/tmp/ptest/missing"));
    EXPECT_EQ(1, VLIBCFileExist(kDir));
}

TEST_F(PlatformFile, RecognisesHeaderLinesByTheirLength)
{
    const char buffer[] = "[1234-2]\n[next]";
    EXPECT_EQ(1, VLIBCIFileIsSection(buffer, 9));
    EXPECT_EQ(1, VLIBCIFileIsSection(buffer, 8));   // without its newline
    EXPECT_EQ(0, VLIBCIFileIsSection(buffer, 10));  // "[1234-2]\n[" is not one line
    EXPECT_EQ(0, VLIBCIFileIsSection(buffer, 7));
    EXPECT_EQ(1, VLIBCIFileMatchSection(buffer, 9, "1234-2"));
    EXPECT_EQ(0, VLIBCIFileMatchSection(buffer, 9, "1234-"));
    EXPECT_EQ(0, VLIBCIFileMatchSection(buffer, 9, "1234-22"));
    EXPECT_EQ(0, VLIBCIFileMatchSection(buffer + 9, 5, "next"));  // "[next" lacks ']'

    for (const char *line : {"[a]]\n", "[a]x\n", "[a]\r\n", " [a]\n", "[\n", "x]\n"}) {
        EXPECT_EQ(0, VLIBCIFileIsSection(line, strlen(line))) << line;
    }
    EXPECT_EQ(1, VLIBCIFileMatchSection("[a b]\n", 6, "a b"));
}

// ---------------------------------------------------------------- writers

TEST_F(PlatformFile, SetSectionReplacesOnlyThatSectionByteForByte)
{
    vbw::WriteFile(kPath,
                   "; head comment\n"
                   "\n"
                   "[one]\n"
                   "a=1\n"
                   "\n"
                   "[two]\n"
                   "# about two\n"
                   "old=x\n"
                   "\n"
                   "stray line\n"
                   "; trailing comment\n"
                   "[three]\n"
                   "c=3\n"
                   "unknown\n"
                   "# last, no newline",
                   0640);
    struct stat before = Stat(kPath);
    EXPECT_EQ(1, VLIBCFileSetSection(kPath, "two", nullptr, Hash({{"new", "y"}, {"current speed", "9"}}), 0));
    EXPECT_EQ("; head comment\n"
              "\n"
              "[one]\n"
              "a=1\n"
              "\n"
              "[two]\n"
              "new=y\n"
              "current speed=9\n"
              "# about two\n"
              "; trailing comment\n"
              "[three]\n"
              "c=3\n"
              "unknown\n"
              "# last, no newline",
              vbw::ReadFile(kPath));
    struct stat after = Stat(kPath);
    EXPECT_NE(before.st_ino, after.st_ino);  // replaced by rename
    EXPECT_EQ(0640u, after.st_mode & 07777);
}

TEST_F(PlatformFile, SetAndRemoveTreatEverySectionOfTheName)
{
    const std::string original = "[d]\nx=1\n[other]\ny=2\n[d]\n; note\nx=2";
    vbw::WriteFile(kPath, original);
    EXPECT_EQ(1, VLIBCFileSetSection(kPath, "d", nullptr, Hash({{"x", "9"}}), 0));
    EXPECT_EQ("[d]\nx=9\n[other]\ny=2\n[d]\nx=9\n; note\n", vbw::ReadFile(kPath));

    vbw::WriteFile(kPath, original);
    EXPECT_EQ(1, VLIBCFileRemoveSection(kPath, "d"));
    EXPECT_EQ("[other]\ny=2\n; note\n", vbw::ReadFile(kPath));
}

TEST_F(PlatformFile, AbsentSectionLeavesTheFileUntouched)
{
    vbw::WriteFile(kPath, "[a]\nk=v\n");
    struct stat before = Stat(kPath);
    EXPECT_EQ(0, VLIBCFileSetSection(kPath, "b", nullptr, Hash({{"k", "w"}}), 0));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    EXPECT_EQ(0, VLIBCFileRemoveSection(kPath, "b"));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    EXPECT_EQ(0, VLIBCFileAddSection(kPath, "a", Hash({{"k", "w"}}), 0));
    EXPECT_EQ(before.st_ino, Stat(kPath).st_ino);
    EXPECT_EQ("[a]\nk=v\n", vbw::ReadFile(kPath));

    EXPECT_EQ(-1, VLIBCFileSetSection("/tmp/ptest/missing", "a", nullptr, Hash({}), 0));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
    EXPECT_EQ(-1, VLIBCFileRemoveSection(kDir, "a"));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
}

TEST_F(PlatformFile, AddSectionAppendsAndCreates)
{
    umask(027);
    EXPECT_EQ(1, VLIBCFileAddSection(kPath, "first", Hash({{"a", "1"}}), 0));
    EXPECT_EQ("[first]\na=1\n", vbw::ReadFile(kPath));
    EXPECT_EQ(0640u, Stat(kPath).st_mode & 07777);
    EXPECT_EQ(1, VLIBCFileAddSection(kPath, "second", Hash({}), 0));
    EXPECT_EQ("[first]\na=1\n[second]\n", vbw::ReadFile(kPath));

    vbw::WriteFile(kPath, "# no newline", 0606);
    EXPECT_EQ(1, VLIBCFileAddSection(kPath, "s", Hash({{"k", "v"}}), 0));
    EXPECT_EQ("# no newline\n[s]\nk=v\n", vbw::ReadFile(kPath));
    EXPECT_EQ(0606u, Stat(kPath).st_mode & 07777);
    EXPECT_EQ((Pairs{{"k", "v"}}), Read("s"));
}

TEST_F(PlatformFile, ValuesNeverBreakALineAndBadNamesAreRefused)
{
    vbw::WriteFile(kPath, "[s]\nk=v\n");
    const char *szHostile = "x\n[evil]\nowner=root\n";
    EXPECT_EQ(1, VLIBCFileSetSection(kPath, "s", nullptr, Hash({{"name", szHostile}, {"h", "[t]"}}), 0));
    EXPECT_EQ("[s]\nname=x [evil] owner=root \nh=[t]\n", vbw::ReadFile(kPath));
    EXPECT_EQ((std::vector<std::string>{"s"}), Sections());
    EXPECT_EQ((Pairs{{"name", "x [evil] owner=root "}, {"h", "[t]"}}), Read("s"));

    const std::string before = vbw::ReadFile(kPath);
    for (const char *key : {"", "a=b", "a\nb", "[x", "#x", ";x"}) {
        EXPECT_EQ(-1, VLIBCFileSetSection(kPath, "s", nullptr, Hash({{"ok", "1"}, {key, "v"}}), 0)) << key;
        EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
        EXPECT_EQ(-1, VLIBCFileAddSection(kPath, "new", Hash({{key, "v"}}), 0)) << key;
    }
    for (const char *section : {"a]b", "a\nb", "s]"}) {
        EXPECT_EQ(-1, VLIBCFileAddSection(kPath, section, Hash({{"k", "v"}}), 0)) << section;
        EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    }
    EXPECT_EQ(-1, VLIBCFileAddSection(kPath, "s", nullptr, 0));
    EXPECT_EQ(before, vbw::ReadFile(kPath));
    EXPECT_TRUE(log.Contains("vesk_file.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("Invaild Argument (IsValidKey(szKey))=[0]")) << log.Dump();
}

TEST_F(PlatformFile, Hash2FileWritesTheSectionOrNothing)
{
    FILE *fp = tmpfile();
    ASSERT_NE(nullptr, fp);
    ASSERT_LE(0, fputs("before\n", fp));
    EXPECT_EQ(0, VLIBCFileHash2File(fp, "1234-2", Hash({{"b", "2"}, {"a", "x\ny"}}), 0));
    EXPECT_EQ(-1, VLIBCFileHash2File(fp, "1234-2", Hash({{"b", "2"}, {"a=", "1"}}), 0));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    rewind(fp);
    char text[128] = {};
    EXPECT_EQ(strlen("before\n[1234-2]\nb=2\na=x y\n"), fread(text, 1, sizeof(text) - 1, fp));
    EXPECT_STREQ("before\n[1234-2]\nb=2\na=x y\n", text);
    fclose(fp);

    FILE *readOnly = fopen(kDir, "r");
    ASSERT_NE(nullptr, readOnly);
    setvbuf(readOnly, nullptr, _IONBF, 0);
    EXPECT_EQ(-1, VLIBCFileHash2File(readOnly, "s", Hash({{"k", "v"}}), 0));
    EXPECT_EQ(BW_ERR_FILE_WRITE, VLIBCErrGet());
    fclose(readOnly);
}

TEST_F(PlatformFile, TouchCreatesOnlyWhenMissing)
{
    umask(022);
    EXPECT_EQ(0, VLIBCFileTouch(kPath));
    EXPECT_EQ("", vbw::ReadFile(kPath));
    EXPECT_EQ(0644u, Stat(kPath).st_mode & 07777);
    vbw::WriteFile(kPath, "[kept]\n");
    EXPECT_EQ(0, VLIBCFileTouch(kPath));
    EXPECT_EQ("[kept]\n", vbw::ReadFile(kPath));
    EXPECT_EQ(-1, VLIBCFileTouch(kDir));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
    EXPECT_EQ(-1, VLIBCFileTouch("/tmp/ptest/no/such/dir"));
}

TEST_F(PlatformFile, WritersDoNotFollowASymbolicLink)
{
    const char *szTarget = "/tmp/ptest/target";
    vbw::WriteFile(szTarget, "[s]\nk=v\n");
    ASSERT_EQ(0, symlink(szTarget, kPath));
    EXPECT_EQ(-1, VLIBCFileSetSection(kPath, "s", nullptr, Hash({{"k", "evil"}}), 0));
    EXPECT_EQ(-1, VLIBCFileRemoveSection(kPath, "s"));
    EXPECT_EQ(-1, VLIBCFileAddSection(kPath, "t", Hash({{"k", "evil"}}), 0));
    EXPECT_EQ(-1, VLIBCFileTouch(kPath));
    EXPECT_EQ("[s]\nk=v\n", vbw::ReadFile(szTarget));
    EXPECT_TRUE(S_ISLNK(Stat(kPath).st_mode));

    ASSERT_EQ(0, unlink(kPath));
    ASSERT_EQ(0, symlink("/tmp/ptest/dangling", kPath));
    EXPECT_EQ(-1, VLIBCFileAddSection(kPath, "t", Hash({{"k", "v"}}), 0));
    EXPECT_EQ(-1, VLIBCFileTouch(kPath));
    EXPECT_FALSE(vbw::Exists("/tmp/ptest/dangling"));
}

TEST_F(PlatformFile, LeavesNoTemporaryFileBehind)
{
    vbw::WriteFile(kPath, "[a]\n");
    EXPECT_EQ(1, VLIBCFileSetSection(kPath, "a", nullptr, Hash({{"k", "v"}}), 0));
    EXPECT_EQ(1, VLIBCFileAddSection(kPath, "b", Hash({{"k", "v"}}), 0));
    EXPECT_EQ(1, VLIBCFileRemoveSection(kPath, "a"));
    std::vector<std::string> names;
    DIR *dir = opendir(kDir);
    ASSERT_NE(nullptr, dir);
    while (struct dirent *entry = readdir(dir)) {
        names.push_back(entry->d_name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    EXPECT_EQ((std::vector<std::string>{".", "..", "file.conf"}), names);
}

// ---------------------------------------------------------------- cache

TEST_F(PlatformFile, SeesChangesMadeByOthersBetweenReads)
{
    vbw::WriteFile(kPath, "[s]\nk=1\n");
    EXPECT_EQ((Pairs{{"k", "1"}}), Read("s"));

    InChild([] { RenameOver("[s]\nk=2\n"); });  // same size, new inode
    EXPECT_EQ((Pairs{{"k", "2"}}), Read("s"));

    InChild([] {
        int fd = open(kPath, O_WRONLY | O_APPEND);
        (void)!write(fd, "[t]\nn=3\n", 8);
        close(fd);
    });
    EXPECT_EQ((std::vector<std::string>{"s", "t"}), Sections());
    EXPECT_EQ((Pairs{{"n", "3"}}), Read("t"));

    // In place, same size, right after the read: only the content tells.
    int fd = open(kPath, O_WRONLY);
    ASSERT_EQ(8, pwrite(fd, "[s]\nk=4\n", 8, 0));
    close(fd);
    EXPECT_EQ((Pairs{{"k", "4"}}), Read("s"));
}

TEST_F(PlatformFile, SeesOldFileChangesAfterTheyHaveSettled)
{
    vbw::WriteFile(kPath, "[s]\nk=1\n");
    usleep(200 * 1000);  // long enough for its times alone to tell later changes
    EXPECT_EQ((Pairs{{"k", "1"}}), Read("s"));
    EXPECT_EQ((Pairs{{"k", "1"}}), Read("s"));  // served from the cache

    int fd = open(kPath, O_WRONLY);
    ASSERT_EQ(8, pwrite(fd, "[s]\nk=5\n", 8, 0));
    close(fd);
    EXPECT_EQ((Pairs{{"k", "5"}}), Read("s"));
}

TEST_F(PlatformFile, CacheServesManyFilesInTurn)
{
    std::vector<std::string> paths;
    for (int i = 0; i < 20; ++i) {
        paths.push_back(std::string(kDir) + "/f" + std::to_string(i));
        vbw::WriteFile(paths.back(), "[s]\nn=" + std::to_string(i) + "\n");
    }
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ((Pairs{{"n", std::to_string(i)}}), Read("s", nullptr, paths[i].c_str()));
        }
    }
    EXPECT_EQ(1, VLIBCFileSetSection(paths[3].c_str(), "s", nullptr, Hash({{"n", "own"}}), 0));
    EXPECT_EQ((Pairs{{"n", "own"}}), Read("s", nullptr, paths[3].c_str()));
}

}  // namespace

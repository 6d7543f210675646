// Platform section files: reading, atomic rewriting, syntax safety, the cache.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "vbw_throttle_fixture.h"
#include "vesk_file.h"

namespace {

using vbw::Hash;
using vbw::Pairs;
using Names = std::vector<std::string>;

const char kDir[] = "/tmp/ptest";
const char kPath[] = "/tmp/ptest/file.conf";

class PlatformFile : public vbw::SandboxTest {
protected:
    void SetUp() override
    {
        vbw::SandboxTest::SetUp();
        vbw::MakeDirs(kDir);
    }
};

// The section's pairs in order; the GetSection result in *piResult.
Pairs Read(const char *szSection, const char *szPath = kPath, int *piResult = nullptr)
{
    Hash hash;
    int iResult = VLIBCFileGetSection(szPath, szSection, hash.Address());
    if (piResult != nullptr) {
        *piResult = iResult;
    }
    return hash.Contents();
}

Names Sections(const char *szPath = kPath)
{
    VLIBC_SZLIST *pList = nullptr;
    int count = VLIBCFileEnumSection(szPath, &pList);
    Names names;
    for (int i = 0; i < VLIBCSzListCount(pList); ++i) {
        names.push_back(VLIBCSzListGet(pList, i));
    }
    VLIBCSzListFree(pList);
    EXPECT_EQ(count, static_cast<int>(names.size()));
    return names;
}

// Overwrites the start of the file in place, keeping its inode and size.
void WriteInPlace(const std::string &content)
{
    int fd = open(kPath, O_WRONLY);
    ASSERT_EQ((ssize_t)content.size(), pwrite(fd, content.c_str(), content.size(), 0));
    close(fd);
}

TEST_F(PlatformFile, ReadsPairsOfTheFirstSectionOfItsName)
{
    vbw::WriteFile(kPath, "outside=1\n[user-1026]\n# comment=no\n; also=no\n\ncurrent speed=5\npath=/a=b/c \r\n"
                          "noequals\n=empty key\n[bad=header\n[x]y=z\ncurrent speed=7\n[user-1026]\nsecond=copy\n"
                          "[last]\ntail=no newline");
    int iResult = 0;
    EXPECT_EQ((Pairs{{"current speed", "7"}, {"path", "/a=b/c \r"}}), Read("user-1026", kPath, &iResult));
    EXPECT_EQ(1, iResult);
    EXPECT_EQ((Pairs{{"tail", "no newline"}}), Read("last"));
    EXPECT_EQ((Names{"user-1026", "last"}), Sections());
    EXPECT_EQ(Pairs{}, Read("user-1027", kPath, &iResult));
    EXPECT_EQ(0, iResult);
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());

    // Pairs are added to the caller's hash; an empty section still hands out one.
    vbw::WriteFile(kPath, "[s]\nb=2\na=1\n[empty]\n");
    Hash hash({{"a", "old"}, {"kept", "yes"}});
    EXPECT_EQ(1, VLIBCFileGetSection(kPath, "s", hash.Address()));
    EXPECT_EQ((Pairs{{"a", "1"}, {"kept", "yes"}, {"b", "2"}}), hash.Contents());
    VLIBC_SZHASH *pNew = nullptr;
    EXPECT_EQ(1, VLIBCFileGetSection(kPath, "empty", &pNew));
    ASSERT_NE(nullptr, pNew);
    EXPECT_EQ(0, VLIBCSzHashCount(pNew));
    VLIBCSzHashFree(pNew);

    // A missing file or a directory cannot be read.
    VLIBC_SZHASH *pHash = nullptr;
    VLIBC_SZLIST *pList = nullptr;
    EXPECT_EQ(-1, VLIBCFileGetSection("/tmp/ptest/missing", "s", &pHash));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
    EXPECT_EQ(-1, VLIBCFileEnumSection(kDir, &pList));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
    EXPECT_TRUE(nullptr == pHash && nullptr == pList);
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

TEST_F(PlatformFile, SetSectionReplacesOnlyThatSectionByteForByte)
{
    const std::string head = "; head comment\n\n[one]\na=1\n\n[two]\n";
    const std::string tail = "; trailing comment\n[three]\nc=3\nunknown\n# last, no newline";
    vbw::WriteFile(kPath, head + "# about two\nold=x\n\nstray line\n" + tail, 0640);
    struct stat before = vbw::Stat(kPath);
    EXPECT_EQ(1, VLIBCFileSetSection(kPath, "two", nullptr, Hash({{"new", "y"}, {"current speed", "9"}}), 0));
    EXPECT_EQ(head + "new=y\ncurrent speed=9\n# about two\n" + tail, vbw::ReadFile(kPath));
    struct stat after = vbw::Stat(kPath);
    EXPECT_NE(before.st_ino, after.st_ino);  // replaced by rename
    EXPECT_EQ(0640u, after.st_mode & 07777);

    // Every section of the name is treated, in place.
    const std::string twice = "[d]\nx=1\n[other]\ny=2\n[d]\n; note\nx=2";
    vbw::WriteFile(kPath, twice);
    EXPECT_EQ(1, VLIBCFileSetSection(kPath, "d", nullptr, Hash({{"x", "9"}}), 0));
    EXPECT_EQ("[d]\nx=9\n[other]\ny=2\n[d]\nx=9\n; note\n", vbw::ReadFile(kPath));
    vbw::WriteFile(kPath, twice);
    EXPECT_EQ(1, VLIBCFileRemoveSection(kPath, "d"));
    EXPECT_EQ("[other]\ny=2\n; note\n", vbw::ReadFile(kPath));
    EXPECT_EQ(1, VLIBCFileAddSection(kPath, "b", Hash({{"k", "v"}}), 0));
    EXPECT_EQ(Names{kPath}, vbw::Paths(std::string(kDir) + "/*"));  // no temporary file left behind
}

TEST_F(PlatformFile, AbsentSectionLeavesTheFileUntouched)
{
    vbw::WriteFile(kPath, "[a]\nk=v\n");
    struct stat before = vbw::Stat(kPath);
    EXPECT_EQ(0, VLIBCFileSetSection(kPath, "b", nullptr, Hash({{"k", "w"}}), 0));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    EXPECT_EQ(0, VLIBCFileRemoveSection(kPath, "b"));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());
    EXPECT_EQ(0, VLIBCFileAddSection(kPath, "a", Hash({{"k", "w"}}), 0));
    EXPECT_EQ(before.st_ino, vbw::Stat(kPath).st_ino);
    EXPECT_EQ("[a]\nk=v\n", vbw::ReadFile(kPath));

    EXPECT_EQ(-1, VLIBCFileSetSection("/tmp/ptest/missing", "a", nullptr, Hash(), 0));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
    EXPECT_EQ(-1, VLIBCFileRemoveSection(kDir, "a"));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
}

TEST_F(PlatformFile, AddSectionAppendsAndCreates)
{
    umask(027);
    EXPECT_EQ(1, VLIBCFileAddSection(kPath, "first", Hash({{"a", "1"}}), 0));
    EXPECT_EQ(1, VLIBCFileAddSection(kPath, "second", Hash(), 0));
    EXPECT_EQ("[first]\na=1\n[second]\n", vbw::ReadFile(kPath));
    EXPECT_EQ(0640u, vbw::Stat(kPath).st_mode & 07777);

    vbw::WriteFile(kPath, "# no newline", 0606);
    EXPECT_EQ(1, VLIBCFileAddSection(kPath, "s", Hash({{"k", "v"}}), 0));
    EXPECT_EQ("# no newline\n[s]\nk=v\n", vbw::ReadFile(kPath));
    EXPECT_EQ(0606u, vbw::Stat(kPath).st_mode & 07777);
}

TEST_F(PlatformFile, ValuesNeverBreakALineAndBadNamesAreRefused)
{
    vbw::WriteFile(kPath, "[s]\nk=v\n");
    EXPECT_EQ(1, VLIBCFileSetSection(kPath, "s", nullptr, Hash({{"name", "x\n[evil]\nowner=root\n"}, {"h", "[t]"}}), 0));
    EXPECT_EQ("[s]\nname=x [evil] owner=root \nh=[t]\n", vbw::ReadFile(kPath));
    EXPECT_EQ(Names{"s"}, Sections());

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
    EXPECT_EQ("[1234-2]\nb=2\na=x y\n", vbw::Printed([](FILE *fp) {
                  return VLIBCFileHash2File(fp, "1234-2", Hash({{"b", "2"}, {"a", "x\ny"}}), 0);
              }));
    EXPECT_EQ("", vbw::Printed([](FILE *fp) {
                  return VLIBCFileHash2File(fp, "1234-2", Hash({{"b", "2"}, {"a=", "1"}}), 0);
              }, -1));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());

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
    EXPECT_EQ(0644u, vbw::Stat(kPath).st_mode & 07777);
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
    EXPECT_TRUE(S_ISLNK(vbw::Stat(kPath).st_mode));

    ASSERT_EQ(0, unlink(kPath));
    ASSERT_EQ(0, symlink("/tmp/ptest/dangling", kPath));
    EXPECT_EQ(-1, VLIBCFileAddSection(kPath, "t", Hash({{"k", "v"}}), 0));
    EXPECT_EQ(-1, VLIBCFileTouch(kPath));
    EXPECT_FALSE(vbw::Exists("/tmp/ptest/dangling"));
}

// The per-process parse cache never serves a file that changed.
TEST_F(PlatformFile, SeesChangesMadeByOthersBetweenReads)
{
    vbw::WriteFile(kPath, "[s]\nk=1\n");
    EXPECT_EQ((Pairs{{"k", "1"}}), Read("s"));
    vbw::WriteFile(kPath + std::string(".other"), "[s]\nk=2\n");
    ASSERT_EQ(0, rename((kPath + std::string(".other")).c_str(), kPath));  // same size, new inode
    EXPECT_EQ((Pairs{{"k", "2"}}), Read("s"));
    vbw::WriteFile(kPath, vbw::ReadFile(kPath) + "[t]\nn=3\n");
    EXPECT_EQ((Names{"s", "t"}), Sections());
    EXPECT_EQ((Pairs{{"n", "3"}}), Read("t"));
    WriteInPlace("[s]\nk=4\n");  // same size, right after the read: only the content tells
    EXPECT_EQ((Pairs{{"k", "4"}}), Read("s"));
}

TEST_F(PlatformFile, SeesOldFileChangesAfterTheyHaveSettled)
{
    vbw::WriteFile(kPath, "[s]\nk=1\n");
    usleep(200 * 1000);  // long enough for its times alone to tell later changes
    EXPECT_EQ((Pairs{{"k", "1"}}), Read("s"));
    EXPECT_EQ((Pairs{{"k", "1"}}), Read("s"));  // served from the cache
    WriteInPlace("[s]\nk=5\n");
    EXPECT_EQ((Pairs{{"k", "5"}}), Read("s"));
}

// More files than the cache holds, read in turn: each read gives its own file.
TEST_F(PlatformFile, CacheServesManyFilesInTurn)
{
    auto path = [](int i) { return std::string(kDir) + "/f" + std::to_string(i); };
    for (int i = 0; i < 20; ++i) {
        vbw::WriteFile(path(i), "[s]\nn=" + std::to_string(i) + "\n");
    }
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ((Pairs{{"n", std::to_string(i)}}), Read("s", path(i).c_str()));
        }
    }
    EXPECT_EQ(1, VLIBCFileSetSection(path(3).c_str(), "s", nullptr, Hash({{"n", "own"}}), 0));
    EXPECT_EQ((Pairs{{"n", "own"}}), Read("s", path(3).c_str()));
}

}  // namespace

// Platform section files: reading, the writers' own results, syntax safety,
// leftover temporary files, and the per-process cache of parsed files.
#include <fcntl.h>
#include <unistd.h>

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

// The section names the platform lists, and their count.
Names Sections()
{
    VLIBC_SZLIST *pList = nullptr;
    Names names = {std::to_string(VLIBCFileEnumSection(kPath, &pList))};
    for (int i = 0; i < VLIBCSzListCount(pList); ++i) {
        names.push_back(VLIBCSzListGet(pList, i));
    }
    VLIBCSzListFree(pList);
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
    EXPECT_EQ((Names{"2", "user-1026", "last"}), Sections());
    EXPECT_EQ(Pairs{}, Read("user-1027", kPath, &iResult));
    EXPECT_EQ(0, iResult);
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());

    // Pairs are added to the caller's hash.
    vbw::WriteFile(kPath, "[s]\nb=2\na=1\n");
    Hash hash({{"a", "old"}, {"kept", "yes"}});
    EXPECT_EQ(1, VLIBCFileGetSection(kPath, "s", hash.Address()));
    EXPECT_EQ((Pairs{{"a", "1"}, {"kept", "yes"}, {"b", "2"}}), hash.Contents());

    // A missing file or a directory cannot be read.
    EXPECT_EQ(Pairs{}, Read("s", "/tmp/ptest/missing", &iResult));
    EXPECT_EQ(-1, iResult);
    EXPECT_EQ(Pairs{}, Read("s", kDir, &iResult));
    EXPECT_TRUE(iResult == -1 && VLIBCErrGet() == BW_ERR_FILE_OPEN);
}

// A header line is told by its length, with or without its newline; the
// touch and the append create a missing file only.
TEST_F(PlatformFile, HeadersAndCreation)
{
    const char buffer[] = "[1234-2]\n[next]";
    EXPECT_EQ((std::vector<int>{1, 1, 0, 1, 0}),
              (std::vector<int>{VLIBCIFileIsSection(buffer, 9), VLIBCIFileIsSection(buffer, 8),
                                VLIBCIFileIsSection(buffer, 10), VLIBCIFileMatchSection(buffer, 9, "1234-2"),
                                VLIBCIFileMatchSection(buffer + 9, 5, "next")}));
    umask(027);
    EXPECT_EQ(0, VLIBCFileTouch(kPath));
    EXPECT_EQ(0640u, vbw::Stat(kPath).st_mode & 07777);
    EXPECT_EQ(1, VLIBCFileAddSection(kPath, "first", Hash({{"a", "1"}}), 0));
    EXPECT_TRUE(VLIBCFileTouch(kPath) == 0 && VLIBCFileAddSection(kPath, "first", Hash({{"a", "2"}}), 0) == 0);
    EXPECT_EQ("[first]\na=1\n", vbw::ReadFile(kPath));
}

TEST_F(PlatformFile, ValuesNeverBreakALineAndBadNamesAreRefused)
{
    vbw::WriteFile(kPath, "[s]\nk=v\n");
    EXPECT_EQ(1, VLIBCFileSetSection(kPath, "s", nullptr, Hash({{"name", "x\n[evil]\nowner=root\n"}, {"h", "[t]"}}), 0));
    EXPECT_EQ("[s]\nname=x [evil] owner=root \nh=[t]\n", vbw::ReadFile(kPath));
    const std::string before = vbw::ReadFile(kPath);
    for (const char *key : {"", "a=b", "a\nb", "[x", "#x", ";x"}) {
        EXPECT_EQ(-1, VLIBCFileSetSection(kPath, "s", nullptr, Hash({{"ok", "1"}, {key, "v"}}), 0)) << key;
        EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    }
    EXPECT_TRUE(VLIBCFileAddSection(kPath, "a]b", Hash({{"k", "v"}}), 0) == -1 &&
                VLIBCFileAddSection(kPath, "s", nullptr, 0) == -1);
    EXPECT_EQ("", vbw::Printed([](FILE *fp) { return VLIBCFileHash2File(fp, "s", Hash({{"a=", "1"}}), 0); }, -1));
    EXPECT_EQ(before, vbw::ReadFile(kPath));
}

// A configuration write removes the temporary files that killed writers of
// that file left more than 10 seconds ago, and no other file.
TEST_F(PlatformFile, WritesCollectTheirFilesLeftoverTemporaries)
{
    const Names old = {std::string(kPath) + ".Ab12Cd", std::string(kPath) + ".Xy34Zw"};
    const Names kept = {std::string(kPath) + ".Yy88Xx", "/tmp/ptest/other.conf.Qq77Pp", std::string(kPath) + ".bak"};
    const time_t now = time(nullptr);
    for (const std::string &path : old) {
        vbw::WriteFile(path, "[s]\n", 0600);
        vbw::SetModified(path, now - 11);
    }
    for (const std::string &path : kept) {
        vbw::WriteFile(path, "[s]\n", 0600);
        vbw::SetModified(path, path == kept[0] ? now - 5 : now - 100);
    }
    EXPECT_EQ(1, VLIBCFileAddSection(kPath, "s", Hash({{"k", "v"}}), 0));
    for (const std::string &path : old) {
        EXPECT_FALSE(vbw::Exists(path)) << path;
    }
    for (const std::string &path : kept) {
        EXPECT_TRUE(vbw::Exists(path)) << path;
    }
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
    EXPECT_EQ((Names{"2", "s", "t"}), Sections());
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

// Platform section files: reading, syntax safety, and the per-process cache
// of parsed files.
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

// The GetSection result, then the section's pairs in order.
Pairs Read(const char *szSection, const char *szPath = kPath)
{
    Hash hash;
    Pairs pairs = {{"", std::to_string(VLIBCFileGetSection(szPath, szSection, hash.Address()))}};
    for (const auto &pair : hash.Contents()) {
        pairs.push_back(pair);
    }
    return pairs;
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
    EXPECT_EQ((Pairs{{"", "1"}, {"current speed", "7"}, {"path", "/a=b/c \r"}}), Read("user-1026"));
    EXPECT_EQ((Pairs{{"", "1"}, {"tail", "no newline"}}), Read("last"));
    EXPECT_EQ((Names{"2", "user-1026", "last"}), Sections());
    EXPECT_TRUE(VLIBCIFileIsSection("[1-2]", 5) == 1 && VLIBCIFileMatchSection("[a b]\n", 6, "a b") == 1 &&
                VLIBCIFileMatchSection("[a b]\n", 6, "a") == 0);
    EXPECT_EQ((Pairs{{"", "0"}}), Read("user-1027"));
    EXPECT_EQ(BW_ERR_NOT_FOUND, VLIBCErrGet());

    // Pairs are added to the caller's hash.
    vbw::WriteFile(kPath, "[s]\nb=2\na=1\n");
    Hash hash({{"a", "old"}, {"kept", "yes"}});
    EXPECT_EQ(1, VLIBCFileGetSection(kPath, "s", hash.Address()));
    EXPECT_EQ((Pairs{{"a", "1"}, {"kept", "yes"}, {"b", "2"}}), hash.Contents());

    // A missing file or a directory cannot be read.
    EXPECT_EQ((Pairs{{"", "-1"}}), Read("s", "/tmp/ptest/missing"));
    EXPECT_EQ((Pairs{{"", "-1"}}), Read("s", kDir));
    EXPECT_EQ(BW_ERR_FILE_OPEN, VLIBCErrGet());
}

TEST_F(PlatformFile, ValuesNeverBreakALineAndBadNamesAreRefused)
{
    vbw::WriteFile(kPath, "[s]\nk=v\n");
    EXPECT_EQ(1,
              VLIBCFileSetSection(kPath, "s", nullptr, Hash({{"name", "x\n[evil]\nowner=root\n"}, {"h", "[t]"}}), 0));
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

// The per-process parse cache never serves a file that changed.
TEST_F(PlatformFile, SeesChangesMadeByOthersBetweenReads)
{
    vbw::WriteFile(kPath, "[s]\nk=1\n");
    EXPECT_EQ((Pairs{{"", "1"}, {"k", "1"}}), Read("s"));
    vbw::WriteFile(kPath + std::string(".other"), "[s]\nk=2\n");
    ASSERT_EQ(0, rename((kPath + std::string(".other")).c_str(), kPath));  // same size, new inode
    EXPECT_EQ((Pairs{{"", "1"}, {"k", "2"}}), Read("s"));
    vbw::WriteFile(kPath, vbw::ReadFile(kPath) + "[t]\nn=3\n");
    EXPECT_EQ((Names{"2", "s", "t"}), Sections());
    EXPECT_EQ((Pairs{{"", "1"}, {"n", "3"}}), Read("t"));
    WriteInPlace("[s]\nk=4\n");  // same size, right after the read: only the content tells
    EXPECT_EQ((Pairs{{"", "1"}, {"k", "4"}}), Read("s"));
}

TEST_F(PlatformFile, SeesOldFileChangesAfterTheyHaveSettled)
{
    vbw::WriteFile(kPath, "[s]\nk=1\n");
    usleep(200 * 1000);  // long enough for its times alone to tell later changes
    EXPECT_EQ((Pairs{{"", "1"}, {"k", "1"}}), Read("s"));
    EXPECT_EQ((Pairs{{"", "1"}, {"k", "1"}}), Read("s"));  // served from the cache
    WriteInPlace("[s]\nk=5\n");
    EXPECT_EQ((Pairs{{"", "1"}, {"k", "5"}}), Read("s"));
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
            EXPECT_EQ((Pairs{{"", "1"}, {"n", std::to_string(i)}}), Read("s", path(i).c_str()));
        }
    }
    EXPECT_EQ(1, VLIBCFileSetSection(path(3).c_str(), "s", nullptr, Hash({{"n", "own"}}), 0));
    EXPECT_EQ((Pairs{{"", "1"}, {"n", "own"}}), Read("s", path(3).c_str()));
}

}  // namespace

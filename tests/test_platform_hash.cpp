// Platform string hash, string list and error state.
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "vesk_error.h"
#include "vesk_hash.h"
#include "vbw_test.h"

namespace {

class PlatformHash : public vbw::SandboxTest {};

std::vector<std::string> Keys(const VLIBC_SZHASH *pHash)
{
    std::vector<std::string> keys;
    for (int i = 0; i < VLIBCSzHashCount(pHash); ++i) {
        keys.push_back(VLIBCSzHashKeyAt(pHash, i));
    }
    return keys;
}

TEST_F(PlatformHash, KeepsInsertionOrderAndReplacesInPlace)
{
    VLIBC_SZHASH *pHash = VLIBCSzHashAlloc(2);
    ASSERT_NE(nullptr, pHash);
    for (const char *key : {"zeta", "alpha", "current speed", "mid"}) {
        ASSERT_EQ(0, VLIBCSzHashSetValue(&pHash, key, key));
    }
    ASSERT_EQ(0, VLIBCSzHashSetValue(&pHash, "alpha", "second"));

    EXPECT_EQ((std::vector<std::string>{"zeta", "alpha", "current speed", "mid"}), Keys(pHash));
    EXPECT_STREQ("second", VLIBCSzHashGetValue(pHash, "alpha"));
    EXPECT_STREQ("second", VLIBCSzHashValueAt(pHash, 1));
    EXPECT_STREQ("current speed", VLIBCSzHashGetValue(pHash, "current speed"));
    EXPECT_EQ(nullptr, VLIBCSzHashGetValue(pHash, "absent"));
    EXPECT_EQ(nullptr, VLIBCSzHashKeyAt(pHash, 4));
    EXPECT_EQ(nullptr, VLIBCSzHashValueAt(pHash, -1));

    EXPECT_EQ(0, VLIBCHashRemoveAll(pHash));
    EXPECT_EQ(0, VLIBCSzHashCount(pHash));
    EXPECT_EQ(nullptr, VLIBCSzHashGetValue(pHash, "zeta"));
    ASSERT_EQ(0, VLIBCSzHashSetValue(&pHash, "mid", "again"));
    EXPECT_EQ((std::vector<std::string>{"mid"}), Keys(pHash));
    VLIBCSzHashFree(pHash);
}

TEST_F(PlatformHash, StoresCopiesAndGrowsPastItsHint)
{
    VLIBC_SZHASH *pHash = nullptr;  // SetValue allocates
    char key[32];
    char value[32];
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
    VLIBCSzHashFree(pHash);
    VLIBCSzHashFree(nullptr);
}

TEST_F(PlatformHash, RefusesMissingArguments)
{
    VLIBC_SZHASH *pHash = nullptr;
    EXPECT_GT(0, VLIBCSzHashSetValue(nullptr, "k", "v"));
    EXPECT_EQ(BW_ERR_BAD_PARAMETERS, VLIBCErrGet());
    EXPECT_GT(0, VLIBCSzHashSetValue(&pHash, nullptr, "v"));
    EXPECT_GT(0, VLIBCSzHashSetValue(&pHash, "k", nullptr));
    EXPECT_EQ(nullptr, pHash);
    EXPECT_TRUE(log.Contains("vesk_hash.cpp:")) << log.Dump();
    EXPECT_TRUE(log.Contains("Invaild Argument (NULL != szValue)=[0]")) << log.Dump();
}

TEST_F(PlatformHash, ListKeepsPushOrder)
{
    VLIBC_SZLIST *pList = nullptr;  // Push allocates
    std::string text = "first";
    ASSERT_EQ(0, VLIBCSzListPush(&pList, text.c_str()));
    text = "changed";
    ASSERT_EQ(0, VLIBCSzListPush(&pList, "second"));
    ASSERT_EQ(0, VLIBCSzListPush(&pList, "first"));
    ASSERT_EQ(3, VLIBCSzListCount(pList));
    EXPECT_STREQ("first", VLIBCSzListGet(pList, 0));
    EXPECT_STREQ("second", VLIBCSzListGet(pList, 1));
    EXPECT_STREQ("first", VLIBCSzListGet(pList, 2));
    EXPECT_EQ(nullptr, VLIBCSzListGet(pList, 3));
    EXPECT_EQ(nullptr, VLIBCSzListGet(pList, -1));
    EXPECT_GT(0, VLIBCSzListPush(&pList, nullptr));
    EXPECT_EQ(3, VLIBCSzListCount(pList));
    VLIBCSzListFree(pList);
    EXPECT_EQ(0, VLIBCSzListCount(nullptr));
    VLIBCSzListFree(nullptr);
}

TEST_F(PlatformHash, ErrorStateIsPerThreadAndCopiesTheFileName)
{
    int iSeen[2] = {-1, -1};
    std::string file;
    std::thread([&] {
        iSeen[0] = VLIBCErrGet();
        iSeen[1] = VLIBCErrorGetLine();
        file = VLIBCErrorGetFile();
    }).join();
    EXPECT_EQ(0, iSeen[0]);
    EXPECT_EQ(0, iSeen[1]);
    EXPECT_EQ("", file);

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

}  // namespace

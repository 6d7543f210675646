// String hash (text to text, insertion order kept) and string list.
#include "vesk_hash.h"

#include <new>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "vesk_log.h"

struct _VLIBC_SZHASH {
    std::vector<std::pair<std::string, std::string>> items;  // in insertion order
    std::unordered_map<std::string, size_t> index;           // key -> position in items
};

struct _VLIBC_SZLIST {
    std::vector<std::string> items;
};

namespace {

template <typename T>
T *AllocWithRoom(int iSize)
{
    T *object = new (std::nothrow) T;
    if (object == nullptr) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return nullptr;
    }
    try {
        object->items.reserve(iSize > 0 ? static_cast<size_t>(iSize) : 0);
    } catch (const std::exception &) {
        // The room is only a hint; the container grows as needed.
    }
    return object;
}

}  // namespace

VLIBC_SZHASH *VLIBCSzHashAlloc(int iSize)
{
    return AllocWithRoom<VLIBC_SZHASH>(iSize);
}

void VLIBCSzHashFree(VLIBC_SZHASH *pHash)
{
    delete pHash;
}

int VLIBCSzHashSetValue(VLIBC_SZHASH **ppHash, const char *szKey, const char *szValue)
{
    if (ppHash == nullptr || szKey == nullptr || szValue == nullptr) {
        VESK_ERR_SET(BW_ERR_BAD_PARAMETERS);
        return -1;
    }
    if (*ppHash == nullptr && (*ppHash = VLIBCSzHashAlloc(16)) == nullptr) {
        return -1;
    }
    VLIBC_SZHASH *hash = *ppHash;
    try {
        auto found = hash->index.find(szKey);
        if (found != hash->index.end()) {
            hash->items[found->second].second = szValue;
            return 0;
        }
        hash->items.emplace_back(szKey, szValue);
        try {
            hash->index.emplace(szKey, hash->items.size() - 1);
        } catch (const std::exception &) {
            hash->items.pop_back();
            throw;
        }
    } catch (const std::exception &) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
    return 0;
}

const char *VLIBCSzHashGetValue(const VLIBC_SZHASH *pHash, const char *szKey)
{
    if (pHash == nullptr || szKey == nullptr) {
        return nullptr;
    }
    try {
        auto found = pHash->index.find(szKey);
        return found == pHash->index.end() ? nullptr : pHash->items[found->second].second.c_str();
    } catch (const std::exception &) {
        return nullptr;  // the key could not even be copied for the lookup
    }
}

int VLIBCHashRemoveAll(VLIBC_SZHASH *pHash)
{
    if (pHash == nullptr) {
        VESK_ERR_SET(BW_ERR_BAD_PARAMETERS);
        return -1;
    }
    pHash->items.clear();
    pHash->index.clear();
    return 0;
}

int VLIBCSzHashCount(const VLIBC_SZHASH *pHash)
{
    return pHash == nullptr ? 0 : static_cast<int>(pHash->items.size());
}

const char *VLIBCSzHashKeyAt(const VLIBC_SZHASH *pHash, int i)
{
    if (i < 0 || i >= VLIBCSzHashCount(pHash)) {
        return nullptr;
    }
    return pHash->items[static_cast<size_t>(i)].first.c_str();
}

const char *VLIBCSzHashValueAt(const VLIBC_SZHASH *pHash, int i)
{
    if (i < 0 || i >= VLIBCSzHashCount(pHash)) {
        return nullptr;
    }
    return pHash->items[static_cast<size_t>(i)].second.c_str();
}

VLIBC_SZLIST *VLIBCSzListAlloc(int iSize)
{
    return AllocWithRoom<VLIBC_SZLIST>(iSize);
}

void VLIBCSzListFree(VLIBC_SZLIST *pList)
{
    delete pList;
}

int VLIBCSzListPush(VLIBC_SZLIST **ppList, const char *sz)
{
    if (ppList == nullptr || sz == nullptr) {
        VESK_ERR_SET(BW_ERR_BAD_PARAMETERS);
        return -1;
    }
    if (*ppList == nullptr && (*ppList = VLIBCSzListAlloc(16)) == nullptr) {
        return -1;
    }
    try {
        (*ppList)->items.emplace_back(sz);
    } catch (const std::exception &) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return -1;
    }
    return 0;
}

int VLIBCSzListCount(const VLIBC_SZLIST *pList)
{
    return pList == nullptr ? 0 : static_cast<int>(pList->items.size());
}

const char *VLIBCSzListGet(const VLIBC_SZLIST *pList, int i)
{
    if (i < 0 || i >= VLIBCSzListCount(pList)) {
        return nullptr;
    }
    return pList->items[static_cast<size_t>(i)].c_str();
}

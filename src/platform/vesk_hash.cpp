// String hash (text to text, insertion order kept) and string list.
//
// The hash keeps its pairs in a deque, in insertion order, and an index from
// key to position; the index's keys are views of the deque's key strings,
// whose addresses a deque keeps while it grows at the back.  No exception
// leaves this file: allocation failures become BW_ERR_OUT_OF_MEMORY.
#include "vesk_hash.h"

#include <algorithm>
#include <deque>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "vesk_log.h"

// Room reserved up front at most: a larger size is only a hint, the hash grows
// as needed.
static const int kMaxReserve = 64;

struct _VLIBC_SZHASH {
    std::deque<std::pair<std::string, std::string>> pairs;
    std::unordered_map<std::string_view, size_t> index;

    void Set(const char *szKey, const char *szValue)
    {
        auto found = index.find(szKey);
        if (found != index.end()) {
            pairs[found->second].second.assign(szValue);
            return;
        }
        pairs.emplace_back(szKey, szValue);
        try {
            index.emplace(pairs.back().first, pairs.size() - 1);
        } catch (...) {
            pairs.pop_back();
            throw;
        }
    }
};

struct _VLIBC_SZLIST {
    std::vector<std::string> items;
};

namespace {

// The object for a new handle; NULL with BW_ERR_OUT_OF_MEMORY on failure.
template <typename T>
T *NewHandle(int iSize, void (*reserve)(T *, size_t))
{
    T *p = new (std::nothrow) T();
    if (p == nullptr) {
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return nullptr;
    }
    try {
        reserve(p, static_cast<size_t>(std::clamp(iSize, 0, kMaxReserve)));
    } catch (...) {
        delete p;
        VESK_ERR_SET(BW_ERR_OUT_OF_MEMORY);
        return nullptr;
    }
    return p;
}

bool InRange(int i, size_t count)
{
    return i >= 0 && static_cast<size_t>(i) < count;
}

}  // namespace

VLIBC_SZHASH *VLIBCSzHashAlloc(int iSize)
{
    return NewHandle<VLIBC_SZHASH>(iSize, [](VLIBC_SZHASH *p, size_t n) { p->index.reserve(n); });
}

void VLIBCSzHashFree(VLIBC_SZHASH *pHash)
{
    delete pHash;
}

int VLIBCSzHashSetValue(VLIBC_SZHASH **ppHash, const char *szKey, const char *szValue)
{
    if (!VESK_ARG_OK(NULL != ppHash) || !VESK_ARG_OK(NULL != szKey) || !VESK_ARG_OK(NULL != szValue)) {
        return -1;
    }
    if (*ppHash == nullptr && (*ppHash = VLIBCSzHashAlloc(0)) == nullptr) {
        return -1;
    }
    try {
        (*ppHash)->Set(szKey, szValue);
    } catch (...) {
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
    auto found = pHash->index.find(szKey);
    return found == pHash->index.end() ? nullptr : pHash->pairs[found->second].second.c_str();
}

int VLIBCHashRemoveAll(VLIBC_SZHASH *pHash)
{
    if (!VESK_ARG_OK(NULL != pHash)) {
        return -1;
    }
    pHash->index.clear();
    pHash->pairs.clear();
    return 0;
}

int VLIBCSzHashCount(const VLIBC_SZHASH *pHash)
{
    return pHash == nullptr ? 0 : static_cast<int>(pHash->pairs.size());
}

const char *VLIBCSzHashKeyAt(const VLIBC_SZHASH *pHash, int i)
{
    if (pHash == nullptr || !InRange(i, pHash->pairs.size())) {
        return nullptr;
    }
    return pHash->pairs[static_cast<size_t>(i)].first.c_str();
}

const char *VLIBCSzHashValueAt(const VLIBC_SZHASH *pHash, int i)
{
    if (pHash == nullptr || !InRange(i, pHash->pairs.size())) {
        return nullptr;
    }
    return pHash->pairs[static_cast<size_t>(i)].second.c_str();
}

VLIBC_SZLIST *VLIBCSzListAlloc(int iSize)
{
    return NewHandle<VLIBC_SZLIST>(iSize, [](VLIBC_SZLIST *p, size_t n) { p->items.reserve(n); });
}

void VLIBCSzListFree(VLIBC_SZLIST *pList)
{
    delete pList;
}

int VLIBCSzListPush(VLIBC_SZLIST **ppList, const char *sz)
{
    if (!VESK_ARG_OK(NULL != ppList) || !VESK_ARG_OK(NULL != sz)) {
        return -1;
    }
    if (*ppList == nullptr && (*ppList = VLIBCSzListAlloc(0)) == nullptr) {
        return -1;
    }
    try {
        (*ppList)->items.emplace_back(sz);
    } catch (...) {
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
    if (pList == nullptr || !InRange(i, pList->items.size())) {
        return nullptr;
    }
    return pList->items[static_cast<size_t>(i)].c_str();
}

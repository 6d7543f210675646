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

namespace {

// Room reserved up front at most: a larger size is only a hint, the hash grows
// as needed.
constexpr int kMaxReserve = 64;

}  // namespace

struct _VLIBC_SZHASH {
    std::deque<std::pair<std::string, std::string>> pairs;
    // Built only once the hash outgrows kLinearMax pairs: a status or limit
    // section holds about a dozen, and comparing that many keys is cheaper
    // than hashing one and allocating an index node per pair.
    std::unordered_map<std::string_view, size_t> index;
    static constexpr size_t kLinearMax = 16;

    // The position of the key, or pairs.size() when it is absent.
    size_t Find(std::string_view key) const
    {
        if (index.empty()) {
            size_t i = 0;
            while (i < pairs.size() && pairs[i].first != key) {
                ++i;
            }
            return i;
        }
        auto found = index.find(key);
        return found == index.end() ? pairs.size() : found->second;
    }

    void Set(const char *szKey, const char *szValue)
    {
        size_t i = Find(szKey);
        if (i < pairs.size()) {
            pairs[i].second.assign(szValue);
            return;
        }
        pairs.emplace_back(szKey, szValue);
        try {
            if (!index.empty()) {
                index.emplace(pairs.back().first, pairs.size() - 1);
            } else if (pairs.size() > kLinearMax) {
                BuildIndex();
            }
        } catch (...) {
            if (pairs.size() == kLinearMax + 1) {
                index.clear();  // a partly built index: back to comparing keys
            }
            pairs.pop_back();
            throw;
        }
    }

    void BuildIndex()
    {
        index.reserve(pairs.size() * 2);
        for (size_t i = 0; i < pairs.size(); ++i) {
            index.emplace(pairs[i].first, i);
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
    // The index is built when needed, so there is nothing to reserve.
    return NewHandle<VLIBC_SZHASH>(iSize, [](VLIBC_SZHASH *, size_t) {});
}

void VLIBCSzHashFree(VLIBC_SZHASH *pHash)
{
    delete pHash;
}

int VLIBCSzHashSetValue(VLIBC_SZHASH **ppHash, const char *szKey, const char *szValue)
{
    if (!VESK_ARG_OK(ppHash != nullptr) || !VESK_ARG_OK(szKey != nullptr) || !VESK_ARG_OK(szValue != nullptr)) {
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
    size_t i = pHash->Find(szKey);
    return i < pHash->pairs.size() ? pHash->pairs[i].second.c_str() : nullptr;
}

int VLIBCHashRemoveAll(VLIBC_SZHASH *pHash)
{
    if (!VESK_ARG_OK(pHash != nullptr)) {
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
    if (!VESK_ARG_OK(ppList != nullptr) || !VESK_ARG_OK(sz != nullptr)) {
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

// Owned handles of platform and C library resources, released with their
// scope, so that every path out of a function releases what it took.
// Internal to the library.
#ifndef BANDWIDTH_HANDLES_H
#define BANDWIDTH_HANDLES_H

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <memory>

#include "vesk_account.h"
#include "vesk_hash.h"

// A string hash owned by one call.  Calls that take the hash's address may
// move it; they are given Addr().
class BwHash {
public:
    explicit BwHash(int iSize = 1024) : pHash_(VLIBCSzHashAlloc(iSize)) {}
    ~BwHash() { VLIBCSzHashFree(pHash_); }
    BwHash(const BwHash &) = delete;
    BwHash &operator=(const BwHash &) = delete;

    explicit operator bool() const { return pHash_ != nullptr; }
    VLIBC_SZHASH *Get() const { return pHash_; }
    VLIBC_SZHASH **Addr() { return &pHash_; }

private:
    VLIBC_SZHASH *pHash_;
};

// Deleter of a unique_ptr that releases through the C function Release.
template <auto Release>
struct BwRelease {
    template <typename T>
    void operator()(T *p) const
    {
        Release(p);
    }
};
using BwFree = BwRelease<free>;
using BwUserPtr = std::unique_ptr<VESK_USER, BwRelease<VESKUserFree>>;
using BwGroupPtr = std::unique_ptr<VESK_GROUP, BwRelease<VESKGroupFree>>;
using BwSzListPtr = std::unique_ptr<VLIBC_SZLIST, BwRelease<VLIBCSzListFree>>;
using BwFilePtr = std::unique_ptr<FILE, BwRelease<fclose>>;
using BwDirPtr = std::unique_ptr<DIR, BwRelease<closedir>>;

// Sets the process's file-creation mask for the scope, and back after it.
class BwUmaskScope {
public:
    explicit BwUmaskScope(mode_t mask) : previous_(umask(mask)) {}
    ~BwUmaskScope() { umask(previous_); }
    BwUmaskScope(const BwUmaskScope &) = delete;
    BwUmaskScope &operator=(const BwUmaskScope &) = delete;

private:
    mode_t previous_;
};

#endif

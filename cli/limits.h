// The configured limits and global settings as the library reads them, and
// what is in force at this hour.
#ifndef VBW_CLI_LIMITS_H
#define VBW_CLI_LIMITS_H

#include <string>
#include <vector>

#include "cli.h"

namespace cli {

struct LimitEntry {
    Owner owner;
    VESK_BANDWIDTH_CONF conf;
};

VESK_BANDWIDTH_CONF ReadLimit(const Owner &owner, int protocol);
// The owners that have a section in a protocol's limit file.
std::vector<Owner> OwnersWithLimits(int protocol);
// The record resolved for the present hour (its iCurState and ullCurRate).
VESK_BANDWIDTH_LIMIT LimitNow(const VESK_BANDWIDTH_CONF &conf);
std::string LimitFilePath(int protocol);
std::string SectionName(const Owner &owner);  // "user-1026", "group-100"

VESK_BANDWIDTH_GLOBAL_CONF ReadGlobal(int protocol);

// Whether a protocol's transfers are limited at this hour: never while its
// global state is NotExisted (nothing stored yet) or disabled, or while its
// global schedule says off.
struct Limiting {
    bool on;
    std::string why;  // when off: "limiting is off for ftp (...)"
};
Limiting LimitingNow(const VESK_BANDWIDTH_GLOBAL_CONF &global);

}  // namespace cli

#endif

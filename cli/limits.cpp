// Limits and global settings read through the library, and resolved for the
// present hour by the library's own rules.
#include "limits.h"

#include <cstddef>
#include <cstring>

#include "vesk_file.h"

namespace cli {

static_assert(offsetof(VESK_BANDWIDTH_LIMIT, szSchedulePlan) == offsetof(VESK_BANDWIDTH_CONF, szSchedulePlan),
              "a limit record begins with a VESK_BANDWIDTH_CONF");

VESK_BANDWIDTH_CONF ReadLimit(const Owner &owner, int protocol)
{
    VESK_BANDWIDTH_CONF conf = {};
    if (VESKBandwidthConfGetByID(owner.type, owner.id, protocol, &conf) != 0) {
        FailLibrary("cannot read the " + ProtocolName(protocol) + " limit of " + OwnerLabel(owner));
    }
    return conf;
}

std::string LimitFilePath(int protocol)
{
    char path[4096];
    if (VESKBandwidthConfPath(protocol, path, sizeof path) != 0) {
        FailLibrary("no limit file for protocol " + ProtocolName(protocol));
    }
    return path;
}

std::string SectionName(const Owner &owner)
{
    return (owner.type == VESK_BW_OWNER_USER ? "user-" : "group-") + std::to_string(owner.id);
}

std::vector<Owner> OwnersWithLimits(int protocol)
{
    std::vector<Owner> owners;
    std::string path = LimitFilePath(protocol);
    if (VLIBCFileExist(path.c_str()) <= 0) {
        return owners;
    }
    VLIBC_SZLIST *sections = nullptr;
    int count = VLIBCFileEnumSection(path.c_str(), &sections);
    for (int i = 0; i < count; ++i) {
        const char *section = VLIBCSzListGet(sections, i);
        std::string name = section != nullptr ? section : "";
        size_t dash = name.find('-');
        std::string kind = name.substr(0, dash);
        std::string id = dash == std::string::npos ? "" : name.substr(dash + 1);
        bool numeric = !id.empty() && id.size() <= 10 && id.find_first_not_of("0123456789") == std::string::npos;
        if ((kind == "user" || kind == "group") && numeric) {
            int type = kind == "user" ? VESK_BW_OWNER_USER : VESK_BW_OWNER_GROUP;
            unsigned number = static_cast<unsigned>(std::stoul(id));
            owners.push_back(Owner{type, number, AccountName(type, number)});
        }
    }
    VLIBCSzListFree(sections);
    if (count < 0) {
        FailLibrary("cannot read " + path);
    }
    return owners;
}

VESK_BANDWIDTH_LIMIT LimitNow(const VESK_BANDWIDTH_CONF &conf)
{
    VESK_BANDWIDTH_LIMIT limit = {};
    std::memcpy(&limit, &conf, sizeof conf);
    VESK_BANDWIDTH_CONFIG config = {};
    config.iLimitCount = 1;
    config.pLimit = &limit;
    VESKBandwidthInitConfig(&config, 0);
    return limit;
}

VESK_BANDWIDTH_GLOBAL_CONF ReadGlobal(int protocol)
{
    VESK_BANDWIDTH_GLOBAL_CONF global = {};
    if (VESKBandwidthGlobalConfGet(protocol, &global) != 0) {
        FailLibrary("cannot read the global settings of " + ProtocolName(protocol));
    }
    return global;
}

Limiting LimitingNow(const VESK_BANDWIDTH_GLOBAL_CONF &global)
{
    std::string off = "limiting is off for " + ProtocolName(global.iProtocol);
    if (global.iState == VESK_BW_STATE_NOTEXISTED) {
        return {false, off + " (it was never turned on)"};
    }
    if (global.iState == VESK_BW_STATE_DISABLED) {
        return {false, off + " (its global state is disabled)"};
    }
    VESK_BANDWIDTH_CONFIG config = {};
    config.globalConf = global;
    VESKBandwidthInitConfig(&config, 0);
    if (config.globalConf.iCurState == VESK_BW_STATE_DISABLED) {
        return {false, off + " at this hour (by its global schedule)"};
    }
    return {true, ""};
}

}  // namespace cli

// Names of accounts, protocols, directions and record values, and the text
// of the library's error state.
#include <grp.h>
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "cli.h"
#include "vesk_account.h"

namespace cli {
namespace {

struct UserFree {
    void operator()(VESK_USER *user) const { VESKUserFree(user); }
};
struct GroupFree {
    void operator()(VESK_GROUP *group) const { VESKGroupFree(group); }
};
using UserPtr = std::unique_ptr<VESK_USER, UserFree>;
using GroupPtr = std::unique_ptr<VESK_GROUP, GroupFree>;

UserPtr UserById(unsigned uid)
{
    VESK_USER *user = nullptr;
    if (VESKUserGetByUID(uid, &user) < 0) {
        return UserPtr();
    }
    return UserPtr(user);
}

GroupPtr GroupById(unsigned gid)
{
    VESK_GROUP *group = nullptr;
    if (VESKGroupGetByGID(gid, &group) < 0) {
        return GroupPtr();
    }
    return GroupPtr(group);
}

// The number of an account given as a uid or gid; (unsigned)-1 is no account.
bool ParseId(const std::string &text, unsigned *id)
{
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
    *id = static_cast<unsigned>(value);
    return value < UINT32_MAX;
}

struct ErrorName {
    int code;
    const char *name;
};

const ErrorName kErrorNames[] = {
    {BW_ERR_OUT_OF_MEMORY, "out of memory"},
    {BW_ERR_DEACTIVATED, "deactivated"},
    {BW_ERR_GLOB_FAILED, "no add-on file"},
    {BW_ERR_FILE_OPEN, "cannot open a file"},
    {BW_ERR_FILE_READ, "cannot read a file"},
    {BW_ERR_FILE_WRITE, "cannot write a file"},
    {BW_ERR_BAD_PARAMETERS, "bad parameters"},
    {BW_ERR_NOT_FOUND, "not found"},
    {BW_ERR_STAT_FAILED, "stat failed"},
    {BW_ERR_RENAME_FAILED, "rename failed"},
    {BW_ERR_BAD_VALUE, "bad value in a file"},
    {BW_ERR_ADDON_AMBIGUOUS, "ambiguous add-on"},
    {BW_ERR_ADDON_BAD_PATH, "bad add-on file name"},
    {BW_ERR_UNKNOWN_CONF_TYPE, "unknown owner type"},
};

const char kBuiltInNames[] = "lanternpost, webdav, ftp, rsync";

std::vector<std::string> TableNameList(const VESK_BW_ENUM_ENTRY *table)
{
    std::vector<std::string> names;
    for (const VESK_BW_ENUM_ENTRY *entry = table; entry->szName != nullptr; ++entry) {
        names.push_back(entry->szName);
    }
    return names;
}

// The value of a name of the table, compared without regard to case; -1 when none.
int CaseInsensitiveValue(const VESK_BW_ENUM_ENTRY *table, const std::string &text)
{
    for (const VESK_BW_ENUM_ENTRY *entry = table; entry->szName != nullptr; ++entry) {
        if (strcasecmp(text.c_str(), entry->szName) == 0) {
            return entry->iValue;
        }
    }
    return -1;
}

}  // namespace

std::string TableNames(const VESK_BW_ENUM_ENTRY *table)
{
    std::string names;
    for (const std::string &name : TableNameList(table)) {
        names += (names.empty() ? "" : ", ") + name;
    }
    return names;
}

std::string LibraryErrorText()
{
    int code = VLIBCErrGet();
    const char *name = "error";
    for (const ErrorName &entry : kErrorNames) {
        if (entry.code == code) {
            name = entry.name;
        }
    }
    char detail[160];
    std::snprintf(detail, sizeof detail, "%s, 0x%04X at %s:%d; details in the system log", name, code,
                  VLIBCErrorGetFile(), VLIBCErrorGetLine());
    return detail;
}

void FailLibrary(const std::string &what)
{
    throw Error(what + " (" + LibraryErrorText() + ")", 1);
}

Owner ResolveUser(const std::string &text)
{
    // A name first; a number names the account only when no account has that name.
    VESK_USER *found = nullptr;
    UserPtr user;
    unsigned uid = 0;
    if (VESKUserGet(text.c_str(), &found) >= 0) {
        user.reset(found);
    } else if (ParseId(text, &uid)) {
        user = UserById(uid);
    }
    if (!user) {
        throw UsageError("unknown user '" + text + "'");
    }
    return Owner{VESK_BW_OWNER_USER, static_cast<unsigned>(user->uid), user->szName};
}

Owner ResolveGroup(const std::string &text)
{
    // The platform looks groups up by gid only; names go through the group database.
    const struct group *byName = getgrnam(text.c_str());
    if (byName != nullptr) {
        return Owner{VESK_BW_OWNER_GROUP, static_cast<unsigned>(byName->gr_gid), byName->gr_name};
    }
    unsigned gid = 0;
    GroupPtr group = ParseId(text, &gid) ? GroupById(gid) : GroupPtr();
    if (!group) {
        throw UsageError("unknown group '" + text + "'");
    }
    return Owner{VESK_BW_OWNER_GROUP, static_cast<unsigned>(group->gid), group->szName};
}

Owner OwnerFromArgs(const Args &args)
{
    if (args.Has("user") == args.Has("group")) {
        throw UsageError("name exactly one owner: --user NAME|UID or --group NAME|GID");
    }
    return args.Has("user") ? ResolveUser(args.Get("user")) : ResolveGroup(args.Get("group"));
}

std::string OwnerLabel(const Owner &owner)
{
    return (owner.type == VESK_BW_OWNER_USER ? "user " : "group ") + owner.name;
}

std::string AccountName(int ownerType, unsigned id)
{
    if (ownerType == VESK_BW_OWNER_USER) {
        UserPtr user = UserById(id);
        return user ? std::string(user->szName) : std::to_string(id);
    }
    GroupPtr group = GroupById(id);
    return group ? std::string(group->szName) : std::to_string(id);
}

int ParseProtocol(const std::string &text, bool allowAll)
{
    // Built-in names in any case; add-on names as their files spell them.
    int protocol = CaseInsensitiveValue(VESK_BW_PROTOCOL_TYPE_NAMES, text);
    if (protocol < 0) {
        protocol = text.empty() ? 0 : VESKBandwidthEnumToValue(VESK_BW_PROTOCOL_TYPE_NAMES, text.c_str());
    }
    if (protocol <= 0) {
        throw UsageError("unknown protocol '" + text + "' (known: " + kBuiltInNames +
                         ", or an add-on protocol's name)" +
                         DidYouMean(text, TableNameList(VESK_BW_PROTOCOL_TYPE_NAMES)));
    }
    if (protocol == VESK_BW_PROTOCOL_ALL && !allowAll) {
        throw UsageError("protocol 'all' is not allowed here; name one protocol");
    }
    return protocol;
}

std::string ProtocolName(int protocol)
{
    char name[256] = "";
    if (VESKBandwidthEnumToName(VESK_BW_PROTOCOL_TYPE_NAMES, protocol, name, sizeof name) < 1 || name[0] == '\0') {
        return "protocol-" + std::to_string(protocol);
    }
    return name;
}

std::vector<int> BuiltInProtocols()
{
    return {VESK_BW_PROTOCOL_LANTERNPOST, VESK_BW_PROTOCOL_WEBDAV, VESK_BW_PROTOCOL_FTP, VESK_BW_PROTOCOL_RSYNC};
}

int ParseDirection(const std::string &text, bool allowBoth)
{
    auto is = [&text](const char *name) { return strcasecmp(text.c_str(), name) == 0; };
    if (is("up") || is("upload")) {
        return VESK_BW_TRANSFER_UPLOAD;
    }
    if (is("down") || is("download")) {
        return VESK_BW_TRANSFER_DOWNLOAD;
    }
    if (allowBoth && is("both")) {
        return VESK_BW_TRANSFER_ALL;
    }
    throw UsageError("unknown direction '" + text + "' (known: upload, download" + (allowBoth ? ", both)" : ")"));
}

std::string DirectionName(int direction)
{
    return EnumName(VESK_BW_TRANSFER_TYPE_NAMES, direction);
}

int ParseEnumName(const VESK_BW_ENUM_ENTRY *table, const std::string &text, const char *what)
{
    int value = CaseInsensitiveValue(table, text);
    if (value < 0) {
        throw UsageError("unknown " + std::string(what) + " '" + text + "' (known: " + TableNames(table) + ")" +
                         DidYouMean(text, TableNameList(table)));
    }
    return value;
}

std::string PickupHint(int protocol)
{
    std::string name = ProtocolName(protocol);
    if (protocol == VESK_BW_PROTOCOL_LANTERNPOST) {
        return "Running lanternpost transfers take the change up when their workers get SIGHUP: "
               "veskbandwidth reload lanternpost.";
    }
    if (protocol == VESK_BW_PROTOCOL_WEBDAV) {
        return "Running webdav transfers take the change up when the server gets SIGUSR2: veskbandwidth reload webdav.";
    }
    return "Running " + name +
           " transfers that use the transfer session (and 'veskbandwidth run') notice the "
           "changed limit file within about 200 ms by themselves; services that call the library per chunk take it "
           "up at their next SIGHUP; simulations of this tool: veskbandwidth reload simulators (its copies notice by "
           "themselves).";
}

std::string EnumName(const VESK_BW_ENUM_ENTRY *table, int value)
{
    for (const VESK_BW_ENUM_ENTRY *entry = table; entry->szName != nullptr; ++entry) {
        if (entry->iValue == value) {
            return entry->szName;
        }
    }
    return "unknown(" + std::to_string(value) + ")";
}

}  // namespace cli

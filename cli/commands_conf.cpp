// limit set|show and global set|show: the configured limits of users and
// groups, and the global settings of each protocol.
#include <cstddef>
#include <cstring>
#include <iostream>
#include <optional>

#include "cli.h"
#include "schedule.h"
#include "table.h"
#include "vesk_file.h"

namespace cli {
namespace {

static_assert(offsetof(VESK_BANDWIDTH_LIMIT, szSchedulePlan) == offsetof(VESK_BANDWIDTH_CONF, szSchedulePlan),
              "a limit record begins with a VESK_BANDWIDTH_CONF");

// ---------------------------------------------------------------------------
// Resolving records for the present hour, through the library's own rules.

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

int GlobalStateNow(const VESK_BANDWIDTH_GLOBAL_CONF &global)
{
    VESK_BANDWIDTH_CONFIG config = {};
    config.globalConf = global;
    VESKBandwidthInitConfig(&config, 0);
    return config.globalConf.iCurState;
}

std::string LimitNowText(const VESK_BANDWIDTH_LIMIT &now)
{
    if (now.iCurState != VESK_BW_STATE_ENABLED) {
        return "no limit";
    }
    return "up " + RateText(now.ullCurRate[VESK_BW_TRANSFER_UPLOAD]) + ", down " +
           RateText(now.ullCurRate[VESK_BW_TRANSFER_DOWNLOAD]);
}

std::string GlobalNowText(const VESK_BANDWIDTH_GLOBAL_CONF &global)
{
    if (global.iState == VESK_BW_STATE_NOTEXISTED) {
        return "off (not configured)";
    }
    return GlobalStateNow(global) == VESK_BW_STATE_ENABLED ? "on" : "off";
}

bool ShowsGrid(int state, const char *plan)
{
    return state == VESK_BW_STATE_SCHEDULE || plan[0] != '\0';
}

void StorePlan(char (&field)[VESK_BW_SCHEDULE_PLAN_SIZE], const std::string &plan)
{
    std::memset(field, 0, sizeof field);
    std::memcpy(field, plan.data(), plan.size());
}

// ---------------------------------------------------------------------------
// Limits.

struct LimitEntry {
    Owner owner;
    VESK_BANDWIDTH_CONF conf;
};

VESK_BANDWIDTH_CONF ReadLimit(const Owner &owner, int protocol)
{
    VESK_BANDWIDTH_CONF conf = {};
    if (VESKBandwidthConfGetByID(owner.type, owner.id, protocol, &conf) != 0) {
        FailLibrary("cannot read the " + ProtocolName(protocol) + " limit of " + OwnerLabel(owner));
    }
    return conf;
}

// The owners that have a section in a protocol's limit file.
std::vector<Owner> OwnersWithLimits(int protocol)
{
    std::vector<Owner> owners;
    char path[4096];
    if (VESKBandwidthConfPath(protocol, path, sizeof path) != 0) {
        FailLibrary("no limit file for protocol " + ProtocolName(protocol));
    }
    if (VLIBCFileExist(path) <= 0) {
        return owners;
    }
    VLIBC_SZLIST *sections = nullptr;
    int count = VLIBCFileEnumSection(path, &sections);
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
        FailLibrary(std::string("cannot read ") + path);
    }
    return owners;
}

void PrintLimitTable(const std::vector<LimitEntry> &entries)
{
    Table table({{"OWNER", false},
                 {"PROTOCOL", false},
                 {"STATE", false},
                 {"UP KB/s", true},
                 {"DOWN KB/s", true},
                 {"CUSTOM UP", true},
                 {"CUSTOM DOWN", true},
                 {"IN FORCE NOW (KB/s)", false}});
    for (const LimitEntry &e : entries) {
        const VESK_BANDWIDTH_CONF &c = e.conf;
        table.AddRow({OwnerLabel(e.owner), ProtocolName(c.iProtocol), EnumName(VESK_BW_LIMIT_STATE_NAMES, c.iState),
                      RateText(c.ullRate[VESK_BW_TRANSFER_UPLOAD]), RateText(c.ullRate[VESK_BW_TRANSFER_DOWNLOAD]),
                      RateText(c.ullCustomRate[VESK_BW_TRANSFER_UPLOAD]),
                      RateText(c.ullCustomRate[VESK_BW_TRANSFER_DOWNLOAD]), LimitNowText(LimitNow(c))});
    }
    table.Print(std::cout);
    for (const LimitEntry &e : entries) {
        if (ShowsGrid(e.conf.iState, e.conf.szSchedulePlan)) {
            std::cout << "\nSchedule of " << OwnerLabel(e.owner) << " for " << ProtocolName(e.conf.iProtocol)
                      << ":\n";
            PrintWeekGrid(std::cout, e.conf.szSchedulePlan, PlanKind::Limit);
        }
    }
}

void PrintLimitJson(const std::vector<LimitEntry> &entries)
{
    JsonWriter json(std::cout);
    json.BeginObject().Key("limits").BeginArray();
    for (const LimitEntry &e : entries) {
        const VESK_BANDWIDTH_CONF &c = e.conf;
        VESK_BANDWIDTH_LIMIT now = LimitNow(c);
        json.BeginObject()
            .Field("owner_type", EnumName(VESK_BW_OWNER_TYPE_NAMES, e.owner.type))
            .Field("owner", e.owner.name)
            .Field("id", static_cast<uint64_t>(e.owner.id))
            .Field("protocol", ProtocolName(c.iProtocol))
            .Field("state", EnumName(VESK_BW_LIMIT_STATE_NAMES, c.iState))
            .Field("upload_rate", static_cast<uint64_t>(c.ullRate[VESK_BW_TRANSFER_UPLOAD]))
            .Field("download_rate", static_cast<uint64_t>(c.ullRate[VESK_BW_TRANSFER_DOWNLOAD]))
            .Field("upload_rate_custom", static_cast<uint64_t>(c.ullCustomRate[VESK_BW_TRANSFER_UPLOAD]))
            .Field("download_rate_custom", static_cast<uint64_t>(c.ullCustomRate[VESK_BW_TRANSFER_DOWNLOAD]))
            .Field("schedule_plan", std::string(c.szSchedulePlan))
            .Key("now")
            .BeginObject()
            .Key("limited").Bool(now.iCurState == VESK_BW_STATE_ENABLED)
            .Field("upload_rate", static_cast<uint64_t>(now.ullCurRate[VESK_BW_TRANSFER_UPLOAD]))
            .Field("download_rate", static_cast<uint64_t>(now.ullCurRate[VESK_BW_TRANSFER_DOWNLOAD]))
            .EndObject()
            .EndObject();
    }
    json.EndArray().EndObject();
}

void DumpLimits(const std::vector<LimitEntry> &entries)
{
    VESKBandwidthConfDumpHeader(stdout);
    for (const LimitEntry &e : entries) {
        VESK_BANDWIDTH_LIMIT now = LimitNow(e.conf);
        if (VESKBandwidthConfDump(stdout, reinterpret_cast<const VESK_BANDWIDTH_CONF *>(&now)) != 0) {
            FailLibrary("cannot print the limit of " + OwnerLabel(e.owner));
        }
    }
}

// ---------------------------------------------------------------------------
// Global settings.

VESK_BANDWIDTH_GLOBAL_CONF ReadGlobal(int protocol)
{
    VESK_BANDWIDTH_GLOBAL_CONF global = {};
    if (VESKBandwidthGlobalConfGet(protocol, &global) != 0) {
        FailLibrary("cannot read the global settings of " + ProtocolName(protocol));
    }
    return global;
}

void PrintGlobalTable(const std::vector<VESK_BANDWIDTH_GLOBAL_CONF> &globals)
{
    Table table({{"PROTOCOL", false},
                 {"STATE", false},
                 {"LIMITING NOW", false},
                 {"USER-GROUP POLICY", false},
                 {"INTER-GROUP POLICY", false},
                 {"OCCUPY POLICY", false}});
    for (const VESK_BANDWIDTH_GLOBAL_CONF &g : globals) {
        table.AddRow({ProtocolName(g.iProtocol), EnumName(VESK_BW_LIMIT_STATE_NAMES, g.iState), GlobalNowText(g),
                      EnumName(VESK_BW_USER_GROUP_POLICY_NAMES, g.iUserGroupPolicy),
                      EnumName(VESK_BW_INTER_GROUP_POLICY_NAMES, g.iInterGroupPolicy),
                      EnumName(VESK_BW_OCCUPY_POLICY_NAMES, g.iOccupyPolicy)});
    }
    table.Print(std::cout);
    for (const VESK_BANDWIDTH_GLOBAL_CONF &g : globals) {
        if (ShowsGrid(g.iState, g.szSchedulePlan)) {
            std::cout << "\nGlobal schedule of " << ProtocolName(g.iProtocol) << ":\n";
            PrintWeekGrid(std::cout, g.szSchedulePlan, PlanKind::Global);
        }
    }
}

void PrintGlobalJson(const std::vector<VESK_BANDWIDTH_GLOBAL_CONF> &globals)
{
    JsonWriter json(std::cout);
    json.BeginObject().Key("globals").BeginArray();
    for (const VESK_BANDWIDTH_GLOBAL_CONF &g : globals) {
        json.BeginObject()
            .Field("protocol", ProtocolName(g.iProtocol))
            .Field("state", EnumName(VESK_BW_LIMIT_STATE_NAMES, g.iState))
            .Key("limiting_now").Bool(g.iState != VESK_BW_STATE_NOTEXISTED && GlobalStateNow(g) == VESK_BW_STATE_ENABLED)
            .Field("user_group_policy", EnumName(VESK_BW_USER_GROUP_POLICY_NAMES, g.iUserGroupPolicy))
            .Field("inter_group_policy", EnumName(VESK_BW_INTER_GROUP_POLICY_NAMES, g.iInterGroupPolicy))
            .Field("occupy_policy", EnumName(VESK_BW_OCCUPY_POLICY_NAMES, g.iOccupyPolicy))
            .Field("schedule_plan", std::string(g.szSchedulePlan))
            .EndObject();
    }
    json.EndArray().EndObject();
}

void DumpGlobals(const std::vector<VESK_BANDWIDTH_GLOBAL_CONF> &globals)
{
    VESKBandwidthGlobalConfDumpHeader(stdout);
    for (const VESK_BANDWIDTH_GLOBAL_CONF &g : globals) {
        if (VESKBandwidthGlobalConfDump(stdout, &g) != 0) {
            FailLibrary("cannot print the global settings of " + ProtocolName(g.iProtocol));
        }
    }
}

std::vector<int> ProtocolsFromArgs(const Args &args)
{
    return args.Has("protocol") ? std::vector<int>{ParseProtocol(args.Get("protocol"), false)} : BuiltInProtocols();
}

int RequiredProtocol(const Args &args)
{
    if (!args.Has("protocol")) {
        throw UsageError("missing --protocol NAME");
    }
    return ParseProtocol(args.Get("protocol"), false);
}

std::optional<uint64_t> OptionalRate(const Args &args, const char *name)
{
    if (!args.Has(name)) {
        return std::nullopt;
    }
    return ParseRateKBps(args.Get(name), (std::string("--") + name).c_str());
}

std::optional<std::string> OptionalPlan(const Args &args, PlanKind kind)
{
    if (!args.Has("schedule")) {
        return std::nullopt;
    }
    return ParseSchedule(args.Get("schedule"), kind);
}

template <typename T> std::optional<T> OptionalEnum(const Args &args, const char *name,
                                                   const VESK_BW_ENUM_ENTRY *table, const char *what)
{
    if (!args.Has(name)) {
        return std::nullopt;
    }
    return static_cast<T>(ParseEnumName(table, args.Get(name), what));
}

}  // namespace

int RunLimitSet(int argc, char **argv)
{
    Args args(argc, argv, {{"user", true}, {"group", true}, {"protocol", true}, {"state", true}, {"up", true},
                           {"down", true}, {"custom-up", true}, {"custom-down", true}, {"schedule", true}});
    args.ExpectPositional(0, "");
    // Every argument is checked before anything is read or stored.
    Owner owner = OwnerFromArgs(args);
    int protocol = RequiredProtocol(args);
    auto state = OptionalEnum<VESK_BW_LIMIT_STATE>(args, "state", VESK_BW_LIMIT_STATE_NAMES, "state");
    auto up = OptionalRate(args, "up");
    auto down = OptionalRate(args, "down");
    auto customUp = OptionalRate(args, "custom-up");
    auto customDown = OptionalRate(args, "custom-down");
    auto plan = OptionalPlan(args, PlanKind::Limit);
    if (!state && !up && !down && !customUp && !customDown && !plan) {
        throw UsageError("nothing to set: give --state, --up, --down, --custom-up, --custom-down or --schedule");
    }

    VESK_BANDWIDTH_CONF conf = ReadLimit(owner, protocol);
    if (state) {
        conf.iState = *state;
    } else if (plan) {
        conf.iState = VESK_BW_STATE_SCHEDULE;
    } else if (conf.iState == VESK_BW_STATE_NOTEXISTED) {
        conf.iState = VESK_BW_STATE_ENABLED;
    }
    conf.ullRate[VESK_BW_TRANSFER_UPLOAD] = up.value_or(conf.ullRate[VESK_BW_TRANSFER_UPLOAD]);
    conf.ullRate[VESK_BW_TRANSFER_DOWNLOAD] = down.value_or(conf.ullRate[VESK_BW_TRANSFER_DOWNLOAD]);
    conf.ullCustomRate[VESK_BW_TRANSFER_UPLOAD] = customUp.value_or(conf.ullCustomRate[VESK_BW_TRANSFER_UPLOAD]);
    conf.ullCustomRate[VESK_BW_TRANSFER_DOWNLOAD] =
        customDown.value_or(conf.ullCustomRate[VESK_BW_TRANSFER_DOWNLOAD]);
    if (plan) {
        StorePlan(conf.szSchedulePlan, *plan);
    }
    if (VESKBandwidthConfSetByID(&conf) != 0) {
        FailLibrary("cannot store the " + ProtocolName(protocol) + " limit of " + OwnerLabel(owner));
    }
    std::cout << "Stored. Running transfers take it up at their next reload (veskbandwidth reload ...).\n";
    PrintLimitTable({{owner, conf}});
    return 0;
}

int RunLimitShow(int argc, char **argv)
{
    Args args(argc, argv, {{"user", true}, {"group", true}, {"protocol", true}, {"json", false}, {"dump", false}});
    args.ExpectPositional(0, "");
    bool oneOwner = args.Has("user") || args.Has("group");
    std::optional<Owner> owner;
    if (oneOwner) {
        owner = OwnerFromArgs(args);
    }
    std::vector<LimitEntry> entries;
    for (int protocol : ProtocolsFromArgs(args)) {
        for (const Owner &o : owner ? std::vector<Owner>{*owner} : OwnersWithLimits(protocol)) {
            entries.push_back({o, ReadLimit(o, protocol)});
        }
    }
    if (args.Has("json")) {
        PrintLimitJson(entries);
    } else if (args.Has("dump")) {
        DumpLimits(entries);
    } else if (entries.empty()) {
        std::cout << "No limits are configured.\n";
    } else {
        PrintLimitTable(entries);
    }
    return 0;
}

int RunGlobalSet(int argc, char **argv)
{
    Args args(argc, argv, {{"protocol", true}, {"state", true}, {"user-group-policy", true},
                           {"inter-group-policy", true}, {"occupy-policy", true}, {"schedule", true}});
    args.ExpectPositional(0, "");
    int protocol = RequiredProtocol(args);
    auto state = OptionalEnum<VESK_BW_LIMIT_STATE>(args, "state", VESK_BW_LIMIT_STATE_NAMES, "state");
    auto userGroup = OptionalEnum<VESK_BW_GROUP_POLICY>(args, "user-group-policy", VESK_BW_USER_GROUP_POLICY_NAMES,
                                                        "user-group policy");
    auto interGroup = OptionalEnum<VESK_BW_GROUP_POLICY>(args, "inter-group-policy",
                                                         VESK_BW_INTER_GROUP_POLICY_NAMES, "inter-group policy");
    auto occupy = OptionalEnum<VESK_BW_OCCUPY_POLICY>(args, "occupy-policy", VESK_BW_OCCUPY_POLICY_NAMES,
                                                      "occupy policy");
    auto plan = OptionalPlan(args, PlanKind::Global);
    if (!state && !userGroup && !interGroup && !occupy && !plan) {
        throw UsageError("nothing to set: give --state, --user-group-policy, --inter-group-policy, "
                         "--occupy-policy or --schedule");
    }

    VESK_BANDWIDTH_GLOBAL_CONF global = ReadGlobal(protocol);
    if (state) {
        global.iState = *state;
    } else if (plan) {
        global.iState = VESK_BW_STATE_SCHEDULE;
    }
    global.iUserGroupPolicy = userGroup.value_or(global.iUserGroupPolicy);
    global.iInterGroupPolicy = interGroup.value_or(global.iInterGroupPolicy);
    global.iOccupyPolicy = occupy.value_or(global.iOccupyPolicy);
    if (plan) {
        StorePlan(global.szSchedulePlan, *plan);
    }
    int stored;
    {
        QuietStderr quiet;  // the library's own simulator hangup runs killall
        stored = VESKBandwidthGlobalConfSet(&global);
    }
    if (stored != 0) {
        FailLibrary("cannot store the global settings of " + ProtocolName(protocol));
    }
    int signalled = SignalSimulators();
    std::cout << "Stored; sent a reload to " << signalled << " simulator process" << (signalled == 1 ? "" : "es")
              << ".\n";
    PrintGlobalTable({global});
    return 0;
}

int RunGlobalShow(int argc, char **argv)
{
    Args args(argc, argv, {{"protocol", true}, {"json", false}, {"dump", false}});
    args.ExpectPositional(0, "");
    std::vector<VESK_BANDWIDTH_GLOBAL_CONF> globals;
    for (int protocol : ProtocolsFromArgs(args)) {
        globals.push_back(ReadGlobal(protocol));
    }
    if (args.Has("json")) {
        PrintGlobalJson(globals);
    } else if (args.Has("dump")) {
        DumpGlobals(globals);
    } else {
        PrintGlobalTable(globals);
    }
    return 0;
}

}  // namespace cli

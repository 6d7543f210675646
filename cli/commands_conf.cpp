// limit set|show|remove and global set|show: the configured limits of users
// and groups, and the global settings of each protocol.
#include <cstring>
#include <iostream>
#include <optional>

#include "cli.h"
#include "conf_check.h"
#include "limits.h"
#include "schedule.h"
#include "table.h"
#include "vesk_file.h"

namespace cli {
namespace {

const char *const kRateOptions[] = {"up", "down", "custom-up", "custom-down"};
const char kInvalidNote[] = "INVALID: see the errors above";

std::string LimitNowText(const VESK_BANDWIDTH_LIMIT &now)
{
    if (now.iCurState != VESK_BW_STATE_ENABLED) {
        return "no limit";
    }
    return "up " + KiBRateText(now.ullCurRate[VESK_BW_TRANSFER_UPLOAD]) + ", down " +
           KiBRateText(now.ullCurRate[VESK_BW_TRANSFER_DOWNLOAD]);
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

// A configured rate in bytes/s, or null when it is past the largest rate
// (its bytes per second may not even fit 64 bits).
void RateField(JsonWriter &json, const std::string &key, uint64_t kib)
{
    json.Key(key);
    if (kib > kMaxRateKiB) {
        json.Null();
    } else {
        json.Number(kib * 1024);
    }
}

// ---------------------------------------------------------------------------
// Limits.

struct ShownLimit {
    LimitEntry entry;
    Limiting limiting;  // of the limit's protocol
    bool valid;
};

std::string NoteOf(const ShownLimit &shown)
{
    if (!shown.valid) {
        return kInvalidNote;
    }
    return shown.limiting.on ? "" : "not applied: " + shown.limiting.why;
}

void PrintLimitTable(const std::vector<ShownLimit> &limits)
{
    Table table({{"OWNER", false},
                 {"PROTOCOL", false},
                 {"STATE", false},
                 {"UP", true},
                 {"DOWN", true},
                 {"CUSTOM UP", true},
                 {"CUSTOM DOWN", true},
                 {"IN FORCE NOW", false},
                 {"NOTE", false}});
    for (const ShownLimit &shown : limits) {
        const VESK_BANDWIDTH_CONF &c = shown.entry.conf;
        table.AddRow(
            {OwnerLabel(shown.entry.owner), ProtocolName(c.iProtocol), EnumName(VESK_BW_LIMIT_STATE_NAMES, c.iState),
             KiBRateText(c.ullRate[VESK_BW_TRANSFER_UPLOAD]), KiBRateText(c.ullRate[VESK_BW_TRANSFER_DOWNLOAD]),
             KiBRateText(c.ullCustomRate[VESK_BW_TRANSFER_UPLOAD]),
             KiBRateText(c.ullCustomRate[VESK_BW_TRANSFER_DOWNLOAD]), LimitNowText(LimitNow(c)), NoteOf(shown)});
    }
    table.Print(std::cout);
    for (const ShownLimit &shown : limits) {
        const VESK_BANDWIDTH_CONF &c = shown.entry.conf;
        if (ShowsGrid(c.iState, c.szSchedulePlan)) {
            std::cout << "\nSchedule of " << Printable(OwnerLabel(shown.entry.owner)) << " for "
                      << Printable(ProtocolName(c.iProtocol)) << ":\n";
            PrintWeekGrid(std::cout, c.szSchedulePlan, PlanKind::Limit);
        }
    }
}

void PrintLimitJson(const std::vector<ShownLimit> &limits)
{
    JsonWriter json(std::cout);
    json.BeginObject().Key("limits").BeginArray();
    for (const ShownLimit &shown : limits) {
        const VESK_BANDWIDTH_CONF &c = shown.entry.conf;
        VESK_BANDWIDTH_LIMIT now = LimitNow(c);
        json.BeginObject()
            .Field("owner_type", EnumName(VESK_BW_OWNER_TYPE_NAMES, shown.entry.owner.type))
            .Field("owner", shown.entry.owner.name)
            .Field("id", static_cast<uint64_t>(shown.entry.owner.id))
            .Field("protocol", ProtocolName(c.iProtocol))
            .Field("state", EnumName(VESK_BW_LIMIT_STATE_NAMES, c.iState));
        RateField(json, "upload_rate_bytes_s", c.ullRate[VESK_BW_TRANSFER_UPLOAD]);
        RateField(json, "download_rate_bytes_s", c.ullRate[VESK_BW_TRANSFER_DOWNLOAD]);
        RateField(json, "upload_rate_custom_bytes_s", c.ullCustomRate[VESK_BW_TRANSFER_UPLOAD]);
        RateField(json, "download_rate_custom_bytes_s", c.ullCustomRate[VESK_BW_TRANSFER_DOWNLOAD]);
        json.Field("schedule_plan", std::string(c.szSchedulePlan))
            .Field("valid", shown.valid)
            .Field("applied", shown.limiting.on)
            .Field("note", NoteOf(shown))
            .Key("now")
            .BeginObject()
            .Field("limited", now.iCurState == VESK_BW_STATE_ENABLED);
        RateField(json, "upload_bytes_s", now.ullCurRate[VESK_BW_TRANSFER_UPLOAD]);
        RateField(json, "download_bytes_s", now.ullCurRate[VESK_BW_TRANSFER_DOWNLOAD]);
        json.EndObject().EndObject();
    }
    json.EndArray().EndObject();
}

void DumpLimits(const std::vector<ShownLimit> &limits)
{
    PrintDump(std::cout, VESKBandwidthConfDumpHeader);
    for (const ShownLimit &shown : limits) {
        VESK_BANDWIDTH_LIMIT now = LimitNow(shown.entry.conf);
        if (!PrintDump(std::cout, [&now](FILE *out) {
                return VESKBandwidthConfDump(out, reinterpret_cast<const VESK_BANDWIDTH_CONF *>(&now));
            })) {
            Warn("cannot print the limit of " + OwnerLabel(shown.entry.owner) + " (" + LibraryErrorText() + ")");
        }
    }
}

// ---------------------------------------------------------------------------
// Global settings.

std::string GlobalNowText(const VESK_BANDWIDTH_GLOBAL_CONF &global)
{
    if (global.iState == VESK_BW_STATE_NOTEXISTED) {
        return "off (never turned on)";
    }
    return LimitingNow(global).on ? "on" : "off";
}

void PrintGlobalTable(const std::vector<VESK_BANDWIDTH_GLOBAL_CONF> &globals, const std::vector<ConfProblem> &problems)
{
    Table table({{"PROTOCOL", false},
                 {"STATE", false},
                 {"LIMITING NOW", false},
                 {"USER-GROUP POLICY", false},
                 {"INTER-GROUP POLICY", false},
                 {"OCCUPY POLICY", false},
                 {"NOTE", false}});
    for (const VESK_BANDWIDTH_GLOBAL_CONF &g : globals) {
        table.AddRow({ProtocolName(g.iProtocol), EnumName(VESK_BW_LIMIT_STATE_NAMES, g.iState), GlobalNowText(g),
                      EnumName(VESK_BW_USER_GROUP_POLICY_NAMES, g.iUserGroupPolicy),
                      EnumName(VESK_BW_INTER_GROUP_POLICY_NAMES, g.iInterGroupPolicy),
                      EnumName(VESK_BW_OCCUPY_POLICY_NAMES, g.iOccupyPolicy),
                      HasProblemIn(problems, ProtocolName(g.iProtocol)) ? kInvalidNote : ""});
    }
    table.Print(std::cout);
    for (const VESK_BANDWIDTH_GLOBAL_CONF &g : globals) {
        if (ShowsGrid(g.iState, g.szSchedulePlan)) {
            std::cout << "\nGlobal schedule of " << Printable(ProtocolName(g.iProtocol)) << ":\n";
            PrintWeekGrid(std::cout, g.szSchedulePlan, PlanKind::Global);
        }
    }
}

void PrintGlobalJson(const std::vector<VESK_BANDWIDTH_GLOBAL_CONF> &globals, const std::vector<ConfProblem> &problems)
{
    JsonWriter json(std::cout);
    json.BeginObject().Key("globals").BeginArray();
    for (const VESK_BANDWIDTH_GLOBAL_CONF &g : globals) {
        json.BeginObject()
            .Field("protocol", ProtocolName(g.iProtocol))
            .Field("state", EnumName(VESK_BW_LIMIT_STATE_NAMES, g.iState))
            .Field("limiting_now", LimitingNow(g).on)
            .Field("user_group_policy", EnumName(VESK_BW_USER_GROUP_POLICY_NAMES, g.iUserGroupPolicy))
            .Field("inter_group_policy", EnumName(VESK_BW_INTER_GROUP_POLICY_NAMES, g.iInterGroupPolicy))
            .Field("occupy_policy", EnumName(VESK_BW_OCCUPY_POLICY_NAMES, g.iOccupyPolicy))
            .Field("schedule_plan", std::string(g.szSchedulePlan))
            .Field("valid", !HasProblemIn(problems, ProtocolName(g.iProtocol)))
            .EndObject();
    }
    json.EndArray().EndObject();
}

void DumpGlobals(const std::vector<VESK_BANDWIDTH_GLOBAL_CONF> &globals)
{
    PrintDump(std::cout, VESKBandwidthGlobalConfDumpHeader);
    for (const VESK_BANDWIDTH_GLOBAL_CONF &g : globals) {
        if (!PrintDump(std::cout, [&g](FILE *out) { return VESKBandwidthGlobalConfDump(out, &g); })) {
            Warn("cannot print the global settings of " + ProtocolName(g.iProtocol) + " (" + LibraryErrorText() + ")");
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
    return ParseRateKiB(args.Get(name), (std::string("--") + name).c_str());
}

std::optional<std::string> OptionalPlan(const Args &args, PlanKind kind)
{
    if (!args.Has("schedule")) {
        return std::nullopt;
    }
    return ParseSchedule(args.Get("schedule"), kind);
}

template <typename T>
std::optional<T> OptionalEnum(const Args &args, const char *name, const VESK_BW_ENUM_ENTRY *table, const char *what)
{
    if (!args.Has(name)) {
        return std::nullopt;
    }
    return static_cast<T>(ParseEnumName(table, args.Get(name), what));
}

// The keys of a stored record whose values a change keeps: those that no
// given option sets (a schedule sets the state too).
std::vector<std::string> KeptKeys(const Args &args,
                                  const std::vector<std::pair<const char *, const char *>> &optionKeys)
{
    std::vector<std::string> kept;
    for (const auto &[option, key] : optionKeys) {
        bool set = args.Has(option) || (std::strcmp(key, "state") == 0 && args.Has("schedule"));
        if (!set) {
            kept.push_back(key);
        }
    }
    return kept;
}

void WarnNotApplied(const VESK_BANDWIDTH_GLOBAL_CONF &global, const Limiting &limiting)
{
    std::string name = ProtocolName(global.iProtocol);
    Warn(limiting.why + ", so this limit does nothing now; " +
         (global.iState == VESK_BW_STATE_SCHEDULE
              ? "see when it is on: veskbandwidth global show --protocol " + name
              : "turn limiting on: veskbandwidth global set --protocol " + name + " --state enabled"));
}

}  // namespace

int RunLimitSet(int argc, char **argv)
{
    Args args(argc, argv,
              {{"user", true},
               {"group", true},
               {"protocol", true},
               {"state", true},
               {"up", true},
               {"down", true},
               {"custom-up", true},
               {"custom-down", true},
               {"schedule", true}});
    args.ExpectPositional(0, "");
    // Every argument is checked before anything is read or stored.
    Owner owner = OwnerFromArgs(args);
    int protocol = RequiredProtocol(args);
    auto state = OptionalEnum<VESK_BW_LIMIT_STATE>(args, "state", VESK_BW_LIMIT_STATE_NAMES, "state");
    std::optional<uint64_t> rates[4];
    for (int i = 0; i < 4; ++i) {
        rates[i] = OptionalRate(args, kRateOptions[i]);
    }
    auto plan = OptionalPlan(args, PlanKind::Limit);
    if (!state && !rates[0] && !rates[1] && !rates[2] && !rates[3] && !plan) {
        throw UsageError("nothing to set: give --state, --up, --down, --custom-up, --custom-down or --schedule");
    }
    RefuseToChange(CheckLimitFile(protocol), SectionName(owner),
                   KeptKeys(args, {{"state", "state"},
                                   {kRateOptions[0], kLimitRateKeys[0]},
                                   {kRateOptions[1], kLimitRateKeys[1]},
                                   {kRateOptions[2], kLimitRateKeys[2]},
                                   {kRateOptions[3], kLimitRateKeys[3]},
                                   {"schedule", "schedule plan"}}));

    VESK_BANDWIDTH_CONF conf = {};
    try {
        conf = ReadLimit(owner, protocol);
    } catch (const Error &error) {
        throw Error(error.what() + std::string("; 'veskbandwidth limit remove' deletes the record"), 1);
    }
    conf.id = owner.id;  // whatever the stored keys said, the record is this owner's
    conf.iOwnerType = static_cast<VESK_BW_OWNER_TYPE>(owner.type);
    conf.iProtocol = static_cast<VESK_BW_PROTOCOL_TYPE>(protocol);
    if (state) {
        conf.iState = *state;
    } else if (plan) {
        conf.iState = VESK_BW_STATE_SCHEDULE;
    } else if (conf.iState == VESK_BW_STATE_NOTEXISTED) {
        conf.iState = VESK_BW_STATE_ENABLED;
    }
    uint64_t *fields[4] = {&conf.ullRate[VESK_BW_TRANSFER_UPLOAD], &conf.ullRate[VESK_BW_TRANSFER_DOWNLOAD],
                           &conf.ullCustomRate[VESK_BW_TRANSFER_UPLOAD],
                           &conf.ullCustomRate[VESK_BW_TRANSFER_DOWNLOAD]};
    for (int i = 0; i < 4; ++i) {
        *fields[i] = rates[i].value_or(*fields[i]);
    }
    if (plan) {
        StorePlan(conf.szSchedulePlan, *plan);
    }
    if (VESKBandwidthConfSetByID(&conf) != 0) {
        FailLibrary("cannot store the " + ProtocolName(protocol) + " limit of " + OwnerLabel(owner));
    }
    VESK_BANDWIDTH_GLOBAL_CONF global = ReadGlobal(protocol);
    Limiting limiting = LimitingNow(global);
    PrintLimitTable({{{owner, conf}, limiting, true}});
    if (!limiting.on) {
        WarnNotApplied(global, limiting);
    }
    std::cout << PickupHint(protocol) << '\n';
    return 0;
}

int RunLimitShow(int argc, char **argv)
{
    Args args(argc, argv, {{"user", true}, {"group", true}, {"protocol", true}, {"json", false}, {"dump", false}});
    args.ExpectPositional(0, "");
    std::optional<Owner> owner;
    if (args.Has("user") || args.Has("group")) {
        owner = OwnerFromArgs(args);
    }
    std::vector<ConfProblem> problems = CheckGlobalFile();
    std::vector<ShownLimit> limits;
    std::vector<std::string> unreadable;  // records the library cannot read at all
    for (int protocol : ProtocolsFromArgs(args)) {
        std::vector<ConfProblem> fileProblems = CheckLimitFile(protocol);
        problems.insert(problems.end(), fileProblems.begin(), fileProblems.end());
        Limiting limiting = LimitingNow(ReadGlobal(protocol));
        for (const Owner &o : owner ? std::vector<Owner>{*owner} : OwnersWithLimits(protocol)) {
            try {
                limits.push_back({{o, ReadLimit(o, protocol)}, limiting, !HasProblemIn(fileProblems, SectionName(o))});
            } catch (const Error &error) {
                unreadable.push_back(error.what());
            }
        }
    }
    ReportProblems(problems);
    for (const std::string &message : unreadable) {
        std::cerr << "veskbandwidth: " << Printable(message) << '\n';
    }
    if (args.Has("json")) {
        PrintLimitJson(limits);
    } else if (args.Has("dump")) {
        DumpLimits(limits);
    } else if (limits.empty()) {
        std::cout << "No limits are configured.\n";
    } else {
        PrintLimitTable(limits);
    }
    return problems.empty() && unreadable.empty() ? 0 : 1;
}

int RunLimitRemove(int argc, char **argv)
{
    Args args(argc, argv, {{"user", true}, {"group", true}, {"protocol", true}});
    args.ExpectPositional(0, "");
    Owner owner = OwnerFromArgs(args);
    int protocol = RequiredProtocol(args);
    RefuseToChange(CheckLimitFile(protocol), SectionName(owner), {});
    std::string path = LimitFilePath(protocol);
    int removed =
        VLIBCFileExist(path.c_str()) > 0 ? VLIBCFileRemoveSection(path.c_str(), SectionName(owner).c_str()) : 0;
    if (removed < 0) {
        FailLibrary("cannot remove the " + ProtocolName(protocol) + " limit of " + OwnerLabel(owner));
    }
    if (removed == 0) {
        throw Error(OwnerLabel(owner) + " has no " + ProtocolName(protocol) + " limit", 1);
    }
    std::cout << Printable("Removed the " + ProtocolName(protocol) + " limit of " + OwnerLabel(owner) + ".") << '\n'
              << PickupHint(protocol) << '\n';
    return 0;
}

int RunGlobalSet(int argc, char **argv)
{
    Args args(argc, argv,
              {{"protocol", true},
               {"state", true},
               {"user-group-policy", true},
               {"inter-group-policy", true},
               {"occupy-policy", true},
               {"schedule", true}});
    args.ExpectPositional(0, "");
    int protocol = RequiredProtocol(args);
    auto state = OptionalEnum<VESK_BW_LIMIT_STATE>(args, "state", VESK_BW_LIMIT_STATE_NAMES, "state");
    auto userGroup = OptionalEnum<VESK_BW_GROUP_POLICY>(args, "user-group-policy", VESK_BW_USER_GROUP_POLICY_NAMES,
                                                        "user-group policy");
    auto interGroup = OptionalEnum<VESK_BW_GROUP_POLICY>(args, "inter-group-policy", VESK_BW_INTER_GROUP_POLICY_NAMES,
                                                         "inter-group policy");
    auto occupy =
        OptionalEnum<VESK_BW_OCCUPY_POLICY>(args, "occupy-policy", VESK_BW_OCCUPY_POLICY_NAMES, "occupy policy");
    auto plan = OptionalPlan(args, PlanKind::Global);
    if (!state && !userGroup && !interGroup && !occupy && !plan) {
        throw UsageError("nothing to set: give --state, --user-group-policy, --inter-group-policy, "
                         "--occupy-policy or --schedule");
    }
    RefuseToChange(CheckGlobalFile(), ProtocolName(protocol),
                   KeptKeys(args, {{"state", "state"},
                                   {"user-group-policy", "user-group policy"},
                                   {"inter-group-policy", "inter-group policy"},
                                   {"occupy-policy", "occupy policy"},
                                   {"schedule", "schedule plan"}}));

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
    int stored = VESKBandwidthGlobalConfSet(&global);
    if (stored != 0) {
        FailLibrary("cannot store the global settings of " + ProtocolName(protocol));
    }
    std::vector<pid_t> reached = SignalSimulators();
    PrintGlobalTable({global}, {});
    std::cout << "Sent a reload to " << Plural(reached.size(), "simulator process")
              << (reached.empty() ? "" : " (pid " + PidList(reached) + ")") << ".\n"
              << PickupHint(protocol) << '\n';
    return 0;
}

int RunGlobalShow(int argc, char **argv)
{
    Args args(argc, argv, {{"protocol", true}, {"json", false}, {"dump", false}});
    args.ExpectPositional(0, "");
    std::vector<ConfProblem> problems = CheckGlobalFile();
    std::vector<VESK_BANDWIDTH_GLOBAL_CONF> globals;
    for (int protocol : ProtocolsFromArgs(args)) {
        globals.push_back(ReadGlobal(protocol));
    }
    ReportProblems(problems);
    if (args.Has("json")) {
        PrintGlobalJson(globals, problems);
    } else if (args.Has("dump")) {
        DumpGlobals(globals);
    } else {
        PrintGlobalTable(globals, problems);
    }
    return problems.empty() ? 0 : 1;
}

}  // namespace cli

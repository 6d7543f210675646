// The strict reader of limit and global files: the section-file syntax line
// by line, then every value against what the library can read faithfully.
#include "conf_check.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <sstream>

#include "cli.h"
#include "limits.h"
#include "schedule.h"
#include "table.h"

namespace cli {
namespace {

constexpr size_t kReportedPerFile = 10;

struct Pair {
    std::string value;
    int line;
};

struct Section {
    std::string name;
    int line;
    std::map<std::string, Pair> pairs;

    const Pair *Find(const std::string &key) const
    {
        auto it = pairs.find(key);
        return it == pairs.end() ? nullptr : &it->second;
    }
};

class FileChecker {
public:
    explicit FileChecker(std::string path) : path_(std::move(path)) {}

    // The sections of the file, noting every line that is not faithfully
    // read; none when the file does not exist.
    std::vector<Section> Read()
    {
        std::vector<Section> sections;
        struct stat st;
        if (stat(path_.c_str(), &st) != 0 && errno == ENOENT) {
            return sections;
        }
        std::ifstream in(path_, std::ios::binary);
        if (!in) {
            Note(0, "", "", std::string("cannot be read: ") + std::strerror(errno), true);
            return sections;
        }
        std::istringstream lines(std::string(std::istreambuf_iterator<char>(in), {}));
        int number = 0;
        for (std::string line; std::getline(lines, line);) {
            ReadLine(++number, line, &sections);
        }
        return sections;
    }

    void Note(int line, const std::string &section, const std::string &key, const std::string &message,
              bool damagesFile)
    {
        problems.push_back({path_ + ":" + std::to_string(line), section, key, message, damagesFile});
    }

    std::vector<ConfProblem> problems;

private:
    void ReadLine(int number, const std::string &line, std::vector<Section> *sections)
    {
        const std::string current = sections->empty() ? "" : sections->back().name;
        if (line.find('\0') != std::string::npos) {
            Note(number, current, "", "holds a NUL byte: the library skips the line", true);
        } else if (line.find_first_not_of(" \t") == std::string::npos || line[0] == '#' || line[0] == ';') {
            return;  // blank or comment
        } else if (line[0] == '[') {
            ReadHeader(number, line, sections);
        } else if (line.find('=') != std::string::npos && line[0] != '=') {
            ReadPair(number, line, sections);
        } else {
            Note(number, current, "",
                 "is neither a [section] header, a KEY=VALUE pair nor a comment: "
                 "the library skips it",
                 true);
        }
    }

    void ReadHeader(int number, const std::string &line, std::vector<Section> *sections)
    {
        const std::string current = sections->empty() ? "" : sections->back().name;
        std::string name = line.substr(1, line.size() - 2);
        if (line.size() < 2 || line.back() != ']' || name.find(']') != std::string::npos) {
            Note(number, current, "",
                 line.back() == '\r' ? "ends in a carriage return (a DOS line ending): the library does not read "
                                       "it as a section header"
                                     : "is no [section] header: the library skips it and reads the pairs after it "
                                       "as part of the section before",
                 true);
            return;
        }
        for (const Section &earlier : *sections) {
            if (earlier.name == name) {
                Note(number, name, "",
                     "section [" + name + "] appears again (first at line " + std::to_string(earlier.line) +
                         "): the library reads only the first",
                     true);
            }
        }
        sections->push_back({name, number, {}});
    }

    void ReadPair(int number, const std::string &line, std::vector<Section> *sections)
    {
        size_t eq = line.find('=');
        std::string key = line.substr(0, eq);
        if (sections->empty()) {
            Note(number, "", key, "KEY=VALUE before the first section: the library ignores it", true);
            return;
        }
        Section &section = sections->back();
        if (const Pair *earlier = section.Find(key)) {
            Note(number, section.name, key,
                 "key '" + key + "' repeated (first at line " + std::to_string(earlier->line) +
                     "): the library takes this value",
                 false);
        }
        section.pairs[key] = {line.substr(eq + 1), number};
    }

    std::string path_;
};

bool IsTableName(const VESK_BW_ENUM_ENTRY *table, const std::string &text)
{
    for (const VESK_BW_ENUM_ENTRY *entry = table; entry->szName != nullptr; ++entry) {
        if (text == entry->szName) {
            return true;
        }
    }
    return false;
}

bool IsWholeNumber(const std::string &text)
{
    return !text.empty() && text.size() <= 19 && text.find_first_not_of("0123456789") == std::string::npos;
}

void CheckName(FileChecker &c, const Section &s, const char *key, const VESK_BW_ENUM_ENTRY *table)
{
    const Pair *pair = s.Find(key);
    if (pair != nullptr && !IsTableName(table, pair->value)) {
        c.Note(pair->line, s.name, key,
               std::string(key) + " '" + pair->value + "' is not one of " + TableNames(table) +
                   " (in that spelling): the library reads it as absent",
               false);
    }
}

void CheckExact(FileChecker &c, const Section &s, const char *key, const std::string &expected)
{
    const Pair *pair = s.Find(key);
    if (pair != nullptr && pair->value != expected) {
        c.Note(pair->line, s.name, key,
               std::string(key) + " '" + pair->value + "' differs from '" + expected +
                   "', which the section's place says: the library takes '" + pair->value + "'",
               false);
    }
}

void CheckRates(FileChecker &c, const Section &s)
{
    for (const char *key : kLimitRateKeys) {
        const Pair *pair = s.Find(key);
        if (pair == nullptr) {
            continue;
        }
        if (!IsWholeNumber(pair->value)) {
            c.Note(pair->line, s.name, key, std::string(key) + " '" + pair->value + "' is not a whole number of KiB/s",
                   false);
        } else if (std::stoull(pair->value) > kMaxRateKiB) {
            c.Note(pair->line, s.name, key,
                   std::string(key) + " " + pair->value + " KiB/s is above " + std::to_string(kMaxRateKiB) +
                       " KiB/s (1 TiB/s), the largest rate",
                   false);
        }
    }
}

// A plan is read hour by hour only while the state is schedule.
void CheckPlan(FileChecker &c, const Section &s, const std::string &allowed)
{
    const Pair *state = s.Find("state");
    const Pair *plan = s.Find("schedule plan");
    if (state == nullptr || state->value != "schedule") {
        return;
    }
    std::string hours = plan != nullptr ? plan->value : "";
    int line = plan != nullptr ? plan->line : state->line;
    if (hours.size() < static_cast<size_t>(kPlanHours)) {
        c.Note(line, s.name, "schedule plan",
               "schedule plan has " + std::to_string(hours.size()) + " of the week's 168 hours", false);
        return;
    }
    size_t odd = hours.find_first_not_of(allowed);
    if (odd < static_cast<size_t>(kPlanHours)) {
        c.Note(line, s.name, "schedule plan",
               "schedule plan: hour " + std::to_string(odd) + " (" + HourName(odd) + ") is '" + hours.substr(odd, 1) +
                   "', not one of " + allowed,
               false);
    }
}

void CheckKnownKeys(FileChecker &c, const Section &s, const std::vector<std::string> &known)
{
    for (const auto &[key, pair] : s.pairs) {
        if (std::find(known.begin(), known.end(), key) == known.end()) {
            c.Note(pair.line, s.name, key, "unknown key '" + key + "': the library ignores it", false);
        }
    }
}

void CheckLimitSection(FileChecker &c, const Section &s, const std::string &protocol)
{
    size_t dash = s.name.find('-');
    std::string kind = s.name.substr(0, dash);
    std::string id = dash == std::string::npos ? "" : s.name.substr(dash + 1);
    if ((kind != "user" && kind != "group") || !IsWholeNumber(id) || id.size() > 10) {
        c.Note(s.line, s.name, "",
               "section [" + s.name +
                   "] names no user-UID or group-GID: the library never "
                   "reads it",
               false);
        return;
    }
    CheckExact(c, s, "id", id);
    CheckName(c, s, "state", VESK_BW_LIMIT_STATE_NAMES);
    CheckExact(c, s, "owner type", kind);
    CheckExact(c, s, "protocol type", protocol);
    CheckRates(c, s);
    CheckPlan(c, s, "012");
    CheckKnownKeys(c, s,
                   {"id", "state", "owner type", "protocol type", kLimitRateKeys[0], kLimitRateKeys[1],
                    kLimitRateKeys[2], kLimitRateKeys[3], "schedule plan"});
}

void CheckGlobalSection(FileChecker &c, const Section &s)
{
    bool named = false;
    try {
        named = ProtocolName(ParseProtocol(s.name, false)) == s.name;
    } catch (const UsageError &) {
    }
    if (!named) {
        c.Note(s.line, s.name, "", "section [" + s.name + "] names no protocol: the library never reads it", false);
        return;
    }
    CheckName(c, s, "state", VESK_BW_LIMIT_STATE_NAMES);
    CheckName(c, s, "user-group policy", VESK_BW_USER_GROUP_POLICY_NAMES);
    CheckName(c, s, "inter-group policy", VESK_BW_INTER_GROUP_POLICY_NAMES);
    CheckName(c, s, "occupy policy", VESK_BW_OCCUPY_POLICY_NAMES);
    CheckPlan(c, s, "01");
    CheckKnownKeys(c, s, {"state", "user-group policy", "inter-group policy", "occupy policy", "schedule plan"});
}

std::string FileOf(const ConfProblem &problem)
{
    return problem.where.substr(0, problem.where.rfind(':'));
}

}  // namespace

std::vector<ConfProblem> CheckLimitFile(int protocol)
{
    FileChecker checker(LimitFilePath(protocol));
    for (const Section &section : checker.Read()) {
        CheckLimitSection(checker, section, ProtocolName(protocol));
    }
    return checker.problems;
}

std::vector<ConfProblem> CheckGlobalFile()
{
    FileChecker checker(LimitFilePath(VESK_BW_PROTOCOL_ALL));
    for (const Section &section : checker.Read()) {
        CheckGlobalSection(checker, section);
    }
    return checker.problems;
}

void ReportProblems(const std::vector<ConfProblem> &problems)
{
    std::map<std::string, size_t> perFile;
    for (const ConfProblem &problem : problems) {
        size_t shown = ++perFile[FileOf(problem)];
        if (shown <= kReportedPerFile) {
            std::cerr << "veskbandwidth: " << Printable(problem.where + ": " + problem.message) << '\n';
        }
    }
    for (const auto &[file, count] : perFile) {
        if (count > kReportedPerFile) {
            std::cerr << "veskbandwidth: " << Printable(file) << ": " << count - kReportedPerFile << " more problems\n";
        }
    }
}

bool HasProblemIn(const std::vector<ConfProblem> &problems, const std::string &section)
{
    return std::any_of(problems.begin(), problems.end(),
                       [&section](const ConfProblem &p) { return p.section == section; });
}

void RefuseToChange(const std::vector<ConfProblem> &problems, const std::string &section,
                    const std::vector<std::string> &kept)
{
    for (const ConfProblem &p : problems) {
        if (p.damagesFile) {
            throw Error(p.where + ": " + p.message + "; fix the file by hand before changing it", 1);
        }
        if (p.section == section && std::find(kept.begin(), kept.end(), p.key) != kept.end()) {
            throw Error(p.where + ": " + p.message + "; a change would keep that value: give it anew", 1);
        }
    }
}

}  // namespace cli

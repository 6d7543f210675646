// Readable schedules and week grids.
#include "schedule.h"

#include <bitset>
#include <cctype>
#include <cstdio>
#include <sstream>
#include <vector>

#include "cli.h"

namespace cli {

const char kScheduleHelp[] = "SCHEDULE is the raw plan of 168 digits (one per hour from Sunday 00:00) or\n"
                             "rules applied from left to right, each [DAYS] [HOURS]=VALUE:\n"
                             "  DAYS   sun mon tue wed thu fri sat, ranges (mon-fri), lists (sat,sun), all\n"
                             "  HOURS  09 (one hour), 09-18 (09:00 to 18:00), 22-06 (wraps within the day),\n"
                             "         lists (08-12,14-18); no HOURS means the whole day, no DAYS every day\n"
                             "  VALUE  limit: off (no limit), normal (normal rates), custom (custom rates)\n"
                             "         global: on (limiting on), off (limiting off)\n"
                             "  Hours that no rule names are normal (limit) or on (global).\n"
                             "  Example: \"mon-fri 09-18=custom sat,sun=off\"\n";

namespace {

using Days = std::bitset<7>;
using Hours = std::bitset<24>;

const char *const kDayNames[] = {"sun", "mon", "tue", "wed", "thu", "fri", "sat"};

[[noreturn]] void Malformed(const std::string &why)
{
    throw UsageError("malformed schedule: " + why);
}

std::vector<std::string> Split(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    std::string part;
    std::istringstream in(text);
    while (std::getline(in, part, separator)) {
        parts.push_back(part);
    }
    if (text.empty() || text.back() == separator) {
        parts.push_back("");
    }
    return parts;
}

std::string Lower(std::string text)
{
    for (char &c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

int DayIndex(const std::string &name)
{
    for (int day = 0; day < 7; ++day) {
        if (name == kDayNames[day]) {
            return day;
        }
    }
    Malformed("unknown day '" + name + "' (days are sun, mon, tue, wed, thu, fri, sat)");
}

Days ParseDays(const std::string &text)
{
    Days days;
    for (const std::string &item : Split(Lower(text), ',')) {
        if (item == "all" || item == "*") {
            days.set();
            continue;
        }
        size_t dash = item.find('-');
        int first = DayIndex(item.substr(0, dash));
        int last = dash == std::string::npos ? first : DayIndex(item.substr(dash + 1));
        for (int day = first;; day = (day + 1) % 7) {
            days.set(day);
            if (day == last) {
                break;
            }
        }
    }
    return days;
}

int HourNumber(const std::string &text, int maximum)
{
    if (text.empty() || text.size() > 2 || text.find_first_not_of("0123456789") != std::string::npos ||
        std::stoi(text) > maximum) {
        Malformed("bad hour '" + text + "' (hours are 00 to 23, a range may end at 24)");
    }
    return std::stoi(text);
}

Hours ParseHours(const std::string &text)
{
    Hours hours;
    for (const std::string &item : Split(text, ',')) {
        size_t dash = item.find('-');
        if (dash == std::string::npos) {
            hours.set(HourNumber(item, 23));
            continue;
        }
        int from = HourNumber(item.substr(0, dash), 23);
        int to = HourNumber(item.substr(dash + 1), 24);
        if (from == to) {
            Malformed("empty hour range '" + item + "'");
        }
        for (int hour = from; hour != to; hour = (hour + 1) % 24) {
            hours.set(hour);
            if (to == 24 && hour == 23) {
                break;
            }
        }
    }
    return hours;
}

char PlanValue(const std::string &text, PlanKind kind)
{
    std::string value = Lower(text);
    if (value == "off" || value == "0") {
        return '0';
    }
    if (value == "on" || value == "1" || (kind == PlanKind::Limit && value == "normal")) {
        return '1';
    }
    if (kind == PlanKind::Limit && (value == "custom" || value == "2")) {
        return '2';
    }
    Malformed("unknown value '" + text + "' (" +
              (kind == PlanKind::Limit ? "a limit's hours are off, normal or custom)"
                                       : "a global schedule's hours are on or off)"));
}

void Apply(std::string *plan, const Days &days, const Hours &hours, char value)
{
    for (int day = 0; day < 7; ++day) {
        for (int hour = 0; hour < 24; ++hour) {
            if (days.test(day) && hours.test(hour)) {
                (*plan)[day * 24 + hour] = value;
            }
        }
    }
}

std::string ParseRules(const std::string &text, PlanKind kind)
{
    std::string plan(kPlanHours, '1');
    std::istringstream tokens(text);
    std::string token;
    std::string pendingText;
    Days pending;
    while (tokens >> token) {
        size_t eq = token.find('=');
        if (eq == std::string::npos) {
            if (!pendingText.empty()) {
                Malformed("'" + pendingText + "' must be followed by HOURS=VALUE");
            }
            pending = ParseDays(token);
            pendingText = token;
            continue;
        }
        std::string left = token.substr(0, eq);
        char value = PlanValue(token.substr(eq + 1), kind);
        Days days = Days().set();
        Hours hours = Hours().set();
        if (!pendingText.empty()) {
            days = pending;
            hours = ParseHours(left);
            pendingText.clear();
        } else if (!left.empty() && std::isdigit(static_cast<unsigned char>(left[0]))) {
            hours = ParseHours(left);
        } else {
            days = ParseDays(left);
        }
        Apply(&plan, days, hours, value);
    }
    if (!pendingText.empty()) {
        Malformed("'" + pendingText + "' must be followed by HOURS=VALUE");
    }
    return plan;
}

char GridSymbol(char hour, PlanKind kind)
{
    if (kind == PlanKind::Global) {
        return hour == '1' ? '#' : '.';
    }
    return hour == '0' ? '.' : hour == '1' ? '#' : '+';
}

}  // namespace

std::string ParseSchedule(const std::string &text, PlanKind kind)
{
    if (text.find_first_not_of(" \t") == std::string::npos) {
        Malformed("it is empty");
    }
    if (text.find_first_not_of("0123456789") == std::string::npos) {
        if (text.size() != kPlanHours) {
            Malformed("a raw plan has 168 hour digits, this one has " + std::to_string(text.size()));
        }
        const char *digits = kind == PlanKind::Limit ? "012" : "01";
        size_t odd = text.find_first_not_of(digits);
        if (odd != std::string::npos) {
            Malformed("hour " + std::to_string(odd) + " (" + HourName(odd) + ") of the raw plan is " + text[odd] +
                      ", not one of " + digits);
        }
        return text;
    }
    return ParseRules(text, kind);
}

std::string HourName(size_t index)
{
    std::string day = kDayNames[index / 24 % 7];
    day[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(day[0])));
    char hour[8];
    std::snprintf(hour, sizeof hour, " %02zu:00", index % 24);
    return day + hour;
}

void PrintWeekGrid(std::ostream &out, const std::string &plan, PlanKind kind)
{
    std::string hours = plan;
    hours.resize(kPlanHours, '\0');  // hours past the plan's end read as NUL, as the library reads them
    out << "       00    06    12    18\n";
    for (int day = 0; day < 7; ++day) {
        std::string row;
        for (int hour = 0; hour < 24; ++hour) {
            row += GridSymbol(hours[day * 24 + hour], kind);
        }
        out << "  " << HourName(static_cast<size_t>(day) * 24).substr(0, 3) << "  " << row << '\n';
    }
    out << (kind == PlanKind::Limit ? "  # normal rates   + custom rates   . no limit\n"
                                    : "  # limiting on   . limiting off\n");
}

}  // namespace cli

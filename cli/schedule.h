// Weekly schedule plans: 168 hour characters from Sunday 00:00, written
// readably as rules ("mon-fri 09-18=custom sat,sun=off") and shown as a grid.
#ifndef VBW_CLI_SCHEDULE_H
#define VBW_CLI_SCHEDULE_H

#include <ostream>
#include <string>

namespace cli {

// A limit's plan says per hour: 0 no limit, 1 normal rates, other custom
// rates; a global plan: 1 limiting on, other off.
enum class PlanKind { Limit, Global };

constexpr int kPlanHours = 168;

// The plan of a --schedule argument: either the raw 168 digits or readable
// rules.  Throws UsageError saying what is malformed.
std::string ParseSchedule(const std::string &text, PlanKind kind);

// The hour of the week at a plan's index, "Mon 13:00".
std::string HourName(size_t index);

// The plan as a week grid, one row per day, with a legend.
void PrintWeekGrid(std::ostream &out, const std::string &plan, PlanKind kind);

extern const char kScheduleHelp[];

}  // namespace cli

#endif

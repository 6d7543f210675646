// Strict reading of the configuration files.  The library skips the lines it
// cannot read and reads malformed values its own way (an unknown state as
// "not configured", "-1" as the largest rate); the tool names every such
// line, so that damaged configuration does not pass for a working one.
#ifndef VBW_CLI_CONF_CHECK_H
#define VBW_CLI_CONF_CHECK_H

#include <string>
#include <vector>

namespace cli {

// The rate keys of a limit record, in the order of the record's fields.
constexpr const char *kLimitRateKeys[] = {"upload rate", "download rate", "upload rate custom", "download rate custom"};

struct ConfProblem {
    std::string where;    // "FILE:LINE"
    std::string section;  // the section it concerns; "" for a line outside every section
    std::string key;      // the key it concerns; "" for a line or a section as a whole
    std::string message;
    bool damagesFile;  // the file's structure itself is damaged, not only a value
};

// The problems of a protocol's limit file and of the global file; none when
// the file does not exist.
std::vector<ConfProblem> CheckLimitFile(int protocol);
std::vector<ConfProblem> CheckGlobalFile();

// Prints them on stderr, "veskbandwidth: FILE:LINE: message", at most ten per file.
void ReportProblems(const std::vector<ConfProblem> &problems);
bool HasProblemIn(const std::vector<ConfProblem> &problems, const std::string &section);
// Throws Error (status 1) when a file's structure is damaged, or when the
// section holds an invalid value under a key that is not in `replaced`.
void RefuseToChange(const std::vector<ConfProblem> &problems, const std::string &section,
                    const std::vector<std::string> &replaced);

}  // namespace cli

#endif

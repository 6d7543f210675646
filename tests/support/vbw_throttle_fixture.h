// Fixtures of the throttling tests: status files and limit files written
// directly in the section syntax, limit records in memory, and a switch that
// replaces the platform's group list of a user.
#ifndef VBW_THROTTLE_FIXTURE_H
#define VBW_THROTTLE_FIXTURE_H

#include <stdint.h>
#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "veskbandwidth.h"

namespace vbw {

// One transfer's section in a status file; age is seconds before now.
struct StatusEntry {
    pid_t pid;
    unsigned uid;
    uint64_t current = 0;
    unsigned active = 1;
    int transfer = VESK_BW_TRANSFER_DOWNLOAD;
    std::string protocol = "ftp";
    int64_t age = 0;
};

// Writes /tmp/bandwidth/<owner>-<id> holding the entries as sections, in order.
void WriteStatusFile(const std::string &owner, unsigned id, const std::vector<StatusEntry> &entries);

// The sections of a section file: name -> key -> value.
typedef std::map<std::string, std::map<std::string, std::string>> Sections;
Sections ReadSections(const std::string &path);

// The section name of a transfer: "<pid>-<transfer type>".
std::string SectionName(pid_t pid, int transfer_type);

// Writes /usr/vesk/etc/bandwidth/<file> (the directory is created).
void WriteConfFile(const std::string &file, const std::string &content);

// A limit record in force with the given rates in KB/s (ullCurRate and ullRate).
VESK_BANDWIDTH_LIMIT Limit(int owner_type, unsigned id, uint64_t upload, uint64_t download,
                           int protocol = VESK_BW_PROTOCOL_FTP);

// From now on VLIBGroupInfoListGet answers with these entries for every
// user; nullptr gives the platform's answer again.
void FakeGroupList(const std::vector<std::string> *entries);

}  // namespace vbw

#endif

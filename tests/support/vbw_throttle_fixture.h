// Records, files and processes for the tests: records built in memory or
// stored through the library, status and limit files, a fake group list,
// simulator children and a killall stand-in.
#ifndef VBW_THROTTLE_FIXTURE_H
#define VBW_THROTTLE_FIXTURE_H

#include <stdint.h>
#include <string.h>
#include <sys/types.h>

#include <initializer_list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "vbw_test.h"
#include "veskbandwidth.h"

namespace vbw {

const uid_t kAlice = 1026;  // in groups users (100), staff (101) and backup (103)
const gid_t kUsers = 100;
const int kFtp = VESK_BW_PROTOCOL_FTP;
const int kUp = VESK_BW_TRANSFER_UPLOAD;
const int kDown = VESK_BW_TRANSFER_DOWNLOAD;

// A limit record; rates in KB/s.
VESK_BANDWIDTH_CONF Conf(int ownerType, unsigned id, int protocol, uint64_t upKBps, uint64_t downKBps,
                         int state = VESK_BW_STATE_ENABLED, const std::string &plan = "");

// A limit record in force with the given rates in KB/s (ullCurRate and ullRate).
VESK_BANDWIDTH_LIMIT Limit(int owner_type, unsigned id, uint64_t upload, uint64_t download,
                           int protocol = VESK_BW_PROTOCOL_FTP);

struct GlobalSettings {
    int state = VESK_BW_STATE_ENABLED;
    int userGroup = VESK_BW_POLICY_USER_FIRST;
    int interGroup = VESK_BW_POLICY_MAX;
    int occupy = VESK_BW_OCCUPY_MAX;
    std::string plan;
};
VESK_BANDWIDTH_GLOBAL_CONF GlobalConf(int protocol, const GlobalSettings &settings = GlobalSettings());

// Alice's active ftp download by pid, saved now, of the file "/share/f<pid>".
VESK_BANDWIDTH_STATUS Status(pid_t pid, uint64_t current = 1000, uint64_t expect = 2000);

// The fields of a limit record as text (rate slots 1 and 2 only).
std::string Text(const VESK_BANDWIDTH_CONF &conf);

template <typename Record>
bool SameBytes(const Record &a, const Record &b)
{
    return 0 == memcmp(&a, &b, sizeof(a));
}

typedef std::vector<std::pair<std::string, std::string>> Pairs;

class Hash {
public:
    Hash(std::initializer_list<std::pair<std::string, std::string>> pairs = {});
    ~Hash() { VLIBCSzHashFree(hash_); }
    Hash(const Hash &) = delete;
    Hash &operator=(const Hash &) = delete;

    VLIBC_SZHASH **Address() { return &hash_; }
    operator VLIBC_SZHASH *() const { return hash_; }
    const char *operator[](const char *key) const { return VLIBCSzHashGetValue(hash_, key); }
    Pairs Contents() const;  // in insertion order

private:
    VLIBC_SZHASH *hash_;
};

// A throttle configuration of alice held by the test, released after it.
class ConfigTest : public SandboxTest {
protected:
    void TearDown() override;
    // Replaces the limit records by copies of these.
    void Use(const std::vector<VESK_BANDWIDTH_LIMIT> &limits);
    // Replaces them by 100 KB/s limits with these shares (alice's uid: her own, else groups').
    void Occupy(const std::vector<std::pair<unsigned, uint64_t>> &shares);

    VESK_BANDWIDTH_CONFIG config = {kAlice, 0, 0, 0, nullptr, {}};
};

// One transfer's section in a status file; age is seconds before now.
struct StatusEntry {
    pid_t pid;
    unsigned uid;
    uint64_t current = 0;
    unsigned active = 1;
    int transfer = VESK_BW_TRANSFER_DOWNLOAD;
    std::string protocol = "ftp";
    int64_t age = 0;
    uint64_t expect = 0;
};

// "/tmp/bandwidth/<owner>-<id>".
std::string StatusFile(const std::string &owner, unsigned id);

// Writes the status file of owner and id holding the entries as sections, in order.
void WriteStatusFile(const std::string &owner, unsigned id, const std::vector<StatusEntry> &entries);

typedef std::map<std::string, std::map<std::string, std::string>> Sections;
Sections ReadSections(const std::string &path);

std::map<std::string, std::string> ReadSection(const std::string &path, const std::string &section);
bool HasSection(const std::string &path, const std::string &section);
// Whether the status file of owner and id holds the download of pid.
bool HasEntry(const std::string &owner, unsigned id, pid_t pid);

std::string SectionName(pid_t pid, int transfer_type);

// Writes /usr/vesk/etc/bandwidth/<file> (the directory is created).
void WriteConfFile(const std::string &file, const std::string &content);

// VLIBGroupInfoListGet answers with these entries for every user; nullptr: the platform's answer.
void FakeGroupList(const std::vector<std::string> *entries);

// Stored through the library; rates in KB/s.
void StoreGlobal(int protocol, const GlobalSettings &settings);
void StoreLimit(int ownerType, unsigned id, int protocol, uint64_t upKBps, uint64_t downKBps,
                int state = VESK_BW_STATE_ENABLED, const std::string &plan = "");
// Group users limited to downKBps for ftp under group-only, every transfer occupying it.
void StoreUsersGroupLimit(uint64_t downKBps);

// A weekly plan with the same character at every hour.
inline std::string WeekPlan(char c)
{
    return std::string(168, c);
}

// A child named veskbandwidth that plays one transfer; exits 0 when it succeeded, else 1.
pid_t ForkSimulator(const char *user, int protocol, int transferType, size_t size);

// A /usr/bin/killall that appends its arguments to /tmp/killall.args, hangs up
// the processes named by its second argument and exits with status (2 unless -sighup).
void InstallKillallStandIn(int status = 0);

// The count of an enumeration of the file: every protocol and direction, unmerged.
int EnumerateFile(const std::string &path);

}  // namespace vbw

#endif

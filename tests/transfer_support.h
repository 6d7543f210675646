// Helpers of the transfer-loop tests: limits and global records stored through
// the library, status sections as the files hold them, and simulator children.
#ifndef VBW_TRANSFER_SUPPORT_H
#define VBW_TRANSFER_SUPPORT_H

#include <gtest/gtest.h>

#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <thread>

#include "vbw_test.h"
#include "vbw_throttle_fixture.h"
#include "veskbandwidth.h"

namespace vbw {

const uid_t kAlice = 1026;
const gid_t kUsers = 100;
const int kFtp = VESK_BW_PROTOCOL_FTP;
const int kDown = VESK_BW_TRANSFER_DOWNLOAD;

struct GlobalSpec {
    int state = VESK_BW_STATE_ENABLED;
    int userGroup = VESK_BW_POLICY_USER_FIRST;
    int interGroup = VESK_BW_POLICY_MAX;
    int occupy = VESK_BW_OCCUPY_MAX;
    std::string plan;
};

inline void StoreGlobal(int protocol, const GlobalSpec &spec)
{
    VESK_BANDWIDTH_GLOBAL_CONF conf;
    memset(&conf, 0, sizeof(conf));
    conf.iState = (VESK_BW_LIMIT_STATE)spec.state;
    conf.iProtocol = (VESK_BW_PROTOCOL_TYPE)protocol;
    conf.iUserGroupPolicy = (VESK_BW_GROUP_POLICY)spec.userGroup;
    conf.iInterGroupPolicy = (VESK_BW_GROUP_POLICY)spec.interGroup;
    conf.iOccupyPolicy = (VESK_BW_OCCUPY_POLICY)spec.occupy;
    snprintf(conf.szSchedulePlan, sizeof(conf.szSchedulePlan), "%s", spec.plan.c_str());
    ASSERT_EQ(0, VESKBandwidthGlobalConfSet(&conf));
}

// Stores the limit of a user or group; rates in KB/s.
inline void StoreLimit(int ownerType, unsigned int id, int protocol, uint64_t upKBps, uint64_t downKBps,
                       int state = VESK_BW_STATE_ENABLED, const std::string &plan = "")
{
    VESK_BANDWIDTH_CONF conf;
    memset(&conf, 0, sizeof(conf));
    conf.id = id;
    conf.iState = (VESK_BW_LIMIT_STATE)state;
    conf.iProtocol = (VESK_BW_PROTOCOL_TYPE)protocol;
    conf.iOwnerType = (VESK_BW_OWNER_TYPE)ownerType;
    conf.ullRate[VESK_BW_TRANSFER_UPLOAD] = upKBps;
    conf.ullRate[VESK_BW_TRANSFER_DOWNLOAD] = downKBps;
    snprintf(conf.szSchedulePlan, sizeof(conf.szSchedulePlan), "%s", plan.c_str());
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&conf));
}

// A weekly plan with the same character at every hour.
inline std::string WeekPlan(char c)
{
    return std::string(168, c);
}

inline std::string StatusFile(const std::string &owner, unsigned int id)
{
    return "/tmp/bandwidth/" + owner + "-" + std::to_string(id);
}

// The pairs of one section; empty when the file or the section is missing.
inline std::map<std::string, std::string> ReadSection(const std::string &path, const std::string &section)
{
    Sections all = ReadSections(path);
    Sections::const_iterator found = all.find(section);
    return all.end() == found ? std::map<std::string, std::string>() : found->second;
}

inline bool HasSection(const std::string &path, const std::string &section)
{
    return ReadSections(path).count(section) > 0;
}

inline int64_t NowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

inline bool WaitUntil(const std::function<bool()> &cond, int timeoutMs)
{
    for (int64_t end = NowMs() + timeoutMs; NowMs() < end;) {
        if (cond()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return cond();
}

// A child named veskbandwidth, as the simulator tool is, that plays one
// transfer and exits 0 when the simulation returned 0, else 1.
inline pid_t ForkSimulator(const char *user, int protocol, int transferType, size_t size)
{
    pid_t pid = fork();
    if (0 == pid) {
        prctl(PR_SET_NAME, "veskbandwidth");
        _exit(0 == VESKBandwidthSimulate(user, protocol, transferType, size) ? 0 : 1);
    }
    return pid;
}

// The exit status of a child, or -1 when it did not end within timeoutMs (it
// is killed then).
inline int WaitExit(pid_t pid, int timeoutMs)
{
    int status = 0;
    bool ended = WaitUntil([&] { return pid == waitpid(pid, &status, WNOHANG); }, timeoutMs);
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Replaces /usr/bin/killall (an overlay in the sandbox) by a stand-in that
// hangs up every process named veskbandwidth and appends its arguments to
// /tmp/killall.args.
inline void InstallKillallStandIn()
{
    WriteFile("/usr/bin/killall",
              "#!/bin/sh\n"
              "echo \"$*\" >> /tmp/killall.args\n"
              "[ \"$1\" = -sighup ] || exit 2\n"
              "for d in /proc/[0-9]*; do\n"
              "  [ \"$(cat \"$d/comm\" 2>/dev/null)\" = \"$2\" ] && kill -HUP \"${d#/proc/}\"\n"
              "done\n"
              "exit 0\n",
              0755);
}

}  // namespace vbw

#endif

// Helpers of the transfer-loop tests: limits and global records stored through
// the library, simulator children and a killall stand-in.
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

inline void StoreGlobal(int protocol, const GlobalSpec &settings)
{
    VESK_BANDWIDTH_GLOBAL_CONF conf = GlobalConf(protocol, settings);
    ASSERT_EQ(0, VESKBandwidthGlobalConfSet(&conf));
}

// Stores the limit of a user or group; rates in KB/s.
inline void StoreLimit(int ownerType, unsigned int id, int protocol, uint64_t upKBps, uint64_t downKBps,
                       int state = VESK_BW_STATE_ENABLED, const std::string &plan = "")
{
    VESK_BANDWIDTH_CONF conf = Conf(ownerType, id, protocol, upKBps, downKBps, state, plan);
    ASSERT_EQ(0, VESKBandwidthConfSetByID(&conf));
}

// A weekly plan with the same character at every hour.
inline std::string WeekPlan(char c)
{
    return std::string(168, c);
}

// A child named veskbandwidth, as the simulator tool is, that plays one
// transfer and exits 0 when the simulation returned 0, else 1.
inline pid_t ForkSimulator(const char *user, int protocol, int transferType, size_t size)
{
    return Fork([=] {
        prctl(PR_SET_NAME, "veskbandwidth");
        return 0 == VESKBandwidthSimulate(user, protocol, transferType, size) ? 0 : 1;
    });
}

// Replaces /usr/bin/killall (an overlay in the sandbox) by a stand-in that
// appends its arguments to /tmp/killall.args, hangs up every process named by
// its second argument and exits with `status` (2 unless asked for -sighup).
inline void InstallKillallStandIn(int status = 0)
{
    WriteFile("/usr/bin/killall",
              "#!/bin/sh\n"
              "echo \"$*\" >> /tmp/killall.args\n"
              "[ \"$1\" = -sighup ] || exit 2\n"
              "for d in /proc/[0-9]*; do\n"
              "  [ \"$(cat \"$d/comm\" 2>/dev/null)\" = \"$2\" ] && kill -HUP \"${d#/proc/}\"\n"
              "done\n"
              "exit " + std::to_string(status) + "\n",
              0755);
}

}  // namespace vbw

#endif

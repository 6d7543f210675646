// What the preload library knows about its process from the start: the
// launcher's settings (read from the environment once, in the constructor,
// since sshd and nginx scrub their children's environment), the protocol, and
// the accounts that are never throttled.
#ifndef PRELOAD_SETTINGS_H
#define PRELOAD_SETTINGS_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "veskbandwidth.h"

namespace preload {

// Set by `veskbandwidth run`; absent variables leave the choice to the library.
constexpr char kProtocolVariable[] = "VESKBANDWIDTH_PROTOCOL";  // a protocol name
constexpr char kRoleVariable[] = "VESKBANDWIDTH_ROLE";          // "client" or "server"
constexpr char kUserVariable[] = "VESKBANDWIDTH_USER";          // a uid: throttle as this user
// Accounts that pass through untouched, besides root: names or uids, one a line.
constexpr char kPassThroughFile[] = "/usr/vesk/etc/bandwidth/preload-passthrough.conf";

enum class Role { kUnknown, kClient, kServer };

struct Settings {
    int protocol = 0;                  // 0: not throttled at all
    Role role = Role::kUnknown;        // forced role, or kUnknown
    Role programRole = Role::kClient;  // the role its name suggests
    uid_t fixedUser = UID_ERR;         // throttled as this user whatever its euid
    std::vector<uid_t> passThrough;    // empty: the system accounts (below 1000, and 65534)
    std::string program;               // short name of the program
};

// Reads the settings of this process; called once, from the constructor.
Settings ReadSettings();

// Whether traffic of this effective uid passes untouched.
bool PassesThrough(const Settings &settings, uid_t euid);

// The protocol that a program's name implies, 0 when none.
int ProtocolOfProgram(const std::string &program);

}  // namespace preload

#endif

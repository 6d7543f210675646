// A private sandbox for the tests and the demo: the library's fixed paths
// (/usr/vesk, /tmp/bandwidth, /run/httpd), the account files and /dev/log are
// replaced by private copies in new mount and pid namespaces, and a network
// namespace of its own has only loopback, so nothing the sandboxed processes
// do reaches the machine or its network.
#ifndef VBW_SANDBOX_H
#define VBW_SANDBOX_H

#include <string>

namespace vbw {

struct SandboxOptions {
    std::string passwd;  // contents of /etc/passwd inside
    std::string group;   // contents of /etc/group inside
};

// Enters the sandbox.  On success it returns true in a new process that runs
// inside (the caller's process waits for it and exits with its status, never
// returning; the namespace's init reaps orphans and ends every process left
// when it exits).  On failure it returns false in the calling process, with a
// message in *error saying what the sandbox needs.
//
// Inside: /usr and /tmp are overlays whose changes vanish with the sandbox,
// without /usr/vesk and /tmp/bandwidth (as root; in a user namespace /usr/vesk
// starts as an empty directory of ours); /dev is private, without /dev/log;
// /run is a fresh empty tmpfs; /etc/passwd and /etc/group hold the options'
// texts (writable files bound in place); /proc is that of the new pid
// namespace; the network is a loopback interface of its own (127.0.0.1, ::1),
// whose ports no process outside shares; the environment variable
// VBW_SANDBOX is 1.
bool EnterSandbox(const SandboxOptions &options, std::string *error);

}  // namespace vbw

#endif

// Simulated transfers: the library's simulator in a child process, watched
// through its user's status file and ended with its entries removed.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cli.h"
#include "status_view.h"

namespace cli {
namespace {

[[noreturn]] void RunSimulatorChild(const TransferRequest &desc, size_t kibibytes)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGINT, SIG_IGN);  // Ctrl-C is the parent's: it ends the child and removes its entries
    signal(SIGTERM, SIG_DFL);
    int result = VESKBandwidthSimulate(desc.user.name.c_str(), desc.protocol, desc.direction, kibibytes);
    if (result != 0) {
        std::string why = VLIBCErrGet() == BW_ERR_DEACTIVATED ? "the transfer was deactivated"
                                                              : "the simulation failed (" + LibraryErrorText() + ")";
        std::fprintf(stderr, "veskbandwidth: simulation of user %s: %s\n", desc.user.name.c_str(), why.c_str());
    }
    _exit(result == 0 ? 0 : 1);
}

}  // namespace

pid_t StartSimulator(const TransferRequest &desc, size_t kibibytes)
{
    std::fflush(nullptr);
    pid_t child = fork();
    if (child < 0) {
        throw Error(std::string("cannot start a simulation: ") + std::strerror(errno), 1);
    }
    if (child == 0) {
        RunSimulatorChild(desc, kibibytes);
    }
    return child;
}

bool ReadSimulatorStatus(const TransferRequest &desc, pid_t pid, VESK_BANDWIDTH_STATUS *status)
{
    for (const Transfer &t : TransfersOfPid(desc.user.id, pid)) {
        if (t.status.transfer_type == desc.direction) {
            *status = t.status;
            return true;
        }
    }
    return false;
}

void StopSimulator(const TransferRequest &desc, pid_t pid)
{
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    // Killed, it cannot save again: what is removed now stays removed.
    if (VESKBandwidthStatusForceRemoveAllByUserName(desc.user.name.c_str(), static_cast<unsigned>(desc.direction),
                                                    pid) != 0) {
        FailLibrary("cannot remove the entries of the simulation " + std::to_string(pid));
    }
}

}  // namespace cli

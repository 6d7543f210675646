// Simulated transfers: the library's simulator in a child process, watched
// through its user's status file and ended with its entries removed.
#include <fcntl.h>
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

// The child says why it failed on the pipe, not on stderr: the parent may be
// drawing a progress line there and ends it first.
[[noreturn]] void RunSimulatorChild(const TransferRequest &request, size_t kibibytes, int messages)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGINT, SIG_IGN);  // Ctrl-C is the parent's: it ends the child and removes its entries
    signal(SIGTERM, SIG_DFL);
    int result = VESKBandwidthSimulate(request.user.name.c_str(), request.protocol, request.direction, kibibytes);
    if (result != 0) {
        std::string why = VLIBCErrGet() == BW_ERR_DEACTIVATED ? "the transfer was deactivated"
                                                              : "the simulation failed (" + LibraryErrorText() + ")";
        (void)!write(messages, why.data(), why.size());
    }
    _exit(result == 0 ? 0 : 1);
}

}  // namespace

Simulation::Simulation(const TransferRequest &request, size_t kibibytes) : request_(request)
{
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        throw Error(std::string("cannot start a simulation: ") + std::strerror(errno), 1);
    }
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        close(pipeFds[0]);
        RunSimulatorChild(request, kibibytes, pipeFds[1]);
    }
    close(pipeFds[1]);
    if (pid_ < 0) {
        close(pipeFds[0]);
        throw Error(std::string("cannot start a simulation: ") + std::strerror(errno), 1);
    }
    messages_ = pipeFds[0];
}

Simulation::~Simulation()
{
    try {
        Stop();
    } catch (const Error &error) {
        Warn(error.what());
    }
    if (messages_ >= 0) {
        close(messages_);
    }
}

bool Simulation::ReadStatus(VESK_BANDWIDTH_STATUS *status) const
{
    for (const Entry &e : CollectEntries({StatusFilePath(VESK_BW_OWNER_USER, request_.user.id)}, -1,
                                         static_cast<unsigned>(request_.direction))) {
        if (e.status.pid == pid_) {
            *status = e.status;
            return true;
        }
    }
    return false;
}

bool Simulation::Ended(std::string *failure)
{
    int status = 0;
    if (pid_ <= 0 || waitpid(pid_, &status, WNOHANG) != pid_) {
        return false;
    }
    failure->clear();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        char text[512];
        ssize_t n = read(messages_, text, sizeof text);
        *failure = n > 0 ? std::string(text, static_cast<size_t>(n)) : "the simulation ended abnormally";
        // A failed simulator leaves its entries behind; it saves no more.
        VESKBandwidthStatusForceRemoveAllByUserName(request_.user.name.c_str(),
                                                    static_cast<unsigned>(request_.direction), pid_);
    }
    pid_ = -1;
    return true;
}

void Simulation::Stop()
{
    if (pid_ <= 0) {
        return;  // ended already: no pid to signal (kill(-1) would reach every process)
    }
    pid_t pid = pid_;
    pid_ = -1;
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    // Killed, it cannot save again: what is removed now stays removed.
    if (VESKBandwidthStatusForceRemoveAllByUserName(request_.user.name.c_str(),
                                                    static_cast<unsigned>(request_.direction), pid) != 0) {
        FailLibrary("cannot remove the entries of the simulation " + std::to_string(pid));
    }
}

}  // namespace cli

// The pacer of the preload library: transfer sessions per direction, the
// identity they run under, fork and thread safety.
#include "preload_pacer.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>

#include "preload_fd_table.h"
#include "preload_settings.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

namespace preload {
namespace {

constexpr int64_t kCheckIntervalNs = 200 * 1000 * 1000;  // how often the effective uid is read again
constexpr int kMinReceiveBuffer = 64 * 1024;
constexpr uint64_t kChunksPerHalfSecond = 30;
// What a direction moves before its session opens: requests, commands and
// replies never register as transfers.  Once bulk data passes it, the session
// opens and owes this much too, so that a transfer's first bytes cost their
// time at the limit; what moved unthrottled while no session could be opened
// is not charged later.
constexpr uint64_t kUnpacedBytes = 64 * 1024;

// Set while this thread runs the library: the library's own file I/O, and a
// signal handler that writes meanwhile, go straight to the C library.
__attribute__((tls_model("initial-exec"))) thread_local bool tInLibrary = false;

class LibraryScope {
public:
    LibraryScope() : savedErrno_(errno) { tInLibrary = true; }
    ~LibraryScope()
    {
        tInLibrary = false;
        errno = savedErrno_;
    }
    LibraryScope(const LibraryScope &) = delete;
    LibraryScope &operator=(const LibraryScope &) = delete;

private:
    int savedErrno_;
};

// One direction's transfer session and the user it was opened for.
struct Direction {
    VESK_BANDWIDTH_SESSION *session = nullptr;
    uid_t uid = UID_ERR;
    bool openFailed = false;  // not tried again before the next check
    uint64_t unpaced = 0;     // bytes moved before the session opened
    uint64_t chunk = 0;       // the session's chunk at the last call
    uint64_t owed = 0;        // bytes moved and not paced yet
};

Settings gSettings;
bool gStarted = false;
FdTable gTable;
std::atomic<uid_t> gEuid{0};
std::atomic<Role> gLearnedRole{Role::kUnknown};

// Everything below is used under gLock.
std::mutex gLock;
Direction gDirections[2];           // upload, download
std::atomic<int> gOpenSessions{0};  // read without the lock on the way out
pid_t gPid = 0;
int64_t gLastCheckNs = 0;
bool gOpenFailureLogged = false;  // once per process: a chroot would repeat it

int64_t MonotonicNs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

uid_t Identity()
{
    return gSettings.fixedUser != UID_ERR ? gSettings.fixedUser : gEuid.load(std::memory_order_relaxed);
}

bool ProcessPassesThrough()
{
    return !gStarted || gSettings.protocol == 0 || PassesThrough(gSettings, Identity());
}

Role FallbackRole()
{
    Role learned = gLearnedRole.load(std::memory_order_relaxed);
    return learned != Role::kUnknown ? learned : gSettings.programRole;
}

// A server's sends are downloads and what it receives uploads; a client's the reverse.
int TransferType(int fd, Way way)
{
    Role role = gSettings.role;
    if (role == Role::kUnknown) {
        role = gTable.Get(fd) == FdKind::kPacedServer ? Role::kServer : Role::kClient;
    }
    bool download = (role == Role::kServer) == (way == Way::kSend);
    return download ? VESK_BW_TRANSFER_DOWNLOAD : VESK_BW_TRANSFER_UPLOAD;
}

void CloseSession(Direction *direction)
{
    VESKBandwidthSessionClose(direction->session);
    direction->session = nullptr;
    gOpenSessions.fetch_sub(1, std::memory_order_relaxed);
}

// Closes the sessions, which removes their entries.  A vfork child shares its
// parent's memory and sessions: it leaves them alone.
void CloseSessions()
{
    if (tInLibrary || gOpenSessions.load(std::memory_order_relaxed) == 0) {
        return;
    }
    LibraryScope scope;
    std::lock_guard<std::mutex> hold(gLock);
    if (gPid != getpid()) {
        return;
    }
    for (Direction &direction : gDirections) {
        if (direction.session != nullptr) {
            CloseSession(&direction);
        }
        direction = Direction();
    }
}

// Once the process has no paced socket left, its transfers have ended: their
// entries go, and the next connection starts afresh.
void CloseIdleSessions()
{
    if (gTable.PacedCount() == 0) {
        CloseSessions();
    }
}

void ForkPrepare()
{
    gLock.lock();
}

void ForkParent()
{
    gLock.unlock();
}

// A forked child keeps the sessions it inherits: each registers a transfer
// of the child's own at its first shared pass, and closing it removes only
// the child's entries.
void ForkChild()
{
    // A child that passes through makes no system call here (seccomp).
    gPid = gOpenSessions.load(std::memory_order_relaxed) > 0 ? getpid() : 0;
    gLock.unlock();
}

// Run under the lock before each paced call, every 200 ms: the process id
// (a child made by _Fork or clone skips the fork handlers) and the effective
// uid (a raw system call may have changed it).
void CheckProcess()
{
    int64_t now = MonotonicNs();
    if (now - gLastCheckNs >= kCheckIntervalNs || gPid == 0) {
        gLastCheckNs = now;
        gPid = getpid();
        gEuid.store(geteuid(), std::memory_order_relaxed);
        for (Direction &direction : gDirections) {
            direction.openFailed = false;
        }
    }
}

// "program peer-address", the file name the status entries show.
std::string TransferName(int fd)
{
    struct sockaddr_storage peer = {};
    socklen_t size = sizeof peer;
    char address[INET6_ADDRSTRLEN] = "?";
    unsigned port = 0;
    if (getpeername(fd, reinterpret_cast<struct sockaddr *>(&peer), &size) == 0) {
        if (peer.ss_family == AF_INET) {
            auto *in = reinterpret_cast<struct sockaddr_in *>(&peer);
            inet_ntop(AF_INET, &in->sin_addr, address, sizeof address);
            port = ntohs(in->sin_port);
        } else if (peer.ss_family == AF_INET6) {
            auto *in6 = reinterpret_cast<struct sockaddr_in6 *>(&peer);
            inet_ntop(AF_INET6, &in6->sin6_addr, address, sizeof address);
            port = ntohs(in6->sin6_port);
        }
    }
    return gSettings.program + " " + address + ":" + std::to_string(port);
}

// The session of this call's direction, opened for the current user; nullptr
// when the process passes through or the session cannot be opened now.
Direction *SessionFor(int fd, int transferType)
{
    uid_t uid = Identity();
    Direction &direction = gDirections[transferType - 1];
    if (direction.session != nullptr && direction.uid != uid) {
        CloseSession(&direction);
    }
    if (PassesThrough(gSettings, uid)) {
        return nullptr;
    }
    if (direction.session == nullptr && !direction.openFailed && direction.unpaced >= kUnpacedBytes) {
        std::string name = TransferName(fd);
        if (VESKBandwidthSessionOpen(uid, gSettings.protocol, transferType, name.c_str(), &direction.session) != 0) {
            if (!gOpenFailureLogged) {
                VESK_LOG("VESKBandwidthSessionOpen failed, unthrottled for now. uid:[%u] [0x%04X %s:%d]", uid,
                         VESK_ERR_ARGS);
                gOpenFailureLogged = true;
            }
            direction.session = nullptr;
            direction.openFailed = true;
        } else {
            gOpenSessions.fetch_add(1, std::memory_order_relaxed);
            direction.owed = std::min(direction.unpaced, kUnpacedBytes);
        }
        direction.uid = uid;
    }
    return direction.session != nullptr ? &direction : nullptr;
}

// A receiving socket whose kernel buffer grows to megabytes would let an
// uploader send that much before pacing holds it back: the buffer is held to
// about half a second of data at the paced speed (a chunk is 1/60 s of it),
// which still covers the round trip of any network, and at least 64 KiB.
void ClampReceiveBuffer(int fd, uint64_t chunk)
{
    gTable.SetClamped(fd);
    uint64_t halfSecond = kChunksPerHalfSecond * chunk;
    int target = static_cast<int>(std::min<uint64_t>(std::max<uint64_t>(halfSecond, kMinReceiveBuffer), INT32_MAX / 2));
    int current = 0;
    socklen_t size = sizeof current;
    // The kernel reports twice what was set.
    if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &current, &size) == 0 && current / 2 > target) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &target, sizeof target);
    }
}

}  // namespace

void StartPacer()
{
    LibraryScope scope;
    gSettings = ReadSettings();
    gEuid.store(geteuid(), std::memory_order_relaxed);
    gPid = getpid();
    pthread_atfork(ForkPrepare, ForkParent, ForkChild);
    gStarted = true;
}

bool Paces(int fd)
{
    if (tInLibrary || ProcessPassesThrough()) {
        return false;
    }
    FdKind kind = gTable.Get(fd);
    if (kind == FdKind::kOther) {
        return false;
    }
    if (IsPaced(kind)) {
        return true;
    }
    LibraryScope scope;
    FdKind found = gTable.Classify(fd, FallbackRole());
    if (IsPaced(found) && kind != FdKind::kUnknown && gLearnedRole.load(std::memory_order_relaxed) == Role::kUnknown) {
        gLearnedRole.store(found == FdKind::kPacedServer ? Role::kServer : Role::kClient, std::memory_order_relaxed);
    }
    return IsPaced(found);
}

bool MovesTheRest(int fd, Rest rest, int flags)
{
    if (rest == Rest::kReturn || (flags & MSG_DONTWAIT) != 0 ||
        (rest == Rest::kMoveIfWaitAll && (flags & MSG_WAITALL) == 0)) {
        return false;
    }
    LibraryScope scope;
    int status = fcntl(fd, F_GETFL);
    return status >= 0 && (status & O_NONBLOCK) == 0;
}

size_t BeginMove(int fd, Way way, size_t want)
{
    LibraryScope scope;
    std::lock_guard<std::mutex> hold(gLock);
    CheckProcess();
    int transferType = TransferType(fd, way);
    Direction *direction = SessionFor(fd, transferType);
    uint64_t unpaced = gDirections[transferType - 1].unpaced;
    if (direction == nullptr && unpaced < kUnpacedBytes) {
        return static_cast<size_t>(std::min<uint64_t>(want, kUnpacedBytes - unpaced));
    }
    uint64_t chunk = 0;
    if (direction == nullptr || VESKBandwidthSessionChunk(direction->session, &chunk) != 0 || chunk == 0) {
        return want;
    }
    if (way == Way::kReceive && !gTable.Clamped(fd)) {
        ClampReceiveBuffer(fd, chunk);
    }
    direction->chunk = chunk;
    // No more than the rest of the chunk that EndMove paces when it is full:
    // a short read before does not let the next one run a chunk past it.
    uint64_t room = direction->owed < chunk ? chunk - direction->owed : chunk;
    return static_cast<size_t>(std::min<uint64_t>(want, room));
}

bool EndMove(int fd, Way way, size_t moved)
{
    LibraryScope scope;
    std::lock_guard<std::mutex> hold(gLock);
    Direction &direction = gDirections[TransferType(fd, way) - 1];
    if (direction.session == nullptr) {
        direction.unpaced += moved;
        return true;
    }
    // Paced once a chunk's worth has moved: a program that reads 16 KiB at a
    // time sleeps once per chunk (1/60 s of data), not once per call.
    direction.owed += moved;
    if (direction.owed < direction.chunk) {
        return true;
    }
    uint64_t owed = direction.owed;
    direction.owed = 0;
    if (VESKBandwidthSessionPace(direction.session, owed) == 0 || VLIBCErrGet() != BW_ERR_DEACTIVATED) {
        return true;
    }
    // Switched off: the transfer ends here, whatever the program does next.
    shutdown(fd, SHUT_RDWR);
    CloseSession(&direction);
    return false;
}

void OnAccepted(int fd)
{
    gTable.Set(fd, FdKind::kAccepted);
}

void OnConnected(int fd)
{
    gTable.Set(fd, FdKind::kConnected);
}

void OnClosed(int fd)
{
    if (gTable.Forget(fd)) {
        CloseIdleSessions();
    }
}

void OnClosedRange(unsigned first, unsigned last)
{
    if (gTable.ForgetRange(first, last)) {
        CloseIdleSessions();
    }
}

void OnDuplicated(int from, int to)
{
    if (gTable.Copy(from, to)) {
        CloseIdleSessions();
    }
}

void OnReceived(const struct msghdr *message)
{
    for (struct cmsghdr *control = CMSG_FIRSTHDR(message); control != nullptr;
         control = CMSG_NXTHDR(const_cast<struct msghdr *>(message), control)) {
        if (control->cmsg_level != SOL_SOCKET || control->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        size_t count = (control->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        const unsigned char *data = CMSG_DATA(control);
        for (size_t i = 0; i < count; ++i) {
            int fd;
            memcpy(&fd, data + i * sizeof fd, sizeof fd);
            gTable.Forget(fd);
        }
    }
}

void OnExit()
{
    CloseSessions();
}

void OnEffectiveUid(uid_t euid)
{
    gEuid.store(euid, std::memory_order_relaxed);
}

namespace {

// Starts the pacer when the library is loaded, after the globals above are
// constructed (the order of one file's globals is fixed), and removes the
// process's entries when it exits.
struct Starter {
    Starter() { StartPacer(); }
    ~Starter() { CloseSessions(); }
} gStarter;

}  // namespace

}  // namespace preload

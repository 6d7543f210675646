// The descriptor table of the preload library.
#include "preload_fd_table.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace preload {
namespace {

constexpr uint8_t kKindMask = 0x0f;
constexpr uint8_t kClampedBit = 0x10;

bool InRange(int fd)
{
    return fd >= 0 && fd < FdTable::kSize;
}

int SocketOption(int fd, int option)
{
    int value = -1;
    socklen_t size = sizeof value;
    return getsockopt(fd, SOL_SOCKET, option, &value, &size) == 0 ? value : -1;
}

bool IsTcp(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode)) {
        return false;
    }
    int domain = SocketOption(fd, SO_DOMAIN);
    return (domain == AF_INET || domain == AF_INET6) && SocketOption(fd, SO_TYPE) == SOCK_STREAM &&
           SocketOption(fd, SO_PROTOCOL) == IPPROTO_TCP;
}

}  // namespace

// The slots are read and written by every thread without a lock; a byte is
// written whole, and a stale value only decides one call.
uint8_t FdTable::Raw(int fd) const
{
    return InRange(fd) ? __atomic_load_n(&slots_[fd], __ATOMIC_RELAXED) : static_cast<uint8_t>(FdKind::kOther);
}

FdKind FdTable::Get(int fd) const
{
    return static_cast<FdKind>(Raw(fd) & kKindMask);
}

bool FdTable::Set(int fd, FdKind kind)
{
    if (!InRange(fd)) {
        return false;
    }
    uint8_t old = __atomic_exchange_n(&slots_[fd], static_cast<uint8_t>(kind), __ATOMIC_RELAXED);
    bool wasPaced = IsPaced(static_cast<FdKind>(old & kKindMask));
    int change = (IsPaced(kind) ? 1 : 0) - (wasPaced ? 1 : 0);
    if (change != 0) {
        __atomic_fetch_add(&pacedCount_, change, __ATOMIC_RELAXED);
    }
    return wasPaced;
}

bool FdTable::ForgetRange(unsigned first, unsigned last)
{
    bool anyPaced = false;
    for (unsigned fd = first; fd <= last && fd < static_cast<unsigned>(kSize); ++fd) {
        anyPaced = Forget(static_cast<int>(fd)) || anyPaced;
    }
    return anyPaced;
}

bool FdTable::Clamped(int fd) const
{
    return (Raw(fd) & kClampedBit) != 0;
}

void FdTable::SetClamped(int fd)
{
    if (InRange(fd)) {
        __atomic_fetch_or(&slots_[fd], kClampedBit, __ATOMIC_RELAXED);
    }
}

FdKind FdTable::Classify(int fd, Role fallback)
{
    FdKind kind = Get(fd);
    if (kind != FdKind::kUnknown && kind != FdKind::kAccepted && kind != FdKind::kConnected) {
        return kind;
    }
    Role role = kind == FdKind::kAccepted ? Role::kServer : kind == FdKind::kConnected ? Role::kClient : fallback;
    FdKind found = !IsTcp(fd) ? FdKind::kOther : role == Role::kServer ? FdKind::kPacedServer : FdKind::kPacedClient;
    Set(fd, found);
    return found;
}

}  // namespace preload

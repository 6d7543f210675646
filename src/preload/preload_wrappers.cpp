// The calls that the preload library stands in front of.  Calls that move
// bytes through a paced TCP socket are capped to the session's chunk and
// paced; calls that make, copy, receive or close descriptors, or change the
// effective uid, keep the pacer's view of the process up to date.  Every
// other call goes straight on to the C library.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "preload_next.h"
#include "preload_pacer.h"
#include "vesk_export.h"

// The fortified forms that _FORTIFY_SOURCE builds call instead of read, recv
// and recvfrom; the C library's internal calls bypass the unfortified names.
extern "C" {
ssize_t __read_chk(int fd, void *buf, size_t count, size_t size);
ssize_t __recv_chk(int fd, void *buf, size_t count, size_t size, int flags);
ssize_t __recvfrom_chk(int fd, void *buf, size_t count, size_t size, int flags, struct sockaddr *from,
                       socklen_t *fromSize);
}

namespace {

using preload::MovePaced;
using preload::Next;
using preload::Paces;
using preload::Rest;
using preload::Way;

Next<ssize_t (*)(int, void *, size_t)> gRead("read");
Next<ssize_t (*)(int, const struct iovec *, int)> gReadv("readv");
Next<ssize_t (*)(int, void *, size_t, int)> gRecv("recv");
Next<ssize_t (*)(int, void *, size_t, int, struct sockaddr *, socklen_t *)> gRecvfrom("recvfrom");
Next<ssize_t (*)(int, struct msghdr *, int)> gRecvmsg("recvmsg");
Next<ssize_t (*)(int, const void *, size_t)> gWrite("write");
Next<ssize_t (*)(int, const struct iovec *, int)> gWritev("writev");
Next<ssize_t (*)(int, const void *, size_t, int)> gSend("send");
Next<ssize_t (*)(int, const void *, size_t, int, const struct sockaddr *, socklen_t)> gSendto("sendto");
Next<ssize_t (*)(int, const struct msghdr *, int)> gSendmsg("sendmsg");
Next<ssize_t (*)(int, int, off_t *, size_t)> gSendfile("sendfile");
Next<ssize_t (*)(int, int, off64_t *, size_t)> gSendfile64("sendfile64");
Next<ssize_t (*)(int, loff_t *, int, loff_t *, size_t, unsigned int)> gSplice("splice");
Next<ssize_t (*)(int, void *, size_t, size_t)> gReadChk("__read_chk");
Next<ssize_t (*)(int, void *, size_t, size_t, int)> gRecvChk("__recv_chk");
Next<ssize_t (*)(int, void *, size_t, size_t, int, struct sockaddr *, socklen_t *)> gRecvfromChk("__recvfrom_chk");
Next<int (*)(int, struct sockaddr *, socklen_t *)> gAccept("accept");
Next<int (*)(int, struct sockaddr *, socklen_t *, int)> gAccept4("accept4");
Next<int (*)(int, const struct sockaddr *, socklen_t)> gConnect("connect");
Next<int (*)(int)> gClose("close");
Next<int (*)(int)> gDup("dup");
Next<int (*)(int, int)> gDup2("dup2");
Next<int (*)(int, int, int)> gDup3("dup3");
Next<int (*)(unsigned int, unsigned int, int)> gCloseRange("close_range");
Next<void (*)(int)> gClosefrom("closefrom");
Next<int (*)(FILE *)> gFclose("fclose");
Next<void (*)(int)> gExit("_exit");
Next<void (*)(int)> gExitNow("_Exit");
Next<int (*)(uid_t)> gSetuid("setuid");
Next<int (*)(uid_t)> gSeteuid("seteuid");
Next<int (*)(uid_t, uid_t)> gSetreuid("setreuid");
Next<int (*)(uid_t, uid_t, uid_t)> gSetresuid("setresuid");

char *At(void *buf, size_t offset)
{
    return static_cast<char *>(buf) + offset;
}

const char *At(const void *buf, size_t offset)
{
    return static_cast<const char *>(buf) + offset;
}

size_t TotalSize(const struct iovec *iov, int count)
{
    size_t total = 0;
    for (int i = 0; i < count; ++i) {
        total += iov[i].iov_len;
        if (total < iov[i].iov_len) {
            return SIZE_MAX;
        }
    }
    return total;
}

// The bytes [offset, offset + count) of a list of buffers, as a list of its own.
class Slice {
public:
    Slice(const struct iovec *iov, int iovcnt, size_t offset, size_t count)
    {
        for (int i = 0; i < iovcnt && count > 0; ++i) {
            if (offset >= iov[i].iov_len) {
                offset -= iov[i].iov_len;
                continue;
            }
            size_t take = std::min(iov[i].iov_len - offset, count);
            parts_.push_back({static_cast<char *>(iov[i].iov_base) + offset, take});
            offset = 0;
            count -= take;
        }
    }
    struct iovec *Data() { return parts_.data(); }
    int Count() const { return static_cast<int>(parts_.size()); }

private:
    std::vector<struct iovec> parts_;
};

// A message whose buffers are a slice of the caller's; the control data goes
// with the first piece only.
template <typename Call>
ssize_t MessagePiece(const struct msghdr *message, size_t offset, size_t count, Call call)
{
    Slice slice(message->msg_iov, static_cast<int>(message->msg_iovlen), offset, count);
    struct msghdr piece = *message;
    piece.msg_iov = slice.Data();
    piece.msg_iovlen = static_cast<size_t>(slice.Count());
    if (offset > 0) {
        piece.msg_control = nullptr;
        piece.msg_controllen = 0;
    }
    return call(&piece);
}

}  // namespace

extern "C" {

VESK_API ssize_t read(int fd, void *buf, size_t count)
{
    if (!Paces(fd)) {
        return gRead.Get()(fd, buf, count);
    }
    return MovePaced(fd, Way::kReceive, count, Rest::kReturn, 0,
                     [&](size_t offset, size_t n) { return gRead.Get()(fd, At(buf, offset), n); });
}

VESK_API ssize_t __read_chk(int fd, void *buf, size_t count, size_t size)
{
    if (count > size || !Paces(fd)) {
        return gReadChk.Get()(fd, buf, count, size);
    }
    return MovePaced(fd, Way::kReceive, count, Rest::kReturn, 0,
                     [&](size_t offset, size_t n) { return gReadChk.Get()(fd, At(buf, offset), n, size - offset); });
}

VESK_API ssize_t readv(int fd, const struct iovec *iov, int iovcnt)
{
    if (!Paces(fd)) {
        return gReadv.Get()(fd, iov, iovcnt);
    }
    return MovePaced(fd, Way::kReceive, TotalSize(iov, iovcnt), Rest::kReturn, 0, [&](size_t offset, size_t n) {
        Slice slice(iov, iovcnt, offset, n);
        return gReadv.Get()(fd, slice.Data(), slice.Count());
    });
}

VESK_API ssize_t recv(int fd, void *buf, size_t count, int flags)
{
    if (!Paces(fd)) {
        return gRecv.Get()(fd, buf, count, flags);
    }
    return MovePaced(fd, Way::kReceive, count, Rest::kMoveIfWaitAll, flags,
                     [&](size_t offset, size_t n) { return gRecv.Get()(fd, At(buf, offset), n, flags); });
}

VESK_API ssize_t __recv_chk(int fd, void *buf, size_t count, size_t size, int flags)
{
    if (count > size || !Paces(fd)) {
        return gRecvChk.Get()(fd, buf, count, size, flags);
    }
    return MovePaced(fd, Way::kReceive, count, Rest::kMoveIfWaitAll, flags, [&](size_t offset, size_t n) {
        return gRecvChk.Get()(fd, At(buf, offset), n, size - offset, flags);
    });
}

VESK_API ssize_t recvfrom(int fd, void *buf, size_t count, int flags, struct sockaddr *from, socklen_t *fromSize)
{
    if (!Paces(fd)) {
        return gRecvfrom.Get()(fd, buf, count, flags, from, fromSize);
    }
    return MovePaced(fd, Way::kReceive, count, Rest::kMoveIfWaitAll, flags, [&](size_t offset, size_t n) {
        return gRecvfrom.Get()(fd, At(buf, offset), n, flags, from, fromSize);
    });
}

VESK_API ssize_t __recvfrom_chk(int fd, void *buf, size_t count, size_t size, int flags, struct sockaddr *from,
                                socklen_t *fromSize)
{
    if (count > size || !Paces(fd)) {
        return gRecvfromChk.Get()(fd, buf, count, size, flags, from, fromSize);
    }
    return MovePaced(fd, Way::kReceive, count, Rest::kMoveIfWaitAll, flags, [&](size_t offset, size_t n) {
        return gRecvfromChk.Get()(fd, At(buf, offset), n, size - offset, flags, from, fromSize);
    });
}

VESK_API ssize_t recvmsg(int fd, struct msghdr *message, int flags)
{
    ssize_t result;
    if (!Paces(fd)) {
        result = gRecvmsg.Get()(fd, message, flags);
    } else {
        result = MovePaced(fd, Way::kReceive, TotalSize(message->msg_iov, static_cast<int>(message->msg_iovlen)),
                           Rest::kMoveIfWaitAll, flags, [&](size_t offset, size_t n) {
                               return MessagePiece(message, offset, n, [&](struct msghdr *piece) {
                                   ssize_t got = gRecvmsg.Get()(fd, piece, flags);
                                   if (offset == 0) {
                                       message->msg_namelen = piece->msg_namelen;
                                       message->msg_controllen = piece->msg_controllen;
                                       message->msg_flags = piece->msg_flags;
                                   }
                                   return got;
                               });
                           });
    }
    if (result >= 0 && message->msg_controllen > 0) {
        preload::OnReceived(message);
    }
    return result;
}

VESK_API ssize_t write(int fd, const void *buf, size_t count)
{
    if (!Paces(fd)) {
        return gWrite.Get()(fd, buf, count);
    }
    return MovePaced(fd, Way::kSend, count, Rest::kMoveIfWaits, 0,
                     [&](size_t offset, size_t n) { return gWrite.Get()(fd, At(buf, offset), n); });
}

VESK_API ssize_t writev(int fd, const struct iovec *iov, int iovcnt)
{
    if (!Paces(fd)) {
        return gWritev.Get()(fd, iov, iovcnt);
    }
    return MovePaced(fd, Way::kSend, TotalSize(iov, iovcnt), Rest::kMoveIfWaits, 0, [&](size_t offset, size_t n) {
        Slice slice(iov, iovcnt, offset, n);
        return gWritev.Get()(fd, slice.Data(), slice.Count());
    });
}

VESK_API ssize_t send(int fd, const void *buf, size_t count, int flags)
{
    if (!Paces(fd)) {
        return gSend.Get()(fd, buf, count, flags);
    }
    return MovePaced(fd, Way::kSend, count, Rest::kMoveIfWaits, flags,
                     [&](size_t offset, size_t n) { return gSend.Get()(fd, At(buf, offset), n, flags); });
}

VESK_API ssize_t sendto(int fd, const void *buf, size_t count, int flags, const struct sockaddr *to, socklen_t toSize)
{
    if (!Paces(fd)) {
        return gSendto.Get()(fd, buf, count, flags, to, toSize);
    }
    return MovePaced(fd, Way::kSend, count, Rest::kMoveIfWaits, flags,
                     [&](size_t offset, size_t n) { return gSendto.Get()(fd, At(buf, offset), n, flags, to, toSize); });
}

VESK_API ssize_t sendmsg(int fd, const struct msghdr *message, int flags)
{
    if (!Paces(fd)) {
        return gSendmsg.Get()(fd, message, flags);
    }
    return MovePaced(fd, Way::kSend, TotalSize(message->msg_iov, static_cast<int>(message->msg_iovlen)),
                     Rest::kMoveIfWaits, flags, [&](size_t offset, size_t n) {
                         return MessagePiece(message, offset, n,
                                             [&](struct msghdr *piece) { return gSendmsg.Get()(fd, piece, flags); });
                     });
}

VESK_API ssize_t sendfile(int out, int in, off_t *offset, size_t count) noexcept
{
    if (!Paces(out)) {
        return gSendfile.Get()(out, in, offset, count);
    }
    return MovePaced(out, Way::kSend, count, Rest::kMoveIfWaits, 0,
                     [&](size_t, size_t n) { return gSendfile.Get()(out, in, offset, n); });
}

VESK_API ssize_t sendfile64(int out, int in, off64_t *offset, size_t count) noexcept
{
    if (!Paces(out)) {
        return gSendfile64.Get()(out, in, offset, count);
    }
    return MovePaced(out, Way::kSend, count, Rest::kMoveIfWaits, 0,
                     [&](size_t, size_t n) { return gSendfile64.Get()(out, in, offset, n); });
}

// Zero-copy from a pipe to a socket or from a socket to a pipe: capped and
// paced like a send or a receive, returning after one piece.
VESK_API ssize_t splice(int in, loff_t *inOffset, int out, loff_t *outOffset, size_t count, unsigned int flags)
{
    auto call = [&](size_t, size_t n) { return gSplice.Get()(in, inOffset, out, outOffset, n, flags); };
    if (Paces(out)) {
        return MovePaced(out, Way::kSend, count, Rest::kReturn, 0, call);
    }
    if (Paces(in)) {
        return MovePaced(in, Way::kReceive, count, Rest::kReturn, 0, call);
    }
    return gSplice.Get()(in, inOffset, out, outOffset, count, flags);
}

VESK_API int accept(int fd, struct sockaddr *address, socklen_t *size)
{
    int accepted = gAccept.Get()(fd, address, size);
    preload::OnAccepted(accepted);
    return accepted;
}

VESK_API int accept4(int fd, struct sockaddr *address, socklen_t *size, int flags)
{
    int accepted = gAccept4.Get()(fd, address, size, flags);
    preload::OnAccepted(accepted);
    return accepted;
}

VESK_API int connect(int fd, const struct sockaddr *address, socklen_t size)
{
    int result = gConnect.Get()(fd, address, size);
    if (result == 0 || errno == EINPROGRESS) {
        preload::OnConnected(fd);
    }
    return result;
}

VESK_API int close(int fd)
{
    preload::OnClosed(fd);
    return gClose.Get()(fd);
}

VESK_API int dup(int fd) noexcept
{
    int copy = gDup.Get()(fd);
    preload::OnDuplicated(fd, copy);
    return copy;
}

VESK_API int dup2(int fd, int to) noexcept
{
    int copy = gDup2.Get()(fd, to);
    preload::OnDuplicated(fd, copy);
    return copy;
}

VESK_API int dup3(int fd, int to, int flags) noexcept
{
    int copy = gDup3.Get()(fd, to, flags);
    preload::OnDuplicated(fd, copy);
    return copy;
}

VESK_API int close_range(unsigned int first, unsigned int last, int flags) noexcept
{
    int result = gCloseRange.Get()(first, last, flags);
    if (result == 0 && (flags & CLOSE_RANGE_CLOEXEC) == 0) {
        preload::OnClosedRange(first, last);
    }
    return result;
}

VESK_API void closefrom(int first) noexcept
{
    gClosefrom.Get()(first);
    preload::OnClosedRange(static_cast<unsigned>(first), ~0u);
}

// The descriptor of a stream closes with it, past close().
VESK_API int fclose(FILE *stream)
{
    int fd = fileno(stream);
    preload::OnClosed(fd);
    return gFclose.Get()(stream);
}

VESK_API void _exit(int status)
{
    preload::OnExit();
    gExit.Get()(status);
    __builtin_unreachable();
}

VESK_API void _Exit(int status) noexcept
{
    preload::OnExit();
    gExitNow.Get()(status);
    __builtin_unreachable();
}

VESK_API int setuid(uid_t uid) noexcept
{
    int result = gSetuid.Get()(uid);
    if (result == 0) {
        preload::OnEffectiveUid(uid);
    }
    return result;
}

VESK_API int seteuid(uid_t euid) noexcept
{
    int result = gSeteuid.Get()(euid);
    if (result == 0) {
        preload::OnEffectiveUid(euid);
    }
    return result;
}

VESK_API int setreuid(uid_t ruid, uid_t euid) noexcept
{
    int result = gSetreuid.Get()(ruid, euid);
    if (result == 0 && euid != (uid_t)-1) {
        preload::OnEffectiveUid(euid);
    }
    return result;
}

VESK_API int setresuid(uid_t ruid, uid_t euid, uid_t suid) noexcept
{
    int result = gSetresuid.Get()(ruid, euid, suid);
    if (result == 0 && euid != (uid_t)-1) {
        preload::OnEffectiveUid(euid);
    }
    return result;
}

}  // extern "C"

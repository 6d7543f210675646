// The pacing of one process: one transfer session per direction for the user
// the process runs as, opened at the first paced byte, paced after every call
// that moved bytes through a TCP socket, reopened when the process forks or
// switches users, closed when the transfer is switched off.
#ifndef PRELOAD_PACER_H
#define PRELOAD_PACER_H

#include <stddef.h>
#include <sys/socket.h>
#include <sys/types.h>

namespace preload {

enum class Way { kSend, kReceive };

// Reads the settings and prepares for fork; run by the library's constructor.
void StartPacer();

// Whether calls on this descriptor are paced now.  For a descriptor that is
// known not to be paced, and in a process that passes through, this makes no
// system call.
bool Paces(int fd);

// What a call does when its first piece has moved and bytes are left.
enum class Rest {
    kReturn,         // returns a short count
    kMoveIfWaits,    // moves them too on a blocking socket, unless MSG_DONTWAIT (sends)
    kMoveIfWaitAll,  // the same, with MSG_WAITALL (receives)
};

// Whether a call with these flags goes on after its first piece.  Asks the
// descriptor (one system call) only when the flags leave it open.
bool MovesTheRest(int fd, Rest rest, int flags);

// Before a call that moves up to `want` bytes: how many it may move now.
size_t BeginMove(int fd, Way way, size_t want);
// After it moved `moved` bytes (> 0): sleeps until they are due.  False when
// the transfer was switched off: the socket is shut down.
bool EndMove(int fd, Way way, size_t moved);

// Moves up to `total` bytes through `move(offset, count)`, a call of the real
// function on the bytes from `offset` on, at most `count` of them.  A call
// that waits until everything is moved (by `rest` and the call's `flags`) is
// split into paced pieces; any other returns after the first piece, with a
// short count.
template <typename Move>
ssize_t MovePaced(int fd, Way way, size_t total, Rest rest, int flags, Move move)
{
    size_t done = 0;
    for (bool first = true;; first = false) {
        size_t count = BeginMove(fd, way, total - done);
        ssize_t moved = move(done, count);
        if (moved <= 0) {
            return done > 0 ? static_cast<ssize_t>(done) : moved;
        }
        done += static_cast<size_t>(moved);
        if (!EndMove(fd, way, static_cast<size_t>(moved)) || static_cast<size_t>(moved) < count || done >= total ||
            (first && !MovesTheRest(fd, rest, flags))) {
            return static_cast<ssize_t>(done);
        }
    }
}

// What the wrappers tell the pacer about descriptors and identity.
void OnAccepted(int fd);
void OnConnected(int fd);
void OnClosed(int fd);
void OnClosedRange(unsigned first, unsigned last);
void OnDuplicated(int from, int to);
void OnReceived(const struct msghdr *message);  // descriptors passed in (SCM_RIGHTS)
void OnEffectiveUid(uid_t euid);
// The process ends by _exit (exit runs the library's destructor instead):
// its entries are removed.  A vfork child, sharing its parent's memory,
// removes nothing.
void OnExit();

}  // namespace preload

#endif

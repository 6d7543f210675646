// What the preload library knows about each descriptor of its process: a
// table of one byte per descriptor, so that the check on every wrapped call
// of an untracked descriptor is a table lookup and no system call.
#ifndef PRELOAD_FD_TABLE_H
#define PRELOAD_FD_TABLE_H

#include <stdint.h>

#include "preload_settings.h"

namespace preload {

enum class FdKind : uint8_t {
    kUnknown,      // not looked at yet (inherited, received, or reused)
    kAccepted,     // came from accept: a server's end, not looked at yet
    kConnected,    // went through connect: a client's end, not looked at yet
    kOther,        // a file, pipe, Unix or UDP socket: never paced
    kPacedServer,  // a TCP socket whose sends are downloads
    kPacedClient,  // a TCP socket whose sends are uploads
};

class FdTable {
public:
    // Descriptors from this number on are never paced.
    static constexpr int kSize = 65536;

    FdKind Get(int fd) const;
    // Records what the descriptor is now; true when it was paced before.
    bool Set(int fd, FdKind kind);
    bool Forget(int fd) { return Set(fd, FdKind::kUnknown); }
    // True when one of them was paced.
    bool ForgetRange(unsigned first, unsigned last);
    bool Copy(int from, int to) { return Set(to, Get(from)); }

    // Whether the receive buffer of a paced socket was already clamped.
    bool Clamped(int fd) const;
    void SetClamped(int fd);

    // How many descriptors are paced sockets.
    int PacedCount() const { return __atomic_load_n(&pacedCount_, __ATOMIC_RELAXED); }

    // Looks at a descriptor not looked at yet (fstat, getsockopt) and records
    // what it is; `fallback` is the role of a TCP socket of unknown origin.
    FdKind Classify(int fd, Role fallback);

private:
    uint8_t Raw(int fd) const;
    uint8_t slots_[kSize] = {};
    int pacedCount_ = 0;
};

inline bool IsPaced(FdKind kind)
{
    return kind == FdKind::kPacedServer || kind == FdKind::kPacedClient;
}

}  // namespace preload

#endif

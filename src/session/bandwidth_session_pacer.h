// Pacing by deadlines: the bytes a transfer moves are due at a virtual time
// that advances by bytes / rate, and waits sleep to that time on the
// monotonic clock, so that a late wake-up shortens the next wait instead of
// being lost.  Internal to the library.
#ifndef BANDWIDTH_SESSION_PACER_H
#define BANDWIDTH_SESSION_PACER_H

#include <stdint.h>

// Nanoseconds on the monotonic clock.
int64_t BwMonotonicNs();

// Sleeps until the monotonic clock reaches llDeadlineNs; a signal does not
// cut the wait short.
void BwSleepUntil(int64_t llDeadlineNs);

// Nanoseconds that cb bytes take at ullRateBps (not 0), rounded up.
int64_t BwBytesTimeNs(uint64_t cb, uint64_t ullRateBps);

class BwPacer {
public:
    // From llStartNs on, cbCounted bytes and those counted later are due at
    // ullRateBps; 0 leaves them unpaced.
    void Restart(uint64_t ullRateBps, int64_t llStartNs, uint64_t cbCounted = 0);
    // Counts cb more bytes moved by llNowNs.  A caller that was idle gets no
    // credit beyond a few milliseconds of data: the virtual time is pulled up.
    void Count(uint64_t cb, int64_t llNowNs);
    // When the bytes counted so far are due; unpaced, the start.
    int64_t Due() const;
    // How many of the counted bytes are not due yet at llNowNs (rounded up).
    uint64_t Pending(int64_t llNowNs) const;
    uint64_t Rate() const { return ullRateBps_; }

private:
    uint64_t ullRateBps_ = 0;
    int64_t llStartNs_ = 0;
    uint64_t cbCounted_ = 0;
};

#endif

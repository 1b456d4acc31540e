// The host side of the time seam: a replaceable clock.
//
// Tests install a fake TimeSource to drive uptime and sleeps without waiting
// real seconds.
//
// The machine's clock may run fast: TAVREND_TIME_SCALE=N (read once, a
// positive number, default 1) makes N seconds of the daemon's time pass per
// real second, consistently for uptime, the wall clock, sleeps, the loop's
// wait and the log's timestamps. Uptime and wall clock start from the
// machine's values when the clock is first used.
#pragma once

#include "platform/time_seam.h"

namespace tavrend::platform {

class TimeSource {
public:
    virtual ~TimeSource() = default;
    // As sysinfo(2): 0 on success, -1 on failure.
    virtual int sysinfo(struct ::sysinfo* info) = 0;
    virtual void sleepSeconds(unsigned seconds) = 0;
    virtual time_t now() = 0;
    // As select(2) on read descriptors with a timeout of `seconds`. The
    // default waits on the machine's clock, scaled.
    virtual int waitReadable(int nfds, fd_set* readfds, unsigned seconds);
};

// The machine's clock: sysinfo(2), nanosleep(2), time(2).
TimeSource& realTimeSource();

// Installs `source` (nullptr restores the real clock). Not owned.
void setTimeSource(TimeSource* source);

// The host clock's scale (1 unless TAVREND_TIME_SCALE says otherwise), and
// CLOCK_REALTIME on that clock, for the log's timestamps.
double timeScale();
void scaledRealtime(struct timespec* ts);

}  // namespace tavrend::platform

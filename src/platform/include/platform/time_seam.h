// The one seam through which the daemon sleeps and asks for the time.
//
// Production code calls the free functions below; tests install a fake
// TimeSource to drive uptime and sleeps without waiting real seconds.
#pragma once

#include <sys/sysinfo.h>
#include <time.h>

namespace tavrend::platform {

class TimeSource {
public:
    virtual ~TimeSource() = default;
    // As sysinfo(2): 0 on success, -1 on failure.
    virtual int sysinfo(struct ::sysinfo* info) = 0;
    virtual void sleepSeconds(unsigned seconds) = 0;
    virtual time_t now() = 0;
};

// The machine's clock: sysinfo(2), nanosleep(2), time(2).
TimeSource& realTimeSource();

// Installs `source` (nullptr restores the real clock). Not owned.
void setTimeSource(TimeSource* source);

int systemInfo(struct ::sysinfo* info);
void sleepSeconds(unsigned seconds);
time_t wallClockNow();

}  // namespace tavrend::platform

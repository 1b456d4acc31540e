// The one seam through which the daemon sleeps, waits and asks for the time.
//
// On a device these are sysinfo(2), nanosleep(2), time(2) and select(2)
// themselves. On a host tests can replace the clock and the machine's clock
// may run fast (see platform/time_source.h).
#pragma once

#include <sys/select.h>
#include <sys/sysinfo.h>
#include <time.h>

namespace tavrend::platform {

// As sysinfo(2): 0 on success, -1 on failure.
int systemInfo(struct ::sysinfo* info);
void sleepSeconds(unsigned seconds);
time_t wallClockNow();
// As select(2) on read descriptors with a timeout of `seconds`.
int waitReadable(int nfds, fd_set* readfds, unsigned seconds);

}  // namespace tavrend::platform

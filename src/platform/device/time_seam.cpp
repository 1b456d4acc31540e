// On a device the time seam is the system calls themselves.
#include "platform/time_seam.h"

#include <cerrno>

namespace tavrend::platform {

int systemInfo(struct ::sysinfo* info) { return ::sysinfo(info); }

void sleepSeconds(unsigned seconds) {
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(seconds);
    ts.tv_nsec = 0;
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

time_t wallClockNow() { return time(nullptr); }

int waitReadable(int nfds, fd_set* readfds, unsigned seconds) {
    struct timeval timeout;
    timeout.tv_sec = static_cast<time_t>(seconds);
    timeout.tv_usec = 0;
    return select(nfds, readfds, nullptr, nullptr, &timeout);
}

}  // namespace tavrend::platform

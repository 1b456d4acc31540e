#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "platform/time_source.h"

namespace tavrend::platform {
namespace {

double secondsOf(const struct timespec& ts) {
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

struct timespec timespecOf(double seconds) {
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(seconds);
    ts.tv_nsec = static_cast<long>((seconds - static_cast<double>(ts.tv_sec)) * 1e9);
    return ts;
}

// The machine's clock, run `scale` times faster from the moment it was first
// asked. With scale 1 every call is the plain system call. With
// TAVREND_BOOT_UPTIME_SEC set, the uptime starts there instead of at the
// machine's, as on a device that has just booted.
struct HostClock {
    double scale = 1;
    double monoStart = 0;
    double realStart = 0;
    long uptimeStart = 0;
    bool bootSet = false;

    HostClock() {
        if (const char* text = getenv("TAVREND_TIME_SCALE"); text != nullptr && *text != '\0') {
            char* end = nullptr;
            const double v = strtod(text, &end);
            if (*end == '\0' && std::isfinite(v) && v > 0 && v <= 1e6) {
                scale = v;
            } else {
                fprintf(stderr, "TAVREND_TIME_SCALE=%s is not a number in (0, 1000000]; using 1\n",
                        text);
            }
        }
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        monoStart = secondsOf(ts);
        clock_gettime(CLOCK_REALTIME, &ts);
        realStart = secondsOf(ts);
        struct ::sysinfo info {};
        if (::sysinfo(&info) == 0) uptimeStart = info.uptime;
        if (const char* text = getenv("TAVREND_BOOT_UPTIME_SEC");
            text != nullptr && *text != '\0') {
            char* end = nullptr;
            const long long v = strtoll(text, &end, 10);
            if (*end == '\0' && v >= 0 && v <= 1000000000) {
                uptimeStart = static_cast<long>(v);
                bootSet = true;
            } else {
                fprintf(stderr,
                        "TAVREND_BOOT_UPTIME_SEC=%s is not a number in [0, 1000000000]; using "
                        "the machine's uptime\n",
                        text);
            }
        }
    }

    // Seconds of scaled time since the clock started.
    double elapsed() const {
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return (secondsOf(ts) - monoStart) * scale;
    }
};

HostClock& hostClock() {
    static HostClock* clock = new HostClock;  // never destroyed: threads may outlive statics
    return *clock;
}

class RealTimeSource : public TimeSource {
public:
    int sysinfo(struct ::sysinfo* info) override {
        const int rc = ::sysinfo(info);
        const HostClock& clock = hostClock();
        if (rc == 0 && (clock.scale != 1 || clock.bootSet)) {
            info->uptime = clock.uptimeStart + static_cast<long>(clock.elapsed());
        }
        return rc;
    }
    void sleepSeconds(unsigned seconds) override {
        struct timespec ts = timespecOf(seconds / hostClock().scale);
        while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
        }
    }
    time_t now() override {
        const HostClock& clock = hostClock();
        if (clock.scale == 1) return ::time(nullptr);
        return static_cast<time_t>(clock.realStart + clock.elapsed());
    }
};

std::atomic<TimeSource*> gSource{nullptr};

TimeSource& source() {
    TimeSource* s = gSource.load(std::memory_order_acquire);
    return s ? *s : realTimeSource();
}

}  // namespace

int TimeSource::waitReadable(int nfds, fd_set* readfds, unsigned seconds) {
    const double real = seconds / hostClock().scale;
    struct timeval timeout;
    timeout.tv_sec = static_cast<time_t>(real);
    timeout.tv_usec = static_cast<suseconds_t>((real - static_cast<double>(timeout.tv_sec)) * 1e6);
    return select(nfds, readfds, nullptr, nullptr, &timeout);
}

TimeSource& realTimeSource() {
    static RealTimeSource* real = new RealTimeSource;  // never destroyed, like the clock
    return *real;
}

void setTimeSource(TimeSource* s) { gSource.store(s, std::memory_order_release); }

int systemInfo(struct ::sysinfo* info) { return source().sysinfo(info); }
void sleepSeconds(unsigned seconds) { source().sleepSeconds(seconds); }
time_t wallClockNow() { return source().now(); }
int waitReadable(int nfds, fd_set* readfds, unsigned seconds) {
    return source().waitReadable(nfds, readfds, seconds);
}

double timeScale() { return hostClock().scale; }

void scaledRealtime(struct timespec* ts) {
    const HostClock& clock = hostClock();
    if (clock.scale == 1) {
        clock_gettime(CLOCK_REALTIME, ts);
    } else {
        *ts = timespecOf(clock.realStart + clock.elapsed());
    }
}

}  // namespace tavrend::platform

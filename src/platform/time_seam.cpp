#include "platform/time_seam.h"

#include <atomic>
#include <cerrno>

namespace tavrend::platform {
namespace {

class RealTimeSource : public TimeSource {
public:
    int sysinfo(struct ::sysinfo* info) override { return ::sysinfo(info); }
    void sleepSeconds(unsigned seconds) override {
        struct timespec ts = {static_cast<time_t>(seconds), 0};
        while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
        }
    }
    time_t now() override { return ::time(nullptr); }
};

std::atomic<TimeSource*> gSource{nullptr};

TimeSource& source() {
    TimeSource* s = gSource.load(std::memory_order_acquire);
    return s ? *s : realTimeSource();
}

}  // namespace

TimeSource& realTimeSource() {
    static RealTimeSource real;
    return real;
}

void setTimeSource(TimeSource* s) { gSource.store(s, std::memory_order_release); }

int systemInfo(struct ::sysinfo* info) { return source().sysinfo(info); }
void sleepSeconds(unsigned seconds) { source().sleepSeconds(seconds); }
time_t wallClockNow() { return source().now(); }

}  // namespace tavrend::platform

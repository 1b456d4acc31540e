#include "support/FakeTime.h"

#include <cstring>

namespace tavrend::test {

FakeTime::FakeTime(unsigned long uptimeSec, time_t wallClock) : uptime_(uptimeSec), wall_(wallClock) {
    platform::setTimeSource(this);
}

FakeTime::~FakeTime() { platform::setTimeSource(nullptr); }

int FakeTime::sysinfo(struct ::sysinfo* info) {
    if (failSysinfo_.load()) return -1;
    memset(info, 0, sizeof(*info));
    info->uptime = static_cast<long>(uptime_.load());
    return 0;
}

void FakeTime::sleepSeconds(unsigned seconds) {
    uptime_ += seconds;
    wall_ += seconds;
    slept_ += seconds;
    unsigned long index = sleepCalls_++;
    std::function<void(unsigned long)> fn;
    {
        std::lock_guard<std::mutex> lock(hookMutex_);
        fn = onSleep_;
    }
    if (fn) fn(index);
}

time_t FakeTime::now() { return wall_.load(); }


void FakeTime::onSleep(std::function<void(unsigned long)> fn) {
    std::lock_guard<std::mutex> lock(hookMutex_);
    onSleep_ = std::move(fn);
}

}  // namespace tavrend::test

// A clock for tests: uptime and wall time advance only when the code under
// test sleeps. Installs itself as the time source for its life.
#pragma once

#include <atomic>
#include <functional>

#include "platform/time_source.h"

namespace tavrend::test {

class FakeTime : public platform::TimeSource {
public:
    explicit FakeTime(unsigned long uptimeSec = 1000) : uptime_(uptimeSec) {
        platform::setTimeSource(this);
    }
    ~FakeTime() override { platform::setTimeSource(nullptr); }

    int sysinfo(struct ::sysinfo* info) override;
    void sleepSeconds(unsigned seconds) override;
    time_t now() override { return 1700000000 + static_cast<time_t>(uptime_.load()); }

    unsigned long uptime() const { return uptime_.load(); }
    unsigned long sleepCalls() const { return sleepCalls_.load(); }
    void failSysinfo(bool fail) { failSysinfo_.store(fail); }
    // Called after every sleep with its index; set it before the code under test runs.
    std::function<void(unsigned long sleepIndex)> onSleep;

private:
    std::atomic<unsigned long> uptime_, sleepCalls_{0};
    std::atomic<bool> failSysinfo_{false};
};

}  // namespace tavrend::test

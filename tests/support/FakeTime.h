// A clock for tests: uptime and wall time advance only when the code under
// test sleeps, or when the test says so.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>

#include "platform/time_seam.h"

namespace tavrend::test {

class FakeTime : public platform::TimeSource {
public:
    // Installs itself as the time source; the destructor restores the real one.
    explicit FakeTime(unsigned long uptimeSec = 1000, time_t wallClock = 1700000000);
    ~FakeTime() override;

    int sysinfo(struct ::sysinfo* info) override;
    void sleepSeconds(unsigned seconds) override;
    time_t now() override;

    unsigned long uptime() const { return uptime_.load(); }
    void failSysinfo(bool fail) { failSysinfo_.store(fail); }
    // Total seconds slept and number of sleeps so far.
    unsigned long sleptSeconds() const { return slept_.load(); }
    unsigned long sleepCalls() const { return sleepCalls_.load(); }
    // Called after every sleep (after the clock moved), e.g. to change a property.
    void onSleep(std::function<void(unsigned long sleepIndex)> fn);

private:
    std::atomic<unsigned long> uptime_;
    std::atomic<time_t> wall_;
    std::atomic<unsigned long> slept_{0};
    std::atomic<unsigned long> sleepCalls_{0};
    std::atomic<bool> failSysinfo_{false};
    std::mutex hookMutex_;
    std::function<void(unsigned long)> onSleep_;
};

}  // namespace tavrend::test

// The interface every monitor implements.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/CriticalConditionType.h"
#include "config/ConfigVariables.h"

namespace tavrend {

// A monitor driven once a second by the monitoring loop. A monitor raises a
// critical condition by storing it with setCriticalConditionDetected(); the
// loop reads `criticalCondition` after every check() that returned true.
class MetricSamplerInterface {
public:
    virtual ~MetricSamplerInterface() = default;

    // Prepares the monitor. False means it must not run; main drops it.
    virtual bool init() = 0;

    // Called once per loop second with the loop's pass count (0 first) and the
    // device's idle status. True when nothing was due or the sample was taken,
    // false when the sample failed.
    virtual bool check(unsigned long long tick, bool force, bool deviceIdle) = 0;

    // Writes the monitor's recent history to the system log for the crash report.
    virtual void dumpReport() = 0;

    virtual bool uninitialize() { return true; }

    // Takes and evaluates one sample; may raise a critical condition.
    virtual bool fetch() = 0;

    // Written from binder threads for the latency monitor while the loop reads
    // it, hence atomic; a reader sees either the old or the new value.
    virtual void setCriticalConditionDetected(CriticalConditionType type) {
        criticalCondition.store(type, std::memory_order_release);
    }

    CriticalConditionType getCriticalCondition() const {
        return criticalCondition.load(std::memory_order_acquire);
    }

protected:
    // The rule every periodic monitor shares: unless forced, sample only when
    // `tick` is a multiple of the period (a period below 1 counts as 1).
    bool checkPeriodic(unsigned long long tick, bool force, int32_t periodSec) {
        if (!force && tick % effectivePeriod(periodSec) != 0) return true;
        return fetch();
    }

    std::atomic<CriticalConditionType> criticalCondition{NO_CRITICAL_CONDITION};
};

}  // namespace tavrend

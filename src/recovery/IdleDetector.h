// Waits, after a critical condition, for an idle device and reboots it.
#pragma once

#include <atomic>
#include <string>

#include "common/CriticalConditionType.h"
#include "config/ConfigVariables.h"
#include "metrics/TavrendMetric.h"

namespace tavrend {

class IdleDetector {
public:
    explicit IdleDetector(const ConfigVariables& config);

    // Reads "sys.user_activity_detected" (default true) under the detector's
    // mutex; the device is idle when the property is false. Called by the
    // detector's thread and, every second, by the monitoring loop.
    bool getDeviceIdleStatus();

    // The detector thread's body: polls the idle status until a critical
    // condition is handed over, then runs execute().
    void trackIdleStatus();

    // Records the uptime metric of `condition`, waits for idle and reboots.
    void execute(const CriticalConditionType& condition);

    // Waits until the device is up long enough and idle, or the override time
    // has passed, then sets "sys.powerctl" to "reboot".
    void waitForIdleAndRecover(unsigned startUptime);

    // The hand-over from main: the flag first, then the type. Both are read by
    // the detector's thread without a lock, hence atomic.
    std::atomic<bool> criticalConditionDetected{false};
    std::atomic<CriticalConditionType> criticalConditionType{NO_CRITICAL_CONDITION};

    virtual ~IdleDetector() = default;

protected:
    // Adds a duration record (when metrics are enabled) and publishes it (when
    // the IdleDetector configuration exists with its legacy interface active).
    // Virtual so that a test can make a publication fail.
    virtual void emitDuration(const std::string& name, unsigned long value);
    virtual void publishDuration(bool haveEntry, bool legacyActive, const std::string& name,
                                 unsigned long value);

private:
    const ConfigVariables& config;
    std::string tag;
    TavrendMetric metric;
    bool deviceIdle = false;  // guarded by the file-scope idle mutex
};

// Uptime in seconds from sysinfo, or 0 when sysinfo fails.
unsigned readUptimeSec();

}  // namespace tavrend

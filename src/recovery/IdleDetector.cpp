#include "recovery/IdleDetector.h"

#include <cutils/properties.h>

#include <mutex>
#include <stdexcept>

#include "common/Log.h"
#include "common/LogMessages.h"
#include "common/NoDestroy.h"
#include "config/Constants.h"
#include "metrics/TavrenMetricConfig.h"
#include "platform/time_seam.h"

namespace tavrend {
namespace {

// Serialises reads of the user-activity property from the loop and the detector thread.
const NoDestroy<std::mutex> idleStatusMutex;

constexpr const char* kPowerCtlProperty = "sys.powerctl";

unsigned intervalSec(const ConfigVariables& config) {
    return static_cast<unsigned>(effectivePeriod(config.idle_detection_interval_sec));
}

}  // namespace

unsigned readUptimeSec() {
    struct sysinfo info;
    if (platform::systemInfo(&info) != 0) return 0;
    return static_cast<unsigned>(info.uptime);
}

IdleDetector::IdleDetector(const ConfigVariables& cfg)
    : config(cfg), tag(LOG_TAG_TAVREND), metric(tag) {}

bool IdleDetector::getDeviceIdleStatus() {
    std::lock_guard<std::mutex> lock(*idleStatusMutex);
    // An absent property means somebody may be using the device: not idle.
    deviceIdle = !property_get_bool(USER_ACTIVITY_PROPERTY, true);
    return deviceIdle;
}

void IdleDetector::trackIdleStatus() {
    do {
        getDeviceIdleStatus();
        platform::sleepSeconds(intervalSec(config));
    } while (!criticalConditionDetected.load(std::memory_order_acquire));
    TLOGI(TAVREND_MSG_CONDITION_DETECTED);
    execute(criticalConditionType.load(std::memory_order_acquire));
}

void IdleDetector::emitDuration(const std::string& name, unsigned long value) {
    if (!TavrenMetricConfig::instance().orreryConfig.enabled) return;
    metric.emitOrreryMetricPairVec(
        name, {{DURATION_TYPE, name}, {DURATION_VALUE, std::to_string(value)}});
}

void IdleDetector::publishDuration(bool haveEntry, bool legacyActive, const std::string& name,
                                   unsigned long value) {
    // Gated on the legacy interface's flag, not the entry's own; intended.
    if (haveEntry && legacyActive) metric.publishCounterMetric(IDLE_DETECTOR, name, value);
}

void IdleDetector::execute(const CriticalConditionType& condition) {
    TavrenMetricConfig::MetricConfig entry;
    const bool haveEntry = TavrenMetricConfig::instance().getMetricConfig(IDLE_DETECTOR, entry);
    const unsigned uptime = readUptimeSec();
    TLOGI(TAVREND_MSG_IDLE_START, static_cast<unsigned long>(uptime));
    std::string name;
    if (condition == CRITICAL_MEMORY) {
        name = UPTIME_TILL_CRITICAL_MEM;
    } else if (condition == CRITICAL_UPL) {
        name = UPTIME_TILL_BAD_DUPL;
    }
    emitDuration(name, uptime);
    publishDuration(haveEntry, entry.kaphMetricInterface.active, name, uptime);
    waitForIdleAndRecover(uptime);
    TLOGI("Exiting Idle Detector");
}

void IdleDetector::waitForIdleAndRecover(unsigned startUptime) {
    TavrenMetricConfig::MetricConfig entry;
    const bool haveEntry = TavrenMetricConfig::instance().getMetricConfig(IDLE_DETECTOR, entry);
    const bool legacyActive = entry.kaphMetricInterface.active;
    unsigned firstEligibleUptime = 0;
    for (uint64_t pass = 0;; ++pass) {
        const unsigned uptime = readUptimeSec();
        const unsigned waited = uptime - startUptime;
        if (static_cast<int64_t>(uptime) >= config.critical_memory_minimum_uptime_sec) {
            // The override clock starts at the first pass past the minimum uptime.
            if (firstEligibleUptime == 0) firstEligibleUptime = uptime;
            try {
                if (static_cast<int64_t>(uptime - firstEligibleUptime) >=
                    config.critical_memory_idle_override_time_sec) {
                    TLOGE(TAVREND_MSG_IDLE_OVERRIDE, static_cast<unsigned long>(waited));
                    emitDuration(UPTIME_TILL_IDLE_OVERRIDE, uptime);
                    publishDuration(haveEntry, legacyActive, UPTIME_TILL_IDLE_OVERRIDE, uptime);
                    break;
                }
                if (getDeviceIdleStatus()) {
                    TLOGE(TAVREND_MSG_IDLE_REACHED, static_cast<unsigned long>(uptime),
                          static_cast<unsigned long>(waited));
                    emitDuration(TIME_TILL_IDLE, waited);
                    emitDuration(UPTIME_TILL_REBOOT, uptime);
                    publishDuration(haveEntry, legacyActive, TIME_TILL_IDLE, waited);
                    publishDuration(haveEntry, legacyActive, UPTIME_TILL_REBOOT, uptime);
                    break;
                }
            } catch (const std::runtime_error& e) {
                // A failing publication holds the reboot back; the next pass tries again.
                TLOGE("IdleDetector failed, reason=runttimeFailed %s", e.what());
            }
        }
        if (pass % 10 == 0) {
            TLOGI(TAVREND_MSG_IDLE_HEARTBEAT, static_cast<unsigned long>(uptime),
                  static_cast<unsigned long>(waited));
        }
        platform::sleepSeconds(intervalSec(config));
    }
    TLOGE(TAVREND_MSG_REBOOTING);
    // Not checked: on a device init performs the restart and this process ends.
    property_set(kPowerCtlProperty, "reboot");
}

}  // namespace tavrend

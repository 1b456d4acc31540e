#include "recovery/IdleDetector.h"

#include <cutils/properties.h>

#include <mutex>

#include "config/Constants.h"
#include "config/Log.h"
#include "platform/time_seam.h"

namespace tavrend {
namespace {
std::mutex idleStatusMutex;
}  // namespace

IdleDetector::IdleDetector(const ConfigVariables& cfg) : config(cfg), tag(LOG_TAG_TAVREND) {}

bool IdleDetector::getDeviceIdleStatus() {
    std::lock_guard<std::mutex> lock(idleStatusMutex);
    // An absent property means somebody may be using the device: not idle.
    deviceIdle = !property_get_bool(USER_ACTIVITY_PROPERTY, true);
    return deviceIdle;
}

void IdleDetector::trackIdleStatus() {
    do {
        getDeviceIdleStatus();
        platform::sleepSeconds(static_cast<unsigned>(effectivePeriod(config.idle_detection_interval_sec)));
    } while (!criticalConditionDetected.load(std::memory_order_acquire));
    TLOGI("Critical condition is detected");
    execute(criticalConditionType.load(std::memory_order_acquire));
}

}  // namespace tavrend

#include "monitors/DeviceUplMonitor.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include <string>
#include <vector>

#include "common/Log.h"
#include "common/LogMessages.h"
#include "common/SigtermBlock.h"
#include "monitors/TavrendIPC.h"

namespace tavrend {

DeviceUplMonitor::DeviceUplMonitor(const ConfigVariables& config)
    : config(config),
      badSamples(
          std::make_shared<CircularArrayList>(config.critical_upl_bad_sample_count_threshold)) {}

bool DeviceUplMonitor::init() {
    if (!config.dupl_monitoring_enabled) return false;
    TLOGI(TAVREND_MSG_INIT_UPL_MONITOR);
    android::ProcessState::self();
    // The service manager keeps the only reference; a failed registration
    // goes unnoticed, as on a device.
    android::defaultServiceManager()->addService(android::String16(android::kTavrendIpcServiceName),
                                                 new android::BnTavrendIPC(*this), false, 8);
    TLOGI("Starting native binder server");
    // The pool's threads inherit this thread's mask, and the threads they
    // start later inherit theirs.
    const ScopedSigtermBlock sigtermBlocked;
    android::ProcessState::self()->startThreadPool();
    return true;
}

bool DeviceUplMonitor::check(unsigned long long, bool, bool) { return true; }

void DeviceUplMonitor::recordDupl(int latencyMs) {
    TLOGD("Rcvd Metric - UserPerceivedLatency.Audio.DeviceProcessing: %d", latencyMs);
    if (latencyMs >= config.critical_upl_threshold_ms) {
        badSamples->putElement(static_cast<uint64_t>(static_cast<int64_t>(latencyMs)));
        badSampleCount.fetch_add(1, std::memory_order_relaxed);
        TLOGW(TAVREND_MSG_BAD_SAMPLE, latencyMs);
        // Every bad sample from the one that fills the ring on raises it again.
        if (badSamples->isFull()) {
            TLOGW(TAVREND_MSG_LATENCY_CONDITION);
            setCriticalConditionDetected(CRITICAL_UPL);
        }
    }
    const int32_t total = totalSampleCount.fetch_add(1, std::memory_order_relaxed) + 1;
    TLOGI(TAVREND_MSG_LATENCY_COUNTS, total, badSampleCount.load(std::memory_order_relaxed),
          config.critical_upl_bad_sample_count_threshold, config.critical_upl_threshold_ms);
}

void DeviceUplMonitor::dumpReport() {
    std::vector<std::string> chunks;
    badSamples->printListBufferLimit(chunks, 60);
    TLOGE("------Device UPL info------");
    for (const std::string& chunk : chunks) {
        TLOGE(TAVREND_MSG_UPL_VALUES, chunk.c_str());
    }
}

}  // namespace tavrend

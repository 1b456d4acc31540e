// The metric configuration file: the input is tavrend_metric_config.json. After
// loading it, records are built from whatever it configured: the idle
// detector's duration record and a 64-bit keyed record.
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "config/Constants.h"
#include "metrics/TavrenMetricConfig.h"
#include "metrics/TavrendMetric.h"

using tavrend::MetricPairs;
using tavrend::TavrendMetric;
using tavrend::TavrenMetricConfig;

namespace {

// Publishes and checks that an enabled configuration sends (and so drops)
// every accumulated value while a disabled one keeps them for later.
void publishAndCheck(TavrendMetric& metric, const std::string& configName, bool enabled) {
    metric.publish(configName);
    const bool empty = metric.uint64MetricsView().empty() && metric.pairVecMetricsView().empty();
    FUZZ_CHECK(empty == enabled);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    tavrend::fuzz::initHarness();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tavrend::fuzz::writeDeviceFile(tavrend::kDefaultMetricConfigPath,
                                   std::string(reinterpret_cast<const char*>(data), size));

    TavrenMetricConfig& config = TavrenMetricConfig::instance();
    // A failed load leaves the previous state; each input starts from a fresh
    // process's state instead.
    config.resetConfig();
    const bool loaded = config.loadConfig(tavrend::kDefaultMetricConfigPath);
    const bool enabled = config.orreryConfig.enabled;
    FUZZ_CHECK(loaded || !enabled);

    // The idle detector's record, as it emits it...
    TavrendMetric idle(tavrend::LOG_TAG_TAVREND);
    idle.emitOrreryMetricPairVec(
        tavrend::UPTIME_TILL_REBOOT,
        {{tavrend::DURATION_TYPE, tavrend::UPTIME_TILL_REBOOT}, {tavrend::DURATION_VALUE, "3600"}});
    // ...and one that follows the loaded schema, whatever its length, so the
    // body builder walks every configured position.
    if (const auto* entry = config.findMetricConfig(tavrend::IDLE_DETECTOR)) {
        MetricPairs pairs;
        for (const auto& field : entry->orreryMetricInterface.metrics) {
            pairs.emplace_back(field.name, "v:" + field.type);
        }
        idle.emitOrreryMetricPairVec(tavrend::TIME_TILL_IDLE, pairs);
    }
    idle.emitOrreryMetricUint64("boot:count;1", 1);
    publishAndCheck(idle, tavrend::IDLE_DETECTOR, enabled);

    // A 64-bit keyed record under every configured name, as the guardrail sends.
    for (const auto& [name, entry] : config.metricConfigs) {
        TavrendMetric keyed(tavrend::MEMORY_GUARDRAIL);
        keyed.emitOrreryMetricUint64("system_server", UINT64_MAX);
        keyed.emitOrreryMetricUint64(entry.metricName, 3);
        publishAndCheck(keyed, name, enabled);
    }
    return 0;
}

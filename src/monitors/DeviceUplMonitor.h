// The monitor of the audio path's user-perceived latency
// ("UserPerceivedLatency.Audio.DeviceProcessing"). Other components report
// samples over the binder service "tavrend.ipc.service"; a sample at or above
// "critical_upl_threshold_ms" is bad, and once
// "critical_upl_bad_sample_count_threshold" bad samples have arrived since
// start the monitor raises CRITICAL_UPL. Bad samples are never forgotten and
// good samples never lower the count.
//
// It samples nothing itself: recordDupl() runs on binder pool threads, several
// at once, while the loop reads the condition. Its counters are atomic; the
// bad-sample ring locks itself.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "config/ConfigVariables.h"
#include "daemon/MetricSamplerInterface.h"
#include "stats/CircularArrayList.h"

namespace tavrend {

class DeviceUplMonitor : public MetricSamplerInterface {
public:
    // `config` must outlive the monitor, and the monitor the binder service.
    // The ring holds "critical_upl_bad_sample_count_threshold" samples; a
    // threshold below 1 counts as 1, so the first bad sample raises the
    // condition.
    explicit DeviceUplMonitor(const ConfigVariables& config);
    explicit DeviceUplMonitor(ConfigVariables&&) = delete;

    // False, silently, when "dupl_monitoring_enabled" is false. Otherwise
    // registers the binder service, starts the binder thread pool and is true.
    bool init() override;
    // Nothing to sample: the loop only looks at the condition. True.
    bool check(unsigned long long tick, bool force, bool deviceIdle) override;
    // The bad samples, oldest first, 60 to a line.
    void dumpReport() override;
    bool uninitialize() override { return true; }
    bool fetch() override { return true; }

    // One latency sample in milliseconds, from the binder service.
    void recordDupl(int latencyMs);

    int getBadSampleCount() const { return badSampleCount.load(std::memory_order_relaxed); }
    int getTotalSampleCount() const { return totalSampleCount.load(std::memory_order_relaxed); }

private:
    const ConfigVariables& config;
    std::string name;
    std::atomic<int32_t> badSampleCount{0};
    std::atomic<int32_t> totalSampleCount{0};
    std::shared_ptr<CircularArrayList> badSamples;
};

}  // namespace tavrend

// The monitor that decides that the device's memory is in a state only a
// restart will cure.
//
// Every "memory_read_interval_sec" seconds it reads /proc/meminfo, records
// four derived quantities (Other Free, Other File, SwapFree, SUnreclaim) into
// history rings for the crash report, and counts the low-memory killer's kills
// since boot from /proc/lmk_stats. The decision rests on those kills alone:
// once the kills of the most important classes, from "Persistent:" down to the
// class named by "lmk_counter_threshold", reach "lmk_target_kills", memory is
// critical.
//
// Only the monitoring loop's thread calls it; the rings lock themselves.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "config/ConfigVariables.h"
#include "daemon/MetricSamplerInterface.h"
#include "stats/CircularArrayList.h"
#include "stats/StatUtil.h"

namespace tavrend {

class SystemMemorySampler : public MetricSamplerInterface {
public:
    // The kill classes of /proc/lmk_stats, in the order they are counted.
    static constexpr size_t kLmkClassCount = quillend::kLmkClassCount;

    // `config` must outlive the sampler. The four rings hold
    // critical_memory_measurement_time / memory_read_interval_sec samples each.
    explicit SystemMemorySampler(const ConfigVariables& config);
    // The sampler keeps a reference: a temporary configuration would dangle.
    explicit SystemMemorySampler(ConfigVariables&&) = delete;

    // Selects the low-memory-killer threshold and the report's bucket figure.
    bool init() override;
    // Samples when `tick` is a multiple of "memory_read_interval_sec" (or when
    // forced). `deviceIdle` plays no part.
    bool check(unsigned long long tick, bool force, bool deviceIdle) override;
    // The rings, 60 values per line, then the last meminfo and kill counts.
    void dumpReport() override;
    // One sample. False when /proc/meminfo could not be read; true otherwise,
    // also when it raised the critical-memory condition.
    bool fetch() override;

    // MemFree minus the sum of the zones' "high" watermarks, 0 when negative.
    // Without /proc/zoneinfo it is MemFree itself.
    uint64_t getOtherFree();
    // Records one sample in each history ring. Always false: the decision is
    // lmkKillsUnderThreshold()'s; the name has stuck.
    bool isMemoryCritical();
    // The "critical_memory_bucket" entry of the low-memory killer's minfree
    // list in kB, or "critical_memory_default_threshold_kb".
    uint64_t getSelectedBucketThreshold();
    // Counts /proc/lmk_stats; true while the counted kills are below
    // "lmk_target_kills".
    bool lmkKillsUnderThreshold();

    // Read-only views for the report's readers and tests.
    int32_t getLmkCurrentKills() const { return lmkCurrentKills; }
    uint32_t getBucketThresholdKb() const { return bucketThresholdKb; }
    int64_t getMinimumBucketSamples() const { return minimumBucketSamples; }
    bool isMemoryLeakDetected() const { return memoryLeakDetected; }
    const std::array<uint64_t, kLmkClassCount>& getLmkStats() const { return lmkStats; }
    uint64_t getSampleCount() const { return sampleCount; }

private:
    const ConfigVariables& config;
    uint64_t sampleCount = 0;
    uint32_t bucketThresholdKb = 0;
    int64_t minimumBucketSamples = 0;
    bool memoryLeakDetected = false;
    int32_t lmkCurrentKills = 0;
    std::shared_ptr<CircularArrayList> otherFreeHistory;
    std::shared_ptr<CircularArrayList> otherFileHistory;
    std::shared_ptr<CircularArrayList> swapFreeHistory;
    std::shared_ptr<CircularArrayList> sUnreclaimHistory;
    // Never updated after construction, so the report prints 0 for both; intended.
    uint64_t totalLowWatermarkKb = 0;
    uint64_t totalHighWatermarkKb = 0;
    quillend::SysMeminfoKb meminfo;
    // persistent, fg, visible, perceptible, backup, other
    std::array<uint64_t, kLmkClassCount> lmkStats{};
};

}  // namespace tavrend

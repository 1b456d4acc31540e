// Holds named processes to PSS limits. Over its hard limit a process is killed
// at once; over its soft limit it is queued (marked killable) and killed at
// the next idle second unless it has fallen back under the soft limit by then.
// Kills are counted per process and published as "MemoryGuardrail" records.
//
// The PSS pass runs on a detached thread of its own, one per due tick, and
// sleeps "pss_sleep_interval_sec" after each process while holding the
// module's guardrail lock; the idle kills, the metrics and the report run on
// the monitoring loop's thread and take the same lock. Lock order: the
// guardrail lock first, then the statistics module's PSS lock, never the
// reverse.
//
// It raises no critical condition.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "config/ConfigVariables.h"
#include "config/MemoryGuardrailConfig.h"
#include "daemon/MetricSamplerInterface.h"
#include "metrics/TavrendMetric.h"

namespace tavrend {

// What the monitor knows of one guarded process.
struct ProcessPssGuardrail {
    std::string name;
    uint64_t memorySoftLimit = 0;  // kB
    uint64_t memoryHardLimit = 0;  // kB
    uint64_t totalPss = 0;         // kB at the last successful check
    int pid = 0;                   // 0 while unknown
    int killCount = 0;             // kills since the last metric emission
    bool killable = false;         // over the soft limit, waiting for idle
};

class ProcessPssGuardrailMonitor : public MetricSamplerInterface,
                                   public std::enable_shared_from_this<ProcessPssGuardrailMonitor> {
public:
    // Both references must outlive the monitor and every pass thread it starts.
    // The monitor must be owned by a shared pointer: each pass thread keeps it
    // alive until the pass ends.
    ProcessPssGuardrailMonitor(const ConfigVariables& config,
                               const std::vector<MemoryGuardrailConfig>& guardrailConfigs);
    ~ProcessPssGuardrailMonitor() override = default;

    // Builds one entry per guardrail row and resolves the names it can. True.
    bool init() override;
    // Idle enforcement when the device is idle and something is queued, the
    // metrics every "process_kill_metrics_interval_sec" (never at tick 0), and
    // a pass every "guardrail_check_interval_sec".
    bool check(unsigned long long tick, bool force, bool deviceIdle) override;
    // One line per guarded process.
    void dumpReport() override;
    // Starts one pass on a new detached thread, whether or not the previous
    // pass has ended: later passes queue on the guardrail lock. True.
    bool fetch() override;

    // One pass over every entry, with the guardrail lock held throughout.
    void checkAgainstGuardrail();
    // Compares one entry's PSS with its limits; the caller holds the lock.
    // False when the PSS could not be read (nothing changes then).
    bool checkProcessAgainstGuardrail(ProcessPssGuardrail& entry);
    // Kills every queued process still over its soft limit.
    void enforceGuardrail();
    // Publishes the kill counts and clears them.
    void emitMetrics();

    // Snapshots for tests, taken under the lock.
    std::vector<ProcessPssGuardrail> snapshot();
    int getKillableCount() const { return killableCount.load(std::memory_order_relaxed); }
    TavrendMetric& getMetric() { return metric; }

private:
    // Read without the lock by check(): a stale value only delays or wastes
    // one enforcement.
    std::atomic<int> killableCount{0};
    std::vector<ProcessPssGuardrail> guardrails;
    const ConfigVariables& config;
    const std::vector<MemoryGuardrailConfig>& guardrailConfigs;
    std::string metricName;
    TavrendMetric metric;
};

}  // namespace tavrend

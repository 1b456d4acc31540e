// The monitor that keeps, for every user-space process, a short history of its
// resident-plus-swapped memory and of its swapped memory, each beside the value
// the process had when the daemon first saw it (its baseline).
//
// It raises no condition and enforces nothing; its histories are there for the
// crash report. One history is kept per process name, not per process: when
// several live processes share a name, the one /proc lists last keeps it.
//
// Only the monitoring loop's thread calls it; it takes no lock of its own.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "config/ConfigVariables.h"
#include "daemon/MetricSamplerInterface.h"
#include "stats/CircularArrayList.h"

namespace tavrend {

// What the sampler knows of one process id. Copies share the histories.
struct ProcessStat {
    std::string name;               // the name under which the history started
    uint64_t rssTotalBaseline = 0;  // VmRSS + VmSwap (kB) when the history started
    uint64_t rswapBaseline = 0;     // VmSwap (kB) when the history started
    int pid = 0;                    // 0 until the entry's second sample
    std::shared_ptr<CircularArrayList> rssTotalHistory;
    std::shared_ptr<CircularArrayList> rswapHistory;
};

class ProcessMemorySampler : public MetricSamplerInterface {
public:
    // `config` must outlive the sampler.
    explicit ProcessMemorySampler(const ConfigVariables& config);
    // The sampler keeps a reference: a temporary configuration would dangle.
    explicit ProcessMemorySampler(ConfigVariables&&) = delete;

    // Looks up the memtrack service once per process. Always true: the
    // sampler runs without memtrack.
    bool init() override;
    // Samples when `tick` is a multiple of "proc_scan_interval_sec" (or when
    // forced). `deviceIdle` plays no part.
    bool check(unsigned long long tick, bool force, bool deviceIdle) override;
    // Every history, in pid order, pausing one second after each process so
    // that a long report does not flood the log.
    void dumpReport() override;
    // One scan of every process. Always true.
    bool fetch() override;

    // Refreshes the name-to-pid map from /proc. A name seen under a new pid
    // drops the history of its old pid. Names are never removed.
    void getPIDPairs(std::map<std::string, int>& pidPairs);
    // Appends each named process's current figures to its history, starting
    // or restarting histories as needed.
    void sampleProcessValues(std::map<std::string, int>& pidPairs,
                             std::map<int, ProcessStat>& processStats);

    // Read-only views for tests.
    const std::map<int, ProcessStat>& getProcessStats() const { return processStats; }
    const std::map<std::string, int>& getPidPairs() const { return pidPairs; }
    bool isMemtrackAvailable() const { return memtrackAvailable; }
    uint64_t getSampleCount() const { return sampleCount; }

private:
    const ConfigVariables& config;
    uint64_t sampleCount = 0;
    bool memtrackAvailable = false;
    std::map<int, ProcessStat> processStats;
    std::map<std::string, int> pidPairs;
    // Kept from scan to scan so that a steady scan allocates nothing: the ids
    // of /proc and the name being looked up.
    std::vector<int> scanPids;
    std::string scanName;
};

}  // namespace tavrend

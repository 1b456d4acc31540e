#include "monitors/ProcessMemorySampler.h"

#include <android/hardware/memtrack/1.0/IMemtrack.h>

#include <cstring>
#include <vector>

#include "common/DevicePaths.h"
#include "common/Log.h"
#include "common/LogMessages.h"
#include "common/NoDestroy.h"
#include "platform/time_seam.h"
#include "stats/StatUtil.h"

namespace tavrend {
namespace {

using android::hardware::memtrack::V1_0::IMemtrack;

std::shared_ptr<CircularArrayList> newHistory(const ConfigVariables& config, uint64_t first) {
    // The ring takes a "num_historical_vals" below 1 as 1.
    auto ring = std::make_shared<CircularArrayList>(config.num_historical_vals);
    ring->putElement(first);
    return ring;
}

}  // namespace

ProcessMemorySampler::ProcessMemorySampler(const ConfigVariables& cfg) : config(cfg) {
    criticalCondition.store(NO_CRITICAL_CONDITION);
}

bool ProcessMemorySampler::init() {
    TLOGI(TAVREND_MSG_INIT_PROCESS_SAMPLER);
    // Looked up once per process, on the first call, and kept to the end, like
    // every static of the daemon (nothing is destroyed at exit).
    static const NoDestroy<const android::sp<IMemtrack>> memtrack(IMemtrack::getService("default"));
    memtrackAvailable = *memtrack != nullptr;
    if (!memtrackAvailable) TLOGE("failed to load memtrack module");
    return true;
}

bool ProcessMemorySampler::check(unsigned long long tick, bool force, bool /*deviceIdle*/) {
    return checkPeriodic(tick, force, config.proc_scan_interval_sec);
}

bool ProcessMemorySampler::fetch() {
    getPIDPairs(pidPairs);
    sampleProcessValues(pidPairs, processStats);
    if (sampleCount % effectivePeriod(config.process_mem_heartbeat_samples) == 0) {
        TLOGI("ProcessMemorySampler heartbeat %llu", static_cast<unsigned long long>(sampleCount));
    }
    ++sampleCount;
    return true;
}

void ProcessMemorySampler::getPIDPairs(std::map<std::string, int>& pairs) {
    scanPids.clear();
    if (!quillend::StatUtil::getProcessList(scanPids)) {
        TLOGW("Could not open %s", paths::kProcDir);
        return;
    }
    for (int pid : scanPids) {
        char name[32];
        memset(name, 0, sizeof(name));
        if (!quillend::StatUtil::getProcessName(pid, name)) continue;

        scanName.assign(name);  // into the capacity of earlier scans
        auto it = pairs.find(scanName);
        if (it == pairs.end()) {
            pairs.emplace(scanName, pid);
        } else if (it->second != pid) {
            // Restarted, or another live process of the same name: the name's
            // history starts afresh under the newer pid. Intended, even when
            // it makes same-named processes erase each other on every scan.
            processStats.erase(it->second);
            it->second = pid;
        }
    }
}

void ProcessMemorySampler::sampleProcessValues(std::map<std::string, int>& pairs,
                                               std::map<int, ProcessStat>& stats) {
    for (const auto& [name, pid] : pairs) {
        quillend::ProcessRssInfoKb info;
        // Exited processes fail the read; kernel threads have no VmRSS.
        if (!quillend::StatUtil::getProcessRss(pid, info) || info.total == 0) continue;

        auto it = stats.find(pid);
        if (it == stats.end()) {
            ProcessStat stat;
            stat.name = name;
            stat.rssTotalBaseline = info.total;
            stat.rswapBaseline = info.vm_swap;
            stat.pid = 0;
            stat.rssTotalHistory = newHistory(config, info.total);
            stat.rswapHistory = newHistory(config, info.vm_swap);
            stats.emplace(pid, std::move(stat));
            continue;
        }
        ProcessStat& stat = it->second;
        if (stat.name != name) {
            // The id now belongs to another program: its history starts over.
            stat.name = name;
            stat.rssTotalBaseline = info.total;
            stat.rswapBaseline = info.vm_swap;
            stat.rssTotalHistory->reset();
            stat.rswapHistory->reset();
        }
        stat.rssTotalHistory->putElement(info.total);
        stat.rswapHistory->putElement(info.vm_swap);
        stat.pid = pid;
    }
}

void ProcessMemorySampler::dumpReport() {
    TLOGE("------Process info------");
    TLOGE("Total Processes Sampled: %d", static_cast<int>(processStats.size()));
    for (const auto& [pid, stat] : processStats) {
        std::string totals;
        std::string swaps;
        stat.rssTotalHistory->printList(totals);
        stat.rswapHistory->printList(swaps);
        TLOGE(TAVREND_MSG_PROCESS, pid, stat.name.c_str());
        TLOGE(TAVREND_MSG_RSS_VALUES, totals.c_str(),
              static_cast<unsigned long long>(stat.rssTotalBaseline));
        TLOGE(TAVREND_MSG_RSWAP_VALUES, swaps.c_str(),
              static_cast<unsigned long long>(stat.rswapBaseline));
        // One second per process, even for hundreds of them; intended, it
        // keeps the report from flooding the log buffer.
        platform::sleepSeconds(1);
    }
}

}  // namespace tavrend

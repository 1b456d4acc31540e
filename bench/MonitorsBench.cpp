// The memory samplers' periodic steps beside their floor, in alternation
// (runPaired): the same /proc directory listed and the same files opened, read
// and closed with raw opendir/readdir and open/read/close (comm and cmdline
// with one read, as the name reader takes their first line; status, meminfo
// and zoneinfo to the end), nothing parsed or kept beyond what choosing the
// files needs. On a synthetic root and on this machine's /proc with 400 idle
// processes added. The ratio sampler/floor is what the sampler adds: parsing,
// path mapping, the maps and the history rings.
//
// Also the memory the process sampler keeps: the bench process's VmRSS before
// and after 3600 scans of a 1000-process root (one hour at a one-second scan
// period), reported as counters.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BenchRoot.h"
#include "config/ConfigVariables.h"
#include "monitors/ProcessMemorySampler.h"
#include "monitors/SystemMemorySampler.h"
#include "platform/host_root.h"
#include "platform/log_hook.h"

namespace {

constexpr int kShippedHistory = 60;  // "num_historical_vals" of the shipped configuration
constexpr int kScansPerHour = 3600;

using tavrend::bench::BenchRoot;
using tavrend::bench::machineProc;
using tavrend::bench::processScanRaw;
using tavrend::bench::readFileRaw;
using tavrend::bench::runPaired;

BenchRoot& syntheticRoot(int count) {
    static std::map<int, std::unique_ptr<BenchRoot>> roots;
    auto& r = roots[count];
    if (!r) r = std::make_unique<BenchRoot>(count);
    return *r;
}

// Each sets the device root and returns its /proc on the host.
std::string useRoot(int count) {
    tavrend::platform::setLogToStderr(false);
    BenchRoot& r = syntheticRoot(count);
    tavrend::platform::setDeviceRoot(r.root);
    return r.root + "/proc";
}
std::string useSynthetic300() { return useRoot(300); }
std::string useSynthetic1000() { return useRoot(1000); }
std::string useMachine() {
    tavrend::platform::setLogToStderr(false);
    machineProc();
    tavrend::platform::setDeviceRoot("/");
    return "/proc";
}

tavrend::ConfigVariables benchConfig() {
    tavrend::ConfigVariables c;
    c.memory_read_interval_sec = 1;
    c.critical_memory_measurement_time = 120;
    c.critical_memory_threshold_percent = 50;
    c.lmk_counter_threshold = "Perceptible";
    c.lmk_target_kills = 1000000;                 // never critical here
    c.system_mem_heartbeat_samples = 1000000000;  // no heartbeat lines in the loop
    c.proc_scan_interval_sec = 1;
    c.num_historical_vals = kShippedHistory;
    c.process_mem_heartbeat_samples = 1000000000;
    return c;
}

// The ids whose status a scan reads: the latest pid of every name.
std::vector<int> statusPids(const tavrend::ProcessMemorySampler& sampler) {
    std::vector<int> pids;
    for (const auto& [name, pid] : sampler.getPidPairs()) pids.push_back(pid);
    return pids;
}

void BM_ProcessFetch(benchmark::State& state, std::string (*use)()) {
    const std::string procDir = use();
    const tavrend::ConfigVariables config = benchConfig();
    tavrend::ProcessMemorySampler sampler(config);
    sampler.fetch();  // the histories exist from here on: the steady state
    const std::vector<int> pids = statusPids(sampler);
    runPaired(
        state, 1, [&] { benchmark::DoNotOptimize(sampler.fetch()); },
        [&] { benchmark::DoNotOptimize(processScanRaw(procDir, pids)); });
    state.counters["names"] = static_cast<double>(sampler.getPidPairs().size());
}

// meminfo, zoneinfo and lmk_stats (absent from a machine's /proc: both sides
// fail to open it).
void BM_SystemFetch(benchmark::State& state, std::string (*use)()) {
    const std::string procDir = use();
    const tavrend::ConfigVariables config = benchConfig();
    tavrend::SystemMemorySampler sampler(config);
    const std::string files[] = {procDir + "/meminfo", procDir + "/zoneinfo",
                                 procDir + "/lmk_stats"};
    runPaired(
        state, 20, [&] { benchmark::DoNotOptimize(sampler.fetch()); },
        [&] {
            size_t total = 0;
            for (const std::string& path : files) total += readFileRaw(path.c_str());
            benchmark::DoNotOptimize(total);
        });
}

uint64_t selfVmRssKb() {
    std::ifstream in("/proc/self/status");
    std::string key;
    while (in >> key) {
        if (key == "VmRSS:") {
            uint64_t kb = 0;
            in >> kb;
            return kb;
        }
    }
    return 0;
}

uint64_t heapInUseKb() { return mallinfo2().uordblks / 1024; }

// Not a timing: the resident memory the sampler's maps and rings settle at.
// VmRSS is the process's, so run this one alone (--benchmark_filter=Resident)
// for a clean figure: heap freed by earlier benchmarks is reused without
// showing up in VmRSS. The heap-in-use growth holds either way.
void BM_ProcessSamplerResidentAfterOneHour(benchmark::State& state) {
    useSynthetic1000();
    const tavrend::ConfigVariables config = benchConfig();
    for (auto _ : state) {
        const uint64_t before = selfVmRssKb();
        const uint64_t heapBefore = heapInUseKb();
        tavrend::ProcessMemorySampler sampler(config);
        uint64_t afterFirst = 0;
        for (int scan = 0; scan < kScansPerHour; ++scan) {
            sampler.fetch();
            if (scan == 0) afterFirst = selfVmRssKb();
        }
        const uint64_t after = selfVmRssKb();
        state.counters["heap_in_use_growth_kB"] =
            static_cast<double>(heapInUseKb()) - static_cast<double>(heapBefore);
        state.counters["VmRSS_before_kB"] = static_cast<double>(before);
        state.counters["VmRSS_after_first_scan_kB"] = static_cast<double>(afterFirst);
        state.counters["VmRSS_after_3600_scans_kB"] = static_cast<double>(after);
        state.counters["growth_kB"] = static_cast<double>(after) - static_cast<double>(before);
        state.counters["processes"] = static_cast<double>(sampler.getProcessStats().size());
    }
}

}  // namespace

BENCHMARK_CAPTURE(BM_ProcessFetch, Synthetic300, useSynthetic300)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ProcessFetch, Synthetic1000, useSynthetic1000)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ProcessFetch, MachineProc, useMachine)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_SystemFetch, Synthetic, useSynthetic300)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_SystemFetch, MachineProc, useMachine)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ProcessSamplerResidentAfterOneHour)->Iterations(1)->Unit(benchmark::kSecond);

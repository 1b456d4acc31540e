// The memory samplers' periodic steps beside their floor: the same /proc
// directory listed and the same files opened, read to the end and closed with
// raw opendir/readdir and open/read/close, nothing parsed or kept. The ratio
// sampler/floor is what the sampler adds: parsing, stdio, path mapping, the
// maps and the history rings.
//
// Also the memory the process sampler keeps: the bench process's VmRSS before
// and after 3600 scans of a 1000-process root (one hour at a one-second scan
// period), reported as counters.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
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
using tavrend::bench::readFileRaw;

BenchRoot& syntheticRoot(int count) {
    static std::map<int, std::unique_ptr<BenchRoot>> roots;
    auto& r = roots[count];
    if (!r) r = std::make_unique<BenchRoot>(count);
    return *r;
}

BenchRoot& useRoot(int count) {
    tavrend::platform::setLogToStderr(false);
    BenchRoot& r = syntheticRoot(count);
    tavrend::platform::setDeviceRoot(r.root);
    return r;
}

size_t listDirRaw(const std::string& path) {
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) return 0;
    size_t n = 0;
    while (readdir(dir) != nullptr) ++n;
    closedir(dir);
    return n;
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

void BM_ProcessFetch_Sampler(benchmark::State& state) {
    useRoot(static_cast<int>(state.range(0)));
    const tavrend::ConfigVariables config = benchConfig();
    tavrend::ProcessMemorySampler sampler(config);
    sampler.fetch();  // the histories exist from here on: the steady state
    for (auto _ : state) benchmark::DoNotOptimize(sampler.fetch());
    state.counters["processes"] = static_cast<double>(sampler.getProcessStats().size());
}

void BM_ProcessFetch_Floor(benchmark::State& state) {
    const BenchRoot& r = useRoot(static_cast<int>(state.range(0)));
    const std::string procDir = r.root + "/proc";
    for (auto _ : state) {
        size_t total = listDirRaw(procDir);
        for (const std::string& path : r.processFiles) total += readFileRaw(path.c_str());
        benchmark::DoNotOptimize(total);
    }
}

void BM_SystemFetch_Sampler(benchmark::State& state) {
    useRoot(300);
    const tavrend::ConfigVariables config = benchConfig();
    tavrend::SystemMemorySampler sampler(config);
    for (auto _ : state) benchmark::DoNotOptimize(sampler.fetch());
}

void BM_SystemFetch_Floor(benchmark::State& state) {
    const BenchRoot& r = useRoot(300);
    for (auto _ : state) {
        size_t total = 0;
        for (const std::string& path : r.systemFiles) total += readFileRaw(path.c_str());
        benchmark::DoNotOptimize(total);
    }
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
    useRoot(1000);
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

BENCHMARK(BM_ProcessFetch_Sampler)->Arg(300)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ProcessFetch_Floor)->Arg(300)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SystemFetch_Sampler)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SystemFetch_Floor)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ProcessSamplerResidentAfterOneHour)->Iterations(1)->Unit(benchmark::kSecond);

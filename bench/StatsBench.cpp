// The statistics readers beside their floor: the same files opened, read to
// the end and closed with raw open/read/close, nothing parsed. The ratio
// reader/floor is the cost of the parsing and of the stdio and path handling.
//
// "Synthetic" reads a device root built in a temporary directory (regular
// files, 1000 processes); "MachineProc" reads this machine's /proc, where the
// kernel's formatting of the file dominates both sides.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "BenchRoot.h"
#include "platform/host_root.h"
#include "stats/StatUtil.h"

namespace {

using quillend::StatUtil;

constexpr int kProcessCount = 1000;
using tavrend::bench::BenchRoot;
using tavrend::bench::readFileRaw;

BenchRoot& synthetic() {
    static BenchRoot r(kProcessCount);
    return r;
}

void useSynthetic() { tavrend::platform::setDeviceRoot(synthetic().root); }
void useMachine() { tavrend::platform::setDeviceRoot("/"); }

void BM_Meminfo_Reader(benchmark::State& state, void (*useRoot)()) {
    useRoot();
    for (auto _ : state) {
        quillend::SysMeminfoKb info;
        if (!StatUtil::getMeminfo(info)) state.SkipWithError("getMeminfo failed");
        benchmark::DoNotOptimize(info);
    }
}

void BM_Meminfo_Floor(benchmark::State& state, void (*useRoot)()) {
    useRoot();
    const std::string path = tavrend::platform::hostPath("/proc/meminfo");
    for (auto _ : state) benchmark::DoNotOptimize(readFileRaw(path.c_str()));
}

void BM_Zoneinfo_Reader(benchmark::State& state, void (*useRoot)()) {
    useRoot();
    for (auto _ : state) {
        uint64_t low = 0, high = 0;
        if (!StatUtil::getTotalWaterMarkZoneinfo(low, high)) state.SkipWithError("failed");
        benchmark::DoNotOptimize(low);
        benchmark::DoNotOptimize(high);
    }
}

void BM_Zoneinfo_Floor(benchmark::State& state, void (*useRoot)()) {
    useRoot();
    const std::string path = tavrend::platform::hostPath("/proc/zoneinfo");
    for (auto _ : state) benchmark::DoNotOptimize(readFileRaw(path.c_str()));
}

// Name and RSS of every process, as the process memory sampler reads them.
void BM_NameRss1000_Reader(benchmark::State& state) {
    useSynthetic();
    const std::vector<int>& pids = synthetic().pids;
    for (auto _ : state) {
        for (int pid : pids) {
            char name[32];
            quillend::ProcessRssInfoKb rss;
            if (!StatUtil::getProcessName(pid, name) || !StatUtil::getProcessRss(pid, rss)) {
                state.SkipWithError("reader failed");
            }
            benchmark::DoNotOptimize(name);
            benchmark::DoNotOptimize(rss);
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(pids.size()));
}

void BM_NameRss1000_Floor(benchmark::State& state) {
    useSynthetic();
    const BenchRoot& r = synthetic();
    for (auto _ : state) {
        for (const std::string& path : r.processFiles) {
            benchmark::DoNotOptimize(readFileRaw(path.c_str()));
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(r.pids.size()));
}

BENCHMARK_CAPTURE(BM_Meminfo_Reader, Synthetic, useSynthetic);
BENCHMARK_CAPTURE(BM_Meminfo_Floor, Synthetic, useSynthetic);
BENCHMARK_CAPTURE(BM_Meminfo_Reader, MachineProc, useMachine);
BENCHMARK_CAPTURE(BM_Meminfo_Floor, MachineProc, useMachine);
BENCHMARK_CAPTURE(BM_Zoneinfo_Reader, Synthetic, useSynthetic);
BENCHMARK_CAPTURE(BM_Zoneinfo_Floor, Synthetic, useSynthetic);
BENCHMARK_CAPTURE(BM_Zoneinfo_Reader, MachineProc, useMachine);
BENCHMARK_CAPTURE(BM_Zoneinfo_Floor, MachineProc, useMachine);
BENCHMARK(BM_NameRss1000_Reader)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NameRss1000_Floor)->Unit(benchmark::kMillisecond);

}  // namespace

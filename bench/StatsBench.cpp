// The statistics readers beside their floor, in alternation (runPaired): the
// same files opened, read and closed with raw open/read/close, nothing parsed.
// The ratio reader/floor is the cost of the parsing and of the path handling.
//
// "Synthetic" reads a device root built in a temporary directory (regular
// files, 1000 processes); "MachineProc" reads this machine's /proc, where the
// kernel's formatting of the file dominates both sides; for the per-process
// readers with 400 idle processes added (see MachineProc in BenchRoot.h).
//
// A reader that takes only a file's first line (comm, cmdline) reads it with
// one read(2), so its floor is one read too; every other floor reads to the end.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "BenchRoot.h"
#include "platform/host_root.h"
#include "stats/StatUtil.h"

namespace {

using quillend::StatUtil;

constexpr int kProcessCount = 1000;
using tavrend::bench::BenchRoot;
using tavrend::bench::machineProc;
using tavrend::bench::readFileRaw;
using tavrend::bench::readNameFilesRaw;
using tavrend::bench::runPaired;

BenchRoot& synthetic() {
    static BenchRoot r(kProcessCount);
    return r;
}

// Each sets the device root and returns its /proc on the host.
std::string useSynthetic() {
    tavrend::platform::setDeviceRoot(synthetic().root);
    return synthetic().root + "/proc";
}
std::string useMachine() {
    tavrend::platform::setDeviceRoot("/");
    return "/proc";
}

void BM_Meminfo(benchmark::State& state, std::string (*useRoot)()) {
    const std::string path = useRoot() + "/meminfo";
    runPaired(
        state, 100,
        [&] {
            quillend::SysMeminfoKb info;
            if (!StatUtil::getMeminfo(info)) state.SkipWithError("getMeminfo failed");
            benchmark::DoNotOptimize(info);
        },
        [&] { benchmark::DoNotOptimize(readFileRaw(path.c_str())); });
}

void BM_Zoneinfo(benchmark::State& state, std::string (*useRoot)()) {
    const std::string path = useRoot() + "/zoneinfo";
    runPaired(
        state, 50,
        [&] {
            uint64_t low = 0, high = 0;
            if (!StatUtil::getTotalWaterMarkZoneinfo(low, high)) state.SkipWithError("failed");
            benchmark::DoNotOptimize(low);
            benchmark::DoNotOptimize(high);
        },
        [&] { benchmark::DoNotOptimize(readFileRaw(path.c_str())); });
}

// Name and RSS of every process, as the process memory sampler reads them;
// the floor reads comm (and cmdline for a binder-named process) and status. On
// this machine a process that exits meanwhile fails its reads on both sides.
void BM_NameRss(benchmark::State& state, std::string (*useRoot)()) {
    const std::string procDir = useRoot();
    const std::vector<int>& pids = procDir == "/proc" ? machineProc().pids : synthetic().pids;
    runPaired(
        state, 1,
        [&] {
            for (int pid : pids) {
                char name[32];
                quillend::ProcessRssInfoKb rss;
                benchmark::DoNotOptimize(StatUtil::getProcessName(pid, name));
                benchmark::DoNotOptimize(StatUtil::getProcessRss(pid, rss));
                benchmark::DoNotOptimize(name);
                benchmark::DoNotOptimize(rss);
            }
        },
        [&] {
            for (int pid : pids) {
                benchmark::DoNotOptimize(readNameFilesRaw(procDir.c_str(), pid));
                char status[256];
                tavrend::bench::pidPathRaw(status, procDir.c_str(), pid, "status");
                benchmark::DoNotOptimize(readFileRaw(status));
            }
        });
    state.counters["processes"] = static_cast<double>(pids.size());
}

BENCHMARK_CAPTURE(BM_Meminfo, Synthetic, useSynthetic);
BENCHMARK_CAPTURE(BM_Meminfo, MachineProc, useMachine);
BENCHMARK_CAPTURE(BM_Zoneinfo, Synthetic, useSynthetic);
BENCHMARK_CAPTURE(BM_Zoneinfo, MachineProc, useMachine);
BENCHMARK_CAPTURE(BM_NameRss, Synthetic1000, useSynthetic)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_NameRss, MachineProc, useMachine)->Unit(benchmark::kMillisecond);

}  // namespace

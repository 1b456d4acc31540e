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

#include "platform/device_root.h"
#include "stats/StatUtil.h"

namespace {

namespace fs = std::filesystem;
using quillend::StatUtil;

constexpr int kProcessCount = 1000;
constexpr int kBinderEvery = 10;  // every tenth process is named after its command line

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void writeAll(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) throw std::runtime_error("cannot write " + path.string());
}

// A device root in a temporary directory, removed at exit: meminfo and
// zoneinfo copied from this machine, and kProcessCount processes whose status
// files follow this process's own (real layout, about 55 lines).
struct SyntheticRoot {
    std::string root;
    std::vector<int> pids;
    std::vector<std::string> nameRssFiles;  // host paths the name+RSS pass opens

    SyntheticRoot() {
        std::string tmpl = (fs::temp_directory_path() / "tavrend-bench-XXXXXX").string();
        if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        root = tmpl;
        writeAll(root + "/proc/meminfo", readAll("/proc/meminfo"));
        writeAll(root + "/proc/zoneinfo", readAll("/proc/zoneinfo"));

        const std::string status = readAll("/proc/self/status");
        const std::string statusTail = status.substr(status.find('\n') + 1);  // after Name:
        for (int i = 0; i < kProcessCount; ++i) {
            const int pid = 300 + 7 * i;
            const bool binder = i % kBinderEvery == 0;
            const std::string dir = root + "/proc/" + std::to_string(pid);
            const std::string comm =
                binder ? "Binder:" + std::to_string(pid) + "_2" : "app_" + std::to_string(i);
            writeAll(dir + "/comm", comm + "\n");
            writeAll(dir + "/cmdline",
                     "/system/bin/service_" + std::to_string(i) + std::string("\0--flag\0", 8));
            writeAll(dir + "/status", "Name:\t" + comm + "\n" + statusTail);
            pids.push_back(pid);
            nameRssFiles.push_back(dir + "/comm");
            if (binder) nameRssFiles.push_back(dir + "/cmdline");
            nameRssFiles.push_back(dir + "/status");
        }
    }
    ~SyntheticRoot() {
        std::error_code ec;
        fs::remove_all(root, ec);
    }
};

SyntheticRoot& synthetic() {
    static SyntheticRoot r;
    return r;
}

// The floor: open, read to the end, close.
size_t readFileRaw(const char* path) {
    char buf[4096];
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    size_t total = 0;
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) total += static_cast<size_t>(n);
    close(fd);
    return total;
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
    const SyntheticRoot& r = synthetic();
    for (auto _ : state) {
        for (const std::string& path : r.nameRssFiles) {
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

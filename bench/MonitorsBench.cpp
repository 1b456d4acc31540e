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

#include "config/ConfigVariables.h"
#include "monitors/ProcessMemorySampler.h"
#include "monitors/SystemMemorySampler.h"
#include "platform/device_root.h"
#include "platform/log_hook.h"

namespace {

namespace fs = std::filesystem;

constexpr int kBinderEvery = 10;     // every tenth process is named after its command line
constexpr int kShippedHistory = 60;  // "num_historical_vals" of the shipped configuration
constexpr int kScansPerHour = 3600;

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
// zoneinfo copied from this machine, a /proc/lmk_stats, and `count` processes
// whose status files follow this process's own (real layout).
struct SyntheticRoot {
    std::string root;
    std::vector<std::string> processFiles;  // host paths one process scan opens
    std::vector<std::string> systemFiles;   // host paths one system sample opens

    explicit SyntheticRoot(int count) {
        std::string tmpl = (fs::temp_directory_path() / "tavrend-bench-XXXXXX").string();
        if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        root = tmpl;
        writeAll(root + "/proc/meminfo", readAll("/proc/meminfo"));
        writeAll(root + "/proc/zoneinfo", readAll("/proc/zoneinfo"));
        writeAll(root + "/proc/lmk_stats",
                 "Persistent: 0\nFg: 1\nVisible: 2\nPerceptible: 3\nBackup: 40\nOther: 500\n");
        systemFiles = {root + "/proc/meminfo", root + "/proc/zoneinfo", root + "/proc/lmk_stats"};

        const std::string status = readAll("/proc/self/status");
        const std::string statusTail = status.substr(status.find('\n') + 1);  // after Name:
        for (int i = 0; i < count; ++i) {
            const int pid = 300 + 7 * i;
            const bool binder = i % kBinderEvery == 0;
            const std::string dir = root + "/proc/" + std::to_string(pid);
            const std::string comm =
                binder ? "Binder:" + std::to_string(pid) + "_2" : "app_" + std::to_string(i);
            writeAll(dir + "/comm", comm + "\n");
            writeAll(dir + "/cmdline",
                     "/system/bin/service_" + std::to_string(i) + std::string("\0--flag\0", 8));
            writeAll(dir + "/status", "Name:\t" + comm + "\n" + statusTail);
            processFiles.push_back(dir + "/comm");
            if (binder) processFiles.push_back(dir + "/cmdline");
            processFiles.push_back(dir + "/status");
        }
    }
    ~SyntheticRoot() {
        std::error_code ec;
        fs::remove_all(root, ec);
    }
};

SyntheticRoot& syntheticRoot(int count) {
    static std::map<int, std::unique_ptr<SyntheticRoot>> roots;
    auto& r = roots[count];
    if (!r) r = std::make_unique<SyntheticRoot>(count);
    return *r;
}

SyntheticRoot& useRoot(int count) {
    tavrend::platform::setLogToStderr(false);
    SyntheticRoot& r = syntheticRoot(count);
    tavrend::platform::setDeviceRoot(r.root);
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
    const SyntheticRoot& r = useRoot(static_cast<int>(state.range(0)));
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
    const SyntheticRoot& r = useRoot(300);
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

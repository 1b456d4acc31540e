// A synthetic device root for the benchmarks, the raw-read floors, and the
// pairing of a measured call with its floor.
#pragma once

#include <benchmark/benchmark.h>
#include <time.h>

#include <cstddef>
#include <string>
#include <vector>

namespace tavrend::bench {

// A device root in a temporary directory, removed with the object: meminfo and
// zoneinfo copied from this machine, a /proc/lmk_stats, and `processCount`
// processes whose status files follow this process's own (the real layout,
// about 55 lines). Every tenth process has a binder thread's name, so its
// command line is read too.
struct BenchRoot {
    explicit BenchRoot(int processCount);
    ~BenchRoot();
    BenchRoot(const BenchRoot&) = delete;
    BenchRoot& operator=(const BenchRoot&) = delete;

    std::string root;
    std::vector<int> pids;
};

// The floor: open, read to the end, close. Returns the bytes read.
size_t readFileRaw(const char* path);

// The floor of a file whose first line is all a reader takes (comm, cmdline):
// open, one read of a page, close. Returns the bytes read.
size_t readFirstRaw(const char* path);

// "<procDir>/<pid>/<file>", built as cheaply as the readers build theirs.
// `procDir` is short: a device root's proc/.
void pidPathRaw(char (&path)[256], const char* procDir, int pid, const char* file);

// The floor of what naming a process reads from /proc/<pid> under `procDir`:
// comm, and the command line too when comm holds "Binder", as
// getProcessName() decides (the least parsing that choosing the files needs).
size_t readNameFilesRaw(const char* procDir, int pid);

// This machine's own /proc with `idleCount` more processes: idle children,
// each with a name of its own ("idle_<n>", every 20th a binder thread's
// name), ended with the object. `pids` lists /proc once they are all there.
struct MachineProc {
    explicit MachineProc(int idleCount);
    ~MachineProc();
    MachineProc(const MachineProc&) = delete;
    MachineProc& operator=(const MachineProc&) = delete;

    std::vector<int> children;
    std::vector<int> pids;
};

// The one MachineProc of the benchmark process, with 400 idle processes.
MachineProc& machineProc();

// The floor of one process scan under `procDir`: the directory listed, the
// naming files of every process it lists (readNameFilesRaw), then status of
// each of `statusPids` to the end.
size_t processScanRaw(const std::string& procDir, const std::vector<int>& statusPids);

// This thread's CPU time in nanoseconds, system time included.
inline double threadCpuNs() {
    struct timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

// Runs `measured` and its floor in alternation, `batch` calls of each per
// iteration (which goes first swaps every iteration), each batch timed on this
// thread's CPU clock, and reports the CPU time per call of both and their
// ratio as the counters measured_us, floor_us and ratio. Both sides see the
// machine of the same moment, so the load of its other users moves both alike.
template <typename Measured, typename Floor>
void runPaired(benchmark::State& state, int batch, Measured measured, Floor floor) {
    double measuredNs = 0;
    double floorNs = 0;
    bool measuredFirst = true;
    for (auto _ : state) {
        for (int side = 0; side < 2; ++side) {
            const bool isMeasured = (side == 0) == measuredFirst;
            const double start = threadCpuNs();
            for (int i = 0; i < batch; ++i) {
                if (isMeasured) {
                    measured();
                } else {
                    floor();
                }
            }
            (isMeasured ? measuredNs : floorNs) += threadCpuNs() - start;
        }
        measuredFirst = !measuredFirst;
    }
    const double calls = static_cast<double>(state.iterations()) * batch;
    state.counters["measured_us"] = measuredNs / calls / 1e3;
    state.counters["floor_us"] = floorNs / calls / 1e3;
    state.counters["ratio"] = floorNs > 0 ? measuredNs / floorNs : 0;
}

}  // namespace tavrend::bench

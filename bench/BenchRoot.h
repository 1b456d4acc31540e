// A synthetic device root for the benchmarks, and the raw-read floor.
#pragma once

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
    std::vector<std::string> processFiles;  // host paths a name + RSS pass opens
    std::vector<std::string> systemFiles;   // meminfo, zoneinfo, lmk_stats
};

// The floor: open, read to the end, close. Returns the bytes read.
size_t readFileRaw(const char* path);

}  // namespace tavrend::bench

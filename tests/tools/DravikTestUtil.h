// Small helpers of the dravikfs tests: plain POSIX file exchanges, child
// processes with a known memory footprint, and running a program.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

// Starts dravikfs as `var` (a DravikMount) with the given constructor
// arguments; skips only where the machine has no FUSE.
#define START_DRAVIK(var, ...)                          \
    ::tavrend::test::DravikMount var(__VA_ARGS__);      \
    if (var.unavailable()) GTEST_SKIP() << var.error(); \
    ASSERT_TRUE(var.ok()) << var.error()

namespace tavrend::test {

// One open(O_WRONLY), one write(2) of `text`, close. 0 or the errno.
int writeText(const std::string& path, const std::string& text);

// Reads the whole file with read(2); nullopt when it can't be opened or read.
std::optional<std::string> readText(const std::string& path);

// The figure of the "Pss:" line of /proc/<pid>/smaps_rollup, read directly.
std::optional<uint64_t> procPssKb(pid_t pid);

// Whether a PSS figure taken between two direct reads agrees with them: a
// process's figure drifts as pages it shares with others change hands.
inline bool withinDrift(uint64_t kb, uint64_t before, uint64_t after, uint64_t slackKb = 64) {
    return kb + slackKb >= std::min(before, after) && kb <= std::max(before, after) + slackKb;
}

// Bounded wait for `condition`, checked every few milliseconds.
template <typename F>
bool eventually(F condition, int timeoutMs = 5000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// A forked child that touches `touchMb` MiB of private memory, then sleeps
// until killed. The destructor kills and reaps it if still there.
class ChildProcess {
public:
    explicit ChildProcess(size_t touchMb = 0);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The child's pid once it has touched its memory; -1 if it failed to start.
    pid_t pid() const { return pid_; }
    // Waits (bounded) for the child to end; its wait status, or nullopt.
    std::optional<int> waitExit(int timeoutMs);

private:
    pid_t pid_ = -1;
    bool reaped_ = false;
};

// Makes this process the reaper of its orphaned descendants while it lives, so
// a server that outlives the program that started it can still be waited for.
class OrphanReaper {
public:
    OrphanReaper();
    ~OrphanReaper();
    OrphanReaper(const OrphanReaper&) = delete;
    OrphanReaper& operator=(const OrphanReaper&) = delete;
    // Waits (bounded) for any child to end; its wait status, or nullopt.
    std::optional<int> waitAny(int timeoutMs);
};

struct ProgramResult {
    int waitStatus = -1;  // -1: could not be started or did not end in time
    std::string output;   // standard output and standard error together
};

// Runs `argv` (argv[0] a path) to completion, bounded by `timeoutMs`.
ProgramResult runProgram(const std::vector<std::string>& argv, int timeoutMs = 10000);

}  // namespace tavrend::test

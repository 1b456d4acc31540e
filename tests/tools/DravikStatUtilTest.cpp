// The daemon's PSS reader talking to the real dravikfs, as it talks to the
// kernel driver on a device.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <cstring>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "stats/StatUtil.h"
#include "support/DeviceRoot.h"
#include "support/DravikMount.h"
#include "support/LogCapture.h"

namespace tavrend::test {
namespace {

using quillend::StatUtil;
using std::chrono::seconds;

// The figure of the "Pss:" line of /proc/<pid>/smaps_rollup, read directly.
std::optional<uint64_t> procPssKb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
    uint64_t kb = 0;
    for (std::string line; std::getline(in, line);) {
        if (sscanf(line.c_str(), "Pss: %" SCNu64, &kb) == 1) return kb;
    }
    return std::nullopt;
}

// Whether a figure taken between two direct reads agrees with them: a
// process's PSS drifts as pages it shares with others change hands.
bool withinDrift(uint64_t kb, uint64_t before, uint64_t after, uint64_t slackKb = 64) {
    return kb + slackKb >= std::min(before, after) && kb <= std::max(before, after) + slackKb;
}

// A forked child holding `mb` MiB of touched private memory until killed.
struct MemoryChild {
    explicit MemoryChild(size_t mb) : pid(fork()) {
        if (pid != 0) return;
        // Only async-signal-safe calls in the child.
        void* mem =
            mmap(nullptr, mb << 20, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mem != MAP_FAILED) memset(mem, 0x5a, mb << 20);
        for (;;) pause();
    }
    ~MemoryChild() {
        if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
    }
    const pid_t pid;
};

TEST(DravikStatUtil, AgreesWithTheProcessOwnRollup) {
    DeviceRoot root(false);  // the machine's /proc
    START_DRAVIK(dravik, root.path());
    std::optional<uint64_t> before = procPssKb(getpid());
    uint64_t pssKb = 0;
    ASSERT_TRUE(StatUtil::getProcessPssDravik(getpid(), pssKb));
    std::optional<uint64_t> after = procPssKb(getpid());
    ASSERT_TRUE(before && after);
    EXPECT_GT(pssKb, 0u);
    EXPECT_TRUE(withinDrift(pssKb, *before, *after)) << pssKb << " vs " << *before;
}

TEST(DravikStatUtil, AnswerThatIsNotAFigure) {
    DeviceRoot root;
    START_DRAVIK(dravik, root.path(), {.pssAnswer = "n/a"});
    LogCapture log;
    uint64_t pssKb = 999;
    EXPECT_TRUE(StatUtil::getProcessPssDravik(4242, pssKb));  // intended: still a success
    EXPECT_EQ(pssKb, 0u);
    ASSERT_EQ(log.records().size(), 1u);
    EXPECT_EQ(log.records()[0].message, "Failed to sscanf /sys/kernel/dravik/total_pss_kb");
}

// Without the reader's lock one caller could read back another's request.
TEST(DravikStatUtil, ConcurrentReadersNeverGetAnotherCallersAnswer) {
    DeviceRoot root(false);
    // Footprints 16 MiB apart, so an answer meant for another child shows.
    constexpr int kChildren = 4;
    std::vector<std::unique_ptr<MemoryChild>> children;
    for (size_t mb = 16; mb <= 16 * kChildren; mb += 16) {
        children.push_back(std::make_unique<MemoryChild>(mb));
        const pid_t pid = children.back()->pid;
        ASSERT_TRUE(waitUntil([&] { return procPssKb(pid).value_or(0) >= mb << 10; }, seconds(10)));
    }
    START_DRAVIK(dravik, root.path());

    // Each answer is checked against the child's own figure just before and after.
    std::atomic<int> failures{0}, mixed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kChildren; ++i) {
        threads.emplace_back([&, pid = children[i]->pid] {
            for (int round = 0; round < 40; ++round) {
                std::optional<uint64_t> before = procPssKb(pid);
                uint64_t kb = 0;
                bool ok = StatUtil::getProcessPssDravik(pid, kb);
                std::optional<uint64_t> after = procPssKb(pid);
                failures += !ok || !before || !after;
                mixed += ok && before && after && !withinDrift(kb, *before, *after);
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(mixed.load(), 0);
}

}  // namespace
}  // namespace tavrend::test

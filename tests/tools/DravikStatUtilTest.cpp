// The daemon's PSS reader talking to the real dravikfs, as it talks to the
// kernel driver on a device.
#include <gtest/gtest.h>
#include <log/log.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DravikTestUtil.h"
#include "stats/StatUtil.h"
#include "support/DeviceRoot.h"
#include "support/DravikMount.h"
#include "support/FakeTime.h"
#include "support/LogCapture.h"

namespace tavrend::test {
namespace {

using quillend::StatUtil;

const std::string kPssPath = "/sys/kernel/dravik/total_pss_kb";

size_t countMessage(const LogCapture& log, const std::string& message) {
    std::vector<std::string> messages = log.messages(LOG_ID_MAIN, "quillend:StatUtil");
    return static_cast<size_t>(std::count(messages.begin(), messages.end(), message));
}

TEST(DravikStatUtil, AgreesWithTheProcessOwnRollup) {
    DeviceRoot root(false);  // the machine's /proc
    START_DRAVIK(dravik, root.path());
    const pid_t self = getpid();

    std::optional<uint64_t> before = procPssKb(self);
    uint64_t pssKb = 12345;
    ASSERT_TRUE(StatUtil::getProcessPssDravik(self, pssKb));
    std::optional<uint64_t> after = procPssKb(self);
    ASSERT_TRUE(before && after);
    EXPECT_TRUE(withinDrift(pssKb, *before, *after))
        << pssKb << " vs " << *before << ".." << *after;
    EXPECT_GT(pssKb, 0u);
}

TEST(DravikStatUtil, DriverAnswersThatAreNotFigures) {
    DeviceRoot root;
    FakeProcess p;
    p.pid = 4242;
    p.comm = "svc";
    p.pssKb = 777;
    root.addProcess(p);
    struct Case {
        std::string answer;
        uint64_t wantKb;
        size_t sscanfLines;
    };
    const Case cases[] = {
        {"n/a", 0, 1},
        {"", 0, 0},  // no line at all: nothing to scan, still a success
        {"\n", 0, 1},
        {"12", 12, 0},
    };
    for (const Case& c : cases) {
        DravikOptions opts;
        opts.pssAnswer = c.answer;
        START_DRAVIK(dravik, root.path(), opts);
        LogCapture log;
        uint64_t pssKb = 999;
        EXPECT_TRUE(StatUtil::getProcessPssDravik(4242, pssKb)) << "'" << c.answer << "'";
        EXPECT_EQ(pssKb, c.wantKb) << "'" << c.answer << "'";
        EXPECT_EQ(countMessage(log, "Failed to sscanf " + kPssPath), c.sscanfLines)
            << "'" << c.answer << "'";
        EXPECT_EQ(log.records().size(), c.sscanfLines) << "no other complaint";
    }
}

TEST(DravikStatUtil, RejectedWritesAreRetriedThroughTheTimeSeam) {
    DeviceRoot root;
    FakeProcess p;
    p.pid = 4242;
    p.comm = "svc";
    p.pssKb = 777;
    root.addProcess(p);
    struct Case {
        unsigned failWrites;
        bool wantOk;
        uint64_t wantKb;
        unsigned long wantSleeps;
    };
    const Case cases[] = {
        {3, true, 777, 3},
        {4, false, 0, 4},  // every attempt refused
        {6, false, 0, 4},  // no fifth attempt
    };
    for (const Case& c : cases) {
        DravikOptions opts;
        opts.failWrites = c.failWrites;
        START_DRAVIK(dravik, root.path(), opts);
        FakeTime time;
        LogCapture log;
        uint64_t pssKb = 999;
        EXPECT_EQ(StatUtil::getProcessPssDravik(4242, pssKb), c.wantOk) << c.failWrites;
        EXPECT_EQ(pssKb, c.wantKb) << c.failWrites;
        EXPECT_EQ(time.sleepCalls(), c.wantSleeps) << c.failWrites;
        EXPECT_EQ(time.sleptSeconds(), c.wantSleeps) << c.failWrites;
        EXPECT_EQ(countMessage(log, "Failed to write " + kPssPath), c.wantOk ? 0u : 1u);
    }
}

TEST(DravikStatUtil, ConcurrentReadersNeverGetAnotherCallersAnswer) {
    DeviceRoot root(false);
    // Footprints 16 MiB apart, so an answer meant for another child shows.
    constexpr int kChildren = 4;
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (int i = 0; i < kChildren; ++i) {
        children.push_back(std::make_unique<ChildProcess>(16 * (i + 1)));
        ASSERT_GT(children.back()->pid(), 0);
    }
    START_DRAVIK(dravik, root.path());

    // Each answer is checked against the child's own figure read directly
    // just before and after the call.
    std::atomic<int> failures{0};
    std::atomic<int> mixed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kChildren; ++i) {
        threads.emplace_back([&, pid = children[i]->pid()] {
            for (int round = 0; round < 40; ++round) {
                std::optional<uint64_t> before = procPssKb(pid);
                uint64_t kb = 0;
                bool ok = StatUtil::getProcessPssDravik(pid, kb);
                std::optional<uint64_t> after = procPssKb(pid);
                if (!ok || !before || !after) {
                    failures.fetch_add(1);
                } else if (!withinDrift(kb, *before, *after)) {
                    mixed.fetch_add(1);
                }
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(mixed.load(), 0);
}

}  // namespace
}  // namespace tavrend::test

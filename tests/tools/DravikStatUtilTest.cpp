// The daemon's PSS reader talking to the real dravikfs, as it talks to the
// kernel driver on a device.
#include <gtest/gtest.h>
#include <log/log.h>

#include <atomic>
#include <thread>
#include <vector>

#include "stats/StatUtil.h"
#include "support/DeviceRoot.h"
#include "support/DravikMount.h"
#include "support/FakeTime.h"
#include "support/LogCapture.h"

namespace tavrend::test {
namespace {

using quillend::StatUtil;

TEST(DravikStatUtil, AnswerThatIsNotAFigure) {
    DeviceRoot root;
    START_DRAVIK(dravik, root.path(), {.pssAnswer = "n/a"});
    LogCapture log;
    uint64_t pssKb = 999;
    EXPECT_TRUE(StatUtil::getProcessPssDravik(4242, pssKb));  // intended: still a success
    EXPECT_EQ(pssKb, 0u);
    EXPECT_EQ(log.messages(LOG_ID_MAIN),
              std::vector<std::string>{"Failed to sscanf /sys/kernel/dravik/total_pss_kb"});
}

// A refused request is written again after a second, four times in all.
TEST(DravikStatUtil, RefusedWritesAreRetriedFourTimes) {
    DeviceRoot root;
    root.addProcess({.pid = 300, .pssKb = 333});
    START_DRAVIK(dravik, root.path(), {.failWrites = 7});
    FakeTime clock;
    LogCapture log;
    uint64_t pssKb = 5;
    EXPECT_FALSE(StatUtil::getProcessPssDravik(300, pssKb));
    EXPECT_EQ(pssKb, 0u);
    EXPECT_EQ(clock.sleepCalls(), 4u);
    EXPECT_EQ(log.messages(LOG_ID_MAIN),
              std::vector<std::string>{"Failed to write /sys/kernel/dravik/total_pss_kb"});
    EXPECT_TRUE(StatUtil::getProcessPssDravik(300, pssKb));  // the fourth attempt passes
    EXPECT_EQ(pssKb, 333u);
    EXPECT_EQ(clock.uptime(), 1007u);  // one second per refusal
}

// The driver answers the last request of any caller: without the reader's lock
// one caller could read back another's answer.
TEST(DravikStatUtil, ConcurrentReadersGetTheirOwnAnswer) {
    DeviceRoot root;
    for (uint64_t pid = 101; pid <= 104; ++pid) {
        root.addProcess({.pid = static_cast<int>(pid), .pssKb = pid * 1000});
    }
    START_DRAVIK(dravik, root.path());
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (uint64_t pid = 101; pid <= 104; ++pid) {
        threads.emplace_back([&wrong, pid] {
            for (int round = 0; round < 50; ++round) {
                uint64_t kb = 0;
                wrong +=
                    !StatUtil::getProcessPssDravik(static_cast<int>(pid), kb) || kb != pid * 1000;
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace tavrend::test

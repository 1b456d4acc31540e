// The guardrail file, the process killer against the driver emulator, and the
// PSS guardrail monitor on a synthetic /proc served by the emulator.
#include <gtest/gtest.h>
#include <log/log.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "config/MemoryGuardrailConfig.h"
#include "metrics/TavrenMetricConfig.h"
#include "monitors/ProcessKiller.h"
#include "monitors/ProcessPssGuardrailMonitor.h"
#include "support/DeviceRoot.h"
#include "support/DravikMount.h"
#include "support/FakeTime.h"
#include "support/LogCapture.h"

using namespace tavrend;
using namespace std::chrono_literals;
using tavrend::test::DeviceRoot;
using tavrend::test::DravikMount;
using tavrend::test::FakeTime;
using tavrend::test::LogCapture;

namespace {

constexpr const char* kGuardrailFile = "/system/etc/tavrend/tavrend_memory_guardrail.json";

void setPss(const DeviceRoot& root, int pid, const std::string& comm, uint64_t pssKb) {
    root.addProcess({.pid = pid, .comm = comm, .vmRssKb = pssKb, .pssKb = pssKb});
}

}  // namespace

TEST(GuardrailConfig, RowsInFileOrderIncompleteOnesSkippedFailures) {
    DeviceRoot root;
    LogCapture log;
    struct Case {
        const char* json;  // nullptr: no file
        int result;
        std::vector<std::string> rows;  // "name soft hard"
        size_t errors;
    };
    const Case cases[] = {
        {R"({"processes": [{"name": "a", "soft_memory_limit": 100, "hard_memory_limit": -1},
                           {"name": "a", "soft_memory_limit": 1, "hard_memory_limit": 2},
                           {"name": "b", "soft_memory_limit": "1", "hard_memory_limit": 2},
                           {"soft_memory_limit": 1, "hard_memory_limit": 2}, 7]})",
         0,
         {"a 100 18446744073709551615", "a 1 2"},
         3},
        {R"({"processes": []})", 0, {}, 0},
        {R"({"processes": {}})", -1, {}, 0},
        {R"([1])", -1, {}, 0},
        {"{", -1, {}, 0},
        {nullptr, -1, {}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.json ? c.json : "no file");
        if (c.json)
            root.writeFile(kGuardrailFile, c.json);
        else
            root.removePath(kGuardrailFile);
        log.clear();
        std::vector<MemoryGuardrailConfig> rows;
        EXPECT_EQ(loadMemoryGuardrailConfig(rows), c.result);
        std::vector<std::string> got;
        for (const auto& r : rows) {
            got.push_back(r.name + " " + std::to_string(r.soft_memory_limit) + " " +
                          std::to_string(r.hard_memory_limit));
        }
        EXPECT_EQ(got, c.rows);
        EXPECT_EQ(log.countPrefix(LOG_ID_SYSTEM, "Guardrail entry "), c.errors);
        const bool unparsable = c.json == nullptr || strcmp(c.json, "{") == 0;
        EXPECT_EQ(log.contains(LOG_ID_SYSTEM, std::string("cjson root is null for ") +
                                                  kGuardrailFile + ", perhaps file not found"),
                  unparsable);
        EXPECT_EQ(log.contains(LOG_ID_SYSTEM,
                               "Guardrailing a soft_memory_limit 100 "
                               "hard_memory_limit 18446744073709551615"),
                  !c.rows.empty());
    }
}

// The driver's answer decides; errors carry errno's text, not the status.
TEST(ProcessKiller, ResultFollowsTheDriversAnswer) {
    struct Case {
        test::DravikOptions options;
        bool result;
        const char* line;  // a line that must be logged (prefix)
        bool removed;      // the synthetic process is gone
    };
    const Case cases[] = {
        {{}, true, "Successfully killed pid 1234", true},
        {{.killStatus = -3}, false, "Error killing pid 1234: ", true},
        {{.failWrites = 1}, false, "Error killing pid 1234: ", false},
    };
    for (const Case& c : cases) {
        DeviceRoot root;
        setPss(root, 1234, "victim", 10);
        START_DRAVIK(dravik, root.path(), c.options);
        LogCapture log;
        EXPECT_EQ(killProcess(1234), c.result);
        EXPECT_TRUE(log.contains(LOG_ID_SYSTEM, "Trying to kill pid 1234"));
        EXPECT_EQ(log.countPrefix(LOG_ID_SYSTEM, c.line), 1u) << c.line;
        EXPECT_EQ(!root.exists("/proc/1234"), c.removed);
    }
}

TEST(ProcessKiller, NoDriverFailsAndAnEmptyAnswerSucceeds) {
    DeviceRoot root;
    LogCapture log;
    EXPECT_FALSE(killProcess(1234));
    EXPECT_TRUE(log.contains(LOG_ID_SYSTEM,
                             std::string("Failed to open ") + kDravikKillPath + " for write"));
    // A driver file that swallows the request and answers nothing.
    root.writeFile(kDravikKillPath, "");
    root.removePath(kDravikKillPath);
    ASSERT_EQ(symlink("/dev/null", root.host(kDravikKillPath).c_str()), 0);
    log.clear();
    EXPECT_TRUE(killProcess(1234));
    EXPECT_EQ(log.countPrefix(LOG_ID_SYSTEM, "Failed to sscanf"), 0u);
    EXPECT_TRUE(log.contains(LOG_ID_SYSTEM, "Successfully killed pid 1234"));
}

struct GuardrailFixture : ::testing::Test {
    DeviceRoot root;
    ConfigVariables config;
    std::vector<MemoryGuardrailConfig> rows{{"hog", 100, 200}, {"ghost", 1, 2}};
    LogCapture log;

    GuardrailFixture() {
        config.guardrail_check_interval_sec = 1000;  // passes only when a test runs one
        config.process_kill_metrics_interval_sec = 600;
        root.setMetricConfig(test::kExampleMetricConfig);
        TavrenMetricConfig::instance().resetConfig();
        EXPECT_TRUE(TavrenMetricConfig::instance().loadConfig(
            "/system/etc/tavrend/tavrend_metric_config.json"));
        setPss(root, 300, "hog", 50);
    }
    size_t lines(const std::string& prefix) const { return log.countPrefix(LOG_ID_SYSTEM, prefix); }
    // A pass thread holds the only other reference until its pass ends.
    static void waitForPasses(const std::shared_ptr<ProcessPssGuardrailMonitor>& monitor) {
        for (int i = 0; i < 500 && monitor.use_count() > 1; ++i) std::this_thread::sleep_for(10ms);
        ASSERT_EQ(monitor.use_count(), 1);
    }
};

TEST_F(GuardrailFixture, SoftQueuesOnceHardKillsAtOnceUnderSoftClears) {
    START_DRAVIK(dravik, root.path());
    auto monitor = std::make_shared<ProcessPssGuardrailMonitor>(config, rows);
    ASSERT_TRUE(monitor->init());
    EXPECT_TRUE(log.contains(LOG_ID_SYSTEM, "found pid 300 of name hog"));

    setPss(root, 300, "hog", 150);
    monitor->checkAgainstGuardrail();
    monitor->checkAgainstGuardrail();
    EXPECT_EQ(lines("Adding process 300 to killable list"), 1u);
    EXPECT_EQ(lines("Memory usage for hog (300) exceeds soft guardrails"), 2u);
    EXPECT_EQ(lines("ghost is not running"), 2u);  // looked up on every pass
    EXPECT_EQ(monitor->getKillableCount(), 1);

    setPss(root, 300, "hog", 200);  // equal to the hard limit: still a soft case
    monitor->checkAgainstGuardrail();
    EXPECT_TRUE(root.exists("/proc/300"));
    setPss(root, 300, "hog", 250);
    monitor->checkAgainstGuardrail();
    EXPECT_FALSE(root.exists("/proc/300"));
    EXPECT_EQ(lines("Memory usage for hog (300) exceeds hard guardrails, killing it immediately"),
              1u);
    EXPECT_EQ(monitor->getKillableCount(), 1);  // a hard kill leaves the queue alone
    EXPECT_EQ(monitor->snapshot()[0].killCount, 1);

    setPss(root, 300, "hog", 90);  // the name's new process, under its soft limit
    monitor->checkAgainstGuardrail();
    EXPECT_EQ(lines("Removing process 300 from killable list"), 1u);
    EXPECT_EQ(monitor->getKillableCount(), 0);
    EXPECT_EQ(monitor->snapshot()[0].totalPss, 90u);

    setPss(root, 300, "other", 500);  // the pid now belongs to another program
    monitor->checkAgainstGuardrail();
    EXPECT_TRUE(root.exists("/proc/300"));
    EXPECT_EQ(monitor->snapshot()[0].totalPss, 90u);
}

TEST_F(GuardrailFixture, IdleEnforcementAndMetricsTick) {
    START_DRAVIK(dravik, root.path());
    auto monitor = std::make_shared<ProcessPssGuardrailMonitor>(config, rows);
    ASSERT_TRUE(monitor->init());
    setPss(root, 300, "hog", 150);
    monitor->checkAgainstGuardrail();

    setPss(root, 300, "hog", 100);  // back at its soft limit by the idle second: not over it
    EXPECT_TRUE(monitor->check(1, false, false));  // busy: nothing enforced
    EXPECT_EQ(lines("Enforcing guardrail"), 0u);
    EXPECT_TRUE(monitor->check(2, false, true));
    EXPECT_TRUE(log.contains(LOG_ID_SYSTEM,
                             "process=hog pid=300 TotalPss: 100 kB, no longer over "
                             "MemorySoftLimit: 100 kB,"));
    EXPECT_TRUE(root.exists("/proc/300"));

    setPss(root, 300, "hog", 150);
    monitor->checkAgainstGuardrail();
    setPss(root, 300, "hog", 170);
    EXPECT_TRUE(monitor->check(3, false, true));
    EXPECT_FALSE(root.exists("/proc/300"));
    EXPECT_TRUE(log.contains(LOG_ID_SYSTEM,
                             "process=hog pid=300 kill_count=1 "
                             "killabe_process_count=0"));
    EXPECT_EQ(lines("Enforcing guardrail"), 2u);

    EXPECT_TRUE(monitor->check(4, false, true));  // nothing queued: no enforcement
    EXPECT_EQ(lines("Enforcing guardrail"), 2u);
    EXPECT_TRUE(monitor->check(0, false, false));  // a pass, but never metrics at tick 0
    waitForPasses(monitor);
    EXPECT_TRUE(log.messages(tavrend::kMetricsLogId).empty());
    EXPECT_TRUE(monitor->check(600, false, false));
    EXPECT_TRUE(log.contains(LOG_ID_SYSTEM, "Emitting metrics: process=hog pid=300 kill_count=1"));
    ASSERT_EQ(log.messages(tavrend::kMetricsLogId).size(), 1u);
    EXPECT_EQ(
        log.messages(tavrend::kMetricsLogId)[0].rfind("grp2:sch2:100:proc=hog;SY,count=1;", 0), 0u);
    EXPECT_TRUE(monitor->check(1200, false, false));  // counts were cleared
    EXPECT_EQ(log.messages(tavrend::kMetricsLogId).size(), 1u);
}

// Every due tick starts a pass; passes queue on the lock behind a slow one
// while the loop's thread enforces, emits and reports. Each pass keeps the
// monitor alive until it ends. Run under ThreadSanitizer too.
TEST_F(GuardrailFixture, PassesPileUpBehindASlowPassWhileTheLoopTicks) {
    struct SlowSleeps : FakeTime {
        void sleepSeconds(unsigned seconds) override {
            std::this_thread::sleep_for(5ms);
            FakeTime::sleepSeconds(seconds);
        }
    } clock;
    config.guardrail_check_interval_sec = 1;
    config.pss_sleep_interval_sec = 1;
    config.process_kill_metrics_interval_sec = 3;
    START_DRAVIK(dravik, root.path());
    auto monitor = std::make_shared<ProcessPssGuardrailMonitor>(config, rows);
    ASSERT_TRUE(monitor->init());
    for (unsigned long long tick = 0; tick < 20; ++tick) {
        // Queued now and then, never killed: a kill would remove proc/300 under
        // this loop's writes.
        setPss(root, 300, "hog", tick % 4 == 0 ? 150 : 90);
        EXPECT_TRUE(monitor->check(tick, false, tick % 2 == 1));
        monitor->dumpReport();
    }
    std::weak_ptr<ProcessPssGuardrailMonitor> alive = monitor;
    monitor.reset();
    for (int i = 0; i < 1000 && !alive.expired(); ++i) std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(alive.expired());
    // Every pass ran to its end (the driver's own retries may add sleeps).
    EXPECT_EQ(lines("ghost is not running"), 20u);
    EXPECT_GE(clock.sleepCalls(), 40u);
}

// The built daemon's memory path end to end: low-memory-killer kills that reach
// the target while the daemon runs bring the crash report and, once the device
// is idle, the metrics and a reboot.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "E2E.h"

using namespace std::chrono_literals;
using namespace tavrend::test;

TEST(MemoryE2E, KillsReachingTheTargetReportThenRebootWhenIdle) {
    DeviceRoot root;
    root.setDaemonConfig(R"({
      "system_mem": {"memory_read_interval_sec": 1, "critical_memory_measurement_time": 30,
        "critical_memory_minimum_uptime_sec": 1, "critical_memory_idle_override_time_sec": 3600,
        "lmk_counter_threshold": "Perceptible", "lmk_target_kills": 10,
        "system_mem_heartbeat_samples": 1, "idle_detection_interval_sec": 1},
      "proc_scan": {"proc_scan_interval_sec": 1, "num_historical_vals": 10}})");
    root.setMetricConfig(kExampleMetricConfig);
    root.setProperty("sys.user_activity_detected", "true");
    root.setMeminfo(meminfoText(500000));
    root.setLmkStats("Persistent: 1\nFg: 1\nVisible: 0\nPerceptible: 1\nBackup: 40\nOther: 90\n");
    root.addProcess({.pid = 100, .comm = "system_server", .vmRssKb = 4000});

    DaemonRun run(root);
    run.start();
    // A few samples below the target first, then the kills reach it.
    ASSERT_TRUE(run.waitForMessage("SystemMemorySampler heartbeat 2, lmk_current_kills 3", 20s));
    root.setLmkStats("Persistent: 1\nFg: 2\nVisible: 3\nPerceptible: 4\nBackup: 50\nOther: 60\n");
    ASSERT_TRUE(run.waitForMessage("Critical condition is detected", 30s));
    std::this_thread::sleep_for(1500ms);  // the device is in use: no reboot yet
    EXPECT_TRUE(run.process().running());
    EXPECT_EQ(root.getProperty("sys.powerctl"), "");
    root.setProperty("sys.user_activity_detected", "false");
    const auto status = run.process().wait(30s);
    ASSERT_TRUE(status.has_value()) << "the daemon did not reboot once the device was idle";
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
    EXPECT_EQ(root.getProperty("sys.powerctl"), "reboot");
    const auto records = run.log("metrics");
    ASSERT_EQ(records.size(), 3u);
    const char* types[] = {"uptime_till_critical_mem", "time_till_idle", "uptime_till_reboot"};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_TRUE(
            std::regex_match(records[i].message, std::regex(durationRecord(types[i], "[0-9]+"))))
            << records[i].message;
        EXPECT_EQ(records[i].tag + records[i].priority, "metrics.tavrendI");
    }
    // In order: the decision, the report's header and date, the process report,
    // then the system report, and the reboot.
    const auto log = run.log();
    const long leak = findMessage(log, "Memory is being leaked, need to take action");
    const long header = findMessage(log, "------Tavrend Crash Report------", leak);
    ASSERT_TRUE(leak >= 0 && header > leak);
    size_t i = header + 2;
    for (const char* start : {"------Process info------", "Total Processes Sampled: 1",
                              "PID: 100 Process Name: system_server", "RSS Total: {4000, 4000",
                              "RSwap: {0, 0", "Other Free historical values: {500000, 500000"}) {
        EXPECT_TRUE(log.at(i++).message.starts_with(start)) << log.at(i - 1).message;
    }
    EXPECT_EQ(log.at(header + 2 + 25).message,
              "LMK Stats persistent 1 fg 2 visible 3 perceptible 4 backup 50 other 60");
    EXPECT_GT(findMessage(log, "Rebooting device", header), header);
}

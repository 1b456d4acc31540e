// The built daemon's memory monitors end to end: low-memory-killer kills that
// reach the target while the daemon runs bring the crash report and, once the
// device is idle, a reboot; and a report of the machine's own processes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "E2E.h"

using namespace std::chrono_literals;
using namespace tavrend::test;

namespace {

const char* kConfig = R"({
  "system_mem": {"memory_read_interval_sec": 1, "critical_memory_measurement_time": 30,
                 "critical_memory_threshold_percent": 50, "critical_memory_bucket": "perceptible",
                 "critical_memory_default_threshold_kb": 98304,
                 "critical_memory_minimum_uptime_sec": 1,
                 "critical_memory_idle_override_time_sec": 3600,
                 "lmk_counter_threshold": "Perceptible", "lmk_target_kills": 10,
                 "system_mem_heartbeat_samples": 1, "idle_detection_interval_sec": 1},
  "proc_scan": {"proc_scan_interval_sec": 1, "num_historical_vals": 10,
                "process_mem_heartbeat_samples": 1},
  "sample": false
})";

const char* kMetricConfig = R"({
  "OrreryConfig": {"Enabled": true, "GroupId": "grp"},
  "MetricConfig": [{"MetricConfig": "IdleDetector",
    "KAPH_Metric_Interface": {"Active": true},
    "Orrery_Metric_Interface": {"Schema_Id": "sch", "Active": true,
      "Metrics": [{"Name": "duration_type", "Type": "str", "DimensionTag": "type"},
                  {"Name": "duration_value", "Type": "int", "DimensionTag": "value"}]}}]
})";

// True when `record` is the duration record of `type` with a decimal value.
bool isDurationRecord(const std::string& record, const std::string& type) {
    const std::string head = "grp:sch:100:type=" + type + ";SY,value=";
    const std::string tail =
        ";IN,_softwareVersion=;SY,_deviceType=;SY,_platform=;SY,_model=;SY,_buildType=;SY,"
        "_marketPlaceId=;SY,_countryOfResidence=;SY,_deviceLanguage=;SY,_otaGroupName=;SY,"
        "_timeZone=;SY,_deviceId=;SY,_customerId=;SY,_hardware=;SY";
    if (!record.starts_with(head) || !record.ends_with(tail)) return false;
    const std::string value = record.substr(head.size(), record.size() - head.size() - tail.size());
    return !value.empty() && value.find_first_not_of("0123456789") == std::string::npos;
}

// VmRSS + VmSwap of /proc/<pid>/status in kB.
uint64_t rssTotalKb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    uint64_t total = 0, value = 0;
    while (in >> key) {
        if ((key == "VmRSS:" || key == "VmSwap:") && in >> value) total += value;
    }
    return total;
}

}  // namespace

TEST(MemoryE2E, KillsReachingTheTargetReportThenRebootWhenIdle) {
    DeviceRoot root;
    root.setDaemonConfig(kConfig);
    root.setMetricConfig(kMetricConfig);
    root.setProperty("sys.user_activity_detected", "true");
    root.setMeminfo(meminfoText(500000));
    root.setLmkStats("Persistent: 1\nFg: 1\nVisible: 0\nPerceptible: 1\nBackup: 40\nOther: 90\n");
    FakeProcess server;
    server.pid = 100;
    server.comm = "system_server";
    server.vmRssKb = 4000;
    root.addProcess(server);

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
    EXPECT_TRUE(isDurationRecord(records[0].message, "uptime_till_critical_mem"));
    EXPECT_TRUE(isDurationRecord(records[1].message, "time_till_idle"));
    EXPECT_TRUE(isDurationRecord(records[2].message, "uptime_till_reboot"));
    EXPECT_EQ(records[0].tag, "metrics.tavrend");
    EXPECT_EQ(records[0].priority, 'I');
    EXPECT_GE(findMessage(run.log(), "Rebooting device"), 0);

    // In order: the decision, the report's header and date, the process
    // report, then the system report (exact lines are the unit tests' business).
    const auto log = run.log();
    const long leak = findMessage(log, "Memory is being leaked, need to take action");
    ASSERT_GE(leak, 0);
    const long header = findMessage(log, "------Tavrend Crash Report------", leak);
    ASSERT_GT(header, leak);
    size_t i = header + 2;
    for (const char* start : {"------Process info------", "Total Processes Sampled: 1",
                              "PID: 100 Process Name: system_server", "RSS Total: {4000, 4000",
                              "RSwap: {0, 0", "Other Free historical values: {500000, 500000"}) {
        EXPECT_TRUE(log.at(i).message.starts_with(start)) << log.at(i).message;
        ++i;
    }
    EXPECT_EQ(log.at(header + 2 + 25).message,
              "LMK Stats persistent 1 fg 2 visible 3 perceptible 4 backup 50 other 60");
}

// No host has /proc/lmk_stats, so the root's proc/ links the test's own
// process folder and the machine's memory files, and adds the kills.
TEST(MemoryE2E, ReportOfARealProcessCarriesItsRss) {
    DeviceRoot root;
    root.setDaemonConfig(kConfig);
    root.setProperty("sys.user_activity_detected", "false");
    const std::string self = std::to_string(getpid());
    std::filesystem::create_directory_symlink("/proc/" + self, root.host("/proc/" + self));
    for (const char* file : {"/proc/meminfo", "/proc/zoneinfo"}) {
        std::filesystem::create_symlink(file, root.host(file));
    }
    root.setLmkStats("Persistent: 10\n");
    std::string comm;
    std::getline(std::ifstream("/proc/self/comm"), comm);

    const uint64_t before = rssTotalKb(getpid());
    DaemonRun run(root);
    run.start();
    ASSERT_TRUE(run.process().wait(30s).has_value()) << "no report and reboot";
    const uint64_t after = rssTotalKb(getpid());
    EXPECT_EQ(root.getProperty("sys.powerctl"), "reboot");
    const auto log = run.log();
    EXPECT_LT(findMessage(log, "Could not parse System Memory Information from /proc/meminfo"), 0);
    const long line = findMessage(log, "PID: " + self + " Process Name: " + comm);
    ASSERT_GE(line, 0);
    unsigned long long sampled = 0, baseline = 0;
    ASSERT_EQ(sscanf(log[line + 1].message.c_str(), "RSS Total: {%llu}, RSS Total baseline: %llu",
                     &sampled, &baseline),
              2)
        << log[line + 1].message;
    EXPECT_EQ(sampled, baseline);
    // The daemon read this process's status between the two readings here; its
    // memory moves a little meanwhile (more under sanitizers).
    EXPECT_GE(sampled, 0.9 * std::min(before, after) - 1024) << before << " " << after;
    EXPECT_LE(sampled, 1.1 * std::max(before, after) + 1024) << before << " " << after;
}

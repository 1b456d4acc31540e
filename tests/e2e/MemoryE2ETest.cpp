// The built daemon's memory monitors end to end: low-memory-killer kills that
// reach the target while the daemon runs produce the crash report and hand
// the device over to the idle detector, which reboots it once idle; and the
// samplers read the machine's real processes and memory.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
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

// Zone high watermarks of 200 pages.
const char* kZoneinfo =
    "Node 0, zone   Normal\n  pages free 1000\n        low      100\n        high     200\n";

FakeProcess process(int pid, const std::string& comm, uint64_t rssKb, uint64_t swapKb) {
    FakeProcess p;
    p.pid = pid;
    p.comm = comm;
    p.cmdline = "/system/bin/" + comm + std::string(1, '\0');
    p.vmRssKb = rssKb;
    p.vmSwapKb = swapKb;
    return p;
}

size_t indexOf(const std::vector<LogLine>& log, const std::string& msg, size_t from = 0) {
    const long i = findMessage(log, msg, from);
    return i < 0 ? SIZE_MAX : static_cast<size_t>(i);
}

// Index of the first message at or after `from` that matches `pattern`.
size_t indexMatching(const std::vector<LogLine>& log, const std::string& pattern, size_t from = 0) {
    const std::regex re(pattern);
    for (size_t i = from; i < log.size(); ++i) {
        if (std::regex_match(log[i].message, re)) return i;
    }
    return SIZE_MAX;
}

// "{v, v, v}" with `count` copies of `value`.
std::string repeated(const std::string& value, size_t count) {
    std::string text = "{";
    for (size_t i = 0; i < count; ++i) text += (i ? ", " : "") + value;
    return text + "}";
}

// VmRSS + VmSwap of /proc/<pid>/status in kB.
uint64_t rssTotalKb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    uint64_t total = 0;
    while (in >> key) {
        if (key == "VmRSS:" || key == "VmSwap:") {
            uint64_t v = 0;
            in >> v;
            total += v;
        }
    }
    return total;
}

std::string commOf(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(in, name);
    return name;
}

}  // namespace

TEST(MemoryE2E, KillsReachingTheTargetReportAndRebootWhenIdle) {
    DeviceRoot root;
    root.setDaemonConfig(kConfig);
    root.setProperty("sys.user_activity_detected", "true");
    root.setMeminfo(meminfoText(500000, 100000, 800000, 400000, 60000));
    root.setZoneinfo(kZoneinfo);
    root.setLmkStats("Persistent: 1\nFg: 1\nVisible: 0\nPerceptible: 1\nBackup: 40\nOther: 90\n");
    root.addProcess(process(100, "system_server", 4000, 10));
    root.addProcess(process(200, "surfaceflinger", 3000, 0));
    FakeProcess kthread;
    kthread.pid = 2;
    kthread.comm = "kthreadd";
    kthread.kernelThread = true;
    root.addProcess(kthread);

    DaemonRun run(root);
    run.start();
    // A few samples below the target first.
    ASSERT_TRUE(run.waitForMessage("SystemMemorySampler heartbeat 2, lmk_current_kills 3", 20s));
    EXPECT_TRUE(run.process().running());
    EXPECT_EQ(root.getProperty("sys.powerctl"), "");
    root.setLmkStats("Persistent: 1\nFg: 2\nVisible: 3\nPerceptible: 4\nBackup: 50\nOther: 60\n");

    // The report, then the detector waits: the device is in use.
    ASSERT_TRUE(run.waitForMessage("Critical condition is detected", 30s));
    std::this_thread::sleep_for(1500ms);
    EXPECT_TRUE(run.process().running());
    EXPECT_EQ(root.getProperty("sys.powerctl"), "");

    root.setProperty("sys.user_activity_detected", "false");
    const auto status = run.process().wait(30s);
    ASSERT_TRUE(status.has_value()) << "the daemon did not reboot once the device was idle";
    ASSERT_TRUE(WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 0);
    EXPECT_EQ(root.getProperty("sys.powerctl"), "reboot");

    const auto log = run.log();
    EXPECT_NE(indexOf(log, "failed to load memtrack module"), SIZE_MAX);
    const size_t leak = indexOf(log, "Memory is being leaked, need to take action");
    ASSERT_NE(leak, SIZE_MAX);
    EXPECT_EQ(log[leak].priority, 'E');
    EXPECT_EQ(indexMatching(log, "SystemMemorySampler heartbeat \\d+, lmk_current_kills 10"),
              leak + 1);
    const size_t header = indexOf(log, "------Tavrend Crash Report------", leak);
    ASSERT_NE(header, SIZE_MAX);
    ASSERT_LT(header + 2, log.size());
    EXPECT_EQ(log[header + 1].message.rfind("Date & Time: ", 0), 0u);

    // The monitors report in creation order: process memory, then system memory.
    std::vector<std::string> report;
    for (size_t i = header + 2; i < log.size() && log[i].priority == 'E'; ++i) {
        if (log[i].message == "Critical condition is detected") break;
        report.push_back(log[i].message);
    }
    ASSERT_EQ(report.size(), 8u + 21u) << "process report of 2 processes, system report";
    const std::vector<std::string> processReport = {
        "------Process info------",
        "Total Processes Sampled: 2",
        "PID: 100 Process Name: system_server",
        R"(RSS Total: \{4010(, 4010)*\}, RSS Total baseline: 4010)",
        R"(RSwap: \{10(, 10)*\}, RSwap baseline: 10)",
        "PID: 200 Process Name: surfaceflinger",
        R"(RSS Total: \{3000(, 3000)*\}, RSS Total baseline: 3000)",
        R"(RSwap: \{0(, 0)*\}, RSwap baseline: 0)",
    };
    for (size_t i = 0; i < processReport.size(); ++i) {
        EXPECT_TRUE(std::regex_match(report[i], std::regex(processReport[i]))) << report[i];
    }
    // Samples 0, 1, 2 below the target and at least the one that found it;
    // the lines themselves are the unit tests' business.
    std::smatch taken;
    ASSERT_TRUE(std::regex_match(report[12], taken,
                                 std::regex(R"(Other Free Samples Taken: (\d+) samples)")));
    const size_t samples = std::stoul(taken[1]);
    EXPECT_GE(samples, 4u);
    const uint64_t otherFree = 500000 - 200 * static_cast<uint64_t>(getpagesize()) / 1024;
    EXPECT_EQ(report[8],
              "Other Free historical values: " + repeated(std::to_string(otherFree), samples));
    EXPECT_EQ(report[16], "Minimum Bucket Threshold: 15 samples");
    EXPECT_EQ(report[28], "LMK Stats persistent 1 fg 2 visible 3 perceptible 4 backup 50 other 60");

    // Then the hand-over: the detector reboots the idle device and main exits.
    const size_t reboot = indexOf(log, "Rebooting device", header);
    ASSERT_NE(reboot, SIZE_MAX);
    EXPECT_EQ(log.back().message, "Exiting");
}

// A root without proc/ watches the machine itself: both samplers read the
// real /proc without errors (no /proc/lmk_stats on a host: no kills).
TEST(MemoryE2E, RealProcSamplesTheMachine) {
    DeviceRoot root(false);
    root.setDaemonConfig(kConfig);
    DaemonRun run(root);
    run.start();
    ASSERT_TRUE(run.waitForMessage("SystemMemorySampler heartbeat 1, lmk_current_kills 0", 20s));
    ASSERT_TRUE(run.waitForMessage("ProcessMemorySampler heartbeat 1", 10s));
    run.process().signal(SIGTERM);
    const auto status = run.process().wait(15s);
    ASSERT_TRUE(status.has_value());
    const auto log = run.log();
    EXPECT_EQ(indexOf(log, "Could not parse System Memory Information from /proc/meminfo"),
              SIZE_MAX);
    EXPECT_EQ(indexOf(log, "Could not open /proc"), SIZE_MAX);
    EXPECT_EQ(indexOf(log, "Invalid Critical Condition"), log.size() - 2);
}

// No host has /proc/lmk_stats, so a report of the machine's processes needs
// kills from the root: its proc/ links to the machine's own process folders
// and memory files, and adds the kill counts.
TEST(MemoryE2E, ReportOfRealProcessesCarriesTheirRss) {
    namespace fs = std::filesystem;
    DeviceRoot root;
    root.setDaemonConfig(kConfig);
    root.setProperty("sys.user_activity_detected", "true");
    const pid_t self = getpid();
    const pid_t parent = getppid();
    for (pid_t pid : {self, parent}) {
        fs::create_directory_symlink("/proc/" + std::to_string(pid),
                                     root.host("/proc/" + std::to_string(pid)));
    }
    fs::create_symlink("/proc/meminfo", root.host("/proc/meminfo"));
    fs::create_symlink("/proc/zoneinfo", root.host("/proc/zoneinfo"));
    root.setLmkStats("Persistent: 10\n");

    DaemonRun run(root);
    const uint64_t selfRssBefore = rssTotalKb(self);
    run.start();
    ASSERT_TRUE(run.waitForMessage("Critical condition is detected", 30s));
    const uint64_t selfRssAfter = rssTotalKb(self);
    root.setProperty("sys.user_activity_detected", "false");
    ASSERT_TRUE(run.process().wait(30s).has_value());
    EXPECT_EQ(root.getProperty("sys.powerctl"), "reboot");

    const auto log = run.log();
    const size_t info = indexOf(log, "------Process info------");
    ASSERT_NE(info, SIZE_MAX);
    const size_t selfLine =
        indexOf(log, "PID: " + std::to_string(self) + " Process Name: " + commOf(self), info);
    ASSERT_NE(selfLine, SIZE_MAX);
    EXPECT_NE(
        indexOf(log, "PID: " + std::to_string(parent) + " Process Name: " + commOf(parent), info),
        SIZE_MAX);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(log[selfLine + 1].message, m,
                                 std::regex(R"(RSS Total: \{(\d+)\}, RSS Total baseline: (\d+))")))
        << log[selfLine + 1].message;
    EXPECT_EQ(m[1].str(), m[2].str());
    // The daemon read the test's own status between the two readings here;
    // the test's memory moves a little meanwhile (more under sanitizers).
    const double sampled = std::stod(m[1]);
    const double low = static_cast<double>(std::min(selfRssBefore, selfRssAfter));
    const double high = static_cast<double>(std::max(selfRssBefore, selfRssAfter));
    EXPECT_GE(sampled, 0.9 * low - 1024) << "before " << selfRssBefore << " after " << selfRssAfter;
    EXPECT_LE(sampled, 1.1 * high + 1024)
        << "before " << selfRssBefore << " after " << selfRssAfter;
}

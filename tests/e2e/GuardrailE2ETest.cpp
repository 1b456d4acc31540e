// Guardrails end to end on real processes: the driver emulator on a root
// without proc/ reads and kills the machine's own processes. One helper over
// its hard limit dies at once; one over its soft limit is queued once,
// survives while the device is busy and dies at the first idle second; the
// kill counts reach the metrics buffer; SIGTERM then ends the daemon through
// the termination handler, after "Exiting".
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

#include "E2E.h"
#include "support/DravikMount.h"

using namespace std::chrono_literals;
using namespace tavrend::test;

namespace {

const char* kConfig = R"({
  "system_mem": {"memory_read_interval_sec": 1000, "critical_memory_measurement_time": 1000,
                 "lmk_counter_threshold": "Perceptible", "lmk_target_kills": 100,
                 "idle_detection_interval_sec": 1},
  "proc_scan": {"proc_scan_interval_sec": 1000, "num_historical_vals": 2},
  "process_guardrail": {"process_guardrail_monitoring_enabled": true,
                        "guardrail_check_interval_sec": 1, "pss_sleep_interval_sec": 0,
                        "process_kill_metrics_interval_sec": 2}
})";

// The daemon watches the whole machine: names unique to this test run keep
// it away from any other run's helpers.
const std::string kHard = "hard" + std::to_string(getpid());
const std::string kSoft = "soft" + std::to_string(getpid());

std::string guardrails() {
    return R"({"processes": [{"name": ")" + kHard +
           R"(", "soft_memory_limit": 10240, "hard_memory_limit": 40960},
                            {"name": ")" +
           kSoft + R"(", "soft_memory_limit": 10240, "hard_memory_limit": 409600}]})";
}

const char* kMetricConfig = R"({"OrreryConfig": {"Enabled": true, "GroupId": "g"},
  "MetricConfig": [{"MetricConfig": "MemoryGuardrail", "Active": true,
    "Orrery_Metric_Interface": {"Schema_Id": "s", "Active": true,
      "Metric_Key": {"Name": "process_name", "DimensionTag": "process"},
      "Metric_Value": {"Name": "kill_count", "DimensionTag": "kills"}}}]})";

uint64_t vmRssKb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    uint64_t value = 0;
    while (in >> key) {
        if (key == "VmRSS:" && in >> value) return value;
    }
    return 0;
}

size_t countPrefix(const std::vector<LogLine>& log, const std::string& prefix) {
    size_t n = 0;
    for (const auto& l : log) n += l.message.starts_with(prefix);
    return n;
}

bool killedBySigkill(Subprocess& p) {
    const auto status = p.wait(10s);
    return status && WIFSIGNALED(*status) && WTERMSIG(*status) == SIGKILL;
}

}  // namespace

TEST(GuardrailE2E, HardKillAtOnceSoftKillWhenIdleCountsPublished) {
    DeviceRoot root(false);
    root.setDaemonConfig(kConfig);
    root.setMetricConfig(kMetricConfig);
    root.writeFile("/system/etc/tavrend/tavrend_memory_guardrail.json", guardrails());
    root.setProperty("sys.user_activity_detected", "true");
    START_DRAVIK(dravik, root.path());

    Subprocess hard(binPath("guardrail_hog"), {kHard, "64"}, {});
    Subprocess soft(binPath("guardrail_hog"), {kSoft, "24"}, {});
    ASSERT_TRUE(
        waitUntil([&] { return vmRssKb(hard.pid()) > 60000 && vmRssKb(soft.pid()) > 22000; }, 10s));

    DaemonRun run(root);
    run.start();
    const std::string softPid = std::to_string(soft.pid());
    ASSERT_TRUE(run.waitForMessage("Memory usage for " + kHard + " (" + std::to_string(hard.pid()) +
                                       ") exceeds hard guardrails, killing it immediately",
                                   20s));
    EXPECT_TRUE(killedBySigkill(hard));
    ASSERT_TRUE(run.waitForMessage("Adding process " + softPid + " to killable list", 10s));
    // Several more passes while the device is busy: queued once, still alive.
    ASSERT_TRUE(waitUntil(
        [&] {
            return countPrefix(run.log(), "Memory usage for " + kSoft + " (" + softPid + ")") >= 3;
        },
        10s));
    EXPECT_TRUE(soft.running());
    EXPECT_EQ(countPrefix(run.log(), "Adding process " + softPid + " to killable list"), 1u);

    root.setProperty("sys.user_activity_detected", "false");
    ASSERT_TRUE(run.waitForMessage(
        "process=" + kSoft + " pid=" + softPid + " kill_count=1 killabe_process_count=0", 10s));
    EXPECT_TRUE(killedBySigkill(soft));

    // Each kill reaches the metrics buffer at a metrics tick, once.
    const std::string tail = ";IN,_softwareVersion=;SY";
    ASSERT_TRUE(waitUntil([&] { return run.log("metrics").size() >= 2; }, 10s));
    std::this_thread::sleep_for(2500ms);  // a later metrics tick adds nothing
    const auto records = run.log("metrics");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_TRUE(records[0].message.starts_with("g:s:100:process=" + kHard + ";SY,kills=1" + tail));
    EXPECT_TRUE(records[1].message.starts_with("g:s:100:process=" + kSoft + ";SY,kills=1" + tail));

    // SIGTERM with the guardrail enabled: the early idle thread is still
    // running when main ends, so the runtime's termination handler ends the
    // process after "Exiting", without any sanitizer report.
    run.process().signal(SIGTERM);
    const auto status = run.process().wait(15s);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGABRT) << *status;
    const auto log = run.log();
    const long received = findMessage(log, "Received signal 15");
    ASSERT_GE(received, 0);
    EXPECT_GT(findMessage(log, "Exiting", received),
              findMessage(log, "Invalid Critical Condition"));
    std::ifstream err(run.logDir() + "/stderr.txt");
    const std::string stderrText((std::istreambuf_iterator<char>(err)), {});
    EXPECT_EQ(stderrText.find("Sanitizer"), std::string::npos) << stderrText;
}

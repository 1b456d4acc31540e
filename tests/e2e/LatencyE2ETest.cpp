// Latency end to end: bad samples sent with tavrendctl reach the daemon's
// binder service, raise the condition, and lead to the crash report, the
// "uptime_till_bad_dupl" record and the reboot once the device is idle.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <string>

#include "E2E.h"

using namespace std::chrono_literals;
using namespace tavrend::test;

namespace {

const char* kConfig = R"({
  "system_mem": {"memory_read_interval_sec": 1000, "critical_memory_measurement_time": 1000,
                 "lmk_counter_threshold": "Perceptible", "lmk_target_kills": 100,
                 "critical_memory_minimum_uptime_sec": 1, "idle_detection_interval_sec": 1},
  "proc_scan": {"proc_scan_interval_sec": 1000, "num_historical_vals": 2},
  "device_upl": {"dupl_monitoring_enabled": true, "critical_upl_threshold_ms": 500,
                 "critical_upl_bad_sample_count_threshold": 2}
})";

const char* kMetricConfig = R"({"OrreryConfig": {"Enabled": true, "GroupId": "g"},
  "MetricConfig": [{"MetricConfig": "IdleDetector",
    "KAPH_Metric_Interface": {"Active": true},
    "Orrery_Metric_Interface": {"Schema_Id": "s", "Active": true,
      "Metrics": [{"Name": "duration_type", "Type": "str", "DimensionTag": "type"},
                  {"Name": "duration_value", "Type": "int", "DimensionTag": "value"}]}}]})";

// Runs tavrendctl on the root; its exit status.
int tavrendctl(const DeviceRoot& root, const std::vector<std::string>& args) {
    Subprocess ctl(binPath("tavrendctl"), args, {{"TAVREND_ROOT", root.path()}});
    const auto status = ctl.wait(10s);
    return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
}

}  // namespace

TEST(LatencyE2E, BadSamplesOverBinderLeadToReportAndReboot) {
    DeviceRoot root;  // no processes: the crash report stays short
    root.setMeminfo(meminfoText(500000));
    root.setLmkStats("Persistent: 0\n");
    root.setDaemonConfig(kConfig);
    root.setMetricConfig(kMetricConfig);
    root.setProperty("sys.user_activity_detected", "true");
    DaemonRun run(root);
    run.start();
    ASSERT_TRUE(run.waitForMessage("Starting native binder server", 10s));

    EXPECT_EQ(tavrendctl(root, {"upl", "900"}), 0);
    EXPECT_EQ(tavrendctl(root, {"upl", "120"}), 0);
    EXPECT_NE(tavrendctl(root, {"call", "tavrend.ipc.service", "2", "token", "x", "i64", "900"}),
              0);  // status -1: nothing recorded
    EXPECT_NE(tavrendctl(root, {"upl", "nine"}), 0);
    EXPECT_EQ(findMessage(run.log(),
                          "Critical UPL condition detected since bad sample count "
                          "threshold reached"),
              -1);
    EXPECT_EQ(tavrendctl(root, {"upl", "900"}), 0);
    ASSERT_TRUE(
        run.waitForMessage("UserPerceivedLatency.Audio.DeviceProcessing Values: {900, 900}", 10s));
    EXPECT_TRUE(
        run.waitForMessage("Total samples=3, bad samples=2, bad sample threshold=2, bad "
                           "upl threshold=500",
                           1s));

    root.setProperty("sys.user_activity_detected", "false");
    const auto status = run.process().wait(20s);
    ASSERT_TRUE(status.has_value()) << "no reboot once the device was idle";
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
    EXPECT_EQ(root.getProperty("sys.powerctl"), "reboot");
    const auto records = run.log("metrics");
    ASSERT_FALSE(records.empty());
    EXPECT_TRUE(records[0].message.starts_with("g:s:100:type=uptime_till_bad_dupl;SY,value="));
    EXPECT_NE(tavrendctl(root, {"upl", "900"}), 0);  // the service is gone with the daemon
}

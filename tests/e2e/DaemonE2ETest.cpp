// The built daemon on a temporary device root: start-up, SIGTERM, and the
// configuration failures that end it before anything else is created.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <filesystem>
#include <set>
#include <thread>

#include "E2E.h"

using namespace std::chrono_literals;
using namespace tavrend::test;

namespace {

const char* kHealthyConfig = R"({
  "system_mem": {"memory_read_interval_sec": 1, "critical_memory_measurement_time": 30,
                 "lmk_counter_threshold": "Perceptible", "lmk_target_kills": 100},
  "proc_scan": {"proc_scan_interval_sec": 1, "num_historical_vals": 10},
  "sample": false
})";

void makeHealthy(const DeviceRoot& root) {
    root.setDaemonConfig(kHealthyConfig);
    root.setMeminfo(meminfoText(500000));
    root.setZoneinfo("Node 0, zone   Normal\n  pages free 1000\n        low      100\n        high     200\n");
    root.setLmkStats("Persistent: 0\nFg: 0\nVisible: 0\nPerceptible: 1\nBackup: 5\nOther: 9\n");
    FakeProcess p;
    p.pid = 100;
    p.comm = "system_server";
    p.cmdline = std::string("system_server\0", 14);
    p.vmRssKb = 4000;
    p.vmSwapKb = 10;
    root.addProcess(p);
}

std::set<std::string> treeOf(const std::string& dir) {
    std::set<std::string> out;
    for (const auto& e : std::filesystem::recursive_directory_iterator(dir)) {
        out.insert(e.path().string());
    }
    return out;
}

}  // namespace

TEST(DaemonE2E, SigtermEndsTheLoopWithoutCondition) {
    DeviceRoot root;
    makeHealthy(root);
    DaemonRun run(root);
    run.start();
    ASSERT_TRUE(run.waitForMessage("Initializing samplers...", 10s));
    std::this_thread::sleep_for(2500ms);  // a few loop seconds
    ASSERT_TRUE(run.process().running());
    run.process().signal(SIGTERM);
    auto status = run.process().wait(15s);
    ASSERT_TRUE(status.has_value()) << "daemon did not exit after SIGTERM";
    ASSERT_TRUE(WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 0);

    auto log = run.log();
    ASSERT_GE(log.size(), 3u);
    EXPECT_EQ(log[0].message, "Starting Tavren Daemon");
    EXPECT_EQ(log[1].message, "Setting up Config Variables");
    EXPECT_EQ(log[2].message, "Parsing JSON config");
    long sig = findMessage(log, "Received signal 15");
    ASSERT_GE(sig, 0);
    long invalid = findMessage(log, "Invalid Critical Condition", static_cast<size_t>(sig));
    ASSERT_GT(invalid, sig);
    long exiting = findMessage(log, "Exiting", static_cast<size_t>(invalid));
    ASSERT_GT(exiting, invalid);
    EXPECT_EQ(log[static_cast<size_t>(sig)].priority, 'I');
    EXPECT_EQ(log[static_cast<size_t>(invalid)].priority, 'E');
    EXPECT_EQ(log[static_cast<size_t>(exiting)].priority, 'I');
    EXPECT_EQ(static_cast<size_t>(exiting), log.size() - 1);
    EXPECT_EQ(log[0].tag, "tavrend");
    EXPECT_EQ(findMessage(log, "------Tavrend Crash Report------"), -1);
    // Start-up order: configuration, metric configuration, guardrails, monitors.
    const long config = findMessage(log, "---------------------------------");
    const long guardrail = findMessage(log, "Memory guardrailing is disabled in config");
    const long process = findMessage(log, "Creating Process Memory sampler");
    const long system = findMessage(log, "Creating System Memory sampler");
    const long init = findMessage(log, "Initializing samplers...");
    EXPECT_TRUE(config > 0 && guardrail > config && process > guardrail && system > process &&
                init > system)
        << config << " " << guardrail << " " << process << " " << system << " " << init;
}

TEST(DaemonE2E, BadConfigurationEndsWithMinusOneAndCreatesNothing) {
    struct Case {
        const char* name;
        const char* json;  // nullptr: no file
        const char* error;
    } cases[] = {
        {"missing", nullptr,
         "root_json is null /system/etc/tavrend/tavrend_config.json, malformed json file?"},
        {"malformed", "{\"system_mem\": {", 
         "root_json is null /system/etc/tavrend/tavrend_config.json, malformed json file?"},
        {"no section", "{\"unknown\": true}",
         "Opening of /system/etc/tavrend/tavrend_config.json failed, could not parse json"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        DeviceRoot root;
        if (c.json) root.setDaemonConfig(c.json);
        auto before = treeOf(root.path());
        DaemonRun run(root);
        run.start();
        auto status = run.process().wait(10s);
        ASSERT_TRUE(status.has_value());
        ASSERT_TRUE(WIFEXITED(*status));
        EXPECT_EQ(WEXITSTATUS(*status), 255);
        EXPECT_EQ(messagesOf(run.log()),
                  (std::vector<std::string>{"Starting Tavren Daemon", "Setting up Config Variables",
                                            "Parsing JSON config", c.error,
                                            "Could not parse tavren_config.json file"}));
        EXPECT_EQ(treeOf(root.path()), before);
    }
}

TEST(DaemonE2E, MalformedMetricConfigIsOnlyAWarning) {
    DeviceRoot root;
    makeHealthy(root);
    root.setMetricConfig("{ \"OrreryConfig\": ");
    DaemonRun run(root);
    run.start();
    ASSERT_TRUE(run.waitForMessage("Initializing samplers...", 10s));
    auto log = run.log();
    long warn = findMessage(log, "WARN: Failed to load metric config file");
    ASSERT_GE(warn, 0);
    EXPECT_EQ(log[static_cast<size_t>(warn)].priority, 'W');
    EXPECT_GE(findMessage(log, "Could not parse config file"), 0);
    std::this_thread::sleep_for(1500ms);
    EXPECT_TRUE(run.process().running());
    run.process().signal(SIGTERM);
    auto status = run.process().wait(15s);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(WEXITSTATUS(*status), 0);
}

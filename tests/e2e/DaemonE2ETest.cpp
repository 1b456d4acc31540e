// The built daemon on a temporary device root: start-up and SIGTERM, and a bad
// configuration that ends it before anything else starts.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <thread>

#include "E2E.h"

using namespace std::chrono_literals;
using namespace tavrend::test;

// A malformed metric configuration is only a warning.
TEST(DaemonE2E, SigtermEndsTheLoopWithoutCondition) {
    DeviceRoot root;
    root.setDaemonConfig(R"({"system_mem": {"memory_read_interval_sec": 1,
        "lmk_counter_threshold": "Perceptible", "lmk_target_kills": 100},
      "proc_scan": {"proc_scan_interval_sec": 1, "num_historical_vals": 10}})");
    root.setMetricConfig("{ \"OrreryConfig\": ");
    root.setMeminfo(meminfoText(500000));
    DaemonRun run(root);
    run.start();
    ASSERT_TRUE(run.waitForMessage("Initializing samplers...", 10s));
    std::this_thread::sleep_for(2500ms);  // a few loop seconds
    ASSERT_TRUE(run.process().running());
    run.process().signal(SIGTERM);
    auto status = run.process().wait(15s);
    ASSERT_TRUE(status.has_value()) << "daemon did not exit after SIGTERM";
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);

    const auto log = run.log();
    const std::vector<std::string> inOrder = {"Starting Tavren Daemon",
                                              "Parsing JSON config",
                                              "---------------------------------",
                                              "WARN: Failed to load metric config file",
                                              "Memory guardrailing is disabled in config",
                                              "Creating Process Memory sampler",
                                              "Creating System Memory sampler",
                                              "Creating Device Upl Monitor Event handler",
                                              "Initializing samplers...",
                                              "Received signal 15",
                                              "Invalid Critical Condition",
                                              "Exiting"};
    long at = 0;
    for (const std::string& msg : inOrder) {
        at = findMessage(log, msg, at);
        ASSERT_GE(at, 0) << msg;
    }
    EXPECT_EQ(static_cast<size_t>(at), log.size() - 1);
    EXPECT_EQ(log[0].tag, "tavrend");
    EXPECT_EQ(log[findMessage(log, "WARN: Failed to load metric config file")].priority, 'W');
    EXPECT_EQ(findMessage(log, "------Tavrend Crash Report------"), -1);
}

TEST(DaemonE2E, BadConfigurationEndsWithMinusOneAndCreatesNothing) {
    DeviceRoot root;
    root.setDaemonConfig("{\"unknown\": true}");
    DaemonRun run(root);
    run.start();
    auto status = run.process().wait(10s);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 255);
    EXPECT_EQ(messagesOf(run.log()),
              (std::vector<std::string>{
                  "Starting Tavren Daemon", "Setting up Config Variables", "Parsing JSON config",
                  "Opening of /system/etc/tavrend/tavrend_config.json failed, could not parse json",
                  "Could not parse tavren_config.json file"}));
}

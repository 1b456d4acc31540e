// The built daemon on a temporary device root: start-up and SIGTERM, also under
// a flood with a slow exit, and a bad configuration that ends it at once.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <thread>

#include "E2E.h"

using namespace std::chrono_literals;
using namespace tavrend::test;

// A malformed metric configuration is only a warning; a disabled latency
// monitor's ring (20,000,000 samples, 160 MB) is released at start-up.
TEST(DaemonE2E, SigtermEndsTheLoopWithoutCondition) {
    DeviceRoot root;
    root.setDaemonConfig(R"({"system_mem": {"memory_read_interval_sec": 1,
        "lmk_counter_threshold": "Perceptible", "lmk_target_kills": 100},
      "proc_scan": {"proc_scan_interval_sec": 1, "num_historical_vals": 10},
      "device_upl": {"critical_upl_bad_sample_count_threshold": 20000000}})");
    root.setMetricConfig("{ \"OrreryConfig\": ");
    root.setMeminfo(meminfoText(500000));
    DaemonRun run(root);
    run.start({{"ASAN_OPTIONS", "quarantine_size_mb=16"}});  // ASan would keep it in quarantine
    ASSERT_TRUE(run.waitForMessage("ProcessMemorySampler heartbeat 0", 10s));  // the loop runs
    ASSERT_TRUE(run.process().running());
    const std::string proc = readText("/proc/" + std::to_string(run.process().pid()) + "/status");
    EXPECT_LT(std::stoul(proc.substr(proc.find("VmRSS:") + 6)), 64u * 1024) << proc;
    run.process().signal(SIGTERM);
    auto status = run.process().wait(15s);
    ASSERT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << status.value_or(-1);

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
    EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 255);
    EXPECT_EQ(messagesOf(run.log()),
              (std::vector<std::string>{
                  "Starting Tavren Daemon", "Setting up Config Variables", "Parsing JSON config",
                  "Opening of /system/etc/tavrend/tavrend_config.json failed, could not parse json",
                  "Could not parse tavren_config.json file"}));
}

// Six connections flood the service through SIGTERM, and the exit lingers after
// the statics' destructors: pool threads serve on and must find nothing destroyed.
TEST(DaemonE2E, SigtermUnderAOneWayFloodWithASlowExit) {
    DeviceRoot root;
    root.setDaemonConfig(R"({"system_mem": {"memory_read_interval_sec": 1000},
      "device_upl": {"dupl_monitoring_enabled": true, "critical_upl_threshold_ms": 500,
                     "critical_upl_bad_sample_count_threshold": 1000000}})");
    DaemonRun run(root);  // the helper goes ahead of the sanitizer's runtime, which allows it
    run.start({{"LD_PRELOAD", SLOW_EXIT_LIB}, {"ASAN_OPTIONS", "verify_asan_link_order=0"}});
    // The loop's first second: serving, and SIGTERM routed to its descriptor.
    ASSERT_TRUE(run.waitForMessage("ProcessMemorySampler heartbeat 0", 20s));
    std::atomic<bool> stop{false};
    std::atomic<int> sent{0};
    std::vector<std::thread> clients(6);
    for (auto& client : clients) {
        client = std::thread([&] {
            using namespace android;
            auto service = defaultServiceManager()->checkService(String16("tavrend.ipc.service"));
            for (status_t s = OK; service != nullptr && s == OK && !stop; ++sent) {
                Parcel data;
                data.writeInterfaceToken(String16("com.corvail.android.service.TavrenIPC"));
                data.writeInt64(sent % 2 ? 20 : 900);  // good and bad samples
                s = service->transact(2, data, nullptr, IBinder::FLAG_ONEWAY);
            }
        });
    }
    EXPECT_TRUE(waitUntil([&] { return sent >= 300; }, 20s));
    // SIGTERM is read from the loop's descriptor alone: no thread takes it.
    const auto threads = threadsBlocking(run.process().pid(), SIGTERM);
    EXPECT_GE(threads.size(), 5u);  // the main thread and the binder pool's
    for (const auto& [thread, blocks] : threads) EXPECT_TRUE(blocks) << thread;
    run.process().signal(SIGTERM);
    const auto ended = run.process().wait(20s);
    run.process().signal(SIGKILL);  // hung in its exit (a report may deadlock): free the clients
    stop = true;
    for (auto& client : clients) client.join();
    const std::string err = readText(run.logDir() + "/stderr.txt");
    EXPECT_NE(err.find("slow exit: lingering 300 ms"), std::string::npos);
    for (const char* report : {"ERROR: AddressSanitizer", "runtime error", "ThreadSanitizer"})
        EXPECT_EQ(err.find(report), std::string::npos) << err.substr(err.find(report), 4000);
    EXPECT_TRUE(ended && WIFEXITED(*ended) && WEXITSTATUS(*ended) == 0) << ended.value_or(-1);
}

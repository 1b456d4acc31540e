// The built daemon on a temporary device root: start-up and SIGTERM, also
// under a flood of samples with a slow exit, and a bad configuration that ends
// it before anything else starts.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "E2E.h"

using namespace std::chrono_literals;
using namespace tavrend::test;

// A malformed metric configuration is only a warning. The latency monitor is
// off, so its ring of 20,000,000 samples (160 MB) is released once its init
// fails.
TEST(DaemonE2E, SigtermEndsTheLoopWithoutCondition) {
    DeviceRoot root;
    root.setDaemonConfig(R"({"system_mem": {"memory_read_interval_sec": 1,
        "lmk_counter_threshold": "Perceptible", "lmk_target_kills": 100},
      "proc_scan": {"proc_scan_interval_sec": 1, "num_historical_vals": 10},
      "device_upl": {"critical_upl_bad_sample_count_threshold": 20000000}})");
    root.setMetricConfig("{ \"OrreryConfig\": ");
    root.setMeminfo(meminfoText(500000));
    DaemonRun run(root);
    // ASan's quarantine would keep the freed ring resident.
    const char* asan = getenv("ASAN_OPTIONS");
    run.start({{"ASAN_OPTIONS", std::string(asan ? asan : "") + ":quarantine_size_mb=16"}});
    ASSERT_TRUE(run.waitForMessage("Initializing samplers...", 10s));
    std::this_thread::sleep_for(2500ms);  // a few loop seconds
    ASSERT_TRUE(run.process().running());
    const std::string proc = readText("/proc/" + std::to_string(run.process().pid()) + "/status");
    const size_t rss = proc.find("VmRSS:");
    ASSERT_NE(rss, std::string::npos);
    EXPECT_LT(std::stoul(proc.substr(rss + 6)), 64u * 1024) << "kB resident";
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

// Six connections flood the service with one-way samples while SIGTERM
// arrives, and an exit handler registered before the daemon's statics lingers
// 300 ms after their destructors would have run: the pool threads serve on
// through the exit, so nothing they reach may be destroyed. The sanitizer
// builds report any use after free; the ending stays status 0.
TEST(DaemonE2E, SigtermUnderAOneWayFloodWithASlowExit) {
    DeviceRoot root;
    root.setDaemonConfig(R"({"system_mem": {"memory_read_interval_sec": 1000},
      "device_upl": {"dupl_monitoring_enabled": true, "critical_upl_threshold_ms": 500}})");
    // A sanitizer's runtime loaded as a library (GCC's) must be preloaded first.
    std::string preload = SLOW_EXIT_LIB;
    for (const char* init : {"__asan_init", "__tsan_init"}) {
        Dl_info rt;
        void* at = dlsym(RTLD_DEFAULT, init);
        if (at && dladdr(at, &rt) && strstr(rt.dli_fname, ".so"))
            preload.insert(0, rt.dli_fname + std::string(":"));
    }
    DaemonRun run(root);
    run.start({{"LD_PRELOAD", preload}});
    ASSERT_TRUE(run.waitForMessage("Starting native binder server", 20s));

    std::atomic<bool> stop{false};
    std::atomic<int> sent{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < 6; ++c) {
        clients.emplace_back([&] {
            using namespace android;
            auto service = defaultServiceManager()->checkService(String16("tavrend.ipc.service"));
            while (service != nullptr && !stop) {
                Parcel data;
                data.writeInterfaceToken(String16("com.corvail.android.service.TavrenIPC"));
                data.writeInt64(20);
                if (service->transact(2, data, nullptr, IBinder::FLAG_ONEWAY) != OK) break;
                ++sent;
            }
        });
    }
    EXPECT_TRUE(waitUntil([&] { return sent >= 300; }, 20s));
    run.process().signal(SIGTERM);
    const auto status = run.process().wait(30s);
    stop = true;
    for (auto& t : clients) t.join();
    ASSERT_TRUE(status.has_value());
    const std::string err = readText(run.logDir() + "/stderr.txt");
    EXPECT_NE(err.find("slow exit: lingering 300 ms"), std::string::npos);
    for (const char* report : {"ERROR: AddressSanitizer", "runtime error", "ThreadSanitizer"})
        EXPECT_EQ(err.find(report), std::string::npos) << err.substr(err.find(report));
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
}

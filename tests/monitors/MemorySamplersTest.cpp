// The system and process memory samplers on synthetic device roots.
#include <dirent.h>
#include <gtest/gtest.h>
#include <log/log.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "monitors/ProcessMemorySampler.h"
#include "monitors/SystemMemorySampler.h"
#include "support/DeviceRoot.h"
#include "support/FakeTime.h"
#include "support/LogCapture.h"

namespace tavrend {
namespace {

using test::DeviceRoot;
using test::LogCapture;
using test::meminfoText;

constexpr const char* kLmkFile =
    "Persistent: 1\nFg: 2\nVisible: 3\nPerceptible: 4\nBackup: 50\nOther: 60\n";

ConfigVariables baseConfig() {
    ConfigVariables c;
    c.critical_memory_measurement_time = 600;
    c.critical_memory_default_threshold_kb = 777;
    c.lmk_counter_threshold = "Perceptible";
    c.lmk_target_kills = 10;
    c.num_historical_vals = 3;
    return c;
}

uint64_t pageKb() { return static_cast<uint64_t>(getpagesize()) / 1024; }

TEST(SystemMemorySampler, KillsUpToTheThresholdClassDecide) {
    // Threshold class, lmk_stats (nullptr: no file), target, counted kills, critical.
    const std::tuple<const char*, const char*, int32_t, int32_t, bool> cases[] = {
        {"Perceptible", kLmkFile, 10, 10, true},  // 1 + 2 + 3 + 4
        {"Perceptible", kLmkFile, 11, 10, false},
        {"Nothing", kLmkFile, 121, 120, false},               // no such class: all six
        {"Fg", "Fg: 2\nPersistent: 1\nFg: 3\n", 6, 6, true},  // a repeated label adds up
        {"Other", nullptr, 1, 0, false},
        {"Other", "Persistent: 4294967295\nFg: 2147483648\n", 1, INT32_MAX, true},  // 32-bit wrap
    };
    for (const auto& [threshold, lmkStats, target, kills, critical] : cases) {
        SCOPED_TRACE(lmkStats ? lmkStats : "no file");
        DeviceRoot root;
        root.setMeminfo(meminfoText(100000));
        if (lmkStats) root.setLmkStats(lmkStats);
        ConfigVariables cfg = baseConfig();
        cfg.lmk_counter_threshold = threshold;
        cfg.lmk_target_kills = target;
        LogCapture log;
        SystemMemorySampler sampler(cfg);
        EXPECT_TRUE(sampler.fetch());
        EXPECT_EQ(sampler.getLmkCurrentKills(), kills);
        EXPECT_EQ(sampler.getCriticalCondition(),
                  critical ? CRITICAL_MEMORY : NO_CRITICAL_CONDITION);
        EXPECT_EQ(log.contains(LOG_ID_SYSTEM, "Memory is being leaked, need to take action"),
                  critical);
    }
}

// Other Free = MemFree - high watermarks; Other File = Buffers + Cached - Shmem
// (20480) - Unevictable (5120) on 32 bits. Both floor at 0. The report begins
// with the four histories.
TEST(SystemMemorySampler, OtherFreeAndOtherFileFloorAtZero) {
    const uint64_t highKb = 6435 * pageKb();
    struct Case {
        uint64_t memFree, buffers, cached, otherFree, otherFile;
    };
    for (const Case& c : {Case{100000, 100000, 800000, 100000 - highKb, 874400},
                          Case{highKb - 1, 1000, 24599, 0, 0},
                          Case{highKb, (1ull << 32) + 30000, 0, 0, 4400},  // the low 32 bits
                          Case{highKb, 0x7fffffff, 0x7fffffff, 0, 0}}) {   // past INT32_MAX
        SCOPED_TRACE(c.buffers);
        DeviceRoot root;
        root.setMeminfo(meminfoText(c.memFree, c.buffers, c.cached, 1234, 5678));
        root.writeFile("/proc/zoneinfo",
                       "Node 0, zone   Normal\n  low      4261\n  high     6435\n");
        const ConfigVariables config = baseConfig();
        SystemMemorySampler sampler(config);
        ASSERT_TRUE(sampler.fetch());
        LogCapture log;
        sampler.dumpReport();
        const auto out = log.messages(LOG_ID_SYSTEM);
        EXPECT_EQ(
            std::vector<std::string>(out.begin(), out.begin() + std::min<size_t>(4, out.size())),
            (std::vector<std::string>{
                "Other Free historical values: {" + std::to_string(c.otherFree) + "}",
                "Other File historical values: {" + std::to_string(c.otherFile) + "}",
                "mem_swap_free historical values: {1234}",
                "mem_s_unreclaim historical values: {5678}"}));
    }
}

// Threshold: minfree's "critical_memory_bucket" entry, else the default. Minimum:
// percent * (measurement / interval, at least 1 each) / 100 on 32 bits.
TEST(SystemMemorySampler, InitSetsThresholdAndMinimum) {
    const char* minfree = "1536,2048,4096,6144,7680,9216\n";
    // Bucket, minfree (nullptr: no file), interval, percent, threshold kB, minimum.
    const std::tuple<int32_t, const char*, int32_t, int32_t, uint64_t, int64_t> cases[] = {
        {BUCKET_PERCEPTIBLE, minfree, 10, 50, 4096 * pageKb(), 30},
        {BUCKET_CACHE_END, minfree, 0, 50, 9216 * pageKb(), 300},
        {6, minfree, 700, 100, 777, 1},
        {-1, minfree, 200, 1 << 30, 777, -10737418},
        {BUCKET_VISIBLE, "1536,2048,4096,6144,7680\n", 10, 50, 777, 30},
        {BUCKET_VISIBLE, nullptr, 10, 50, 777, 30}};
    for (const auto& [bucket, text, interval, percent, thresholdKb, minimum] : cases) {
        SCOPED_TRACE(bucket);
        DeviceRoot root;
        if (text) root.writeFile("/sys/module/lowmemorykiller/parameters/minfree", text);
        ConfigVariables cfg = baseConfig();
        cfg.critical_memory_bucket = bucket;
        cfg.memory_read_interval_sec = interval;
        cfg.critical_memory_threshold_percent = percent;
        SystemMemorySampler sampler(cfg);
        ASSERT_TRUE(sampler.init());
        EXPECT_EQ(sampler.getBucketThresholdKb(), thresholdKb);
        EXPECT_EQ(sampler.getMinimumBucketSamples(), minimum);
    }
}

TEST(SystemMemorySampler, UnreadableMeminfoFailsTheSampleButCountsTheHeartbeat) {
    DeviceRoot root;
    root.setLmkStats(kLmkFile);  // at the target, but not read while meminfo is missing
    ConfigVariables cfg = baseConfig();
    cfg.system_mem_heartbeat_samples = 10;
    LogCapture log;
    SystemMemorySampler sampler(cfg);
    EXPECT_FALSE(sampler.fetch());
    const std::string error = "Could not parse System Memory Information from /proc/meminfo";
    EXPECT_EQ(log.messages(LOG_ID_SYSTEM),
              (std::vector<std::string>{
                  error, "SystemMemorySampler failed, reason=runttimeFailed " + error,
                  "SystemMemorySampler heartbeat 0, lmk_current_kills 0"}));
    for (int i = 1; i <= 10; ++i) EXPECT_FALSE(sampler.fetch());
    EXPECT_EQ(sampler.getCriticalCondition(), NO_CRITICAL_CONDITION);

    root.setMeminfo(meminfoText(100000));  // the file is back: the decision is made
    for (int i = 11; i < 25; ++i) EXPECT_TRUE(sampler.fetch());
    EXPECT_EQ(sampler.getCriticalCondition(), CRITICAL_MEMORY);
    EXPECT_EQ(log.countPrefix(LOG_ID_SYSTEM, "SystemMemorySampler heartbeat "), 3u);
    EXPECT_TRUE(
        log.contains(LOG_ID_SYSTEM, "SystemMemorySampler heartbeat 20, lmk_current_kills 10"));
}

TEST(ProcessMemorySampler, SharedNamesKernelThreadsNoProcAndHeartbeat) {
    DeviceRoot root;
    // Binder-named main threads without a command line are all "unknown".
    for (int pid : {410, 420, 430}) {
        root.addProcess({.pid = pid, .comm = "Binder:" + std::to_string(pid) + "_1", .vmRssKb = 9});
    }
    root.addProcess({.pid = 2, .comm = "kthreadd", .kernelThread = true});
    root.addProcess({.pid = 3, .comm = "swapped", .vmSwapKb = 64});  // all swapped out still counts
    root.addProcess({.pid = 500, .comm = "alpha", .vmRssKb = 900});
    int lastUnknown = 0;  // the last one in readdir order keeps the name
    DIR* dir = opendir(root.host("/proc").c_str());
    while (const dirent* e = readdir(dir)) {
        if (e->d_name[0] == '4') lastUnknown = std::stoi(e->d_name);
    }
    closedir(dir);

    LogCapture log;
    ConfigVariables cfg = baseConfig();
    cfg.process_mem_heartbeat_samples = 10;
    ProcessMemorySampler sampler(cfg);
    EXPECT_TRUE(sampler.init());  // the memtrack service is looked up once per process: none here
    EXPECT_FALSE(sampler.isMemtrackAvailable());
    for (int i = 0; i < 10; ++i) sampler.fetch();
    EXPECT_EQ(sampler.getPidPairs().at("unknown"), lastUnknown);
    const auto& stats = sampler.getProcessStats();
    ASSERT_EQ(stats.size(), 3u);  // no entry for the kernel thread
    EXPECT_EQ(stats.at(3).rssTotalBaseline, 64u);
    // The others erase the winner's entry on every scan, so it never grows.
    EXPECT_EQ(stats.at(lastUnknown).rssTotalHistory->size(), 1u);
    EXPECT_EQ(stats.at(500).rssTotalHistory->size(), 3u);

    root.removePath("/proc");  // the root keeps its own proc/, now gone
    EXPECT_TRUE(sampler.fetch());
    EXPECT_EQ(stats.size(), 3u);
    // The eleventh scan logs heartbeat 10.
    EXPECT_EQ(log.messages(LOG_ID_SYSTEM),
              (std::vector<std::string>{"Initializing Process Memory Sampler",
                                        "failed to load memtrack module",
                                        "ProcessMemorySampler heartbeat 0", "Could not open /proc",
                                        "ProcessMemorySampler heartbeat 10"}));
}

// Baselines (VmRSS + VmSwap, VmSwap) and histories of ids that stay, exit, are
// reused by another program or whose program restarts under another id.
TEST(ProcessMemorySampler, ReportPausesOneSecondPerProcess) {
    DeviceRoot root;
    root.addProcess({.pid = 100, .comm = "alpha", .vmRssKb = 1000, .vmSwapKb = 200});
    root.addProcess({.pid = 101, .comm = "gone", .vmRssKb = 700});
    root.addProcess({.pid = 102, .comm = "app", .vmRssKb = 500});
    root.addProcess({.pid = 103, .comm = "early", .vmRssKb = 800});
    const ConfigVariables config = baseConfig();
    ProcessMemorySampler sampler(config);
    sampler.fetch();
    root.addProcess({.pid = 100, .comm = "alpha", .vmRssKb = 1050, .vmSwapKb = 250});
    sampler.fetch();
    root.removePath("/proc/101");
    root.removePath("/proc/102");
    root.addProcess({.pid = 230, .comm = "app", .vmRssKb = 3000});
    root.addProcess({.pid = 103, .comm = "late", .vmRssKb = 5000, .vmSwapKb = 10});
    sampler.fetch();

    test::FakeTime clock;
    LogCapture log;
    sampler.dumpReport();
    EXPECT_EQ(
        log.messages(LOG_ID_SYSTEM, "tavrend"),
        (std::vector<std::string>{
            "------Process info------", "Total Processes Sampled: 4",
            "PID: 100 Process Name: alpha",
            "RSS Total: {1200, 1300, 1300}, RSS Total baseline: 1200",
            "RSwap: {200, 250, 250}, RSwap baseline: 200", "PID: 101 Process Name: gone",
            "RSS Total: {700, 700}, RSS Total baseline: 700", "RSwap: {0, 0}, RSwap baseline: 0",
            "PID: 103 Process Name: late", "RSS Total: {5010}, RSS Total baseline: 5010",
            "RSwap: {10}, RSwap baseline: 10", "PID: 230 Process Name: app",
            "RSS Total: {3000}, RSS Total baseline: 3000", "RSwap: {0}, RSwap baseline: 0"}));
    for (const auto& r : log.records()) EXPECT_EQ(r.priority, ANDROID_LOG_ERROR) << r.message;
    // A one-second pause for each process.
    EXPECT_EQ(clock.sleepCalls(), 4u);
    EXPECT_EQ(clock.uptime(), 1004u);
}

}  // namespace
}  // namespace tavrend

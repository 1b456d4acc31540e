// The system and process memory samplers on synthetic device roots, each
// behaviour once, and their crash reports line by line.
#include <dirent.h>
#include <gtest/gtest.h>
#include <log/log.h>
#include <unistd.h>

#include <string>
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

void addProcess(const DeviceRoot& root, int pid, const std::string& comm, uint64_t rssKb,
                uint64_t swapKb = 0, bool kernelThread = false) {
    test::FakeProcess p;
    p.pid = pid;
    p.comm = comm;
    p.vmRssKb = rssKb;
    p.vmSwapKb = swapKb;
    p.kernelThread = kernelThread;
    root.addProcess(p);
}

TEST(SystemMemorySampler, KillsUpToTheThresholdClassDecide) {
    struct Case {
        const char* threshold;
        const char* lmkStats;  // nullptr: no file
        int32_t target, kills;
        bool critical;
    };
    const Case cases[] = {
        {"Perceptible", kLmkFile, 10, 10, true},  // 1 + 2 + 3 + 4
        {"Perceptible", kLmkFile, 11, 10, false},
        {"Nothing", kLmkFile, 121, 120, false},               // no such class: all six
        {"Fg", "Fg: 2\nPersistent: 1\nFg: 3\n", 6, 6, true},  // a repeated label adds up
        {"Other", "fg: 5\nFg 6\nFg:7\nPersistent:\n  Visible:   8 extra\nBackup: x9\n", 8, 8, true},
        {"Other", nullptr, 1, 0, false},
        {"Other", "Persistent: 4294967295\nFg: 2147483648\n", 1, INT32_MAX, true},  // 32-bit wrap
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.lmkStats ? c.lmkStats : "no file");
        DeviceRoot root;
        root.setMeminfo(meminfoText(100000));
        if (c.lmkStats) root.setLmkStats(c.lmkStats);
        ConfigVariables cfg = baseConfig();
        cfg.lmk_counter_threshold = c.threshold;
        cfg.lmk_target_kills = c.target;
        LogCapture log;
        SystemMemorySampler sampler(cfg);
        EXPECT_TRUE(sampler.fetch());
        EXPECT_EQ(sampler.getLmkCurrentKills(), c.kills);
        EXPECT_EQ(sampler.getCriticalCondition(),
                  c.critical ? CRITICAL_MEMORY : NO_CRITICAL_CONDITION);
        EXPECT_EQ(log.contains(LOG_ID_SYSTEM, "Memory is being leaked, need to take action"),
                  c.critical);
    }
}

// Other Free = MemFree - high watermarks; Other File = Buffers + Cached - Shmem
// (20480) - Unevictable (5120) on 32 bits. Both floor at 0.
TEST(SystemMemorySampler, OtherFreeAndOtherFileFloorAtZero) {
    const uint64_t highKb = 6435 * pageKb();
    struct Case {
        uint64_t memFree, buffers, cached, otherFree, otherFile;
    };
    for (const Case& c : {Case{100000, 100000, 800000, 100000 - highKb, 874400},
                          Case{highKb - 1, 1000, 24599, 0, 0},
                          Case{highKb, (1ull << 32) + 30000, 0, 0, 4400},  // the low 32 bits
                          Case{highKb, 0x7fffffff, 0x7fffffff, 0, 0}}) {   // past INT32_MAX
        SCOPED_TRACE(testing::Message() << c.memFree << " " << c.buffers << " " << c.cached);
        DeviceRoot root;
        root.setMeminfo(meminfoText(c.memFree, c.buffers, c.cached));
        root.setZoneinfo("Node 0, zone   Normal\n        low      4261\n        high     6435\n");
        const ConfigVariables config = baseConfig();
        SystemMemorySampler sampler(config);
        ASSERT_TRUE(sampler.fetch());
        LogCapture log;
        sampler.dumpReport();
        const auto out = log.messages(LOG_ID_SYSTEM);
        EXPECT_EQ(out.at(0), "Other Free historical values: {" + std::to_string(c.otherFree) + "}");
        EXPECT_EQ(out.at(1), "Other File historical values: {" + std::to_string(c.otherFile) + "}");
    }
}

// Threshold: minfree's "critical_memory_bucket" entry, else the default. Minimum:
// percent * (measurement / interval, at least 1 each) / 100 on 32 bits.
TEST(SystemMemorySampler, InitSetsThresholdAndMinimum) {
    const char* minfree = "1536,2048,4096,6144,7680,9216\n";
    struct Case {
        int32_t bucket;
        const char* minfree;  // nullptr: no file
        int32_t interval, percent;
        uint64_t thresholdKb;
        int64_t minimum;
    };
    for (const Case& c :
         {Case{BUCKET_PERCEPTIBLE, minfree, 10, 50, 4096 * pageKb(), 30},
          Case{BUCKET_CACHE_END, minfree, 0, 50, 9216 * pageKb(), 300},
          Case{6, minfree, 700, 100, 777, 1}, Case{-1, minfree, 200, 1 << 30, 777, -10737418},
          Case{BUCKET_VISIBLE, "1536,2048,4096,6144,7680\n", 10, 50, 777, 30},
          Case{BUCKET_VISIBLE, nullptr, 10, 50, 777, 30}}) {
        SCOPED_TRACE(testing::Message() << "bucket " << c.bucket << " interval " << c.interval);
        DeviceRoot root;
        if (c.minfree) root.setMinfree(c.minfree);
        ConfigVariables cfg = baseConfig();
        cfg.critical_memory_bucket = c.bucket;
        cfg.memory_read_interval_sec = c.interval;
        cfg.critical_memory_threshold_percent = c.percent;
        SystemMemorySampler sampler(cfg);
        ASSERT_TRUE(sampler.init());
        EXPECT_EQ(sampler.getBucketThresholdKb(), c.thresholdKb);
        EXPECT_EQ(sampler.getMinimumBucketSamples(), c.minimum);
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
    EXPECT_EQ(log.records().at(1).priority, ANDROID_LOG_ERROR);
    for (int i = 1; i <= 10; ++i) EXPECT_FALSE(sampler.fetch());
    EXPECT_EQ(sampler.getCriticalCondition(), NO_CRITICAL_CONDITION);

    root.setMeminfo(meminfoText(100000));  // the file is back: the decision is made
    for (int i = 11; i < 25; ++i) EXPECT_TRUE(sampler.fetch());
    EXPECT_EQ(sampler.getCriticalCondition(), CRITICAL_MEMORY);
    const std::string heartbeat = "SystemMemorySampler heartbeat ";
    EXPECT_EQ(log.countPrefix(LOG_ID_SYSTEM, heartbeat), 3u);
    EXPECT_TRUE(log.contains(LOG_ID_SYSTEM, heartbeat + "10, lmk_current_kills 0"));
    EXPECT_TRUE(log.contains(LOG_ID_SYSTEM, heartbeat + "20, lmk_current_kills 10"));
}

TEST(SystemMemorySampler, ReportLineByLine) {
    DeviceRoot root;
    root.setLmkStats(kLmkFile);
    ConfigVariables cfg = baseConfig();
    cfg.critical_memory_measurement_time = 61;
    cfg.memory_read_interval_sec = 1;
    cfg.critical_memory_threshold_percent = 10;
    cfg.lmk_target_kills = 1000;
    SystemMemorySampler sampler(cfg);
    sampler.init();
    // 63 samples into rings of 61: the first two drop out; 60 values a line.
    for (int i = 0; i < 63; ++i) {
        root.setMeminfo(meminfoText(50000 + i, 100000, 800000, 1000 + i, 2000));
        ASSERT_TRUE(sampler.fetch());
    }
    LogCapture log;
    sampler.dumpReport();
    std::string report;
    for (const std::string& m : log.messages(LOG_ID_SYSTEM, "tavrend")) report += m + "\n";
    // The two lines of a ring holding base + step * i for samples i = 2..62.
    auto ring = [](const std::string& label, int base, int step) {
        std::string text = label + " historical values: {";
        for (int i = 2; i < 62; ++i) text += std::to_string(base + step * i) + ", ";
        return text + "\n" + label + " historical values: " + std::to_string(base + step * 62) +
               "}\n";
    };
    EXPECT_EQ(
        report,
        ring("Other Free", 50000, 1) + ring("Other File", 874400, 0) +
            ring("mem_swap_free", 1000, 1) + ring("mem_s_unreclaim", 2000, 0) +
            "Other Free Samples Taken: 61 samples\nOther File Samples Taken: 61 samples\n"
            "Mem Swap Free Samples Taken: 61 samples\nMem SUnreclaim Samples Taken: 61 samples\n"
            "Minimum Bucket Threshold: 6 samples\nmem_free: 50062 kB\nmem_shmem: 20480 kB\n"
            "mem_unevictable: 5120 kB\nmem_swapcached: 12288 kB\nmem_cached: 800000 kB\n"
            "mem_buffers: 100000 kB\nmem_available: 1825384 kB\nmem_s_unreclaim: 2000 kB\n"
            "mem_swap_uncompressed: 1047510 kB\nTotal Low WM: 0 kB\nTotal High WM: 0 kB\n"
            "LMK Stats persistent 1 fg 2 visible 3 perceptible 4 backup 50 other 60\n");
    for (const auto& r : log.records()) EXPECT_EQ(r.priority, ANDROID_LOG_ERROR) << r.message;
}

TEST(ProcessMemorySampler, SharedNamesKernelThreadsNoProcAndHeartbeat) {
    DeviceRoot root;
    // Binder-named main threads without a command line are all "unknown".
    for (int pid : {410, 420, 430}) {
        addProcess(root, pid, "Binder:" + std::to_string(pid) + "_1", 1000u + pid);
    }
    addProcess(root, 2, "kthreadd", 0, 0, true);
    addProcess(root, 3, "swapped", 0, 64);  // all swapped out still counts
    addProcess(root, 500, "alpha", 900);
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
              (std::vector<std::string>{"ProcessMemorySampler heartbeat 0", "Could not open /proc",
                                        "ProcessMemorySampler heartbeat 10"}));
}

TEST(MemorySamplers, CheckSamplesOnTheirOwnPeriod) {
    DeviceRoot root;
    root.setMeminfo(meminfoText(100000));
    ConfigVariables cfg = baseConfig();
    cfg.proc_scan_interval_sec = 5;
    cfg.memory_read_interval_sec = 7;
    ProcessMemorySampler proc(cfg);
    SystemMemorySampler sys(cfg);
    EXPECT_TRUE(proc.check(7, false, false));  // not due: true without sampling
    EXPECT_TRUE(sys.check(7, false, false));
    EXPECT_EQ(proc.getSampleCount(), 0u);
    EXPECT_EQ(sys.getSampleCount(), 1u);
}

// Baselines (VmRSS + VmSwap, VmSwap) and histories of ids that stay, exit, are
// reused by another program or whose program restarts under another id.
TEST(ProcessMemorySampler, ReportPausesOneSecondPerProcess) {
    DeviceRoot root;
    addProcess(root, 100, "alpha", 1000, 200);
    addProcess(root, 101, "gone", 700);
    addProcess(root, 102, "app", 500);
    addProcess(root, 103, "early", 800);
    const ConfigVariables config = baseConfig();
    ProcessMemorySampler sampler(config);
    sampler.fetch();
    addProcess(root, 100, "alpha", 1050, 250);
    sampler.fetch();
    root.removeProcess(101);
    root.removeProcess(102);
    addProcess(root, 230, "app", 3000);
    addProcess(root, 103, "late", 5000, 10);
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
    EXPECT_EQ(clock.sleptSeconds(), 4u);
}

}  // namespace
}  // namespace tavrend

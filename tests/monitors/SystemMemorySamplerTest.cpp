// The system memory sampler against synthetic device roots: the kill
// accounting and its decision, the derived samples, the minfree threshold,
// the failure path of fetch and the crash report line by line.
#include <gtest/gtest.h>
#include <log/log.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "MonitorsTestUtil.h"
#include "monitors/SystemMemorySampler.h"
#include "support/DeviceRoot.h"
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
    c.memory_read_interval_sec = 10;
    c.critical_memory_measurement_time = 600;
    c.critical_memory_threshold_percent = 50;
    c.critical_memory_bucket = BUCKET_PERCEPTIBLE;
    c.critical_memory_default_threshold_kb = 777;
    c.lmk_counter_threshold = "Perceptible";
    c.lmk_target_kills = 10;
    return c;
}

uint64_t pageKb() { return static_cast<uint64_t>(getpagesize()) / 1024; }

TEST(SystemMemorySampler, LmkAccountingAndDecision) {
    struct Case {
        const char* name;
        const char* threshold;
        std::string lmkStats;  // "-": no file
        int32_t target, expectedKills;
    };
    const Case cases[] = {
        {"sums up to the threshold class", "Perceptible", kLmkFile, 10, 10},
        {"one short of the target", "Perceptible", kLmkFile, 11, 10},
        {"a name matching no class sums all", "Nothing", kLmkFile, 121, 120},
        {"repeated labels accumulate", "Fg", "Fg: 2\nPersistent: 1\nFg: 3\n", 6, 6},
        {"near misses are ignored", "Other",
         "fg: 5\nFg 6\nFg:7\nPersistent:\n  Visible:   8 extra\nBackup: x9\n", 8, 8},
        {"no file counts nothing", "Other", "-", 1, 0},
        {"the 32-bit sum wraps", "Other", "Persistent: 4294967295\nFg: 2147483648\n", 1, INT32_MAX},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        DeviceRoot root;
        root.setMeminfo(meminfoText(100000));
        if (c.lmkStats != "-") root.setLmkStats(c.lmkStats);
        ConfigVariables cfg = baseConfig();
        cfg.lmk_counter_threshold = c.threshold;
        cfg.lmk_target_kills = c.target;
        LogCapture log;
        SystemMemorySampler sampler(cfg);
        EXPECT_TRUE(sampler.fetch());
        EXPECT_EQ(sampler.getLmkCurrentKills(), c.expectedKills);
        const bool critical = c.expectedKills >= c.target;
        EXPECT_EQ(sampler.getCriticalCondition(),
                  critical ? CRITICAL_MEMORY : NO_CRITICAL_CONDITION);
        EXPECT_EQ(log.contains(LOG_ID_SYSTEM, "Memory is being leaked, need to take action"),
                  critical);
    }
}

TEST(SystemMemorySampler, DerivedSamples) {
    const std::string zoneinfo =  // high watermarks of 5435 + 1000 pages
        "Node 0, zone   Normal\n        low      4261\n        high     5435\n"
        "    pagesets\n              high:  378\n"
        "Node 0, zone  Movable\n        low      800\n        high     1000\n";
    const uint64_t highKb = 6435 * pageKb();
    struct Case {
        const char* name;
        uint64_t memFree, buffers, cached;
        bool withZoneinfo;
        uint64_t otherFree, otherFile;
    };
    // meminfoText has Shmem 20480 and Unevictable 5120.
    const Case cases[] = {
        {"plain", 100000, 100000, 800000, true, 100000 - highKb, 874400},
        {"below the watermarks; files below shmem", highKb - 1, 1000, 24599, true, 0, 0},
        {"no zoneinfo: MemFree itself", 5000, 1000, 24601, false, 5000, 1},
        {"Other File on the low 32 bits", 5000, (1ull << 32) + 30000, 0, false, 5000, 4400},
        {"Other File past INT32_MAX is negative", 5000, 0x7fffffff, 0x7fffffff, false, 5000, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        DeviceRoot root;
        root.setMeminfo(meminfoText(c.memFree, c.buffers, c.cached));
        if (c.withZoneinfo) root.setZoneinfo(zoneinfo);
        LogCapture log;
        const ConfigVariables config = baseConfig();
        SystemMemorySampler sampler(config);
        ASSERT_TRUE(sampler.fetch());
        EXPECT_EQ(log.contains(LOG_ID_SYSTEM, "Could not read /proc/zoneinfo"), !c.withZoneinfo);
        log.clear();
        sampler.dumpReport();
        const auto lines = log.messages(LOG_ID_SYSTEM);
        EXPECT_EQ(lines.at(0),
                  "Other Free historical values: {" + std::to_string(c.otherFree) + "}");
        EXPECT_EQ(lines.at(1),
                  "Other File historical values: {" + std::to_string(c.otherFile) + "}");
    }
}

TEST(SystemMemorySampler, BucketThresholdAndHistorySize) {
    const std::string minfree = "1536,2048,4096,6144,7680,9216\n";
    struct Case {
        const char* name;
        int32_t bucket;
        std::string minfree;  // "-": no file
        uint64_t expected;
    };
    const Case cases[] = {
        {"perceptible", BUCKET_PERCEPTIBLE, minfree, 4096 * pageKb()},
        {"cache end", BUCKET_CACHE_END, minfree, 9216 * pageKb()},
        {"bucket 6 has no entry", 6, minfree, 777},
        {"negative bucket", -1, minfree, 777},
        {"five values", BUCKET_VISIBLE, "1536,2048,4096,6144,7680\n", 777},
        {"no file", BUCKET_VISIBLE, "-", 777},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        DeviceRoot root;
        if (c.minfree != "-") root.setMinfree(c.minfree);
        ConfigVariables cfg = baseConfig();
        cfg.critical_memory_bucket = c.bucket;
        LogCapture log;
        SystemMemorySampler sampler(cfg);
        ASSERT_TRUE(sampler.init());
        EXPECT_EQ(sampler.getBucketThresholdKb(), c.expected);
        EXPECT_TRUE(log.contains(LOG_ID_SYSTEM,
                                 "Memory threshold is set at " + std::to_string(c.expected)));
    }

    // Ring capacity measurement / interval (at least 1), and the report's
    // minimum, percent * capacity / 100 on a wrapping 32-bit product.
    struct Size {
        int32_t measurement, interval, percent;
        int capacity;
        int64_t minimum;
    };
    for (const Size& s : {Size{600, 10, 50, 60, 30}, Size{600, 0, 50, 600, 300},
                          Size{5, 10, 50, 1, 0}, Size{30, 10, 1 << 30, 3, -10737418}}) {
        SCOPED_TRACE(testing::Message() << s.measurement << "/" << s.interval);
        DeviceRoot root;
        root.setMeminfo(meminfoText(100000));
        ConfigVariables cfg = baseConfig();
        cfg.critical_memory_measurement_time = s.measurement;
        cfg.memory_read_interval_sec = s.interval;
        cfg.critical_memory_threshold_percent = s.percent;
        SystemMemorySampler sampler(cfg);
        sampler.init();
        EXPECT_EQ(sampler.getMinimumBucketSamples(), s.minimum);
        for (int i = 0; i < s.capacity + 2; ++i) sampler.fetch();
        LogCapture log;
        sampler.dumpReport();
        EXPECT_TRUE(log.contains(
            LOG_ID_SYSTEM, "Other Free Samples Taken: " + std::to_string(s.capacity) + " samples"));
    }
}

TEST(SystemMemorySampler, UnreadableMeminfoFailsTheStepButCountsTheHeartbeat) {
    DeviceRoot root;
    root.setLmkStats(kLmkFile);  // over the target, but never reached
    ConfigVariables cfg = baseConfig();
    cfg.system_mem_heartbeat_samples = 2;
    LogCapture log;
    SystemMemorySampler sampler(cfg);
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(sampler.fetch());
    const std::string error = "Could not parse System Memory Information from /proc/meminfo";
    const std::string failed = "SystemMemorySampler failed, reason=runttimeFailed " + error;
    EXPECT_EQ(log.messages(LOG_ID_SYSTEM),
              (std::vector<std::string>{
                  error, failed, "SystemMemorySampler heartbeat 0, lmk_current_kills 0", error,
                  failed, error, failed, "SystemMemorySampler heartbeat 2, lmk_current_kills 0"}));
    EXPECT_EQ(sampler.getCriticalCondition(), NO_CRITICAL_CONDITION);
    EXPECT_TRUE(checkPriorities(log, {{"Could not", ANDROID_LOG_ERROR},
                                      {"SystemMemorySampler failed", ANDROID_LOG_ERROR},
                                      {"SystemMemorySampler heartbeat", ANDROID_LOG_INFO}}));

    root.setMeminfo(meminfoText(100000));  // the file is back: the decision is made
    EXPECT_TRUE(sampler.fetch());
    EXPECT_EQ(sampler.getCriticalCondition(), CRITICAL_MEMORY);

    // Every tenth sample from the first.
    cfg.system_mem_heartbeat_samples = 10;
    SystemMemorySampler counted(cfg);
    log.clear();
    for (int i = 0; i < 25; ++i) counted.fetch();
    EXPECT_EQ(heartbeats(log, "SystemMemorySampler heartbeat"),
              (std::vector<std::string>{"SystemMemorySampler heartbeat 0, lmk_current_kills 10",
                                        "SystemMemorySampler heartbeat 10, lmk_current_kills 10",
                                        "SystemMemorySampler heartbeat 20, lmk_current_kills 10"}));
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
    std::string freeChunk = "{", swapChunk = "{", fileChunk = "{", unreclaimChunk = "{";
    for (int i = 0; i < 63; ++i) {
        root.setMeminfo(meminfoText(50000 + i, 100000, 800000, 1000 + i, 2000));
        ASSERT_TRUE(sampler.fetch());
        if (i < 2 || i == 62) continue;
        freeChunk += std::to_string(50000 + i) + ", ";
        swapChunk += std::to_string(1000 + i) + ", ";
        fileChunk += "874400, ";
        unreclaimChunk += "2000, ";
    }
    LogCapture log;
    sampler.dumpReport();
    const std::vector<std::string> expected = {
        "Other Free historical values: " + freeChunk,
        "Other Free historical values: 50062}",
        "Other File historical values: " + fileChunk,
        "Other File historical values: 874400}",
        "mem_swap_free historical values: " + swapChunk,
        "mem_swap_free historical values: 1062}",
        "mem_s_unreclaim historical values: " + unreclaimChunk,
        "mem_s_unreclaim historical values: 2000}",
        "Other Free Samples Taken: 61 samples",
        "Other File Samples Taken: 61 samples",
        "Mem Swap Free Samples Taken: 61 samples",
        "Mem SUnreclaim Samples Taken: 61 samples",
        "Minimum Bucket Threshold: 6 samples",
        "mem_free: 50062 kB",
        "mem_shmem: 20480 kB",
        "mem_unevictable: 5120 kB",
        "mem_swapcached: 12288 kB",
        "mem_cached: 800000 kB",
        "mem_buffers: 100000 kB",
        "mem_available: 1825384 kB",
        "mem_s_unreclaim: 2000 kB",
        "mem_swap_uncompressed: 1047510 kB",
        "Total Low WM: 0 kB",
        "Total High WM: 0 kB",
        "LMK Stats persistent 1 fg 2 visible 3 perceptible 4 backup 50 other 60",
    };
    EXPECT_EQ(log.messages(LOG_ID_SYSTEM, "tavrend"), expected);
    for (const auto& r : log.records()) EXPECT_EQ(r.priority, ANDROID_LOG_ERROR) << r.message;
}

}  // namespace
}  // namespace tavrend

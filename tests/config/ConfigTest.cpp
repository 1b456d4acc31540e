// Loading of the daemon configuration: values, bounds, the two keys that
// write a second field, the override file, and the failure messages.
#include <gtest/gtest.h>
#include <log/log.h>

#include <string>
#include <vector>

#include "config/ConfigLoader.h"
#include "config/cjson_ext.h"
#include "support/DeviceRoot.h"
#include "support/LogCapture.h"

using namespace tavrend;
using tavrend::test::DeviceRoot;
using tavrend::test::LogCapture;

namespace {

const char* kDefaultPath = "/system/etc/tavrend/tavrend_config.json";

struct Loaded {
    int result;
    ConfigVariables config;
};

Loaded load(const DeviceRoot& root, const std::string& json) {
    root.setDaemonConfig(json);
    Loaded l;
    l.result = tavren_config_load(l.config);
    return l;
}

}  // namespace

TEST(ConfigLoad, FullFileFillsEveryFieldAndPrintsItInOrder) {
    DeviceRoot root;
    root.setDaemonConfig(R"({
      "system_mem": {"memory_read_interval_sec": 5, "critical_memory_threshold_percent": 30,
        "critical_memory_bucket": "backup", "critical_memory_measurement_time": 600,
        "critical_memory_default_threshold_kb": 150000, "critical_memory_over_threshold_percent": 80,
        "critical_memory_action": 2, "critical_memory_minimum_uptime_sec": 3600,
        "critical_memory_minimum_idle_time_sec": 300, "critical_memory_idle_override_time_sec": 7200,
        "lmk_counter_threshold": "Perceptible", "lmk_target_kills": 40,
        "system_mem_heartbeat_samples": 60, "idle_detection_interval_sec": 30,
        "critical_memory_swap_free_threshold_kb": 1000, "critical_memory_s_unreclaim_threshold_kb": 2000},
      "proc_scan": {"proc_scan_interval_sec": 10, "rss_read_interval_sec": 11, "pss_read_interval_sec": 12,
        "num_pss_processes": 13, "num_historical_vals": 14, "pss_logging": 1,
        "process_mem_heartbeat_samples": 15},
      "sample": true,
      "device_upl": {"dupl_monitoring_enabled": true, "critical_upl_threshold_ms": 500,
        "critical_upl_bad_sample_count_threshold": 20},
      "process_guardrail": {"process_guardrail_monitoring_enabled": true,
        "guardrail_check_interval_sec": 120, "pss_sleep_interval_sec": 2,
        "process_kill_metrics_interval_sec": 3600}
    })");
    LogCapture capture;
    ConfigVariables c;
    ASSERT_TRUE(parseJSONConfig(c));
    // The default threshold and the latency settings are not printed.
    EXPECT_EQ(c.critical_memory_default_threshold_kb, 150000);
    EXPECT_TRUE(c.dupl_monitoring_enabled);
    EXPECT_EQ(c.critical_upl_threshold_ms, 500);
    EXPECT_EQ(c.critical_upl_bad_sample_count_threshold, 20);
    std::vector<std::string> expected = {
        "Parsing JSON config",
        "Configuration:",
        "memory_read_interval_sec: 5",
        "critical_memory_threshold_percent: 30",
        "critical_memory_bucket: 3",
        "critical_memory_measurement_time: 600",
        "critical_memory_over_threshold_percent: 80",
        "critical_memory_action: 2",  // its own key, read after the default threshold
        "critical_memory_minimum_uptime_sec: 3600",
        "critical_memory_minimum_idle_time_sec: 300",
        "critical_memory_idle_override_time_sec: 7200",
        "system_mem_heartbeat_samples: 60",
        "idle_detection_interval_sec: 30",
        "critical_memory_swap_free_threshold_kb: 1000",
        "critical_memory_s_unreclaim_threshold_kb: 2000",
        "proc_scan_interval_sec: 10",
        "rss_read_interval_sec: 11",
        "pss_read_interval_sec: 12",
        "num_pss_processes: 13",
        "pss_logging: 1",
        "num_historical_vals: 14",
        "lmk_counter_threshold: Perceptible",
        "lmk_target_kills: 40",
        "process_mem_heartbeat_samples: 15",
        "process_guardrail_monitoring_enabled: true",
        "guardrail_check_interval_sec: 120",
        "pss_sleep_interval_sec: 2",
        "process_kill_metrics_interval_sec: 3600",
        "sample: true",
        "---------------------------------",
    };
    EXPECT_EQ(capture.messages(LOG_ID_SYSTEM, "tavrend"), expected);
}

TEST(ConfigLoad, PartialFilesKeepDefaultsAndApplyBoundsAndDoubleWrites) {
    DeviceRoot root;
    {
        // Only "sample": false succeeds, everything else at its default.
        auto l = load(root, R"({"sample": false})");
        ASSERT_EQ(l.result, 0);
        ConfigVariables defaults;
        EXPECT_EQ(l.config.memory_read_interval_sec, 0);
        EXPECT_EQ(l.config.system_mem_heartbeat_samples, defaults.system_mem_heartbeat_samples);
        EXPECT_EQ(l.config.idle_detection_interval_sec, 1);
        EXPECT_EQ(l.config.process_mem_heartbeat_samples, 1);
        EXPECT_FALSE(l.config.sample);
        EXPECT_EQ(l.config.lmk_counter_threshold, "");
    }
    {
        // Bounded keys store 1 for anything below 2; unbounded keys store as read.
        auto l = load(root, R"({"system_mem": {"memory_read_interval_sec": 0,
            "critical_memory_measurement_time": -5, "lmk_target_kills": 1,
            "system_mem_heartbeat_samples": 0, "idle_detection_interval_sec": -1,
            "critical_memory_threshold_percent": -7},
            "proc_scan": {"proc_scan_interval_sec": 0, "num_historical_vals": -3}})");
        ASSERT_EQ(l.result, 0);
        EXPECT_EQ(l.config.memory_read_interval_sec, 1);
        EXPECT_EQ(l.config.critical_memory_measurement_time, 1);
        EXPECT_EQ(l.config.lmk_target_kills, 1);
        EXPECT_EQ(l.config.system_mem_heartbeat_samples, 1);
        EXPECT_EQ(l.config.idle_detection_interval_sec, 1);
        EXPECT_EQ(l.config.critical_memory_threshold_percent, -7);
        EXPECT_EQ(l.config.proc_scan_interval_sec, 1);
        EXPECT_EQ(l.config.num_historical_vals, -3);
    }
    {
        auto l = load(root, R"({"system_mem": {"critical_memory_default_threshold_kb": 500}})");
        EXPECT_EQ(l.config.critical_memory_action, 500);
    }
    {
        auto l = load(root, R"({"process_guardrail": {"process_guardrail_monitoring_enabled": true}})");
        EXPECT_TRUE(l.config.process_guardrail_monitoring_enabled);
        EXPECT_EQ(l.config.guardrail_check_interval_sec, 1);
    }
    {
        auto l = load(root, R"({"process_guardrail": {"process_guardrail_monitoring_enabled": false}})");
        EXPECT_FALSE(l.config.process_guardrail_monitoring_enabled);
        EXPECT_EQ(l.config.guardrail_check_interval_sec, 0);
    }
}

TEST(ConfigLoad, BucketNamesAndWrongTypes) {
    DeviceRoot root;
    const char* names[] = {"foreground", "visible", "perceptible", "backup", "cache_start",
                           "cache_end"};
    for (int code = 0; code < 6; ++code) {
        auto l = load(root, std::string(R"({"system_mem": {"critical_memory_bucket": ")") +
                                names[code] + "\"}}");
        EXPECT_EQ(l.config.critical_memory_bucket, code) << names[code];
    }
    ConfigVariables c;
    c.critical_memory_bucket = 3;
    root.setDaemonConfig(R"({"system_mem": {"critical_memory_bucket": "Visible"}})");
    ASSERT_EQ(tavren_config_load(c), 0);
    EXPECT_EQ(c.critical_memory_bucket, 3);  // unknown string: unchanged

    // Items are not type-checked: a string where a number goes reads as 0 (then
    // bounded), a number where a string goes leaves the field alone, and a
    // non-boolean where a boolean goes reads as false.
    auto l = load(root, R"({"system_mem": {"memory_read_interval_sec": "7",
        "lmk_counter_threshold": 5, "critical_memory_bucket": 2, "lmk_target_kills": null},
        "device_upl": {"dupl_monitoring_enabled": "true"}, "sample": 1})");
    ASSERT_EQ(l.result, 0);
    EXPECT_EQ(l.config.memory_read_interval_sec, 1);
    EXPECT_EQ(l.config.lmk_counter_threshold, "");
    EXPECT_EQ(l.config.critical_memory_bucket, 0);
    EXPECT_EQ(l.config.lmk_target_kills, 1);
    EXPECT_FALSE(l.config.dupl_monitoring_enabled);
    EXPECT_FALSE(l.config.sample);
}

TEST(ConfigLoad, FailuresAndTheirMessages) {
    DeviceRoot root;
    struct Case {
        const char* name;
        const char* json;  // nullptr: no file
        int result;
        const char* firstError;
    } cases[] = {
        {"missing file", nullptr, -1, "root_json is null %s, malformed json file?"},
        {"not json", "{\"system_mem\": ", -1, "root_json is null %s, malformed json file?"},
        {"trailing junk", "{\"sample\": true} x", -1, "root_json is null %s, malformed json file?"},
        {"empty file", "", -1, "root_json is null %s, malformed json file?"},
        {"empty object", "{}", -22, "Opening of %s failed, could not parse json"},
        {"unknown members only", "{\"other\": 1}", -22, "Opening of %s failed, could not parse json"},
        {"array root", "[1, 2]", -22, "Opening of %s failed, could not parse json"},
    };
    for (const auto& c : cases) {
        root.removePath(kDefaultPath);
        if (c.json) root.setDaemonConfig(c.json);
        LogCapture capture;
        ConfigVariables config;
        EXPECT_FALSE(parseJSONConfig(config)) << c.name;
        std::string expected = c.firstError;
        expected.replace(expected.find("%s"), 2, kDefaultPath);
        auto msgs = capture.messages(LOG_ID_SYSTEM, "tavrend");
        ASSERT_EQ(msgs.size(), 3u) << c.name;
        EXPECT_EQ(msgs[0], "Parsing JSON config");
        EXPECT_EQ(msgs[1], expected) << c.name;
        EXPECT_EQ(msgs[2], "Could not parse tavren_config.json file");
        for (const auto& r : capture.records()) {
            if (r.message != "Parsing JSON config") {
                EXPECT_EQ(r.priority, ANDROID_LOG_ERROR);
            }
        }
        ConfigVariables again;
        EXPECT_EQ(tavren_config_load(again), c.result) << c.name;
    }
}

TEST(ConfigLoad, OverridePropertyPicksTheDataCopyOnly) {
    DeviceRoot root;
    root.setDaemonConfig(R"({"system_mem": {"lmk_target_kills": 10}})");
    root.setProperty("tavrend.config.override", "true");
    ConfigVariables c;
    // No override copy: the load fails, the default file is not tried.
    LogCapture capture;
    EXPECT_EQ(tavren_config_load(c), -1);
    EXPECT_TRUE(capture.contains(
        LOG_ID_SYSTEM,
        "root_json is null /data/system/tavrend/tavrend_config.json, malformed json file?"));
    EXPECT_EQ(c.lmk_target_kills, 0);

    root.writeFile("/data/system/tavrend/tavrend_config.json",
                   R"({"system_mem": {"lmk_target_kills": 99}})");
    EXPECT_EQ(tavren_config_load(c), 0);
    EXPECT_EQ(c.lmk_target_kills, 99);

    root.setProperty("tavrend.config.override", "0");
    EXPECT_EQ(tavren_config_load(c), 0);
    EXPECT_EQ(c.lmk_target_kills, 10);
}

TEST(CjsonExtensions, BoolValueOfNonBooleansIsFalse) {
    cJSON* root = cJSON_Parse(R"({"t": true, "f": false, "n": 1, "s": "true", "z": null})");
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(cJSON_get_bool_val(cJSON_GetObjectItem(root, "t")), 1);
    EXPECT_EQ(cJSON_get_bool_val(cJSON_GetObjectItem(root, "f")), 0);
    EXPECT_EQ(cJSON_get_bool_val(cJSON_GetObjectItem(root, "n")), 0);
    EXPECT_EQ(cJSON_get_bool_val(cJSON_GetObjectItem(root, "s")), 0);
    EXPECT_EQ(cJSON_get_bool_val(cJSON_GetObjectItem(root, "z")), 0);
    EXPECT_EQ(cJSON_get_bool_val(nullptr), 0);
    cJSON_Delete(root);
}

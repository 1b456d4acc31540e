// Loading of the daemon configuration: every key's field, bounds, the keys that
// write a second field, the override file, and the failure messages.
#include <gtest/gtest.h>
#include <log/log.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "config/ConfigLoader.h"
#include "support/DeviceRoot.h"
#include "support/LogCapture.h"

using namespace tavrend;
using tavrend::test::DeviceRoot;
using tavrend::test::LogCapture;

namespace {

int load(const DeviceRoot& root, const std::string& json, ConfigVariables& config) {
    root.setDaemonConfig(json);
    return tavren_config_load(config);
}

}  // namespace

// Each key gets its own value, so the printed configuration shows where every
// key landed. Rows in print order: "section key", then the value in the file and
// the printed value when they are not 100 + the row's index; "-": not printed.
TEST(ConfigLoad, EveryKeyFillsItsFieldAndIsPrintedInOrder) {
    const char* rows[] = {"s memory_read_interval_sec",
                          "s critical_memory_threshold_percent",
                          "s critical_memory_bucket \"backup\" 3",
                          "s critical_memory_measurement_time",
                          "s critical_memory_default_threshold_kb 5 -",
                          "s critical_memory_over_threshold_percent",
                          "s critical_memory_action",  // read after the default threshold
                          "s critical_memory_minimum_uptime_sec",
                          "s critical_memory_minimum_idle_time_sec",
                          "s critical_memory_idle_override_time_sec",
                          "s system_mem_heartbeat_samples",
                          "s idle_detection_interval_sec",
                          "s critical_memory_swap_free_threshold_kb",
                          "s critical_memory_s_unreclaim_threshold_kb",
                          "p proc_scan_interval_sec",
                          "p rss_read_interval_sec",
                          "p pss_read_interval_sec",
                          "p num_pss_processes",
                          "p pss_logging",
                          "p num_historical_vals",
                          "s lmk_counter_threshold \"Perceptible\" Perceptible",
                          "s lmk_target_kills",
                          "p process_mem_heartbeat_samples",
                          "g process_guardrail_monitoring_enabled true true",
                          "g guardrail_check_interval_sec",
                          "g pss_sleep_interval_sec",
                          "g process_kill_metrics_interval_sec",
                          "u dupl_monitoring_enabled true -",
                          "u critical_upl_threshold_ms 7 -",
                          "u critical_upl_bad_sample_count_threshold 8 -"};
    std::map<char, std::string> sections;
    std::vector<std::string> expected = {"Parsing JSON config", "Configuration:"};
    for (size_t i = 0; i < std::size(rows); ++i) {
        std::istringstream row(rows[i]);
        std::string section, key, value = std::to_string(100 + i), printed = value;
        row >> section >> key >> value >> printed;
        std::string& body = sections[section[0]];
        body += (body.empty() ? "\"" : ", \"") + key + "\": " + value;
        if (printed != "-") expected.push_back(key + ": " + printed);
    }
    expected.insert(expected.end(), {"sample: true", "---------------------------------"});
    const std::map<char, std::string> names = {
        {'s', "system_mem"}, {'p', "proc_scan"}, {'g', "process_guardrail"}, {'u', "device_upl"}};
    std::string json = R"({"sample": true)";
    for (const auto& [section, body] : sections)
        json += ", \"" + names.at(section) + "\": {" + body + "}";
    DeviceRoot root;
    root.setDaemonConfig(json + "}");
    LogCapture capture;
    ConfigVariables c;
    ASSERT_TRUE(parseJSONConfig(c)) << json;
    EXPECT_EQ(capture.messages(LOG_ID_SYSTEM, "tavrend"), expected);
    EXPECT_EQ(c.critical_memory_default_threshold_kb, 5);
    EXPECT_TRUE(c.dupl_monitoring_enabled);
    EXPECT_EQ(c.critical_upl_threshold_ms * 10 + c.critical_upl_bad_sample_count_threshold, 78);
}

TEST(ConfigLoad, BoundsWrongTypesAndSecondFields) {
    DeviceRoot root;
    ConfigVariables c;
    // Bounded keys store 1 for anything below 1, others store as read. Items are not
    // type-checked: a string where a number goes reads as 0 (then bounded), a number
    // where a string goes leaves the field alone, a non-boolean reads as false.
    ASSERT_EQ(load(root, R"({"system_mem": {"memory_read_interval_sec": "7",
        "critical_memory_measurement_time": -5, "lmk_target_kills": 1,
        "system_mem_heartbeat_samples": 0, "critical_memory_threshold_percent": -7,
        "critical_memory_default_threshold_kb": 500, "lmk_counter_threshold": 5,
        "critical_memory_bucket": 2},
      "proc_scan": {"proc_scan_interval_sec": 0, "num_historical_vals": -3},
      "device_upl": {"dupl_monitoring_enabled": "true"},
      "process_guardrail": {"process_guardrail_monitoring_enabled": true}, "sample": 1})",
                   c),
              0);
    EXPECT_EQ(c.memory_read_interval_sec, 1);
    EXPECT_EQ(c.critical_memory_measurement_time, 1);
    EXPECT_EQ(c.lmk_target_kills, 1);
    EXPECT_EQ(c.system_mem_heartbeat_samples, 1);
    EXPECT_EQ(c.critical_memory_threshold_percent, -7);
    EXPECT_EQ(c.proc_scan_interval_sec, 1);
    EXPECT_EQ(c.num_historical_vals, -3);
    EXPECT_EQ(c.lmk_counter_threshold, "");
    EXPECT_EQ(c.critical_memory_bucket, 0);
    EXPECT_FALSE(c.dupl_monitoring_enabled || c.sample);
    EXPECT_EQ(c.critical_memory_action, 500);      // the default threshold's second field
    EXPECT_EQ(c.guardrail_check_interval_sec, 1);  // the flag's value as a number
    EXPECT_EQ(c.idle_detection_interval_sec, 1);   // absent: the default stays

    const char* names[] = {
        "foreground",  "visible",   "perceptible", "backup",
        "cache_start", "cache_end", "Visible"};  // an unknown name leaves the field alone
    for (int code = 0; code < 7; ++code) {
        c.critical_memory_bucket = 3;
        load(root,
             std::string(R"({"system_mem": {"critical_memory_bucket": ")") + names[code] + "\"}}",
             c);
        EXPECT_EQ(c.critical_memory_bucket, code < 6 ? code : 3) << names[code];
    }
}

TEST(ConfigLoad, FailuresAndTheirMessages) {
    DeviceRoot root;
    const std::string path = "/system/etc/tavrend/tavrend_config.json";
    const std::string unparsable = "root_json is null " + path + ", malformed json file?";
    const std::string empty = "Opening of " + path + " failed, could not parse json";
    const std::tuple<const char*, int, std::string> cases[] = {
        {nullptr, -1, unparsable},  // no file
        {"{\"system_mem\": ", -1, unparsable},
        {"{\"sample\": true} x", -1, unparsable},
        {"{}", -22, empty},
        {"[1, 2]", -22, empty}};
    for (const auto& [json, result, error] : cases) {
        SCOPED_TRACE(json ? json : "no file");
        json ? root.setDaemonConfig(json) : root.removePath(path);
        LogCapture capture;
        ConfigVariables config;
        EXPECT_FALSE(parseJSONConfig(config));
        EXPECT_EQ(capture.messages(LOG_ID_SYSTEM, "tavrend"),
                  (std::vector<std::string>{"Parsing JSON config", error,
                                            "Could not parse tavren_config.json file"}));
        EXPECT_EQ(capture.records().at(1).priority, ANDROID_LOG_ERROR);
        EXPECT_EQ(tavren_config_load(config), result);
    }
}

TEST(ConfigLoad, OverridePropertyPicksTheDataCopyOnly) {
    DeviceRoot root;
    root.setDaemonConfig(R"({"system_mem": {"lmk_target_kills": 10}})");
    root.setProperty("tavrend.config.override", "true");
    ConfigVariables c;
    LogCapture capture;
    EXPECT_EQ(tavren_config_load(c), -1);  // no override copy: the default file is not tried
    EXPECT_TRUE(capture.contains(
        LOG_ID_SYSTEM,
        "root_json is null /data/system/tavrend/tavrend_config.json, malformed json file?"));
    root.writeFile("/data/system/tavrend/tavrend_config.json",
                   R"({"system_mem": {"lmk_target_kills": 99}})");
    EXPECT_EQ(tavren_config_load(c), 0);
    EXPECT_EQ(c.lmk_target_kills, 99);
    root.setProperty("tavrend.config.override", "0");
    EXPECT_EQ(tavren_config_load(c), 0);
    EXPECT_EQ(c.lmk_target_kills, 10);
}

// tavrendctl check-config on the shipped device root, on a root full of planted
// mistakes (its daemon configuration is the override copy) and on an empty root.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "E2E.h"

using namespace tavrend::test;

namespace {

// KEY of each "warning: KEY: ..." line.
std::multiset<std::string> warnedKeys(const std::string& output) {
    std::multiset<std::string> keys;
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("warning: ")) keys.insert(line.substr(9, line.find(": ", 9) - 9));
    }
    return keys;
}

}  // namespace

TEST(CheckConfig, ExitStatusAndOneWarningPerMistake) {
    const DeviceRoot empty, uplOff;
    // Keys missing from the file read as 0: those of a disabled monitor are not warned about.
    uplOff.setDaemonConfig(R"({"device_upl": {"dupl_monitoring_enabled": false}})");
    const std::string source = TAVREND_SOURCE_DIR;
    const struct {
        std::string root;
        int exitCode;
        std::multiset<std::string> warnedKeys;
        std::map<std::string, std::string> sources;  // where a key's value came from
    } cases[] = {
        {source + "/device/root",
         0,
         {},
         {{"system_mem.lmk_target_kills", "file"},
          {"process_guardrail.guardrail_check_interval_sec", "file"}}},
        {source + "/tests/e2e/testdata/bad_root",
         1,
         {"kernel", "system_mem.zram?limit_kb", "system_mem.critical_memory_bucket",
          "system_mem.lmk_counter_threshold", "system_mem.lmk_target_kills", "processes[1]",
          "proc_scan.num_pss_processes", "proc_scan.num_historical_vals", "processes[2]",
          "device_upl.dupl_monitoring_enabled", "process_guardrail.pss_sleep_interval_sec",
          "device_upl.critical_upl_bad_sample_count_threshold",
          "process_guardrail.guardrail_check_interval_sec",
          "MetricConfig.IdleDetector.Orrery_Metric_Interface.Metrics",
          "MetricConfig.MemoryGuardrail.Orrery_Metric_Interface.Active"},
         {{"system_mem.lmk_target_kills", "default"}}},
        {uplOff.path(),
         1,
         {"system_mem.memory_read_interval_sec", "system_mem.critical_memory_measurement_time",
          "system_mem.lmk_target_kills", "proc_scan.proc_scan_interval_sec",
          "proc_scan.num_historical_vals", "/system/etc/tavrend/tavrend_metric_config.json"},
         {}},
        {empty.path(), 2, {}, {}},
        {source + "/tests/e2e/testdata/no_processes_root",
         1,
         {"/system/etc/tavrend/tavrend_memory_guardrail.json"},
         {{"system_mem.lmk_target_kills", "file"}}},  // valid JSON
        {"--help", 0, {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.root);
        const auto got = ctl(empty, {"check-config", c.root});
        EXPECT_EQ(got.exitCode, c.exitCode);
        EXPECT_EQ(warnedKeys(got.output), c.warnedKeys);
        for (const auto& [key, from] : c.sources) {
            const size_t at = got.output.find("  " + key + " ");
            const std::string line = at == std::string::npos
                                         ? ""
                                         : got.output.substr(at, got.output.find('\n', at) - at);
            EXPECT_TRUE(line.ends_with(" " + from)) << line;
        }
    }
    // --json: the same warnings, and the exit status.
    const auto json = ctl(empty, {"check-config", cases[1].root, "--json"});
    cJSON* doc = cJSON_Parse(json.output.c_str());
    ASSERT_TRUE(cJSON_IsArray(cJSON_GetObjectItem(doc, "findings"))) << json.output;
    std::multiset<std::string> jsonKeys;
    for (const cJSON* f = cJSON_GetObjectItem(doc, "findings")->child; f != nullptr; f = f->next) {
        if (strcmp(cJSON_GetObjectItem(f, "kind")->valuestring, "note") != 0)
            jsonKeys.insert(cJSON_GetObjectItem(f, "key")->valuestring);
    }
    EXPECT_EQ(jsonKeys, cases[1].warnedKeys);
    EXPECT_EQ(cJSON_GetObjectItem(doc, "exit_status")->valueint, 1);
    EXPECT_EQ(json.exitCode, 1);
    cJSON_Delete(doc);
    // Valid JSON without a single section the daemon reads, JSON cut short, no file.
    const DeviceRoot unrelated, cut;
    unrelated.setDaemonConfig(R"({"unrelated": 1})");
    cut.setDaemonConfig(R"({"system_mem": )");
    const std::pair<const DeviceRoot*, std::string> stops[] = {
        {&unrelated, "holds none of system_mem"},
        {&cut, "tavrend_config.json: not valid JSON at line 1, column 16"},
        {&empty, "tavrend_config.json: missing"}};
    for (const auto& [root, says] : stops) {
        const auto got = ctl(empty, {"check-config", root->path()});
        EXPECT_EQ(got.exitCode, 2);
        EXPECT_NE(got.output.find(says), std::string::npos) << got.output;
    }
    // An empty TAVREND_ROOT is the device's own root.
    const std::string out = empty.path() + "-own.txt";
    Subprocess own(binPath("tavrendctl"), {"check-config"}, {{"TAVREND_ROOT", ""}}, out);
    own.wait(std::chrono::seconds(10));
    EXPECT_NE(readText(out).find("device root: /\n"), std::string::npos) << readText(out);
    std::remove(out.c_str());
}

namespace {

// A configuration and guardrail file that draw no warning, each row of the
// table below changes it in one place.
constexpr const char* kCleanConfig = R"({
  "system_mem": {"memory_read_interval_sec": 1, "critical_memory_measurement_time": 60,
    "critical_memory_minimum_uptime_sec": 60, "critical_memory_idle_override_time_sec": 600,
    "lmk_counter_threshold": "Perceptible", "lmk_target_kills": 12,
    "idle_detection_interval_sec": 2},
  "proc_scan": {"proc_scan_interval_sec": 2, "num_historical_vals": 60},
  "device_upl": {"dupl_monitoring_enabled": true, "critical_upl_threshold_ms": 500,
    "critical_upl_bad_sample_count_threshold": 20},
  "process_guardrail": {"process_guardrail_monitoring_enabled": true,
    "guardrail_check_interval_sec": 5, "process_kill_metrics_interval_sec": 10}})";

// kCleanConfig with the sections of `change` merged into it key by key (null: removed).
std::string changedConfig(const char* change) {
    cJSON* base = cJSON_Parse(kCleanConfig);
    cJSON* edit = cJSON_Parse(change);
    for (cJSON* section = edit->child; section != nullptr; section = section->next) {
        for (cJSON* key = section->child; key != nullptr; key = key->next) {
            cJSON* into = cJSON_GetObjectItem(base, section->string);
            cJSON_DeleteItemFromObject(into, key->string);
            if (!cJSON_IsNull(key))
                cJSON_AddItemToObject(into, key->string, cJSON_Duplicate(key, true));
        }
    }
    char* text = cJSON_Print(base);
    std::string out = text;
    cJSON_free(text);
    cJSON_Delete(base);
    cJSON_Delete(edit);
    return out;
}

}  // namespace

TEST(CheckConfig, EachMistakeDrawsOneWarningWithTheValueUsed) {
    constexpr const char* kLauncher =
        R"({"name": "launcher", "soft_memory_limit": 131072, "hard_memory_limit": 262144})";
    const struct {
        const char* change;  // merged into kCleanConfig
        std::string row;     // a second guardrail row after kLauncher; "none": no guardrail file
        std::string key;     // the one key warned about, or "" for none
        std::string says;    // in that warning (or in a note)
    } cases[] = {
        {R"({"system_mem": {"critical_memory_idle_override_time_sec": -5}})", "",
         "system_mem.critical_memory_idle_override_time_sec", "-5 is below 1: the daemon uses 1"},
        {R"({"system_mem": {"lmk_target_kills": 0}})", "", "system_mem.lmk_target_kills",
         "the daemon uses 1, so the first kill"},
        {R"({"system_mem": {"lmk_target_kills": "12"}})", "", "system_mem.lmk_target_kills",
         "a string, not a number: the daemon uses 1"},
        {R"({"system_mem": {"memory_read_interval_sec": 1e30}})", "",
         "system_mem.memory_read_interval_sec", "the daemon uses 2147483647"},
        {R"({"system_mem": {"critical_memory_measurement_time": 1.5}})", "",
         "system_mem.critical_memory_measurement_time",
         "1.5 is not a 32-bit whole number: the daemon uses 1"},
        {R"({"system_mem": {"critical_memory_minimum_uptime_sec": 5000000}})", "",
         "system_mem.critical_memory_minimum_uptime_sec", "57 days"},
        {R"({"device_upl": {"critical_upl_threshold_ms": 0}})", "",
         "device_upl.critical_upl_threshold_ms", "every sample is bad and any 20 samples reboot"},
        {R"({"device_upl": {"critical_upl_threshold_ms": 0, "dupl_monitoring_enabled": false}})",
         "", "", ""},
        {R"({"device_upl": {"critical_upl_bad_sample_count_threshold": -3}})", "",
         "device_upl.critical_upl_bad_sample_count_threshold", "-3: counts as 1"},
        {R"({"device_upl": {"critical_upl_bad_sample_count_threshold": -3,
                            "dupl_monitoring_enabled": false}})",
         "", "device_upl.critical_upl_bad_sample_count_threshold", "-3: counts as 1"},
        {R"({"device_upl": {"critical_upl_bad_sample_count_threshold": null}})", "",
         "device_upl.critical_upl_bad_sample_count_threshold", "0 (not in the file): counts as 1"},
        {R"({"system_mem": {"critical_memory_minimum_idle_time_sec": 60}})", "", "",
         "60, never acted on (loaded and printed only"},  // a note, not a warning
        {"{}", R"({"name": "camera", "soft_memory_limit": -1, "hard_memory_limit": 1000})",
         "processes[1]", "is never killed, whatever its hard limit (1000 kB)"},
        {"{}",
         R"({"name": "vendor.example.hardware.camera1", "soft_memory_limit": 1,
             "hard_memory_limit": 2})",
         "processes[1]", "has 31 characters: a short name has at most 15"},
        {"{}",
         R"({"name": "vendor.example.hardware.camera.x", "soft_memory_limit": 1,
             "hard_memory_limit": 2})",
         "processes[1]", "has 32 characters: a process name has at most 31, so it never matches"},
        {"{}", R"({"name": "android.hardwar", "soft_memory_limit": 1, "hard_memory_limit": 2})", "",
         ""},
        {"{}", kLauncher, "processes[1]", "\"launcher\" again, as processes[0]"},
        {"{}", R"({"name": "", "soft_memory_limit": 1, "hard_memory_limit": 2})", "processes[1]",
         "empty name"},
        {"{}", R"({"name": "camera", "soft_memory_limit": 0, "hard_memory_limit": 2})",
         "processes[1]", "soft limit 0 kB: any process of that name is over it, queued"},
        {"{}", R"({"name": "camera", "soft_memory_limit": 1.5, "hard_memory_limit": 2})",
         "processes[1]",
         "soft_memory_limit 1.5 is not a 32-bit whole number: the daemon uses 1 kB"},
        {"{}", "none", "/system/etc/tavrend/tavrend_memory_guardrail.json",
         "missing: the daemon disables the guardrail monitor and runs without guardrails"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.change) + " " + c.row);
        const DeviceRoot root;
        root.setDaemonConfig(changedConfig(c.change));
        root.setMetricConfig(kExampleMetricConfig);
        if (c.row != "none") {
            root.writeFile("/system/etc/tavrend/tavrend_memory_guardrail.json",
                           std::string(R"({"processes": [)") + kLauncher +
                               (c.row.empty() ? "" : ", " + c.row) + "]}");
        }
        const auto got = ctl(root, {"check-config", root.path()});
        EXPECT_EQ(got.exitCode, c.key.empty() ? 0 : 1) << got.output;
        const std::multiset<std::string> want =
            c.key.empty() ? std::multiset<std::string>{} : std::multiset<std::string>{c.key};
        EXPECT_EQ(warnedKeys(got.output), want) << got.output;
        EXPECT_NE(got.output.find(c.says), std::string::npos) << got.output;
    }
}

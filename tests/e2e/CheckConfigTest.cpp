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
          "processes[2]", "system_mem.critical_memory_measurement_time",
          "device_upl.dupl_monitoring_enabled", "process_guardrail.pss_sleep_interval_sec",
          "device_upl.critical_upl_bad_sample_count_threshold",
          "process_guardrail.guardrail_check_interval_sec",
          "MetricConfig.IdleDetector.Orrery_Metric_Interface.Metrics",
          "MetricConfig.MemoryGuardrail.Orrery_Metric_Interface.Active"},
         {{"system_mem.lmk_target_kills", "default"}}},
        // Left out, these read 0 (or 1) and do harm; memory_read_interval_sec's 1 s does none.
        {uplOff.path(),
         1,
         {"system_mem.critical_memory_measurement_time",
          "system_mem.critical_memory_minimum_uptime_sec",
          "system_mem.critical_memory_idle_override_time_sec", "system_mem.lmk_counter_threshold",
          "system_mem.lmk_target_kills", "system_mem.system_mem_heartbeat_samples",
          "proc_scan.process_mem_heartbeat_samples", "proc_scan.proc_scan_interval_sec",
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
    "idle_detection_interval_sec": 2, "system_mem_heartbeat_samples": 10},
  "proc_scan": {"proc_scan_interval_sec": 2, "num_historical_vals": 60,
    "process_mem_heartbeat_samples": 10},
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

// The root of every row below: a device of 3867224 kB with init, launcher and
// a Binder-named audio service.
void writeDevice(const DeviceRoot& root) {
    root.setMeminfo("MemTotal:        3867224 kB\n");
    const struct {
        int pid;
        const char* comm;
        const char* cmdline;
    } processes[] = {{1, "init", "/system/bin/init"},
                     {689, "Binder:689_2", "/vendor/bin/hw/android.hardware.audio.service"},
                     {1733, "launcher", "com.corvail.launcher"}};
    for (const auto& p : processes) {
        const std::string dir = "/proc/" + std::to_string(p.pid);
        root.writeFile(dir + "/comm", std::string(p.comm) + "\n");
        root.writeFile(dir + "/cmdline", std::string(p.cmdline) + '\0');
    }
}

constexpr const char* kLauncher =
    R"({"name": "launcher", "soft_memory_limit": 131072, "hard_memory_limit": 262144})";

std::string row(const char* name, int soft, int hard) {
    return std::string(R"({"name": ")") + name + R"(", "soft_memory_limit": )" +
           std::to_string(soft) + R"(, "hard_memory_limit": )" + std::to_string(hard) + "}";
}

// One mistake a row, each with the one key warned about and the words the
// warning must carry: the value the daemon uses, and what the device does.
struct Mistake {
    const char* change;  // merged into kCleanConfig
    std::string row;     // a second guardrail row after kLauncher; "none": no guardrail
                         // file, "empty": a file without rows
    std::string key;     // the one key warned about, or "" for none
    std::string says;    // in that warning (or in a note)
    std::pair<const char*, const char*> metric = {"", ""};  // replaced in the metric file
};

const Mistake kMistakes[] = {
    // What reboots a device in use, too late or never.
    {R"({"system_mem": {"critical_memory_idle_override_time_sec": null}})", "",
     "system_mem.critical_memory_idle_override_time_sec",
     "0 s (left out): reboots a device in use at the first idle check past the minimum "
     "uptime"},
    {R"({"system_mem": {"critical_memory_idle_override_time_sec": -5}})", "",
     "system_mem.critical_memory_idle_override_time_sec",
     "1 s (-5 read as 1): reboots a device in use at the first idle check"},
    {R"({"system_mem": {"critical_memory_idle_override_time_sec": 120}})", "",
     "system_mem.critical_memory_idle_override_time_sec",
     "120 s: reboots a device in use that long after the minimum uptime"},
    {R"({"system_mem": {"critical_memory_idle_override_time_sec": 600000}})", "",
     "system_mem.critical_memory_idle_override_time_sec", "6 days: never fires in practice"},
    {R"({"system_mem": {"idle_detection_interval_sec": 600,
                            "critical_memory_idle_override_time_sec": 3600}})",
     "", "system_mem.idle_detection_interval_sec",
     "600 s: the hand-over of a critical condition and every idle check wait up to"},
    {R"({"system_mem": {"critical_memory_minimum_uptime_sec": null}})", "",
     "system_mem.critical_memory_minimum_uptime_sec",
     "0 s (left out): a device can be rebooted within a minute of its boot"},
    {R"({"system_mem": {"critical_memory_minimum_uptime_sec": 5000000}})", "",
     "system_mem.critical_memory_minimum_uptime_sec", "57 days: no reboot before"},
    {R"({"system_mem": {"lmk_counter_threshold": null}})", "", "system_mem.lmk_counter_threshold",
     "\"\" (left out), no class: the kills of all six classes count"},
    {R"({"system_mem": {"lmk_counter_threshold": "Other"}})", "",
     "system_mem.lmk_counter_threshold", "\"Other\": the kills of all six classes count"},
    {R"({"system_mem": {"lmk_target_kills": null}})", "", "system_mem.lmk_target_kills",
     "0 (left out): every memory sample raises the critical condition"},
    {R"({"system_mem": {"lmk_target_kills": 0}})", "", "system_mem.lmk_target_kills",
     "1 (0 read as 1): the first kill of a counted class"},
    {R"({"system_mem": {"lmk_target_kills": 20000}})", "", "system_mem.lmk_target_kills",
     "20000: never reached in practice"},
    {R"({"system_mem": {"lmk_target_kills": "12"}})", "", "system_mem.lmk_target_kills",
     "a string \"12\" where a number belongs: the daemon uses 1"},
    {R"({"device_upl": {"critical_upl_threshold_ms": 0}})", "",
     "device_upl.critical_upl_threshold_ms", "0 ms, here any 20 samples: every latency sample"},
    {R"({"device_upl": {"critical_upl_threshold_ms": 0, "dupl_monitoring_enabled": false}})", "",
     "", ""},
    {R"({"device_upl": {"critical_upl_bad_sample_count_threshold": -3,
                            "dupl_monitoring_enabled": false}})",
     "", "device_upl.critical_upl_bad_sample_count_threshold",
     "-3, read as 1: a single bad latency sample"},
    {R"({"device_upl": {"dupl_monitoring_enabled": "true"}})", "",
     "device_upl.dupl_monitoring_enabled",
     "a string \"true\" where true or false belongs: the daemon reads false"},
    // Values out of scale, and histories.
    {R"({"system_mem": {"critical_memory_minimum_uptime_sec": 1e30}})", "",
     "system_mem.critical_memory_minimum_uptime_sec",
     "1e+30 is not a 32-bit whole number: the daemon uses 2147483647"},
    {R"({"system_mem": {"memory_read_interval_sec": 600,
                            "critical_memory_measurement_time": 3600}})",
     "", "system_mem.memory_read_interval_sec", "600 s: a critical memory state is seen"},
    {R"({"system_mem": {"memory_read_interval_sec": 300}})", "",
     "system_mem.critical_memory_measurement_time",
     "60 s, under memory_read_interval_sec 300 s: each of the 4 system memory histories "
     "holds a single sample"},
    {R"({"system_mem": {"critical_memory_measurement_time": 1.5}})", "",
     "system_mem.critical_memory_measurement_time",
     "1.5 is not a 32-bit whole number: the daemon uses 1"},
    {R"({"proc_scan": {"num_historical_vals": null}})", "", "proc_scan.num_historical_vals",
     "0 (left out): each process keeps a single value"},
    {R"({"proc_scan": {"proc_scan_interval_sec": null}})", "", "proc_scan.proc_scan_interval_sec",
     "0 (left out): every process of the device is read"},
    {R"({"system_mem": {"system_mem_heartbeat_samples": null}})", "",
     "system_mem.system_mem_heartbeat_samples", "a heartbeat line every 1 s"},
    // The guardrail monitor.
    {R"({"process_guardrail": {"guardrail_check_interval_sec": null}})", "",
     "process_guardrail.guardrail_check_interval_sec",
     "1 (left out, so taken from process_guardrail_monitoring_enabled): a guardrail pass"},
    {R"({"process_guardrail": {"guardrail_check_interval_sec": 900}})", "",
     "process_guardrail.guardrail_check_interval_sec", "900 s: a process over its hard limit"},
    {R"({"process_guardrail": {"process_kill_metrics_interval_sec": null,
                                   "pss_sleep_interval_sec": 1}})",
     "", "process_guardrail.process_kill_metrics_interval_sec",
     "stalls through every guardrail pass"},
    {R"({"process_guardrail": {"process_kill_metrics_interval_sec": 172800}})", "",
     "process_guardrail.process_kill_metrics_interval_sec",
     "2 days: guardrail kills wait that long for their record"},
    {R"({"process_guardrail": {"pss_sleep_interval_sec": 3}})", row("camera", 65536, 131072),
     "process_guardrail.pss_sleep_interval_sec", "a pass takes 6 s, a new one starts every 5 s"},
    {"{}", "empty", "processes", "nothing is ever killed, yet the idle thread starts at once"},
    {R"({"system_mem": {"critical_memory_minimum_idle_time_sec": 60}})", "", "",
     "60, never acted on (loaded and printed only"},  // a note, not a warning
    // Guardrail rows: limits against the device's memory.
    {"{}", row("camera", -1, 1000), "processes[1]",
     "soft limit -1, hard limit 1000 kB: the hard limit is looked at only above the soft one"},
    {"{}", row("camera", 16, 24), "processes[1]",
     "hard limit 24 kB, under 4096 kB (MB written as kB?): every process of that name is "
     "over it"},
    {"{}", row("camera", 16, 131072), "processes[1]", "soft limit 16 kB, under 4096 kB"},
    {"{}", row("camera", 268435456, 268435456), "processes[1]",
     "hard limit 268435456 kB, over the device's MemTotal 3867224 kB (bytes written as kB?): "
     "never reached"},
    {"{}", row("camera", 262144, 131072), "processes[1]",
     "soft limit 262144 kB above hard limit 131072 kB"},
    {"{}", R"({"name": "camera", "soft_memory_limit": 4194304.5, "hard_memory_limit": 8388608})",
     "processes[1]",
     "soft_memory_limit 4194304.5 is not a 32-bit whole number: the daemon uses 4194304 kB"},
    // Rows that must not be guarded, by name, by the program they match, by pid 1.
    {"{}", row("system_server", 524288, 786432), "processes[1]",
     "\"system_server\" is the framework: its death restarts zygote and every app: no row "
     "may guard it"},
    {"{}", row("/system/bin/surfaceflinger", 65536, 131072), "processes[1]", "is the display"},
    {"{}", row("zygote64", 65536, 131072), "processes[1]", "no row may guard it"},
    // Names as the daemon matches them, against the root's processes.
    {"{}", row("android.hardware.audio.service", 65536, 131072), "processes[1]",
     "it names it \"/android.hardware.audio.service\", the last 31 characters of its command "
     "line (blanks removed): the row never acts"},
    {"{}", row("/android.hardware.audio.service", 65536, 131072), "", ""},
    {"{}", row("launche", 65536, 131072), "",
     "note: processes[1]: \"launche\" matches no process of the root's /proc; did you mean "
     "\"launcher\"?"},
    {"{}", row("vendor.example.hardware.camera.x", 65536, 131072), "processes[1]",
     "has 32 characters, a process name at most 31: matches no process"},
    {"{}", row("", 65536, 131072), "processes[1]", "\"\" is empty"},
    {"{}", kLauncher, "processes[1]", "\"launcher\" again, as processes[0]"},
    {"{}", "none", "/system/etc/tavrend/tavrend_memory_guardrail.json",
     "missing: the daemon disables the guardrail monitor and runs without guardrails"},
    // The metric configuration: each type it knows passes, others draw a warning.
    {"{}", "", "", "", {R"("Type": "int")", R"("Type": "bool")"}},
    {"{}",
     "",
     "MetricConfig.IdleDetector.Orrery_Metric_Interface.Metrics[1].Type",
     "\"boolean\" is none of str, int, float, bool, ts",
     {R"("Type": "int")", R"("Type": "boolean")"}},
    {"{}",
     "",
     "OrreryConfig.Enabled",
     "false (the string \"true\", where true or false belongs): the daemon writes no metric "
     "record",
     {R"("Enabled": true)", R"("Enabled": "true")"}},
};

}  // namespace

TEST(CheckConfig, EachMistakeDrawsOneWarningWithTheValueUsed) {
    for (const Mistake& c : kMistakes) {
        SCOPED_TRACE(std::string(c.change) + " " + c.row + " " + c.metric.second);
        const DeviceRoot root;
        writeDevice(root);
        root.setDaemonConfig(changedConfig(c.change));
        std::string metric = kExampleMetricConfig;
        if (*c.metric.first != '\0')
            metric.replace(metric.find(c.metric.first), strlen(c.metric.first), c.metric.second);
        root.setMetricConfig(metric);
        if (c.row != "none") {
            const std::string rows =
                c.row == "empty" ? "" : kLauncher + (c.row.empty() ? "" : ", " + c.row);
            root.writeFile("/system/etc/tavrend/tavrend_memory_guardrail.json",
                           R"({"processes": [)" + rows + "]}");
        }
        const auto got = ctl(root, {"check-config", root.path()});
        EXPECT_EQ(got.exitCode, c.key.empty() ? 0 : 1) << got.output;
        const std::multiset<std::string> want =
            c.key.empty() ? std::multiset<std::string>{} : std::multiset<std::string>{c.key};
        EXPECT_EQ(warnedKeys(got.output), want) << got.output;
        EXPECT_NE(got.output.find(c.says), std::string::npos) << got.output;
    }
    // A tuned copy beside an unset override property is read by no one.
    const DeviceRoot copy;
    copy.setDaemonConfig(changedConfig("{}"));
    copy.writeFile("/data/system/tavrend/tavrend_config.json", changedConfig("{}"));
    copy.setMetricConfig(kExampleMetricConfig);
    copy.writeFile("/system/etc/tavrend/tavrend_memory_guardrail.json",
                   std::string(R"({"processes": [)") + kLauncher + "]}");
    EXPECT_EQ(warnedKeys(ctl(copy, {"check-config", copy.path()}).output),
              std::multiset<std::string>{"/data/system/tavrend/tavrend_config.json"});
}

// The README's table of rules is the one check-config prints.
TEST(CheckConfig, ReadmeTableIsTheRuleTable) {
    const DeviceRoot root;
    const auto got = ctl(root, {"check-config", "--rules-markdown"});
    ASSERT_EQ(got.exitCode, 0);
    const std::string readme = readText(TAVREND_SOURCE_DIR "/README.md");
    const std::string begin = "<!-- check-config rules: begin -->\n";
    const size_t from = readme.find(begin);
    const size_t to = readme.find("<!-- check-config rules: end -->");
    ASSERT_TRUE(from != std::string::npos && to != std::string::npos);
    EXPECT_EQ(readme.substr(from + begin.size(), to - from - begin.size()), got.output)
        << "regenerate it with: tavrendctl check-config --rules-markdown";
}

// tavrendctl check-config on the shipped device root, on a root full of planted
// mistakes (its daemon configuration is the override copy) and on an empty root.
#include <gtest/gtest.h>

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
         2,
         {},
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
    // Valid JSON without a single section the daemon reads, JSON cut short, no file.
    const DeviceRoot unrelated, cut;
    unrelated.setDaemonConfig(R"({"unrelated": 1})");
    cut.setDaemonConfig(R"({"system_mem": )");
    const std::pair<const DeviceRoot*, std::string> stops[] = {
        {&unrelated, "holds none of system_mem"},
        {&cut, "tavrend_config.json: unreadable or not valid JSON"},
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

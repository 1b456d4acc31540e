#include <gtest/gtest.h>
#include <log/log.h>
#include <regex.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "metrics/TavrenMetricConfig.h"
#include "metrics/TavrendMetric.h"
#include "platform/log_hook.h"
#include "support/DeviceRoot.h"
#include "support/LogCapture.h"

namespace tavrend::test {
namespace {

const char* const kExampleConfig = R"({
  "OrreryConfig": { "Enabled": true, "Region": "eu", "GroupId": "grp1" },
  "MetricConfig": [
    { "MetricConfig": "IdleDetector", "MetricName": "idle", "Active": true,
      "Sample_interval_ticks": 1, "Metric_logcat_interval_ticks": 1, "Metric_report_interval_ticks": 1,
      "KAPH_Metric_Interface": { "ProgramName": "tavrend", "Active": false },
      "Orrery_Metric_Interface": { "Schema_Id": "sch1", "Group_Id": "", "Active": true,
        "Metrics": [ { "Name": "duration_type", "Type": "str", "DimensionTag": "type" },
                     { "Name": "duration_value", "Type": "int", "DimensionTag": "value" } ] } },
    { "MetricConfig": "MemoryGuardrail", "MetricName": "guardrail", "Active": true,
      "Orrery_Metric_Interface": { "Schema_Id": "sch2", "Group_Id": "grp2", "Active": true,
        "Metric_Key": { "Name": "process", "DimensionTag": "proc" },
        "Metric_Value": { "Name": "kills", "DimensionTag": "count" } } }
  ]
})";

const std::string kTail =
    ",_softwareVersion=;SY,_deviceType=;SY,_platform=;SY,_model=;SY,_buildType=;SY,"
    "_marketPlaceId=;SY,_countryOfResidence=;SY,_deviceLanguage=;SY,_otaGroupName=;SY,"
    "_timeZone=;SY,_deviceId=;SY,_customerId=;SY,_hardware=;SY";
const MetricPairs kIdlePairs = {{"duration_type", "time_till_idle"}, {"duration_value", "42"}};

class MetricsTest : public ::testing::Test {
protected:
    MetricsTest() { cfg().resetConfig(); }
    ~MetricsTest() override { cfg().resetConfig(); }
    static TavrenMetricConfig& cfg() { return TavrenMetricConfig::instance(); }

    bool load(const std::string& json) {
        root.setMetricConfig(json);
        return cfg().loadConfig(kDefaultMetricConfigPath);
    }
    std::set<std::string> names() const {
        std::set<std::string> out;
        for (const auto& entry : cfg().metricConfigs) out.insert(entry.first);
        return out;
    }
    // The daemon's own lines, each as its priority letter and message.
    std::string systemText() const {
        std::string out;
        for (const auto& r : log.records())
            if (r.buffer == LOG_ID_SYSTEM)
                out += std::string(1, "??VDIWEF"[r.priority & 7]) + " " + r.message;
        return out;
    }
    std::vector<std::string> records() const { return log.messages(LOG_ID_METRICS); }

    DeviceRoot root;
    LogCapture log;
    TavrendMetric metric{"tavrend"};
};

TEST_F(MetricsTest, LoadLogsTheConfigurationThenFailuresKeepOrDropIt) {
    ASSERT_TRUE(load(R"({"OrreryConfig": {"Enabled": true, "GroupId": "grp1"},
        "MetricConfig": [{"MetricConfig": "MemoryGuardrail", "MetricName": "guardrail",
          "KAPH_Metric_Interface": {"ProgramName": "tavrend", "Active": true},
          "Orrery_Metric_Interface": {"Schema_Id": "sch2", "Group_Id": "grp2", "Active": true,
            "Metric_Key": {"Name": "process", "DimensionTag": "proc"},
            "Metric_Value": {"Name": "kills", "DimensionTag": "count"}}}]})"));
    EXPECT_EQ(systemText(), R"(I Load JSON config

I orreryConfig.enabled: 1
I default group id: grp1
I region: 
I ==============================
I config.name MemoryGuardrail
I config.metricName guardrail
I config.active 0
I kaphMetricInterface.active 1
I programName tavrend
I orreryMetricInterface.active 1
I schema id sch2
I group id grp2
I name process
I dimensionTag proc
I name kills
I dimensionTag count
I Load JSON config done
)");

    // No file: nothing was parsed, so the earlier configuration stays in force.
    const std::string path = kDefaultMetricConfigPath;
    root.removePath(path);
    log.clear();
    EXPECT_FALSE(cfg().loadConfig(path.c_str()));
    const std::string closing = "E Could not parse config file\nI Load JSON config done\n";
    EXPECT_EQ(systemText(), "I Load JSON config\n\nE root_json is null " + path +
                                ", malformed json file?\n" + closing);
    EXPECT_TRUE(cfg().orreryConfig.enabled);
    EXPECT_EQ(names(), (std::set<std::string>{"MemoryGuardrail"}));

    // Valid JSON without "MetricConfig": the reset has happened, nothing is loaded.
    log.clear();
    EXPECT_FALSE(load(R"({"OrreryConfig": {"Enabled": true}})"));
    EXPECT_EQ(systemText(), "I Load JSON config\n\nE Opening of " + path +
                                " failed, could not parse json\n" + closing);
    EXPECT_FALSE(cfg().orreryConfig.enabled);
    EXPECT_TRUE(names().empty());
}

TEST_F(MetricsTest, FileStructureDecidesWhatIsLoaded) {
    const struct {
        const char* json;
        bool ok, enabled;
        std::set<std::string> names;
    } cases[] = {
        {R"({"MetricConfig": [{"MetricConfig": "A"}]})", false, false, {"A"}},
        {R"({"OrreryConfig": {"Enabled": true}, "MetricConfig": []})", true, true, {}},
        {R"({"OrreryConfig": {"Enabled": true}, "MetricConfig": {}})", false, false, {}},
        {R"({"OrreryConfig": [], "MetricConfig": [{"MetricConfig": "A"}]})", false, false, {"A"}},
        {"null", false, false, {}},
        // The later of two equal names wins; unnamed elements share the empty name.
        {R"({"OrreryConfig": {}, "MetricConfig": [{"MetricConfig": "A", "MetricName": "1"},
            {"MetricConfig": "A", "MetricName": "2"}, {"Active": true}, 3]})",
         true,
         false,
         {"", "A"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        cfg().resetConfig();
        EXPECT_EQ(load(c.json), c.ok);
        EXPECT_EQ(cfg().orreryConfig.enabled, c.enabled);
        EXPECT_EQ(names(), c.names);
    }
    EXPECT_EQ(cfg().metricConfigs.at("A").metricName, "2");
}

TEST_F(MetricsTest, HostileValuesReadAsAbsentAndNeverCrash) {
    ASSERT_TRUE(load(R"({"OrreryConfig": {"Enabled": "true", "Region": 5, "GroupId": {}},
      "MetricConfig": [
        {"MetricConfig": "B", "MetricName": [], "Active": 1, "Sample_interval_ticks": {"x": [1]},
         "KAPH_Metric_Interface": {"ProgramName": null, "Active": "yes"},
         "Orrery_Metric_Interface": {"Schema_Id": 1, "Group_Id": true, "Active": 1,
           "Metric_Key": "proc", "Metric_Value": [{"Name": "a"}], "Metrics": {"Name": "a"}}},
        {"MetricConfig": "C", "Orrery_Metric_Interface": {"Metric_Key": {"Name": 3, "DimensionTag": []},
           "Metrics": [5, null, {"Name": "only_name"}, {"Name": 1, "Type": 2}]}}]})"));
    EXPECT_FALSE(cfg().orreryConfig.enabled);
    EXPECT_EQ(cfg().orreryConfig.region + cfg().orreryConfig.groupId, "");
    const auto& b = cfg().metricConfigs.at("B");
    const auto& bo = b.orreryMetricInterface;
    EXPECT_EQ(b.metricName + bo.schemaId + bo.groupId + bo.metricKey.name + bo.metricValue.name,
              "");
    EXPECT_FALSE(b.active || b.kaphMetricInterface.active || bo.active || !bo.metrics.empty());
    // Every element of "Metrics" holds one position of the schema, whatever it contains.
    const auto& c = cfg().metricConfigs.at("C").orreryMetricInterface;
    EXPECT_EQ(c.metricKey.name + c.metricKey.dimensionTag, "");
    std::string positions;
    for (const auto& f : c.metrics) positions += "[" + f.name + f.type + f.dimensionTag + "]";
    EXPECT_EQ(positions, "[][][only_name][]");

    std::string huge = R"({"OrreryConfig": {}, "MetricConfig": [{"MetricConfig": "M",
        "Orrery_Metric_Interface": {"Metrics": [{})";
    for (int i = 1; i < 200000; ++i) huge += R"(,{"Name":"n"})";
    ASSERT_TRUE(load(huge + "]}}]}"));
    EXPECT_EQ(cfg().metricConfigs.at("M").orreryMetricInterface.metrics.size(), 200000u);
    auto nested = [](int depth) {
        return R"({"OrreryConfig": {}, "MetricConfig": [{"MetricConfig": "D",
            "Sample_interval_ticks": )" +
               std::string(depth, '[') + std::string(depth, ']') + "}]}";
    };
    EXPECT_TRUE(load(nested(500)));
    EXPECT_FALSE(load(nested(100000)));  // too deep to parse: refused as malformed
    EXPECT_EQ(names(), (std::set<std::string>{"D"}));
}

TEST_F(MetricsTest, OverridePropertyReadsTheDataCopyWhateverThePath) {
    root.setMetricConfig(R"({"OrreryConfig": {}, "MetricConfig": [{"MetricConfig": "System"}]})");
    root.writeFile("/vendor/x.json",
                   R"({"OrreryConfig": {}, "MetricConfig": [{"MetricConfig": "Passed"}]})");
    EXPECT_TRUE(cfg().loadConfig("/vendor/x.json"));
    EXPECT_EQ(names(), (std::set<std::string>{"Passed"}));
    root.setProperty(kMetricOverrideProperty, "true\n");
    EXPECT_FALSE(cfg().loadConfig(kDefaultMetricConfigPath));
    EXPECT_TRUE(log.contains(LOG_ID_SYSTEM, "root_json is null " +
                                                std::string(kOverrideMetricConfigPath) +
                                                ", malformed json file?\n"));
    root.writeFile(kOverrideMetricConfigPath,
                   R"({"OrreryConfig": {}, "MetricConfig": [{"MetricConfig": "Data"}]})");
    EXPECT_TRUE(cfg().loadConfig("/vendor/x.json"));
    EXPECT_EQ(names(), (std::set<std::string>{"Data"}));
}

// Both kinds of record, byte for byte, as they reach the metrics buffer and its log file.
TEST_F(MetricsTest, ExampleRecordsReachTheMetricsBuffer) {
    ASSERT_TRUE(load(kExampleConfig));
    log.clear();
    const std::string dir = root.path() + "/logs";
    std::filesystem::create_directories(dir);
    setenv("TAVREND_LOG_DIR", dir.c_str(), 1);
    platform::reopenLogFiles();
    metric.emitOrreryMetricPairVec("uptime_till_reboot", {{"duration_type", "uptime_till_reboot"},
                                                          {"duration_value", "3600"}});
    metric.publishCounterMetric("IdleDetector", "uptime_till_reboot", 3600);
    metric.emitOrreryMetricUint64("system_server", 3);
    metric.publish("MemoryGuardrail");
    unsetenv("TAVREND_LOG_DIR");
    platform::reopenLogFiles();

    const auto recs = log.records();
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[0].message,
              "grp1:sch1:100:type=uptime_till_reboot;SY,value=3600;IN,_softwareVersion=;SY,"
              "_deviceType=;SY,_platform=;SY,_model=;SY,_buildType=;SY,_marketPlaceId=;SY,"
              "_countryOfResidence=;SY,_deviceLanguage=;SY,_otaGroupName=;SY,_timeZone=;SY,"
              "_deviceId=;SY,_customerId=;SY,_hardware=;SY:eu");
    const std::string counter = "grp2:sch2:100:proc=system_server;SY,count=3;IN" + kTail + ":eu";
    EXPECT_EQ(recs[1].message, counter);
    for (const auto& r : recs) {
        EXPECT_EQ(std::make_tuple(r.buffer, r.priority, r.tag),
                  std::make_tuple(8, ANDROID_LOG_INFO, std::string("metrics.tavrend")));
    }

    // "MM-DD HH:MM:SS.mmm  PID   TID I metrics.tavrend: <record>", one line each.
    std::stringstream text;
    text << std::ifstream(dir + "/metrics.log").rdbuf();
    const std::string s = text.str();
    regex_t re;
    ASSERT_EQ(regcomp(&re,
                      "\n[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} +([0-9]+) +[0-9]+ "
                      "I metrics\\.tavrend: ([^\n]*)\n$",
                      REG_EXTENDED),
              0);
    regmatch_t m[3];
    const int rc = regexec(&re, s.c_str(), 3, m, 0);
    regfree(&re);
    ASSERT_EQ(rc, 0) << s;
    auto group = [&](int g) { return s.substr(m[g].rm_so, m[g].rm_eo - m[g].rm_so); };
    EXPECT_EQ(std::stoi(group(1)), static_cast<int>(getpid()));
    EXPECT_EQ(group(2), counter);
}

TEST_F(MetricsTest, HeaderAndBodyFollowTheSchemaPositionByPosition) {
    ASSERT_TRUE(load(kExampleConfig));
    const std::vector<MetricField> typed = {{"a", "A", "str"},   {"b", "B", "int"},
                                            {"c", "C", "float"}, {"d", "D", "bool"},
                                            {"e", "E", "ts"},    {"f", "F", "double"}};
    cfg().metricConfigs["Typed"].orreryMetricInterface = {"t", "", true, {}, {}, typed};
    EXPECT_EQ(metric.buildOrreryMetricHeaderString("Typed"), "grp1:t:100:");
    EXPECT_EQ(metric.buildOrreryMetricHeaderString("Unknown"), "");

    const struct {
        const char* config;
        MetricPairs pairs;
        const char* body;
    } cases[] = {
        {"Typed",
         {{"a", "s"}, {"b", "2"}, {"c", "0.5"}, {"d", "true"}, {"e", "99"}, {"f", "1.5"}},
         "A=s;SY,B=2;IN,C=0.5;FL,D=true;BO,E=99;TI,F=1.5"},
        {"IdleDetector",
         {{"duration_type", "a:b;c"}, {"duration_value", "1"}},
         "type=a:b;c;SY,value=1;IN"},
        // A name that misses its position writes nothing for it, not even the comma.
        {"IdleDetector", {{"duration_type", "x"}, {"duration_valu", "5"}}, "type=x;SY,"},
        {"IdleDetector", {{"duration_value", "x"}, {"duration_value", "5"}}, "value=5;IN"},
        {"IdleDetector", {{"duration_type", "x"}}, ""},
        {"IdleDetector", {{"duration_type", "x"}, {"duration_value", "5"}, {"e", "1"}}, ""},
        {"IdleDetector", {}, ""},
        {"Unknown", kIdlePairs, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(metric.buildOrreryMetricVecBodyString(c.pairs, c.config), c.body) << c.config;
    }
    EXPECT_EQ(replaceBadChars("a:b;c::"), "a_b_c__");
}

TEST_F(MetricsTest, TailKeepsTheRegionOfItsFirstUseUntilReset) {
    ASSERT_TRUE(load(kExampleConfig));
    EXPECT_EQ(metric.buildOrreryMetricTailString(), kTail + ":eu");
    cfg().orreryConfig.region = "";
    EXPECT_EQ(metric.buildOrreryMetricTailString(), kTail + ":eu");
    metric.resetOrreryMetric();
    EXPECT_EQ(metric.buildOrreryMetricTailString(), kTail);
}

TEST_F(MetricsTest, GatesDecideWhatIsSentAndWhatIsKept) {
    ASSERT_TRUE(load(kExampleConfig));
    auto inactive = *cfg().findMetricConfig("MemoryGuardrail");
    inactive.orreryMetricInterface.active = false;
    cfg().metricConfigs["Inactive"] = inactive;
    const std::string guard = "grp2:sch2:100:", idle = "grp1:sch1:100:";
    const struct {
        const char* config;
        bool enabled;
        std::vector<std::string> sent;
        bool kept;  // the accumulated values stay for a later publish
    } cases[] = {
        {"MemoryGuardrail", false, {}, true},
        {"Unknown", true, {}, false},
        {"Inactive", true, {}, false},
        // Keys a:b and a;b collapse into one entry holding the last value.
        {"MemoryGuardrail",
         true,
         {guard + "proc=a_b;SY,count=18446744073709551615;IN" + kTail + ":eu"},
         false},
        // No key/value tags here: the 64-bit entry is dropped. Pair lists go out in key
        // order, the misfit is dropped, the one missing its last name keeps its comma.
        {"IdleDetector",
         true,
         {idle + "type=time_till_idle;SY,value=42;IN" + kTail + ":eu",
          idle + "type=x;SY,," + kTail.substr(1) + ":eu"},
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.config);
        TavrendMetric m("tavrend");
        cfg().orreryConfig.enabled = c.enabled;
        m.emitOrreryMetricUint64("a:b", 1);
        m.emitOrreryMetricUint64("a;b", UINT64_MAX);
        m.emitOrreryMetricPairVec("a_fits", kIdlePairs);
        m.emitOrreryMetricPairVec("b_misfit", {{"duration_type", "x"}});
        m.emitOrreryMetricPairVec("c_last_missing", {{"duration_type", "x"}, {"other", "1"}});
        m.buildOrreryMetricTailString();
        log.clear();
        m.publish(c.config);
        EXPECT_EQ(records(), c.sent);
        EXPECT_EQ(m.uint64MetricsView().size() + m.pairVecMetricsView().size(), c.kept ? 4u : 0u);
        // A configuration that cannot be published also forgets the cached tail.
        EXPECT_EQ(m.tailCacheView().empty(), !c.kept && c.sent.empty());
    }
}

// The configuration shipped in the device root lets both owners publish, the idle
// detector behind its legacy interface flag.
TEST_F(MetricsTest, ShippedConfigurationServesBothOwners) {
    std::stringstream text;
    text << std::ifstream(std::string(TAVREND_SOURCE_DIR) + "/device/root" +
                          kDefaultMetricConfigPath)
                .rdbuf();
    ASSERT_TRUE(load(text.str()));
    ASSERT_TRUE(cfg().orreryConfig.enabled);
    // As the idle detector reads it: an unknown name leaves the output untouched.
    TavrenMetricConfig::MetricConfig entry;
    entry.name = "sentinel";
    EXPECT_FALSE(cfg().getMetricConfig("idledetector", entry));
    EXPECT_EQ(entry.name, "sentinel");
    ASSERT_TRUE(cfg().getMetricConfig("IdleDetector", entry));
    EXPECT_TRUE(entry.kaphMetricInterface.active);
    EXPECT_EQ(entry.orreryMetricInterface.metrics.size(), 2u);
    metric.emitOrreryMetricPairVec("time_till_idle", kIdlePairs);
    metric.publish("IdleDetector");
    metric.emitOrreryMetricUint64("system_server", 3);
    metric.publish("MemoryGuardrail");
    EXPECT_EQ(records().size(), 2u);
}

}  // namespace
}  // namespace tavrend::test

#include <gtest/gtest.h>
#include <log/log.h>

#include <set>
#include <string>
#include <vector>

#include "metrics/TavrenMetricConfig.h"
#include "metrics/TavrendMetric.h"
#include "support/DeviceRoot.h"
#include "support/LogCapture.h"

namespace tavrend::test {
namespace {

class MetricsTest : public ::testing::Test {
protected:
    MetricsTest() { cfg().resetConfig(); }
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

    DeviceRoot root;
    LogCapture log;
    TavrendMetric metric{"tavrend"};
};

// Whatever the file holds, loading never crashes and what was read is defined.
TEST_F(MetricsTest, HostileFilesLoadWhatTheyCan) {
    const std::set<std::string> before = {"IdleDetector", "MemoryGuardrail"};
    // Wrong types read as absent; a later equal name wins; unnamed elements share the name "".
    const std::string wrongTypes =
        R"({"OrreryConfig": {"Enabled": "true", "Region": 5, "GroupId": {}}, "MetricConfig": [
            {"MetricConfig": "B", "MetricName": [], "Active": 1, "Sample_interval_ticks": {},
             "KAPH_Metric_Interface": {"ProgramName": null, "Active": "yes"},
             "Orrery_Metric_Interface": {"Schema_Id": 1, "Group_Id": true, "Active": 1,
               "Metric_Key": "proc", "Metric_Value": [{"Name": "a"}], "Metrics": {"Name": "a"}}},
            {"MetricConfig": "C", "Orrery_Metric_Interface": {
               "Metrics": [5, null, {"Name": "only_name"}, {"Name": 1, "Type": 2}]}},
            {"MetricConfig": "A", "MetricName": "1"}, {"MetricConfig": "A", "MetricName": "2"},
            {"Active": true}, 3]})";
    const struct {
        std::string json;  // empty: no file at all
        bool ok, enabled;
        std::set<std::string> names;
    } cases[] = {
        {"", false, true, before},  // nothing parsed: the configuration before stays
        {R"({"OrreryConfig": {"Enabled": true}})", false, false, {}},  // reset, then refused
        {R"({"OrreryConfig": {"Enabled": true}, "MetricConfig": {}})", false, false, {}},
        {R"({"OrreryConfig": [], "MetricConfig": [{"MetricConfig": "A"}]})", false, false, {"A"}},
        {wrongTypes, true, false, {"", "A", "B", "C"}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json.substr(0, 80));
        ASSERT_TRUE(load(kExampleMetricConfig));
        if (c.json.empty()) root.removePath(kDefaultMetricConfigPath);
        EXPECT_EQ(c.json.empty() ? cfg().loadConfig(kDefaultMetricConfigPath) : load(c.json), c.ok);
        EXPECT_EQ(cfg().orreryConfig.enabled, c.enabled);
        EXPECT_EQ(names(), c.names);
    }
    EXPECT_EQ(cfg().metricConfigs.at("A").metricName, "2");
    const auto& b = cfg().metricConfigs.at("B");
    const auto& bo = b.orreryMetricInterface;
    EXPECT_EQ(cfg().orreryConfig.region + cfg().orreryConfig.groupId + b.metricName + bo.schemaId +
                  bo.groupId + bo.metricKey.name + bo.metricValue.name,
              "");
    EXPECT_FALSE(b.active || b.kaphMetricInterface.active || bo.active || !bo.metrics.empty());
    std::string positions;  // one schema position per element of "Metrics", whatever it holds
    for (const auto& f : cfg().metricConfigs.at("C").orreryMetricInterface.metrics)
        positions += "[" + f.name + f.type + f.dimensionTag + "]";
    EXPECT_EQ(positions, "[][][only_name][]");
}

TEST_F(MetricsTest, OverridePropertyReadsTheDataCopyWhateverThePath) {
    const std::string json = R"({"OrreryConfig": {}, "MetricConfig": [{"MetricConfig": ")";
    root.writeFile("/vendor/x.json", json + "Passed\"}]}");
    root.writeFile(kOverrideMetricConfigPath, json + "Data\"}]}");
    EXPECT_TRUE(cfg().loadConfig("/vendor/x.json"));
    EXPECT_EQ(names(), (std::set<std::string>{"Passed"}));
    root.setProperty(kMetricOverrideProperty, "true\n");
    EXPECT_TRUE(cfg().loadConfig("/vendor/x.json"));
    EXPECT_EQ(names(), (std::set<std::string>{"Data"}));
}

// Both kinds of record, byte for byte, as they reach the metrics buffer.
TEST_F(MetricsTest, ExampleRecordsReachTheMetricsBuffer) {
    ASSERT_TRUE(load(kExampleMetricConfig));
    metric.emitOrreryMetricPairVec("uptime_till_reboot", {{"duration_type", "uptime_till_reboot"},
                                                          {"duration_value", "3600"}});
    metric.publishCounterMetric("IdleDetector", "uptime_till_reboot", 3600);
    metric.emitOrreryMetricUint64("system_server", 3);
    metric.publish("MemoryGuardrail");
    EXPECT_EQ(
        log.messages(8, "metrics.tavrend"),
        (std::vector<std::string>{durationRecord("uptime_till_reboot", "3600"),
                                  "grp2:sch2:100:proc=system_server;SY,count=3;IN" + kMetricTail}));
    for (const auto& r : log.records()) EXPECT_EQ(r.priority, ANDROID_LOG_INFO);
}

TEST_F(MetricsTest, GatesDecideWhatIsSentAndWhatIsKept) {
    ASSERT_TRUE(load(kExampleMetricConfig));
    cfg().metricConfigs["Inactive"] = *cfg().findMetricConfig("MemoryGuardrail");
    cfg().metricConfigs["Inactive"].orreryMetricInterface.active = false;
    const std::string idle = "grp1:sch1:100:";
    const std::string counter =
        "grp2:sch2:100:proc=a_b;SY,count=18446744073709551615;IN" + kMetricTail;
    const std::string fits = idle + "type=t;SY,value=42;IN" + kMetricTail;
    // a:b and a;b become one entry with the last value; lacking key/value tags it is dropped.
    // Pairs go out in key order: an empty body is dropped, a missing last name keeps its comma.
    const struct {
        const char* config;
        bool enabled, kept;  // kept: the values stay for a later publish
        std::vector<std::string> sent;
    } cases[] = {
        {"MemoryGuardrail", false, true, {}},
        {"Unknown", true, false, {}},
        {"Inactive", true, false, {}},
        {"MemoryGuardrail", true, false, {counter}},
        {"IdleDetector", true, false, {fits, idle + "type=x;SY,," + kMetricTail.substr(1)}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.config);
        TavrendMetric m("tavrend");
        cfg().orreryConfig.enabled = c.enabled;
        m.emitOrreryMetricUint64("a:b", 1);
        m.emitOrreryMetricUint64("a;b", UINT64_MAX);
        m.emitOrreryMetricPairVec("a_fits", {{"duration_type", "t"}, {"duration_value", "42"}});
        m.emitOrreryMetricPairVec("b_misfit", {{"duration_type", "x"}});
        m.emitOrreryMetricPairVec("c_last_missing", {{"duration_type", "x"}, {"other", "1"}});
        m.buildOrreryMetricTailString();
        log.clear();
        m.publish(c.config);
        EXPECT_EQ(log.messages(tavrend::kMetricsLogId), c.sent);
        EXPECT_EQ(m.uint64MetricsView().size() + m.pairVecMetricsView().size(), c.kept ? 4u : 0u);
        // A configuration that cannot be published also forgets the cached tail.
        EXPECT_EQ(m.tailCacheView().empty(), !c.kept && c.sent.empty());
    }
}

}  // namespace
}  // namespace tavrend::test

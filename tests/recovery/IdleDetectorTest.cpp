// The idle detector on a fake clock: minimum uptime, the override clock,
// idleness, heartbeats, the condition's metric and the reboot request.
#include <gtest/gtest.h>
#include <log/log.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "config/Constants.h"
#include "metrics/TavrenMetricConfig.h"
#include "recovery/IdleDetector.h"
#include "support/DeviceRoot.h"
#include "support/FakeTime.h"
#include "support/LogCapture.h"

using namespace tavrend;
using tavrend::test::DeviceRoot;
using tavrend::test::FakeTime;
using tavrend::test::LogCapture;

namespace {

const char* kMetricConfig = R"({
  "OrreryConfig": {"Enabled": true, "Region": "", "GroupId": "g"},
  "MetricConfig": [{"MetricConfig": "IdleDetector", "Active": true,
    "KAPH_Metric_Interface": {"ProgramName": "tavrend", "Active": %s},
    "Orrery_Metric_Interface": {"Schema_Id": "s", "Active": true,
      "Metrics": [{"Name": "duration_type", "Type": "str", "DimensionTag": "type"},
                  {"Name": "duration_value", "Type": "int", "DimensionTag": "value"}]}}]
})";

const std::string kTail =
    ",_softwareVersion=;SY,_deviceType=;SY,_platform=;SY,_model=;SY,_buildType=;SY,"
    "_marketPlaceId=;SY,_countryOfResidence=;SY,_deviceLanguage=;SY,_otaGroupName=;SY,"
    "_timeZone=;SY,_deviceId=;SY,_customerId=;SY,_hardware=;SY";

std::string record(const std::string& type, unsigned long value) {
    return "g:s:100:type=" + type + ";SY,value=" + std::to_string(value) + ";IN" + kTail;
}

struct Fixture {
    DeviceRoot root;
    FakeTime clock{300};
    LogCapture log;
    ConfigVariables config;

    explicit Fixture(bool legacyActive = true) {
        char json[2048];
        snprintf(json, sizeof(json), kMetricConfig, legacyActive ? "true" : "false");
        root.setMetricConfig(json);
        TavrenMetricConfig::instance().resetConfig();
        EXPECT_TRUE(TavrenMetricConfig::instance().loadConfig(
            "/system/etc/tavrend/tavrend_metric_config.json"));
        config.critical_memory_minimum_uptime_sec = 600;
        config.critical_memory_idle_override_time_sec = 3600;
        config.idle_detection_interval_sec = 60;
        log.clear();
    }
    ~Fixture() { TavrenMetricConfig::instance().resetConfig(); }

    void setActive(bool active) { root.setProperty(USER_ACTIVITY_PROPERTY, active ? "1" : "0"); }
    std::vector<std::string> system() const { return log.messages(LOG_ID_SYSTEM, "tavrend"); }
    std::vector<std::string> records() const { return log.messages(LOG_ID_METRICS, "metrics.tavrend"); }
    size_t count(const std::string& prefix) const { return log.countPrefix(LOG_ID_SYSTEM, prefix); }
};

}  // namespace

TEST(IdleDetector, OverrideClockStartsAtTheFirstEligiblePass) {
    Fixture f;
    f.setActive(true);  // never idle
    IdleDetector detector(f.config);
    detector.execute(CRITICAL_MEMORY);

    // Passes at 300, 360, ..., 600 (first eligible), ..., 4200 = 600 + 3600.
    EXPECT_EQ(f.clock.uptime(), 4200u);
    EXPECT_EQ(f.root.getProperty("sys.powerctl"), "reboot");
    auto msgs = f.system();
    ASSERT_GE(msgs.size(), 4u);
    EXPECT_EQ(msgs.front(), "Starting post-critical condition idle detection at Uptime: 300");
    EXPECT_EQ(msgs[msgs.size() - 3], "Waited long enough, overriding idle after 3900 secs");
    EXPECT_EQ(msgs[msgs.size() - 2], "Rebooting device");
    EXPECT_EQ(msgs.back(), "Exiting Idle Detector");
    // 66 waiting passes (uptime 300 .. 4140): heartbeats in passes 0, 10, ..., 60.
    EXPECT_EQ(f.count("IdleDetector heartbeat"), 7u);
    EXPECT_EQ(f.clock.sleepCalls(), 65u);
    EXPECT_EQ(f.records(), (std::vector<std::string>{record("uptime_till_critical_mem", 300),
                                                     record("uptime_till_idle_override", 4200)}));
}

TEST(IdleDetector, IdleAtTheFirstEligiblePassRebootsThenAndNotBefore) {
    Fixture f;
    f.setActive(false);  // idle all along, but the minimum uptime holds the reboot
    IdleDetector detector(f.config);
    detector.execute(CRITICAL_UPL);
    EXPECT_EQ(f.clock.uptime(), 600u);
    EXPECT_EQ(f.count("No user activity, current uptime 600 secs, was waiting for idle for 300 secs"),
              1u);
    EXPECT_EQ(f.root.getProperty("sys.powerctl"), "reboot");
    EXPECT_EQ(f.records(), (std::vector<std::string>{record("uptime_till_bad_dupl", 300),
                                                     record("time_till_idle", 300),
                                                     record("uptime_till_reboot", 600)}));
}

TEST(IdleDetector, OverrideZeroRebootsAtFirstEligiblePassWhateverTheUser) {
    Fixture f;
    f.setActive(true);
    f.config.critical_memory_idle_override_time_sec = 0;
    f.config.critical_memory_minimum_uptime_sec = 1;
    IdleDetector detector(f.config);
    detector.execute(CRITICAL_MEMORY);
    EXPECT_EQ(f.clock.uptime(), 300u);
    EXPECT_EQ(f.clock.sleepCalls(), 0u);
    EXPECT_EQ(f.count("Waited long enough, overriding idle after 0 secs"), 1u);
    EXPECT_EQ(f.count("IdleDetector heartbeat"), 0u);  // not on a pass that reboots
}

TEST(IdleDetector, BecomingIdleLaterAndHeartbeats) {
    Fixture f;
    f.config.critical_memory_minimum_uptime_sec = 1;
    f.config.idle_detection_interval_sec = 5;
    // No property at all counts as busy; the user leaves after the 23rd sleep.
    f.clock.onSleep([&](unsigned long index) {
        if (index == 22) f.setActive(false);
    });
    IdleDetector detector(f.config);
    detector.waitForIdleAndRecover(300);
    EXPECT_EQ(f.clock.uptime(), 300u + 23 * 5);
    EXPECT_EQ(f.count("IdleDetector heartbeat"), 3u);  // passes 0, 10, 20 of 23 waiting passes
    EXPECT_EQ(f.count("No user activity, current uptime 415 secs, was waiting for idle for 115 secs"),
              1u);
    EXPECT_EQ(f.root.getProperty("sys.powerctl"), "reboot");
}

TEST(IdleDetector, FailingSysinfoHoldsTheWait) {
    Fixture f;
    f.setActive(false);
    f.config.critical_memory_minimum_uptime_sec = 1;
    f.clock.failSysinfo(true);
    f.clock.onSleep([&](unsigned long index) {
        if (index == 4) f.clock.failSysinfo(false);
    });
    IdleDetector detector(f.config);
    detector.execute(CRITICAL_MEMORY);
    EXPECT_EQ(f.count("Starting post-critical condition idle detection at Uptime: 0"), 1u);
    EXPECT_EQ(f.clock.sleepCalls(), 5u);
    EXPECT_EQ(f.root.getProperty("sys.powerctl"), "reboot");
}

TEST(IdleDetector, MetricGates) {
    {
        // Legacy interface inactive: values are emitted but never published.
        Fixture f(false);
        f.setActive(false);
        IdleDetector detector(f.config);
        detector.execute(CRITICAL_MEMORY);
        EXPECT_TRUE(f.records().empty());
        EXPECT_EQ(f.root.getProperty("sys.powerctl"), "reboot");
    }
    {
        // An unknown condition uses the empty name for its first metric.
        Fixture f;
        f.setActive(false);
        IdleDetector detector(f.config);
        detector.execute(NO_CRITICAL_CONDITION);
        auto recs = f.records();
        ASSERT_EQ(recs.size(), 3u);
        EXPECT_EQ(recs[0], record("", 300));
    }
}

TEST(IdleDetector, ThreadPicksUpTheHandOver) {
    Fixture f;
    f.setActive(false);
    f.config.idle_detection_interval_sec = 1;
    IdleDetector detector(f.config);
    std::thread t([&] { detector.trackIdleStatus(); });
    // Let the thread poll a few times on the fake clock before the hand-over.
    while (f.clock.sleepCalls() < 3) std::this_thread::yield();
    detector.criticalConditionDetected.store(true);
    detector.criticalConditionType.store(CRITICAL_MEMORY);
    t.join();
    EXPECT_EQ(f.count("Critical condition is detected"), 1u);
    EXPECT_EQ(f.root.getProperty("sys.powerctl"), "reboot");
    EXPECT_EQ(f.count("Exiting Idle Detector"), 1u);
}

namespace {
// Publication fails on the first attempts, as a metrics back end in trouble would.
class FailingPublisher : public IdleDetector {
public:
    using IdleDetector::IdleDetector;
    int failuresLeft = 2;

protected:
    void publishDuration(bool haveEntry, bool legacyActive, const std::string& name,
                         unsigned long value) override {
        if (failuresLeft > 0) {
            --failuresLeft;
            throw std::runtime_error("publish failed");
        }
        IdleDetector::publishDuration(haveEntry, legacyActive, name, value);
    }
};
}  // namespace

TEST(IdleDetector, FailedPublicationIsRetriedOnTheNextPass) {
    Fixture f;
    f.setActive(false);
    f.config.critical_memory_minimum_uptime_sec = 1;
    FailingPublisher detector(f.config);
    detector.waitForIdleAndRecover(300);
    EXPECT_EQ(f.count("IdleDetector failed, reason=runttimeFailed publish failed"), 2u);
    EXPECT_EQ(f.clock.sleepCalls(), 2u);  // one pass per failure, then the reboot
    EXPECT_EQ(f.count("No user activity"), 3u);
    EXPECT_EQ(f.root.getProperty("sys.powerctl"), "reboot");
}

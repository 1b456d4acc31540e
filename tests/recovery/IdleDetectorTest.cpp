// The idle detector on a fake clock: minimum uptime, the override clock,
// idleness, heartbeats, the condition's metrics and the reboot request.
#include <gtest/gtest.h>
#include <log/log.h>

#include <sstream>
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
using namespace tavrend::test;

namespace {

struct Fixture {
    DeviceRoot root;
    FakeTime clock{300};
    LogCapture log;
    ConfigVariables config;

    Fixture() {
        root.setMetricConfig(kExampleMetricConfig);
        TavrenMetricConfig::instance().resetConfig();
        EXPECT_TRUE(TavrenMetricConfig::instance().loadConfig(kDefaultMetricConfigPath));
        config.critical_memory_minimum_uptime_sec = 600;
        config.critical_memory_idle_override_time_sec = 3600;
        config.idle_detection_interval_sec = 60;
        log.clear();
    }
    ~Fixture() { TavrenMetricConfig::instance().resetConfig(); }

    void setActive(bool active) { root.setProperty(USER_ACTIVITY_PROPERTY, active ? "1" : "0"); }
    std::vector<std::string> system() const { return log.messages(LOG_ID_SYSTEM, "tavrend"); }
    size_t count(const std::string& prefix) const { return log.countPrefix(LOG_ID_SYSTEM, prefix); }
};

// Publication fails on the first attempts, as a metrics back end in trouble would.
class FailingPublisher : public IdleDetector {
public:
    using IdleDetector::IdleDetector;
    int failuresLeft = 2;

protected:
    void publishDuration(bool haveEntry, bool legacyActive, const std::string& name,
                         unsigned long value) override {
        if (failuresLeft > 0 && failuresLeft--) throw std::runtime_error("publish failed");
        IdleDetector::publishDuration(haveEntry, legacyActive, name, value);
    }
};
}  // namespace

TEST(IdleDetector, WaitsForIdleOrTheOverrideThenReboots) {
    const std::string idleAt600 =
        "No user activity, current uptime 600 secs, was waiting for idle for 300 secs";
    const struct {
        CriticalConditionType condition;
        int minUptime, override, interval;
        int idleAfterSleep;  // -1: busy all along; 0: idle from the start; else the property
                             // is absent (busy) until that many sleeps
        bool legacyActive;   // the legacy interface's flag gates publication
        unsigned long endUptime, sleeps, heartbeats;
        std::string records;  // "type=value ..." in order
        std::string reason;   // the message before "Rebooting device"
    } cases[] = {
        // Passes at 300, 360, ..., 600 (first eligible), ..., 4200 = 600 + 3600.
        {CRITICAL_MEMORY, 600, 3600, 60, -1, true, 4200, 65, 7,
         "uptime_till_critical_mem=300 uptime_till_idle_override=4200",
         "Waited long enough, overriding idle after 3900 secs"},
        {CRITICAL_UPL, 600, 3600, 60, 0, true, 600, 5, 1,
         "uptime_till_bad_dupl=300 time_till_idle=300 uptime_till_reboot=600", idleAt600},
        {NO_CRITICAL_CONDITION, 600, 3600, 60, 0, true, 600, 5, 1,
         "=300 time_till_idle=300 uptime_till_reboot=600", idleAt600},
        {CRITICAL_MEMORY, 600, 3600, 60, 0, false, 600, 5, 1, "", idleAt600},
        // No heartbeat on a pass that reboots.
        {CRITICAL_MEMORY, 1, 0, 60, -1, true, 300, 0, 0,
         "uptime_till_critical_mem=300 uptime_till_idle_override=300",
         "Waited long enough, overriding idle after 0 secs"},
        {CRITICAL_MEMORY, 1, 3600, 5, 23, true, 415, 23, 3,
         "uptime_till_critical_mem=300 time_till_idle=115 uptime_till_reboot=415",
         "No user activity, current uptime 415 secs, was waiting for idle for 115 secs"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason + " " + c.records);
        Fixture f;
        if (c.idleAfterSleep <= 0) f.setActive(c.idleAfterSleep < 0);
        f.clock.onSleep = [&](unsigned long index) {
            if (index + 1 == static_cast<unsigned long>(c.idleAfterSleep)) f.setActive(false);
        };
        TavrenMetricConfig::instance().metricConfigs["IdleDetector"].kaphMetricInterface.active =
            c.legacyActive;
        f.config.critical_memory_minimum_uptime_sec = c.minUptime;
        f.config.critical_memory_idle_override_time_sec = c.override;
        f.config.idle_detection_interval_sec = c.interval;
        IdleDetector detector(f.config);
        detector.execute(c.condition);
        EXPECT_EQ(f.clock.uptime(), c.endUptime);
        EXPECT_EQ(f.clock.sleepCalls(), c.sleeps);
        EXPECT_EQ(f.count("IdleDetector heartbeat"), c.heartbeats);
        EXPECT_EQ(f.root.getProperty("sys.powerctl"), "reboot");
        const auto msgs = f.system();
        ASSERT_GE(msgs.size(), 4u);
        EXPECT_EQ(msgs.front(), "Starting post-critical condition idle detection at Uptime: 300");
        EXPECT_EQ(
            std::vector<std::string>(msgs.end() - 3, msgs.end()),
            (std::vector<std::string>{c.reason, "Rebooting device", "Exiting Idle Detector"}));
        std::vector<std::string> records;
        std::istringstream in(c.records);
        for (std::string r; in >> r;) {
            records.push_back(durationRecord(r.substr(0, r.find('=')), r.substr(r.find('=') + 1)));
        }
        EXPECT_EQ(f.log.messages(tavrend::kMetricsLogId, "metrics.tavrend"), records);
    }
}

TEST(IdleDetector, FailingSysinfoHoldsTheWait) {
    Fixture f;
    f.setActive(false);
    f.config.critical_memory_minimum_uptime_sec = 1;
    f.clock.failSysinfo(true);
    f.clock.onSleep = [&](unsigned long index) {
        if (index == 4) f.clock.failSysinfo(false);
    };
    IdleDetector detector(f.config);
    detector.execute(CRITICAL_MEMORY);
    EXPECT_EQ(f.count("Starting post-critical condition idle detection at Uptime: 0"), 1u);
    EXPECT_EQ(f.clock.sleepCalls(), 5u);
    EXPECT_EQ(f.root.getProperty("sys.powerctl"), "reboot");
}

TEST(IdleDetector, ThreadPicksUpTheHandOver) {
    Fixture f;
    f.setActive(false);
    f.config.idle_detection_interval_sec = 1;
    IdleDetector detector(f.config);
    std::thread t([&] { detector.trackIdleStatus(); });
    while (f.clock.sleepCalls() < 3) std::this_thread::yield();  // a few polls first
    detector.criticalConditionDetected.store(true);
    detector.criticalConditionType.store(CRITICAL_MEMORY);
    t.join();
    EXPECT_EQ(f.count("Critical condition is detected"), 1u);
    EXPECT_EQ(f.count("Exiting Idle Detector"), 1u);
    EXPECT_EQ(f.root.getProperty("sys.powerctl"), "reboot");
}

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

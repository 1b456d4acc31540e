// The monitoring loop driven by scripted monitors: tick numbering, the first
// condition in vector order wins, a failed check hides a raised condition,
// init failures drop monitors, and a signal ends the loop.
#include <gtest/gtest.h>
#include <log/log.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "daemon/Daemon.h"
#include "daemon/Monitoring.h"
#include "support/DeviceRoot.h"
#include "support/LogCapture.h"

using namespace tavrend;
using tavrend::test::DeviceRoot;
using tavrend::test::LogCapture;
using Ticks = std::vector<unsigned long long>;

namespace {

// Raises a condition and/or fails check() at the ticks its script names; with a
// period, samples through the periodic rule instead.
class ScriptedMonitor : public MetricSamplerInterface {
public:
    explicit ScriptedMonitor(bool initResult = true, std::optional<int32_t> period = {})
        : initResult(initResult), period(period) {}
    bool init() override { return ++inits, initResult; }
    bool check(unsigned long long tick, bool force, bool idle) override {
        if (period) return checkPeriodic(tick, force, *period);
        ticks.push_back(tick);
        idles.push_back(idle);
        if (raiseAt.count(tick)) setCriticalConditionDetected(raiseAt[tick]);
        return failAt.count(tick) == 0;
    }
    void dumpReport() override { ++reports; }
    bool fetch() override { return ++fetches, fetchResult; }

    bool initResult, fetchResult = true;
    std::optional<int32_t> period;
    std::map<unsigned long long, CriticalConditionType> raiseAt;
    std::set<unsigned long long> failAt;
    Ticks ticks;
    std::vector<bool> idles;
    int inits = 0, reports = 0, fetches = 0;
};

struct LoopFixture {
    DeviceRoot root;
    ConfigVariables config;
    IdleDetector detector{config};
    int fds[2] = {-1, -1};
    SamplerList samplers;
    CriticalConditionType result = NO_CRITICAL_CONDITION;

    LoopFixture() { EXPECT_EQ(pipe(fds), 0); }
    ~LoopFixture() { close(fds[0]), close(fds[1]); }
    std::shared_ptr<ScriptedMonitor> add() {
        samplers.push_back(std::make_shared<ScriptedMonitor>());
        return std::static_pointer_cast<ScriptedMonitor>(samplers.back());
    }
    bool run() { return startMonitoring(fds[0], samplers, result, detector); }
};

}  // namespace

TEST(MonitoringLoop, FirstConditionInVectorOrderWinsAndReportsFollow) {
    LoopFixture f;
    f.root.setProperty("sys.user_activity_detected", "false");
    auto first = f.add(), second = f.add(), third = f.add();
    second->raiseAt[1] = CRITICAL_MEMORY;
    third->raiseAt[1] = CRITICAL_UPL;
    LogCapture capture;
    EXPECT_TRUE(f.run());
    EXPECT_EQ(f.result, CRITICAL_MEMORY);
    EXPECT_EQ(first->ticks, (Ticks{0, 1}));
    EXPECT_EQ(second->ticks, (Ticks{0, 1}));
    EXPECT_EQ(third->ticks, (Ticks{0}));  // not checked in the second the winner was found
    EXPECT_EQ(first->idles, (std::vector<bool>{true, true}));
    EXPECT_EQ(first->reports + second->reports + third->reports, 3);
    auto msgs = capture.messages(LOG_ID_SYSTEM, "tavrend");
    ASSERT_EQ(msgs.size(), 2u);
    EXPECT_EQ(msgs[0], "------Tavrend Crash Report------");
    EXPECT_TRUE(msgs[1].starts_with("Date & Time: ") && msgs[1].ends_with("\n"));  // ctime's
    for (const auto& r : capture.records()) EXPECT_EQ(r.priority, ANDROID_LOG_ERROR);
}

TEST(MonitoringLoop, FailedCheckHidesAConditionUntilTheNextSuccess) {
    LoopFixture f;
    auto m = f.add(), other = f.add();
    m->raiseAt[0] = CRITICAL_UPL;
    m->failAt = {0, 1};
    EXPECT_TRUE(f.run());
    EXPECT_EQ(f.result, CRITICAL_UPL);
    EXPECT_EQ(m->ticks, (Ticks{0, 1, 2}));
    EXPECT_EQ(other->ticks, (Ticks{0, 1}));
    EXPECT_EQ(m->idles, (std::vector<bool>{false, false, false}));  // no property: busy
}

TEST(MonitoringLoop, SignalRecordOrBadDescriptorEndsTheLoopWithoutCondition) {
    LoopFixture f;
    auto m = f.add();
    signalfd_siginfo info{};
    info.ssi_signo = SIGTERM;
    ASSERT_EQ(write(f.fds[1], &info, sizeof(info)), static_cast<ssize_t>(sizeof(info)));
    LogCapture capture;
    EXPECT_FALSE(f.run());
    EXPECT_EQ(f.result, NO_CRITICAL_CONDITION);
    EXPECT_TRUE(m->ticks.empty());
    EXPECT_EQ(m->reports, 0);
    EXPECT_EQ(capture.messages(LOG_ID_SYSTEM), std::vector<std::string>{"Received signal 15"});
    capture.clear();
    ASSERT_EQ(write(f.fds[1], "x", 1), 1);  // a short record is not reported
    EXPECT_FALSE(f.run());
    EXPECT_TRUE(capture.messages(LOG_ID_SYSTEM).empty());
    int closed = dup(f.fds[0]);
    close(closed);  // select fails with EBADF
    EXPECT_FALSE(startMonitoring(closed, f.samplers, f.result, f.detector));
}

TEST(MonitorInit, FailedInitRemovesTheMonitorAndInitialisesTheNextInItsPlace) {
    auto a = std::make_shared<ScriptedMonitor>(), d = std::make_shared<ScriptedMonitor>();
    auto b = std::make_shared<ScriptedMonitor>(false), c = std::make_shared<ScriptedMonitor>(false);
    SamplerList samplers = {a, b, c, d};
    initMonitors(samplers);
    EXPECT_EQ(samplers, (SamplerList{a, d}));
    EXPECT_EQ(a->inits + b->inits + c->inits + d->inits, 4);
}

TEST(MonitorInterface, PeriodicRuleSamplesOnMultiplesOrWhenForced) {
    ScriptedMonitor m(true, 5);
    EXPECT_EQ(m.getCriticalCondition(), NO_CRITICAL_CONDITION);
    for (unsigned long long tick = 0; tick <= 10; ++tick) EXPECT_TRUE(m.check(tick, false, false));
    EXPECT_EQ(m.fetches, 3);  // ticks 0, 5, 10
    EXPECT_TRUE(m.check(7, true, false));
    EXPECT_EQ(m.fetches, 4);
    m.fetchResult = false;
    EXPECT_TRUE(m.check(7, false, false));  // not due: true without sampling
    EXPECT_FALSE(m.check(15, false, false));
    // A period the file left at 0 or below samples every second instead of dividing by 0.
    for (int32_t period : {0, -4}) {
        ScriptedMonitor p(true, period);
        for (unsigned long long tick = 0; tick < 3; ++tick) p.check(tick, false, false);
        EXPECT_EQ(p.fetches, 3) << period;
    }
}

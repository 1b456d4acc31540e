// The monitoring loop driven by scripted monitors: tick numbering, the first
// condition in vector order wins, a failed check hides a raised condition,
// init failures drop monitors, and a signal ends the loop.
#include <gtest/gtest.h>
#include <log/log.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "daemon/Daemon.h"
#include "daemon/Monitoring.h"
#include "support/DeviceRoot.h"
#include "support/LogCapture.h"

using namespace tavrend;
using tavrend::test::DeviceRoot;
using tavrend::test::LogCapture;

namespace {

// A monitor that follows a script: at a given tick it raises a condition
// and/or makes check() return false.
class ScriptedMonitor : public MetricSamplerInterface {
public:
    explicit ScriptedMonitor(std::string name, bool initResult = true)
        : name(std::move(name)), initResult(initResult) {}

    bool init() override {
        ++inits;
        return initResult;
    }
    bool check(unsigned long long tick, bool, bool idle) override {
        ticks.push_back(tick);
        idles.push_back(idle);
        auto raise = raiseAt.find(tick);
        if (raise != raiseAt.end()) setCriticalConditionDetected(raise->second);
        return failAt.count(tick) == 0;
    }
    void dumpReport() override { ++reports; }
    bool fetch() override { return true; }

    std::string name;
    bool initResult;
    std::map<unsigned long long, CriticalConditionType> raiseAt;
    std::map<unsigned long long, bool> failAt;
    std::vector<unsigned long long> ticks;
    std::vector<bool> idles;
    int inits = 0;
    int reports = 0;
};

struct Pipe {
    int fds[2];
    Pipe() { EXPECT_EQ(pipe(fds), 0); }
    ~Pipe() {
        close(fds[0]);
        close(fds[1]);
    }
};

struct LoopFixture {
    DeviceRoot root;
    ConfigVariables config;
    IdleDetector detector{config};
    Pipe pipe;
    SamplerList samplers;
    CriticalConditionType result = NO_CRITICAL_CONDITION;

    std::shared_ptr<ScriptedMonitor> add(const std::string& name) {
        auto m = std::make_shared<ScriptedMonitor>(name);
        samplers.push_back(m);
        return m;
    }
    bool run() { return startMonitoring(pipe.fds[0], samplers, result, detector); }
};

}  // namespace

TEST(MonitoringLoop, FirstConditionInVectorOrderWinsAndReportsFollow) {
    LoopFixture f;
    f.root.setProperty("sys.user_activity_detected", "false");
    auto first = f.add("process");
    auto second = f.add("system");
    auto third = f.add("latency");
    second->raiseAt[1] = CRITICAL_MEMORY;
    third->raiseAt[1] = CRITICAL_UPL;

    LogCapture capture;
    EXPECT_TRUE(f.run());
    EXPECT_EQ(f.result, CRITICAL_MEMORY);
    EXPECT_EQ(first->ticks, (std::vector<unsigned long long>{0, 1}));
    EXPECT_EQ(second->ticks, (std::vector<unsigned long long>{0, 1}));
    // The monitor after the winner is not checked in that second.
    EXPECT_EQ(third->ticks, (std::vector<unsigned long long>{0}));
    EXPECT_EQ(first->idles, (std::vector<bool>{true, true}));
    EXPECT_EQ(first->reports + second->reports + third->reports, 3);

    auto msgs = capture.messages(LOG_ID_SYSTEM, "tavrend");
    ASSERT_EQ(msgs.size(), 2u);
    EXPECT_EQ(msgs[0], "------Tavrend Crash Report------");
    EXPECT_EQ(msgs[1].rfind("Date & Time: ", 0), 0u);
    EXPECT_EQ(msgs[1].back(), '\n');  // ctime's own newline
    for (const auto& r : capture.records()) EXPECT_EQ(r.priority, ANDROID_LOG_ERROR);
}

TEST(MonitoringLoop, FailedCheckHidesAConditionUntilTheNextSuccess) {
    LoopFixture f;
    auto m = f.add("flaky");
    auto other = f.add("other");
    m->raiseAt[0] = CRITICAL_UPL;
    m->failAt[0] = true;
    m->failAt[1] = true;
    EXPECT_TRUE(f.run());
    EXPECT_EQ(f.result, CRITICAL_UPL);
    EXPECT_EQ(m->ticks, (std::vector<unsigned long long>{0, 1, 2}));
    EXPECT_EQ(other->ticks, (std::vector<unsigned long long>{0, 1}));
    // No user-activity property: the device counts as busy.
    EXPECT_EQ(m->idles, (std::vector<bool>{false, false, false}));
}

TEST(MonitoringLoop, SignalRecordEndsTheLoopWithoutCondition) {
    LoopFixture f;
    auto m = f.add("m");
    struct signalfd_siginfo info;
    memset(&info, 0, sizeof(info));
    info.ssi_signo = SIGTERM;
    ASSERT_EQ(write(f.pipe.fds[1], &info, sizeof(info)), static_cast<ssize_t>(sizeof(info)));
    LogCapture capture;
    EXPECT_FALSE(f.run());
    EXPECT_EQ(f.result, NO_CRITICAL_CONDITION);
    EXPECT_TRUE(m->ticks.empty());
    EXPECT_EQ(capture.messages(LOG_ID_SYSTEM), std::vector<std::string>{"Received signal 15"});
    EXPECT_EQ(m->reports, 0);

    // A short record is not reported, but still ends the loop.
    capture.clear();
    ASSERT_EQ(write(f.pipe.fds[1], "x", 1), 1);
    EXPECT_FALSE(f.run());
    EXPECT_TRUE(capture.messages(LOG_ID_SYSTEM).empty());
}

TEST(MonitoringLoop, BadDescriptorReturnsFalse) {
    LoopFixture f;
    f.add("m");
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[0]);
    close(fds[1]);
    int badFd = fds[0];  // closed: select fails with EBADF
    EXPECT_FALSE(startMonitoring(badFd, f.samplers, f.result, f.detector));
}

TEST(MonitorInit, FailedInitRemovesTheMonitorAndInitialisesTheNextInItsPlace) {
    SamplerList samplers;
    auto a = std::make_shared<ScriptedMonitor>("a");
    auto b = std::make_shared<ScriptedMonitor>("b", false);
    auto c = std::make_shared<ScriptedMonitor>("c", false);
    auto d = std::make_shared<ScriptedMonitor>("d");
    samplers = {a, b, c, d};
    initMonitors(samplers);
    ASSERT_EQ(samplers.size(), 2u);
    EXPECT_EQ(samplers[0], a);
    EXPECT_EQ(samplers[1], d);
    EXPECT_EQ(a->inits + b->inits + c->inits + d->inits, 4);
}

namespace {
class PeriodicMonitor : public MetricSamplerInterface {
public:
    explicit PeriodicMonitor(int32_t period) : period(period) {}
    bool init() override { return true; }
    bool check(unsigned long long tick, bool force, bool) override {
        return checkPeriodic(tick, force, period);
    }
    void dumpReport() override {}
    bool fetch() override {
        ++fetches;
        return fetchResult;
    }
    int32_t period;
    int fetches = 0;
    bool fetchResult = true;
};
}  // namespace

TEST(MonitorInterface, PeriodicRuleSamplesOnMultiplesOrWhenForced) {
    PeriodicMonitor m(5);
    EXPECT_EQ(m.getCriticalCondition(), NO_CRITICAL_CONDITION);
    for (unsigned long long tick = 0; tick <= 10; ++tick) EXPECT_TRUE(m.check(tick, false, false));
    EXPECT_EQ(m.fetches, 3);  // ticks 0, 5, 10
    EXPECT_TRUE(m.check(7, true, false));
    EXPECT_EQ(m.fetches, 4);
    m.fetchResult = false;
    EXPECT_TRUE(m.check(7, false, false));  // not due: true without sampling
    EXPECT_FALSE(m.check(15, false, false));

    // A period the file left at 0 (or below) samples every second instead of dividing by 0.
    PeriodicMonitor zero(0), negative(-4);
    for (unsigned long long tick = 0; tick < 3; ++tick) {
        zero.check(tick, false, false);
        negative.check(tick, false, false);
    }
    EXPECT_EQ(zero.fetches, 3);
    EXPECT_EQ(negative.fetches, 3);
}

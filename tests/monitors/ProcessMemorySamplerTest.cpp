// The process memory sampler against synthetic /proc trees: baselines and
// histories, restarted and reused ids, shared names, kernel threads, the
// memtrack lookup and the paced report. Also the period of both samplers.
#include <dirent.h>
#include <gtest/gtest.h>
#include <log/log.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "MonitorsTestUtil.h"
#include "monitors/ProcessMemorySampler.h"
#include "monitors/SystemMemorySampler.h"
#include "support/DeviceRoot.h"
#include "support/FakeTime.h"
#include "support/LogCapture.h"

namespace tavrend {
namespace {

using test::DeviceRoot;
using test::FakeProcess;
using test::FakeTime;
using test::LogCapture;

ConfigVariables procConfig(int32_t historyLength = 5) {
    ConfigVariables c;
    c.proc_scan_interval_sec = 1;
    c.num_historical_vals = historyLength;
    return c;
}

FakeProcess process(int pid, const std::string& comm, uint64_t rssKb, uint64_t swapKb) {
    FakeProcess p;
    p.pid = pid;
    p.comm = comm;
    p.cmdline = "/system/bin/" + comm + std::string(1, '\0');
    p.vmRssKb = rssKb;
    p.vmSwapKb = swapKb;
    return p;
}

std::string history(const std::shared_ptr<CircularArrayList>& ring) {
    std::string text;
    ring->printList(text);
    return text;
}

TEST(ProcessMemorySampler, BaselinesAndHistories) {
    DeviceRoot root;
    const ConfigVariables config = procConfig(3);
    const ConfigVariables single = procConfig(0);  // below 1: rings of one value
    ProcessMemorySampler sampler(config);
    ProcessMemorySampler short_(single);
    for (uint64_t i = 0; i <= 4; ++i) {
        root.addProcess(process(100, "alpha", 1000 + 100 * i, 200 + i));
        ASSERT_TRUE(sampler.fetch());
        short_.fetch();
        if (i == 0) {
            EXPECT_EQ(sampler.getProcessStats().at(100).pid, 0);  // set from then on
        }
    }
    const ProcessStat& s = sampler.getProcessStats().at(100);
    EXPECT_EQ(s.name, "alpha");
    EXPECT_EQ(s.rssTotalBaseline, 1200u);
    EXPECT_EQ(s.rswapBaseline, 200u);
    EXPECT_EQ(s.pid, 100);
    EXPECT_EQ(history(s.rssTotalHistory), "{1402, 1503, 1604}");
    EXPECT_EQ(history(s.rswapHistory), "{202, 203, 204}");
    EXPECT_EQ(history(short_.getProcessStats().at(100).rssTotalHistory), "{1604}");
}

TEST(ProcessMemorySampler, ReusedRestartedAndExitedProcesses) {
    DeviceRoot root;
    root.addProcess(process(100, "alpha", 1000, 200));
    root.addProcess(process(101, "gone", 700, 0));
    root.addProcess(process(102, "app", 500, 0));
    const ConfigVariables config = procConfig();
    ProcessMemorySampler sampler(config);
    sampler.fetch();
    sampler.fetch();
    root.addProcess(process(100, "beta", 5000, 10));  // alpha's id reused by beta
    root.removeProcess(101);                          // exits
    root.removeProcess(102);                          // restarts under another id
    root.addProcess(process(230, "app", 3000, 0));
    sampler.fetch();

    const auto& stats = sampler.getProcessStats();
    const ProcessStat& reused = stats.at(100);
    EXPECT_EQ(reused.name, "beta");
    EXPECT_EQ(reused.rssTotalBaseline, 5010u);
    EXPECT_EQ(reused.rswapBaseline, 10u);
    EXPECT_EQ(history(reused.rssTotalHistory), "{5010}");
    EXPECT_EQ(history(reused.rswapHistory), "{10}");
    EXPECT_EQ(history(stats.at(101).rssTotalHistory), "{700, 700}");  // kept as it was
    EXPECT_EQ(sampler.getPidPairs().at("gone"), 101);
    EXPECT_EQ(stats.count(102), 0u);
    EXPECT_EQ(sampler.getPidPairs().at("app"), 230);
    EXPECT_EQ(stats.at(230).rssTotalBaseline, 3000u);
}

TEST(ProcessMemorySampler, SharedNamesKeepOneHistory) {
    DeviceRoot root;
    // Binder-named main threads without a command line are all "unknown".
    for (int pid : {410, 420, 430}) {
        FakeProcess p = process(pid, "Binder:" + std::to_string(pid) + "_1", 1000 + pid, 0);
        p.cmdline.clear();
        root.addProcess(p);
    }
    root.addProcess(process(500, "alpha", 900, 0));
    int lastUnknown = 0;  // the last one in readdir order wins the name
    DIR* dir = opendir(root.host("/proc").c_str());
    while (const dirent* e = readdir(dir)) {
        if (e->d_name[0] == '4') lastUnknown = atoi(e->d_name);
    }
    closedir(dir);

    const ConfigVariables config = procConfig();
    ProcessMemorySampler sampler(config);
    for (int i = 0; i < 3; ++i) sampler.fetch();
    EXPECT_EQ(sampler.getPidPairs().at("unknown"), lastUnknown);
    const auto& stats = sampler.getProcessStats();
    ASSERT_EQ(stats.size(), 2u);
    // The others erase the winner's entry on every scan, so it never grows.
    EXPECT_EQ(history(stats.at(lastUnknown).rssTotalHistory),
              "{" + std::to_string(1000 + lastUnknown) + "}");
    EXPECT_EQ(history(stats.at(500).rssTotalHistory), "{900, 900, 900}");
}

TEST(ProcessMemorySampler, KernelThreadsSkippedAndUnreadableProcTolerated) {
    DeviceRoot root;
    FakeProcess kthread;
    kthread.pid = 2;
    kthread.comm = "kthreadd";
    kthread.kernelThread = true;
    root.addProcess(kthread);
    root.addProcess(process(4, "swapped", 0, 64));  // all swapped out still counts
    LogCapture log;
    const ConfigVariables config = procConfig();
    ProcessMemorySampler sampler(config);
    sampler.fetch();
    EXPECT_EQ(sampler.getPidPairs().count("kthreadd"), 1u);
    EXPECT_EQ(sampler.getProcessStats().count(2), 0u);
    EXPECT_EQ(sampler.getProcessStats().at(4).rssTotalBaseline, 64u);

    root.removePath("/proc");  // the root was set with its own proc/, now gone
    EXPECT_TRUE(sampler.fetch());
    EXPECT_TRUE(checkPriorities(log, {{"Could not open /proc", ANDROID_LOG_WARN}}));
    EXPECT_EQ(sampler.getProcessStats().size(), 1u);
    EXPECT_EQ(heartbeats(log, "ProcessMemorySampler heartbeat"),
              (std::vector<std::string>{"ProcessMemorySampler heartbeat 0",
                                        "ProcessMemorySampler heartbeat 1"}));

    // With "process_mem_heartbeat_samples" 10, the eleventh fetch logs 10.
    ConfigVariables every10 = procConfig();
    every10.process_mem_heartbeat_samples = 10;
    ProcessMemorySampler counted(every10);
    log.clear();
    for (int i = 0; i < 11; ++i) counted.fetch();
    EXPECT_EQ(heartbeats(log, "ProcessMemorySampler heartbeat"),
              (std::vector<std::string>{"ProcessMemorySampler heartbeat 0",
                                        "ProcessMemorySampler heartbeat 10"}));
}

TEST(ProcessMemorySampler, ReportPausesOneSecondPerProcess) {
    DeviceRoot root;
    root.addProcess(process(205, "beta", 3000, 0));
    root.addProcess(process(100, "alpha", 1000, 200));
    const ConfigVariables config = procConfig();
    ProcessMemorySampler sampler(config);
    sampler.fetch();
    root.addProcess(process(100, "alpha", 1050, 250));
    sampler.fetch();

    FakeTime clock;
    LogCapture log;
    std::vector<size_t> linesAtSleep;
    clock.onSleep([&](unsigned long) { linesAtSleep.push_back(log.records().size()); });
    sampler.dumpReport();
    EXPECT_EQ(
        log.messages(LOG_ID_SYSTEM, "tavrend"),
        (std::vector<std::string>{
            "------Process info------", "Total Processes Sampled: 2",
            "PID: 100 Process Name: alpha", "RSS Total: {1200, 1300}, RSS Total baseline: 1200",
            "RSwap: {200, 250}, RSwap baseline: 200", "PID: 205 Process Name: beta",
            "RSS Total: {3000, 3000}, RSS Total baseline: 3000",
            "RSwap: {0, 0}, RSwap baseline: 0"}));
    for (const auto& r : log.records()) EXPECT_EQ(r.priority, ANDROID_LOG_ERROR) << r.message;
    // A one-second pause after each process's three lines, the last one included.
    EXPECT_EQ(linesAtSleep, (std::vector<size_t>{5, 8}));
    EXPECT_EQ(clock.sleptSeconds(), 2u);
}

// The memtrack service is looked up once per process, so each case runs in a
// fresh process of its own.
TEST(ProcessMemorySamplerDeathTest, MemtrackLookupOncePerProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto scenario = [](bool present) {
        bool ok = false;
        {
            DeviceRoot root;
            if (present) root.setMemtrack(1, 0, 0, 0);
            LogCapture log;
            const ConfigVariables config = procConfig();
            ProcessMemorySampler first(config);
            ok = first.init() && first.isMemtrackAvailable() == present &&
                 log.contains(LOG_ID_SYSTEM, "failed to load memtrack module") == !present;
            // The service comes or goes; the first answer stands.
            present ? root.removePath("/dev/memtrack") : root.setMemtrack(1, 0, 0, 0);
            ProcessMemorySampler second(config);
            ok = ok && second.init() && second.isMemtrackAvailable() == present;
        }
        _exit(ok ? 0 : 1);
    };
    EXPECT_EXIT(scenario(true), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(scenario(false), testing::ExitedWithCode(0), "");
}

TEST(MemorySamplers, CheckSamplesOnItsPeriod) {
    struct Case {
        int32_t period;
        unsigned long long tick;
        bool force, samples;
    };
    const Case cases[] = {{5, 0, false, true}, {5, 7, false, false}, {5, 10, false, true},
                          {5, 7, true, true},  {0, 7, false, true},  {-3, 7, false, true}};
    DeviceRoot root;
    root.setMeminfo(test::meminfoText(100000));
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "period " << c.period << " tick " << c.tick << (c.force ? " forced" : ""));
        ConfigVariables cfg = procConfig();
        cfg.proc_scan_interval_sec = c.period;
        cfg.memory_read_interval_sec = c.period;
        ProcessMemorySampler proc(cfg);
        SystemMemorySampler sys(cfg);
        EXPECT_TRUE(proc.check(c.tick, c.force, true));
        EXPECT_TRUE(sys.check(c.tick, c.force, false));
        EXPECT_EQ(proc.getSampleCount(), c.samples ? 1u : 0u);
        EXPECT_EQ(sys.getSampleCount(), c.samples ? 1u : 0u);
    }
    // A due sample that fails is the check's result.
    root.removePath("/proc/meminfo");
    ConfigVariables cfg = procConfig();
    cfg.memory_read_interval_sec = 5;
    SystemMemorySampler sys(cfg);
    EXPECT_FALSE(sys.check(10, false, false));
    EXPECT_TRUE(sys.check(11, false, false));
}

}  // namespace
}  // namespace tavrend

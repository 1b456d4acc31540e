// The host clock at TAVREND_TIME_SCALE=100: ten simulated minutes of the
// daemon's life in about six real seconds, with the loop's ticks, its sampling
// and the log's timestamps all on the same clock.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <string>
#include <thread>

#include "E2E.h"

using namespace std::chrono_literals;
using namespace tavrend::test;

namespace {

// Seconds since midnight of a log line's timestamp.
double secondsOf(const std::string& line) {
    int h = 0, m = 0, ms = 0, s = 0;
    sscanf(line.c_str(), "%*d-%*d %d:%d:%d.%d", &h, &m, &s, &ms);
    return h * 3600 + m * 60 + s + ms / 1000.0;
}

}  // namespace

TEST(FastClockE2E, TenSimulatedMinutesInSixSeconds) {
    DeviceRoot root;
    root.setDaemonConfig(R"({"system_mem": {"memory_read_interval_sec": 60,
        "lmk_target_kills": 100, "system_mem_heartbeat_samples": 1},
        "proc_scan": {"proc_scan_interval_sec": 600}})");
    root.setMeminfo(meminfoText(500000));
    root.setLmkStats("Persistent: 0\n");
    DaemonRun run(root, {{"TAVREND_TIME_SCALE", "100"}});
    run.start();
    std::this_thread::sleep_for(6s);
    run.process().signal(SIGTERM);
    ASSERT_TRUE(run.process().wait(10s).has_value());

    std::ifstream in(run.logDir() + "/system.log");
    std::string first, line, last;
    std::getline(in, first);
    int heartbeats = 0;
    while (std::getline(in, line)) {
        last = line;
        heartbeats += line.find("SystemMemorySampler heartbeat") != std::string::npos;
    }
    double span = secondsOf(last) - secondsOf(first);
    if (span < 0) span += 24 * 3600;  // past midnight
    EXPECT_GT(span, 500) << first << "\n" << last;
    EXPECT_LT(span, 700) << first << "\n" << last;
    // One sample every 60 ticks: the ticks kept pace with the log's clock.
    EXPECT_NEAR(heartbeats, span / 60, 1.5);
}

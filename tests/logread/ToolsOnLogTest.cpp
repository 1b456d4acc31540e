// The tools on the one reader: what status, sim and report make of lines,
// without a daemon, and the judgement and helpers a run's verdict rests on.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "logread/CrashReport.h"
#include "sim/SimRun.h"
#include "status/Status.h"
#include "support/DeviceRoot.h"
#include "toolbox/Commands.h"
#include "toolbox/Text.h"

namespace tavrendctl {
// The test binary has no dispatch of its own: main.cpp's table is tavrendctl's.
const std::vector<const Command*>& commands() {
    static const std::vector<const Command*> none;
    return none;
}
}  // namespace tavrendctl

using namespace tavrendctl;

namespace {

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

const std::string kStatusLog = TAVREND_SOURCE_DIR "/tests/e2e/testdata/status_system.log";

// The status after the lines of `log` up to the first holding `cutAfter`.
status::DaemonStatus statusAt(const std::string& log, const std::string& cutAfter) {
    status::StatusReader reader;
    std::istringstream in(log.substr(0, log.find('\n', log.find(cutAfter)) + 1));
    for (std::string l; std::getline(in, l);) reader.feed(l);
    return reader.status();
}

// "name=kills" of each row, in order.
std::string kills(const status::DaemonStatus& s) {
    std::string out;
    for (const auto& r : s.guardrails)
        out += (out.empty() ? "" : ",") + r.name + "=" + std::to_string(r.hardKills + r.idleKills);
    return out;
}

std::string queued(const status::DaemonStatus& s) {
    std::string out;
    for (const auto& r : s.guardrails) {
        if (r.queued) out += (out.empty() ? "" : ",") + r.name;
    }
    return out;
}

}  // namespace

TEST(StatusOnLines, StateAndCountsAtEachCutOfARealLog) {
    const std::string log = readText(kStatusLog);
    std::string crlf;  // the same log as a terminal hands it over
    for (char c : log) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    const struct {
        const char* cutAfter;  // the first line holding this text is the last one read
        status::State state;
        long long lmkKills, badSamples, totalSamples;
        const char* queued;
        const char* kills;
        status::Condition condition;
        long long overrideIn;  // -1: none
    } cases[] = {
        // The first run, which the second one's start replaces.
        {"09:47:10.432", status::State::Stopped, 9, 0, 0, "", "", status::Condition::Memory, -1},
        {"Adding process 1733", status::State::Monitoring, 2, 3, 4, "launcher",
         "media.codec=1,launcher=0", status::Condition::None, -1},
        {"killabe_process_count=0", status::State::Monitoring, 2, 3, 4, "",
         "media.codec=1,launcher=1", status::Condition::None, -1},
        {"09:52:08.549", status::State::Monitoring, 2, 3, 4, "launcher", "media.codec=1,launcher=1",
         status::Condition::Memory, -1},
        // The crash report: the loop has ended, the idle detector not yet begun.
        {"Total Processes Sampled: 2", status::State::WaitingForIdle, 2, 3, 4, "launcher",
         "media.codec=1,launcher=1", status::Condition::Memory, -1},
        // The report's LMK Stats line decided, not the last heartbeat; held by the
        // minimum uptime 1133 s, then counting the override of 120 s.
        {"uptime: 1106", status::State::WaitingForIdle, 12, 3, 4, "launcher",
         "media.codec=1,launcher=1", status::Condition::Memory, 148},
        {"uptime: 1147", status::State::WaitingForIdle, 12, 3, 4, "launcher",
         "media.codec=1,launcher=1", status::Condition::Memory, 107},
        {"09:54:08.343", status::State::Rebooting, 12, 3, 4, "launcher", "media.codec=1,launcher=1",
         status::Condition::Memory, -1},
        {"09:54:08.356", status::State::Stopped, 12, 3, 4, "launcher", "media.codec=1,launcher=1",
         status::Condition::Memory, -1},
    };
    for (const std::string* text : {&log, static_cast<const std::string*>(&crlf)}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.cutAfter);
            const auto s = statusAt(*text, c.cutAfter);
            ASSERT_TRUE(s.found);
            EXPECT_EQ(s.state, c.state);
            EXPECT_EQ(s.lmkKills.value_or(-1), c.lmkKills);
            EXPECT_EQ(s.badSamples.value_or(0), c.badSamples);
            EXPECT_EQ(s.totalSamples.value_or(0), c.totalSamples);
            EXPECT_EQ(queued(s), c.queued);
            EXPECT_EQ(kills(s), c.kills);
            EXPECT_EQ(s.condition, c.condition);
            EXPECT_EQ(status::overrideInSec(s).value_or(-1), c.overrideIn);
        }
    }
}

TEST(StatusOnLines, TheMainBufferAndABugReport) {
    // A bug report's lines: the uid before the pid, both buffers, marks between.
    const std::vector<std::string> lines = {
        "--------- beginning of system",
        "02-28 23:59:00.000  1000   500   500 I tavrend : Starting Tavren Daemon",
        "02-28 23:59:00.001  1000   500   500 I tavrend : Guardrailing cam (hal) 2 "
        "soft_memory_limit 100 hard_memory_limit 200",
        "02-28 23:59:30.000  1000   500   530 I tavrend : Pid: 77, Name: cam (hal) 2, TotalPss: "
        "90 kB, MemorySoftLimit: 100 kB, MemoryHardLimit: 200 kB",
        "--------- beginning of main",
        "02-29 00:06:30.000  1000   500   530 E quillend:StatUtil: Failed to open "
        "/sys/kernel/dravik/total_pss_kb for write",
        "02-29 00:06:31.000  1000   999   999 E quillend:StatUtil: Failed to open x for write",
    };
    status::StatusReader reader(1709208000);  // 2024-02-29 12:00 UTC: a leap year
    for (const auto& l : lines) reader.feed(l + "\r");
    const auto& s = reader.status();
    ASSERT_TRUE(s.found);
    ASSERT_EQ(s.guardrails.size(), 1u);
    EXPECT_EQ(s.guardrails[0].pssKb.value_or(0), 90u);
    EXPECT_EQ(s.readerFailures, 1);  // the other process's line is not the daemon's
    EXPECT_EQ(s.lastReaderFailure, "Failed to open /sys/kernel/dravik/total_pss_kb for write");
    // The reading is seven minutes older than the log's end, across 29 February.
    EXPECT_EQ(status::pssAgeSec(s, s.guardrails[0]).value_or(-1), 421);
}

namespace {

// The crash reports of `log`, written to a file first.
std::vector<logread::CrashReport> reportsOf(const std::string& log, std::string& notes) {
    std::vector<logread::CrashReport> out;
    FILE* in = fmemopen(const_cast<char*>(log.data()), log.size(), "r");
    char* noteText = nullptr;
    size_t noteSize = 0;
    FILE* n = open_memstream(&noteText, &noteSize);
    logread::readReports(in, "t.log", n, out, 1795460000);
    fclose(in);
    fclose(n);
    notes.assign(noteText, noteSize);
    free(noteText);
    return out;
}

// What the report of the test below holds, however its lines are written.
void checkReport(const logread::CrashReport& r) {
    EXPECT_EQ(r.condition, "Memory is being leaked, need to take action");
    EXPECT_EQ(r.lmkDeciding.value_or(-1), 6);
    const logread::History& upl = r.system.back();
    EXPECT_EQ(upl.threshold.value_or(0), 500u);
    ASSERT_EQ(upl.eventUs.size(), 2u);
    // At their own lines, the newest two before the values line: 19:03:21.200 and
    // 21.600 (logged while the report was written), in 2026; 22.000 is not theirs.
    EXPECT_EQ(upl.eventUs[1].value_or(0), 1795460601600000);
    EXPECT_EQ(upl.eventUs[0].value_or(0), 1795460601200000);
}

}  // namespace

TEST(CrashReportOnLines, BadSamplesAtTheirOwnLinesAndTheDecidingCount) {
    const std::string log =
        "11-23 19:03:13.514   900   900 I tavrend : Starting Tavren Daemon\n"
        "11-23 19:03:13.515   900   900 I tavrend : Configuration:\n"
        "11-23 19:03:13.515   900   900 I tavrend : lmk_counter_threshold: Visible\n"
        "11-23 19:03:13.515   900   900 I tavrend : ---------------------------------\n"
        "11-23 19:03:20.100   900   902 W tavrend : Bad latency-Audio.DeviceProcessing=700 "
        "detected\n"
        "11-23 19:03:20.101   900   902 I tavrend : Total samples=5, bad samples=1, bad sample "
        "threshold=2, bad upl threshold=500\n"
        "11-23 19:03:21.200   900   902 W tavrend : Bad latency-Audio.DeviceProcessing=700 "
        "detected\n"
        "11-23 19:03:21.201   900   902 W tavrend : Critical UPL condition detected since bad "
        "sample count threshold reached\n"
        "11-23 19:03:21.300   900   900 E tavrend : Memory is being leaked, need to take action\n"
        "11-23 19:03:21.529   900   900 E tavrend : ------Tavrend Crash Report------\n"
        "11-23 19:03:21.529   900   900 E tavrend : Date & Time: Mon Nov 23 19:03:21 2026\n"
        // The device keeps sending bad samples while the report is written.
        "11-23 19:03:21.600   900   902 W tavrend : Bad latency-Audio.DeviceProcessing=700 "
        "detected\n"
        "11-23 19:03:21.700   900   900 E tavrend : LMK Stats persistent 1 fg 2 visible 3 "
        "perceptible 5 backup 7 other 11\n"
        "11-23 19:03:21.800   900   900 E tavrend : UserPerceivedLatency.Audio.DeviceProcessing "
        "Values: {700, 700}\n"
        "11-23 19:03:22.000   900   902 W tavrend : Bad latency-Audio.DeviceProcessing=700 "
        "detected\n";
    // The same as a bug report has it: the uid before the pid, CRLF.
    std::string bugReport;
    std::istringstream lines(log);
    for (std::string l; std::getline(lines, l);)
        bugReport += l.substr(0, 18) + "  1000" + l.substr(18) + "\r\n";
    for (const std::string* text : {&log, static_cast<const std::string*>(&bugReport)}) {
        std::string notes;
        const auto reports = reportsOf(*text, notes);
        ASSERT_EQ(reports.size(), 1u) << notes;
        checkReport(reports[0]);
    }
}

namespace {

sim::Outcome observed(const std::vector<std::string>& lines) {
    sim::Scenario scenario;
    sim::DeviceState device("/nonexistent", scenario);
    sim::Outcome o;
    logread::RunReader runs;
    long n = 0;
    for (const auto& text : lines) {
        const auto l = logread::parse(text);
        if (!l) continue;
        const auto step = runs.feed(*l);
        ++n;
        sim::observe(o, device, n, static_cast<double>(n), *l, step, runs.run());
    }
    return o;
}

std::string at(const char* message) {
    return std::string("11-23 19:03:13.514   900   901 I tavrend : ") + message;
}

}  // namespace

TEST(SimOnLines, AKillIsAKillWhenTheDaemonLogsItDone) {
    const auto o = observed({
        at("Starting Tavren Daemon"),
        at("Memory usage for init (1) exceeds hard guardrails, killing it immediately"),
        at("Trying to kill pid 1"),
        at("Error killing pid 1: Operation not permitted"),
        at("Trying to kill pid 7"),
        at("Failed to open /sys/kernel/dravik/target_pid_kill for write"),
        at("Trying to kill pid 8"),
        at("Successfully killed pid 8"),
        at("process=app pid=8 kill_count=1 killabe_process_count=0"),
        at("Trying to kill pid 9"),
    });
    ASSERT_EQ(o.kills.size(), 4u);
    EXPECT_EQ(o.kills[0].kind, "hard");
    EXPECT_EQ(o.kills[0].result, "failed");
    EXPECT_EQ(o.kills[0].error, "Error killing pid 1: Operation not permitted");
    EXPECT_EQ(o.kills[1].error, "Failed to open /sys/kernel/dravik/target_pid_kill for write");
    EXPECT_TRUE(sim::happened(o.kills[2]));
    EXPECT_EQ(o.kills[2].kind, "idle");
    EXPECT_EQ(o.kills[3].result, "");  // the log ended first
    // The expectation counts kills that happened; the records, every one tried.
    sim::Scenario s;
    s.expect.killed = std::map<std::string, std::string>{};
    s.expect.killTotals = std::map<std::string, long>{};
    sim::Outcome withRecords = o;
    withRecords.recordedKills = {{"init", 1}, {"app", 1}};
    const auto diffs = sim::compare(s, withRecords);
    const std::vector<std::string> want = {"kill of (no process): expected not killed, got idle",
                                           "kills of (no process): expected 0, got 1",
                                           "kills of  in MemoryGuardrail records: the log shows "
                                           "2, got 0"};
    EXPECT_EQ(diffs, want);
}

TEST(SimOnLines, TheConditionAndTheDecidingCountAreTheReports) {
    const std::vector<std::string> beforeReport = {
        at("Starting Tavren Daemon"),
        at("Configuration:"),
        at("lmk_counter_threshold: Perceptible"),
        at("---------------------------------"),
        at("SystemMemorySampler heartbeat 10, lmk_current_kills 9"),
    };
    // Until a crash report, the heartbeat's count stands.
    const auto running = observed(beforeReport);
    EXPECT_EQ(running.lmkKills.value_or(-1), 9);
    EXPECT_FALSE(running.lmkFromReport);

    std::vector<std::string> lines = beforeReport;
    lines.insert(lines.end(),
                 {
                     at("Critical UPL condition detected since bad sample count threshold reached"),
                     at("Memory is being leaked, need to take action"),
                     at("------Tavrend Crash Report------"),
                     at("LMK Stats persistent 1 fg 2 visible 3 perceptible 6 backup 7 other 11"),
                     at("SystemMemorySampler heartbeat 20, lmk_current_kills 3"),
                 });
    const auto o = observed(lines);
    EXPECT_EQ(o.condition, "memory");
    EXPECT_EQ(o.detectedAt.value_or(0), 7.0);  // the memory line, not the first condition line
    EXPECT_EQ(o.lmkKills.value_or(-1), 12);
    EXPECT_TRUE(o.lmkFromReport);
}

namespace {

// The local wall clock `later` seconds after `t`, as a log stamp.
logread::Stamp stampAt(std::chrono::system_clock::time_point t, int later) {
    const time_t sec = std::chrono::system_clock::to_time_t(t) + later;
    struct tm local = {};
    localtime_r(&sec, &local);
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch());
    return {local.tm_mon + 1, local.tm_mday, local.tm_hour,
            local.tm_min,     local.tm_sec,  static_cast<int>(ms.count() % 1000)};
}

}  // namespace

TEST(SimOnLines, LogTimesAndTheTimelineShareTheDaemonsStart) {
    // The daemon started 2 real seconds ago at scale 10, and logs its first line now.
    sim::LogTail log("/nonexistent", sim::Clock::now() - std::chrono::seconds(2), 10);
    const auto now = std::chrono::system_clock::now();
    const double first = log.timeOf(stampAt(now, 0));
    EXPECT_NEAR(first, 20, 0.5);
    // Its own clock runs scaled already: 5 s later on it is 5 s later here.
    EXPECT_NEAR(log.timeOf(stampAt(now, 5)) - first, 5, 0.001);
}

// Rows that each fail on one fault of the outcome's judge, the device's
// writer, the argument table and the file writer.
TEST(ToolsJudgement, EndingsAndWriters) {
    sim::Scenario s;
    sim::Outcome o;
    o.powerctlReboot = true;  // the property without the log's line is no reboot
    EXPECT_FALSE(sim::rebooted(o));
    o.rebootLogAt = 5;
    EXPECT_TRUE(sim::rebooted(o));
    const struct {
        int status;  // as waitpid gives it
        bool rebooted, sigterm, sawExiting;
        const char* ending;
    } rows[] = {
        {0, true, false, false, "reboot"},        {0, false, false, false, "exit 0"},
        {1 << 8, true, false, false, "exit 1"},   {0, false, true, true, "sigterm"},
        {1 << 8, false, true, true, "exit 1"},    {0, false, true, false, "exit 0"},
        {SIGTERM, false, true, false, "sigterm"},
    };
    for (const auto& r : rows) {
        sim::Outcome x;
        x.waitStatus = r.status;
        x.powerctlReboot = r.rebooted;
        if (r.rebooted) x.rebootLogAt = 1;
        if (r.sigterm) x.sigtermAt = 2;
        x.sawExiting = r.sawExiting;
        EXPECT_EQ(sim::ending(x, s), r.ending) << r.status << " " << r.rebooted << r.sigterm;
    }

    // The device's files: a write that fails is a failure, one that works is not.
    const tavrend::test::DeviceRoot root;
    sim::DeviceState device(root.path(), s);
    sim::Event active;
    active.kind = sim::Event::Kind::UserActive;
    active.flag = true;
    std::string error;
    EXPECT_TRUE(device.apply(active, error)) << error;
    EXPECT_EQ(readText(root.path() + "/dev/__properties__/sys.user_activity_detected"), "true\n");
    sim::Event exited;  // a process that ends: its files go
    exited.kind = sim::Event::Kind::Exit;
    exited.pid = 4242;
    EXPECT_TRUE(device.apply(exited, error));
    sim::Event sample;  // not the device's to apply: nothing to do, and no failure
    sample.kind = sim::Event::Kind::Upl;
    EXPECT_TRUE(device.apply(sample, error));
    sim::DeviceState nowhere("/proc/self/nonexistent", s);
    EXPECT_FALSE(nowhere.apply(active, error));
    EXPECT_NE(error.find("nonexistent"), std::string::npos);

    // A file written is whole when the writer returns.
    const std::string path = root.path() + "/written.txt";
    EXPECT_TRUE(writeFile(path, "all of it\n", error));
    EXPECT_EQ(readText(path), "all of it\n");
    EXPECT_FALSE(writeFile("/proc/self/nonexistent/x", "x", error));

    // An option's value missing at the end of the line is a usage error.
    char sim[] = "sim", file[] = "x.json", scale[] = "--scale";
    char* argv[] = {sim, file, scale, nullptr};
    Args args;
    EXPECT_EQ(parseArgs(kSimCommand, 3, argv, args), 2);
}

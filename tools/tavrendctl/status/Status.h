// The daemon's state as its system log tells it: what `tavrendctl status`
// shows. The reader takes the log line by line and keeps the state of the last
// run (from its last "Starting Tavren Daemon") as of the last line read.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "logread/Clock.h"
#include "logread/LogLine.h"
#include "logread/Runs.h"

namespace tavrendctl::status {

enum class State { Monitoring, WaitingForIdle, Rebooting, Stopped };
using Condition = logread::Condition;  // the reader's, as the daemon ranks them

struct GuardrailRow {
    std::string name;
    uint64_t softKb = 0, hardKb = 0;
    std::optional<uint64_t> pssKb;  // the latest pass's reading
    std::optional<logread::Stamp> pssAt;
    int64_t pssAtMs = 0;  // pssAt on the log's clock
    int pid = 0;          // the process the row follows, 0 while unknown
    bool running = true;  // false after "%s is not running", until the next reading
    int hardKills = 0, idleKills = 0;
    bool queued = false;  // over its soft limit, waiting for the next idle second
};

struct DaemonStatus {
    bool found = false;  // a "Starting Tavren Daemon" was read
    int pid = 0;
    logread::Stamp started, last;  // the run's first line, the log's last line
    int64_t lastMs = 0;            // the log's last line on the log's clock
    State state = State::Monitoring;
    std::string stopReason;  // why the run stopped, when it did
    // The configuration the daemon printed, in its order ("key", "value").
    std::vector<std::pair<std::string, std::string>> config;
    // Monitors by name ("process_memory", ...): running (true) or off (false).
    std::map<std::string, bool> monitors;

    // Memory: the low-memory killer's counted kills at the last heartbeat,
    // then the crash report's count, the one that decided.
    std::optional<long long> lmkKills, heartbeat;
    std::optional<logread::Stamp> heartbeatAt;
    bool lmkFromReport = false;

    // The statistics readers' failures in the main buffer, with the last one.
    long readerFailures = 0;
    std::string lastReaderFailure;
    std::optional<logread::Stamp> lastReaderFailureAt;

    // Latency, as of the last sample.
    std::optional<long long> badSamples, totalSamples, badSampleThreshold, latencyThresholdMs;

    std::vector<GuardrailRow> guardrails;

    // Recovery.
    Condition condition = Condition::None;
    std::optional<logread::Stamp> conditionAt, waitingSince, rebootAt;
    std::optional<long long> startUptime;  // "Starting post-critical condition ..."
    // The latest uptime the idle detector logged, with its line's time on the log's clock.
    std::optional<std::pair<long long, int64_t>> uptimeSeen;
    std::string rebootReason;  // "idle" or "override", once requested

    std::optional<std::string_view> configText(std::string_view key) const;
    std::optional<long long> configNumber(std::string_view key) const;
};

// Reads the daemon's log one line at a time: its system buffer, and the main
// buffer for the statistics readers' failures (in the same file or after it).
// `logEnd` dates the stamps (the log file's time, or now).
class StatusReader {
public:
    explicit StatusReader(time_t logEnd = time(nullptr)) : clock_(logEnd) {}
    void feed(std::string_view line);
    const DaemonStatus& status() const { return status_; }

private:
    DaemonStatus status_;
    logread::RunReader runs_;
    logread::LogClock clock_;
};

// Seconds from the last PSS reading of `r` to the log's last line.
std::optional<long long> pssAgeSec(const DaemonStatus& s, const GuardrailRow& r);

// When the idle detector would reboot without idleness, in seconds from the
// log's last line; nullopt when unknown or when it is not waiting. Exact to
// within one idle check interval (the detector checks once an interval).
std::optional<long long> overrideInSec(const DaemonStatus& s);

}  // namespace tavrendctl::status

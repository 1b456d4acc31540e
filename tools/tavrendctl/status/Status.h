// The daemon's state as its system log tells it: what `tavrendctl status`
// shows. The reader takes the log line by line and keeps the state of the last
// run (from its last "Starting Tavren Daemon") as of the last line read.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "toolbox/LogcatLine.h"

namespace tavrendctl::status {

enum class State { Monitoring, WaitingForIdle, Rebooting, Stopped };
enum class Condition { None, Memory, Latency };

struct GuardrailRow {
    std::string name;
    uint64_t softKb = 0, hardKb = 0;
    std::optional<uint64_t> pssKb;  // the latest pass's reading
    std::optional<logcat::Stamp> pssAt;
    int pid = 0;          // the process the row follows, 0 while unknown
    bool running = true;  // false after "%s is not running", until the next reading
    int hardKills = 0, idleKills = 0;
    bool queued = false;  // over its soft limit, waiting for the next idle second
};

struct DaemonStatus {
    bool found = false;  // a "Starting Tavren Daemon" was read
    int pid = 0;
    logcat::Stamp started, last;  // the run's first line, the log's last line
    State state = State::Monitoring;
    std::string stopReason;  // why the run stopped, when it did
    // The configuration the daemon printed, in its order ("key", "value").
    std::vector<std::pair<std::string, std::string>> config;
    // Monitors by name ("process_memory", ...): running (true) or off (false).
    std::map<std::string, bool> monitors;

    // Memory: the low-memory killer's counted kills at the last heartbeat.
    std::optional<long long> lmkKills, heartbeat;
    std::optional<logcat::Stamp> heartbeatAt;

    // Latency, as of the last sample.
    std::optional<long long> badSamples, totalSamples, badSampleThreshold, latencyThresholdMs;

    std::vector<GuardrailRow> guardrails;

    // Recovery.
    Condition condition = Condition::None;
    std::optional<logcat::Stamp> conditionAt, waitingSince, rebootAt;
    std::optional<long long> startUptime;  // "Starting post-critical condition ..."
    // The latest uptime the idle detector logged, with its line's stamp.
    std::optional<std::pair<long long, logcat::Stamp>> uptimeSeen;
    std::string rebootReason;  // "idle" or "override", once requested

    std::optional<long long> configNumber(std::string_view key) const;
};

// Reads a system log, one line at a time, in the layout of `logcat -v threadtime`.
class StatusReader {
public:
    void feed(std::string_view line);
    const DaemonStatus& status() const { return status_; }

private:
    DaemonStatus status_;
    bool collectingConfig_ = false;  // between "Configuration:" and its closing line
};

// Seconds from `from` to `to`, both in the same year or `to` in the next.
double secondsBetween(const logcat::Stamp& from, const logcat::Stamp& to);

// When the idle detector would reboot without idleness, in seconds from the
// log's last line; nullopt when unknown or when it is not waiting. Exact to
// within one idle check interval (the detector checks once an interval).
std::optional<long long> overrideInSec(const DaemonStatus& s);

}  // namespace tavrendctl::status

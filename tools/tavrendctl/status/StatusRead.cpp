// How each of the daemon's log lines changes what `status` shows: its event,
// from the one reader of the log, and what that event means here.
#include <algorithm>
#include <climits>

#include "logread/Numbers.h"
#include "status/Status.h"

namespace tavrendctl::status {
namespace {

using logread::Event;
using logread::Kind;
using logread::Stamp;

// The row of `name`; with `soft` and `hard`, the one with those limits first.
GuardrailRow* rowNamed(DaemonStatus& s, std::string_view name,
                       std::optional<uint64_t> soft = std::nullopt,
                       std::optional<uint64_t> hard = std::nullopt) {
    GuardrailRow* first = nullptr;
    for (GuardrailRow& r : s.guardrails) {
        if (r.name != name) continue;
        if (!soft || (r.softKb == *soft && r.hardKb == hard)) return &r;
        if (first == nullptr) first = &r;
    }
    return first;
}

// The row following `pid` whose queued flag is `queued`.
GuardrailRow* rowOfPid(DaemonStatus& s, int64_t pid, bool queued) {
    for (GuardrailRow& r : s.guardrails) {
        if (r.pid == pid && r.queued == queued) return &r;
    }
    return nullptr;
}

// A line's stamp with its time on the log's clock.
struct At {
    Stamp stamp;
    int64_t ms;
};

// The run: its end before the loop, its monitors.
bool startEvent(DaemonStatus& s, const Event& e) {
    switch (e.kind) {
        case Kind::ConfigUnparsed:
            s.state = State::Stopped;
            s.stopReason = "its configuration did not load";
            return true;
        case Kind::GuardrailsOff:
        case Kind::GuardrailConfigFailed: s.monitors["guardrails"] = false; return true;
        // The latency monitor declines silently when it is disabled.
        case Kind::InitSamplers: s.monitors["latency"] = false; return true;
        case Kind::InitProcessSampler: s.monitors["process_memory"] = true; return true;
        case Kind::InitSystemSampler: s.monitors["system_memory"] = true; return true;
        case Kind::InitUplMonitor: s.monitors["latency"] = true; return true;
        case Kind::InitGuardrailMonitor: s.monitors["guardrails"] = true; return true;
        default: return false;
    }
}

void pssReading(DaemonStatus& s, const Event& e, const At& at) {
    GuardrailRow* r = rowNamed(s, e.text("name"), e.unum("soft_kb"), e.unum("hard_kb"));
    if (r == nullptr) return;
    r->pid = static_cast<int>(e.num("pid"));
    r->pssKb = e.unum("pss_kb");
    r->pssAt = at.stamp;
    r->pssAtMs = at.ms;
    r->running = true;
}

// The guardrail rows, their readings, queue and kills.
bool guardrailEvent(DaemonStatus& s, const Event& e, const At& at) {
    GuardrailRow* r = nullptr;
    switch (e.kind) {
        case Kind::GuardrailRow: {
            GuardrailRow row;
            row.name = e.text("name");
            row.softKb = e.unum("soft_kb");
            row.hardKb = e.unum("hard_kb");
            s.guardrails.push_back(row);
            return true;
        }
        case Kind::FoundPid:
            if ((r = rowNamed(s, e.text("name")))) r->pid = static_cast<int>(e.num("pid"));
            return true;
        case Kind::PssReading: pssReading(s, e, at); return true;
        case Kind::NotRunning:
            if ((r = rowNamed(s, e.text("name")))) r->running = false;
            return true;
        case Kind::Queued:
            if ((r = rowOfPid(s, e.num("pid"), false))) r->queued = true;
            return true;
        case Kind::Unqueued:
        case Kind::BackUnder:
            if ((r = rowOfPid(s, e.num("pid"), true))) r->queued = false;
            return true;
        case Kind::IdleKill:
            if ((r = rowOfPid(s, e.num("pid"), true))) {
                r->queued = false;
                ++r->idleKills;
            }
            return true;
        case Kind::HardKill:
            if ((r = rowNamed(s, e.text("name")))) ++r->hardKills;
            return true;
        default: return false;
    }
}

void seeUptime(DaemonStatus& s, uint64_t uptime, const At& at) {
    s.uptimeSeen = {{static_cast<long long>(std::min<uint64_t>(uptime, LLONG_MAX)), at.ms}};
}

// The counts that lead to a critical condition, and the crash report's.
bool countEvent(DaemonStatus& s, const Event& e, const At& at) {
    switch (e.kind) {
        case Kind::SystemHeartbeat:
            s.heartbeat = static_cast<long long>(std::min<uint64_t>(e.unum("samples"), LLONG_MAX));
            s.heartbeatAt = at.stamp;
            if (!s.lmkFromReport) s.lmkKills = e.num("lmk_kills");
            return true;
        case Kind::LmkStats: {
            const auto threshold = s.configText("lmk_counter_threshold");
            s.lmkKills = logread::decidingLmkKills(e, threshold.value_or(""));
            s.lmkFromReport = true;
            return true;
        }
        case Kind::LatencyCounts:
            s.totalSamples = e.num("total");
            s.badSamples = e.num("bad");
            s.badSampleThreshold = e.num("bad_threshold");
            s.latencyThresholdMs = e.num("threshold_ms");
            return true;
        default: return false;
    }
}

// The crash report, the idle wait, the reboot and the end.
void recoveryEvent(DaemonStatus& s, const Event& e, const At& at) {
    switch (e.kind) {
        case Kind::Report: s.state = State::WaitingForIdle; break;
        case Kind::IdleStart:
            s.state = State::WaitingForIdle;
            s.startUptime = static_cast<long long>(std::min<uint64_t>(e.unum("uptime"), LLONG_MAX));
            s.waitingSince = at.stamp;
            seeUptime(s, e.unum("uptime"), at);
            break;
        case Kind::IdleHeartbeat: seeUptime(s, e.unum("uptime"), at); break;
        case Kind::IdleReached:
            s.rebootReason = "idle";
            seeUptime(s, e.unum("uptime"), at);
            break;
        case Kind::IdleOverride: s.rebootReason = "override"; break;
        case Kind::Rebooting:
            s.state = State::Rebooting;
            s.rebootAt = at.stamp;
            break;
        case Kind::Signal: s.stopReason = "signal " + std::string(e.text("signal")); break;
        case Kind::MainFailed: s.stopReason = "error: " + std::string(e.text("reason")); break;
        case Kind::Exiting:
            s.state = State::Stopped;
            if (s.stopReason.empty()) s.stopReason = "exited";
            break;
        default: break;
    }
}

void startRun(DaemonStatus& s, const logread::Line& line, int64_t ms) {
    s = DaemonStatus{};
    s.found = true;
    s.pid = line.pid;
    s.started = line.at;
    s.last = line.at;
    s.lastMs = ms;
}

}  // namespace

std::optional<std::string_view> DaemonStatus::configText(std::string_view key) const {
    for (const auto& [k, v] : config) {
        if (k == key) return v;
    }
    return std::nullopt;
}

std::optional<long long> DaemonStatus::configNumber(std::string_view key) const {
    const auto text = configText(key);
    if (!text) return std::nullopt;
    return logread::signedOf(*text, INT_MIN, INT_MAX);  // printed with %d
}

void StatusReader::feed(std::string_view text) {
    const auto line = logread::parse(text);
    if (!line) return;
    DaemonStatus& s = status_;
    const At at{line->at, clock_.ms(line->at)};
    const logread::Step step = runs_.feed(*line);
    if (step.started) startRun(s, *line, at.ms);
    // The buffers of a log may come one after the other: the end is the latest line.
    if (at.ms >= s.lastMs) {
        s.last = line->at;
        s.lastMs = at.ms;
    }
    if (step.source == logread::Source::Reader && step.event.kind != Kind::Other) {
        ++s.readerFailures;
        s.lastReaderFailure = line->message;
        s.lastReaderFailureAt = line->at;
    }
    if (step.source != logread::Source::Daemon) return;
    if (step.config) {
        s.config = runs_.run().config;
        return;
    }
    const Event& e = step.event;
    if (e.kind == Kind::ReportDate) {
        if (const auto date = logread::dateOf(e.text("date"))) clock_.anchor(line->at, *date);
    }
    if (e.kind == Kind::MemoryCondition || e.kind == Kind::LatencyCondition) {
        // The condition the loop takes, as far as the log tells it yet.
        if (s.state == State::Monitoring && runs_.pendingCondition() != s.condition) {
            s.condition = runs_.pendingCondition();
            s.conditionAt = line->at;
        }
        return;
    }
    if (e.kind == Kind::Report) s.condition = step.condition;
    if (!startEvent(s, e) && !guardrailEvent(s, e, at) && !countEvent(s, e, at))
        recoveryEvent(s, e, at);
}

std::optional<long long> pssAgeSec(const DaemonStatus& s, const GuardrailRow& r) {
    if (!r.pssAt) return std::nullopt;
    return std::max<int64_t>(0, (s.lastMs - r.pssAtMs) / 1000);
}

std::optional<long long> overrideInSec(const DaemonStatus& s) {
    const auto minimum = s.configNumber("critical_memory_minimum_uptime_sec");
    const auto override = s.configNumber("critical_memory_idle_override_time_sec");
    const auto interval = s.configNumber("idle_detection_interval_sec");
    if (s.state != State::WaitingForIdle || !s.startUptime || !s.uptimeSeen || !minimum ||
        !override || !interval || *interval < 1) {
        return std::nullopt;
    }
    // The detector checks at the start uptime and then once an interval; the
    // override clock starts at the first check past the minimum uptime, and the
    // override comes at the first check that many seconds later.
    const long long i = *interval;
    auto checksFor = [i](long long seconds) { return seconds <= 0 ? 0 : (seconds + i - 1) / i; };
    const long long firstEligible = *s.startUptime + checksFor(*minimum - *s.startUptime) * i;
    const long long due = firstEligible + checksFor(*override) * i;
    const auto& [uptime, atMs] = *s.uptimeSeen;
    const long long now = uptime + (s.lastMs - atMs) / 1000;
    return std::max(0LL, due - now);
}

}  // namespace tavrendctl::status

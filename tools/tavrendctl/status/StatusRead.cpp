// How each line of the daemon's system log changes what `status` shows: a
// table of message patterns, each with what it means.
#include <algorithm>
#include <charconv>
#include <functional>

#include "status/Status.h"

namespace tavrendctl::status {
namespace {

using Fields = std::vector<std::string_view>;

// Splits `msg` by the literal text of `pattern`, in which "{}" stands for a
// field; a field ends where the next literal text first appears after it, and
// a final field runs to the end. Nullopt when `msg` does not have that form.
std::optional<Fields> fieldsOf(std::string_view msg, std::string_view pattern) {
    Fields out;
    size_t at = 0;
    while (true) {
        const size_t hole = pattern.find("{}");
        const std::string_view literal = pattern.substr(0, hole);
        if (msg.substr(at, literal.size()) != literal) return std::nullopt;
        at += literal.size();
        if (hole == std::string_view::npos)
            return at == msg.size() ? std::optional(out) : std::nullopt;
        pattern.remove_prefix(hole + 2);
        const std::string_view next = pattern.substr(0, pattern.find("{}"));
        const size_t end = next.empty() ? msg.size() : msg.find(next, at);
        if (end == std::string_view::npos) return std::nullopt;
        out.push_back(msg.substr(at, end - at));
        at = end;
    }
}

std::optional<long long> number(std::string_view text) {
    long long v = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return v;
}

// A kB figure the daemon prints with %llu; -1 in a file shows as 2^64-1.
std::optional<uint64_t> kb(std::string_view text) {
    uint64_t v = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return v;
}

using Stamp = logcat::Stamp;

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
GuardrailRow* rowOfPid(DaemonStatus& s, std::string_view pidText, bool queued) {
    const auto pid = number(pidText);
    for (GuardrailRow& r : s.guardrails) {
        if (pid && r.pid == *pid && r.queued == queued) return &r;
    }
    return nullptr;
}

struct Rule {
    std::string_view pattern;
    std::function<void(DaemonStatus&, const Fields&, const Stamp&)> apply;
};

void setCondition(DaemonStatus& s, Condition c, const Stamp& at) {
    s.condition = c;
    s.conditionAt = at;
}

// The uptime lines of the idle detector.
void seeUptime(DaemonStatus& s, std::string_view uptime, const Stamp& at) {
    if (const auto u = number(uptime)) s.uptimeSeen = {{*u, at}};
}

// The run: its end before the loop, its monitors.
std::vector<Rule> startRules() {
    return {
        {"Could not parse tavren_config.json file",
         [](DaemonStatus& s, const Fields&, const Stamp&) {
             s.state = State::Stopped;
             s.stopReason = "its configuration did not load";
         }},
        {"Memory guardrailing is disabled in config",
         [](DaemonStatus& s, const Fields&, const Stamp&) { s.monitors["guardrails"] = false; }},
        {"Failed to load Process memory guardrail config, disabling guardrail monitor",
         [](DaemonStatus& s, const Fields&, const Stamp&) { s.monitors["guardrails"] = false; }},
        {"Initializing samplers...",
         // The latency monitor declines silently when it is disabled.
         [](DaemonStatus& s, const Fields&, const Stamp&) { s.monitors["latency"] = false; }},
        {"Initializing Process Memory Sampler",
         [](DaemonStatus& s, const Fields&, const Stamp&) { s.monitors["process_memory"] = true; }},
        {"Initializing System Memory Sampler",
         [](DaemonStatus& s, const Fields&, const Stamp&) { s.monitors["system_memory"] = true; }},
        {"Initializing Device UPL Monitor",
         [](DaemonStatus& s, const Fields&, const Stamp&) { s.monitors["latency"] = true; }},
        {"Initializing Process Guardrail Monitor",
         [](DaemonStatus& s, const Fields&, const Stamp&) { s.monitors["guardrails"] = true; }},
    };
}

// The guardrail rows, their readings, queue and kills.
std::vector<Rule> guardrailRules() {
    return {
        {"Guardrailing {} soft_memory_limit {} hard_memory_limit {}",
         [](DaemonStatus& s, const Fields& f, const Stamp&) {
             GuardrailRow r;
             r.name = f[0];
             r.softKb = kb(f[1]).value_or(0);
             r.hardKb = kb(f[2]).value_or(0);
             s.guardrails.push_back(r);
         }},
        {"found pid {} of name {}",
         [](DaemonStatus& s, const Fields& f, const Stamp&) {
             if (GuardrailRow* r = rowNamed(s, f[1]))
                 r->pid = static_cast<int>(number(f[0]).value_or(0));
         }},
        {"Pid: {}, Name: {}, TotalPss: {} kB, MemorySoftLimit: {} kB, MemoryHardLimit: {} kB",
         [](DaemonStatus& s, const Fields& f, const Stamp& at) {
             GuardrailRow* r = rowNamed(s, f[1], kb(f[3]), kb(f[4]));
             if (r == nullptr) return;
             r->pid = static_cast<int>(number(f[0]).value_or(0));
             r->pssKb = kb(f[2]);
             r->pssAt = at;
             r->running = true;
         }},
        {"{} is not running",
         [](DaemonStatus& s, const Fields& f, const Stamp&) {
             if (GuardrailRow* r = rowNamed(s, f[0])) r->running = false;
         }},
        {"Adding process {} to killable list",
         [](DaemonStatus& s, const Fields& f, const Stamp&) {
             if (GuardrailRow* r = rowOfPid(s, f[0], false)) r->queued = true;
         }},
        {"Removing process {} from killable list",
         [](DaemonStatus& s, const Fields& f, const Stamp&) {
             if (GuardrailRow* r = rowOfPid(s, f[0], true)) r->queued = false;
         }},
        {"process={} pid={} TotalPss: {} kB, no longer over MemorySoftLimit: {} kB,",
         [](DaemonStatus& s, const Fields& f, const Stamp&) {
             if (GuardrailRow* r = rowOfPid(s, f[1], true)) r->queued = false;
         }},
        {"process={} pid={} kill_count={} killabe_process_count={}",
         [](DaemonStatus& s, const Fields& f, const Stamp&) {
             if (GuardrailRow* r = rowOfPid(s, f[1], true)) {
                 r->queued = false;
                 ++r->idleKills;
             }
         }},
        {"Memory usage for {} ({}) exceeds hard guardrails, killing it immediately",
         [](DaemonStatus& s, const Fields& f, const Stamp&) {
             if (GuardrailRow* r = rowNamed(s, f[0])) ++r->hardKills;
         }},
    };
}

// The counts that lead to a critical condition, and the condition.
std::vector<Rule> countRules() {
    return {
        {"SystemMemorySampler heartbeat {}, lmk_current_kills {}",
         [](DaemonStatus& s, const Fields& f, const Stamp& at) {
             s.heartbeat = number(f[0]);
             s.lmkKills = number(f[1]);
             s.heartbeatAt = at;
         }},
        {"Total samples={}, bad samples={}, bad sample threshold={}, bad upl threshold={}",
         [](DaemonStatus& s, const Fields& f, const Stamp&) {
             s.totalSamples = number(f[0]);
             s.badSamples = number(f[1]);
             s.badSampleThreshold = number(f[2]);
             s.latencyThresholdMs = number(f[3]);
         }},
    };
}

// The crash report, the idle wait, the reboot and the end.
std::vector<Rule> recoveryRules() {
    return {
        // The loop checks the system memory sampler before the latency monitor,
        // so a memory condition found before the crash report is the one it took.
        {"Memory is being leaked, need to take action",
         [](DaemonStatus& s, const Fields&, const Stamp& at) {
             if (s.state == State::Monitoring) setCondition(s, Condition::Memory, at);
         }},
        {"Critical UPL condition detected since bad sample count threshold reached",
         [](DaemonStatus& s, const Fields&, const Stamp& at) {
             if (s.state == State::Monitoring && s.condition == Condition::None)
                 setCondition(s, Condition::Latency, at);
         }},
        {"------Tavrend Crash Report------",
         [](DaemonStatus& s, const Fields&, const Stamp&) { s.state = State::WaitingForIdle; }},
        {"Starting post-critical condition idle detection at Uptime: {}",
         [](DaemonStatus& s, const Fields& f, const Stamp& at) {
             s.state = State::WaitingForIdle;
             s.startUptime = number(f[0]);
             s.waitingSince = at;
             seeUptime(s, f[0], at);
         }},
        {"IdleDetector heartbeat current uptime: {} secs, waiting for idle since {} secs",
         [](DaemonStatus& s, const Fields& f, const Stamp& at) { seeUptime(s, f[0], at); }},
        {"No user activity, current uptime {} secs, was waiting for idle for {} secs",
         [](DaemonStatus& s, const Fields& f, const Stamp& at) {
             s.rebootReason = "idle";
             seeUptime(s, f[0], at);
         }},
        {"Waited long enough, overriding idle after {} secs",
         [](DaemonStatus& s, const Fields&, const Stamp&) { s.rebootReason = "override"; }},
        {"Rebooting device",
         [](DaemonStatus& s, const Fields&, const Stamp& at) {
             s.state = State::Rebooting;
             s.rebootAt = at;
         }},
        {"Received signal {}", [](DaemonStatus& s, const Fields& f,
                                  const Stamp&) { s.stopReason = "signal " + std::string(f[0]); }},
        {"main failed, reason=runttimeFailed {}",
         [](DaemonStatus& s, const Fields& f, const Stamp&) {
             s.stopReason = "error: " + std::string(f[0]);
         }},
        {"Exiting",
         [](DaemonStatus& s, const Fields&, const Stamp&) {
             s.state = State::Stopped;
             if (s.stopReason.empty()) s.stopReason = "exited";
         }},
    };
}

const std::vector<Rule>& rules() {
    static const std::vector<Rule> all = [] {
        std::vector<Rule> out;
        for (auto group : {startRules, guardrailRules, countRules, recoveryRules}) {
            for (Rule& r : group()) out.push_back(std::move(r));
        }
        return out;
    }();
    return all;
}

constexpr std::string_view kConfigEnd = "---------------------------------";

int dayOfYear(const Stamp& t) {
    static const int before[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    return before[(t.month - 1) % 12] + t.day - 1;
}

}  // namespace

std::optional<long long> DaemonStatus::configNumber(std::string_view key) const {
    for (const auto& [k, v] : config) {
        if (k == key) return number(v);
    }
    return std::nullopt;
}

void StatusReader::feed(std::string_view text) {
    const auto line = logcat::parse(text);
    if (!line) return;
    DaemonStatus& s = status_;
    if (line->tag == "tavrend" && line->message == "Starting Tavren Daemon") {
        s = DaemonStatus{};
        s.found = true;
        s.pid = line->pid;
        s.started = line->at;
        collectingConfig_ = false;
    }
    s.last = line->at;
    if (!s.found || line->tag != "tavrend" || line->pid != s.pid) return;
    const std::string_view msg = line->message;
    if (msg == "Configuration:") {
        s.config.clear();
        collectingConfig_ = true;
        return;
    }
    if (collectingConfig_) {
        const size_t colon = msg.find(": ");
        if (msg == kConfigEnd || colon == std::string_view::npos) {
            collectingConfig_ = false;
        } else {
            s.config.emplace_back(msg.substr(0, colon), msg.substr(colon + 2));
            return;
        }
    }
    for (const Rule& r : rules()) {
        if (const auto fields = fieldsOf(msg, r.pattern)) {
            r.apply(s, *fields, line->at);
            return;
        }
    }
}

double secondsBetween(const Stamp& from, const Stamp& to) {
    auto secondsOf = [](const Stamp& t) {
        return ((dayOfYear(t) * 24.0 + t.hour) * 60 + t.minute) * 60 + t.second + t.milli / 1000.0;
    };
    double d = secondsOf(to) - secondsOf(from);
    if (d < -86400.0) d += 365 * 86400.0;  // into the next year
    return d;
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
    const auto& [uptime, at] = *s.uptimeSeen;
    const long long now = uptime + static_cast<long long>(secondsBetween(at, s.last));
    return std::max(0LL, due - now);
}

}  // namespace tavrendctl::status

// tavrendctl sim, observe: what the daemon did, read from its system log as
// it runs and from what it left behind; its descriptors and memory; the live
// status line.
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "logread/Numbers.h"
#include "sim/SimRun.h"

namespace tavrendctl::sim {
namespace {

namespace fs = std::filesystem;

using logread::Kind;

// The crash report runs from its first line to the line before the next
// condition, idle wait or signal.
void observeReport(Outcome& o, long lineNo, Kind k) {
    if (o.reportOpen) {
        if (k == Kind::ConditionDetected || k == Kind::IdleStart || k == Kind::Signal ||
            k == Kind::Exiting) {
            o.reportOpen = false;
        } else {
            o.reportLast = lineNo;
        }
    }
    if (k == Kind::Report && !o.reportFirst) {
        o.reportFirst = lineNo;
        o.reportLast = lineNo;
        o.reportOpen = true;
    }
}

// The last kill whose result the log has not told yet.
Kill* unresolved(Outcome& o) {
    for (auto k = o.kills.rbegin(); k != o.kills.rend(); ++k) {
        if (k->result.empty()) return &*k;
    }
    return nullptr;
}

// A kill's result: "Successfully killed pid N", or the error line after its
// "Trying to kill pid N" (the driver's file, or the status it answered).
void observeKillResult(Outcome& o, DeviceState& device, const logread::Line& line,
                       const logread::Event& e) {
    Kill* k = unresolved(o);
    if (e.kind == Kind::KillDone) {
        device.killed(static_cast<int>(e.num("pid")));
        if (k != nullptr && k->pid == e.num("pid")) k->result = "done";
    } else if (k != nullptr) {
        k->result = "failed";
        k->error = line.message;
    }
}

// The idle kill's line follows its driver request: it names the request's
// process (when the log has it) and counts a queued kill done.
void observeIdleKill(Outcome& o, DeviceState& device, double t, const logread::Event& e) {
    --o.pending;
    const auto pid = static_cast<int>(e.num("pid"));
    auto k = std::find_if(o.kills.rbegin(), o.kills.rend(),
                          [&](const Kill& x) { return x.pid == pid && x.kind.empty(); });
    if (k == o.kills.rend()) {
        o.kills.push_back({t, pid, "", device.holder(pid), "", "", ""});
        k = o.kills.rbegin();
    }
    k->name = e.text("name");
    k->kind = "idle";
}

// Every kill names the program that held the pid when the daemon asked the
// driver for it ("Trying to kill pid N", logged just before); the runner owns
// the device, so it knows. True when the line was about a kill.
bool observeKill(Outcome& o, DeviceState& device, double t, const logread::Line& line,
                 const logread::Event& e) {
    switch (e.kind) {
        case Kind::Queued: ++o.pending; return true;
        case Kind::Unqueued:
        case Kind::BackUnder: --o.pending; return true;
        case Kind::HardKill: o.hardKill = std::string(e.text("name")); return true;
        case Kind::KillTry: {
            const auto pid = static_cast<int>(e.num("pid"));
            o.kills.push_back({t, pid, o.hardKill.value_or(""), device.holder(pid),
                               o.hardKill ? "hard" : "", "", ""});
            o.hardKill.reset();
            return true;
        }
        case Kind::KillDone:
        case Kind::KillError:
        case Kind::OpenForWriteFailed:
        case Kind::OpenFailed: observeKillResult(o, device, line, e); return true;
        case Kind::IdleKill: observeIdleKill(o, device, t, e); return true;
        default: return false;
    }
}

// The condition as the loop takes it: the first monitor's, in creation order;
// once a crash report carries one, that one.
void observeCondition(Outcome& o, double t, const logread::Step& step) {
    const Kind k = step.event.kind;
    if (k == Kind::MemoryCondition && !o.memoryAt) o.memoryAt = t;
    if (k == Kind::LatencyCondition && !o.latencyAt) o.latencyAt = t;
    if (o.conditionTaken) return;
    const bool memory = o.memoryAt.has_value();
    if (memory || o.latencyAt) {
        o.condition = memory ? "memory" : "latency";
        o.detectedAt = memory ? o.memoryAt : o.latencyAt;
    }
    if (k == Kind::Report) {
        o.conditionTaken = true;
        o.condition = logread::conditionName(step.condition);
        o.detectedAt = step.condition == logread::Condition::Memory    ? o.memoryAt
                       : step.condition == logread::Condition::Latency ? o.latencyAt
                                                                       : std::nullopt;
    }
}

// The counts that decide a condition: LMK kills (the heartbeat's, then the
// crash report's "LMK Stats" line, the one that decided) and bad latency samples.
void observeCounts(Outcome& o, const logread::Event& e, const logread::Run& run) {
    if (e.kind == Kind::SystemHeartbeat) {
        o.tick = static_cast<long>(std::min<uint64_t>(e.unum("samples"), LONG_MAX / 1000)) *
                 o.ticksPerSample;
        if (!o.lmkFromReport) o.lmkKills = e.num("lmk_kills");
    } else if (e.kind == Kind::LmkStats && !o.lmkFromReport) {
        o.lmkKills = logread::decidingLmkKills(
            e, run.configText("lmk_counter_threshold").value_or(std::string_view()));
        o.lmkFromReport = true;
    } else if (e.kind == Kind::LatencyCounts) {
        o.uplCounted = std::max<long>(o.uplCounted, e.num("total"));
        o.badSamples = std::max<long>(o.badSamples.value_or(0), e.num("bad"));
    }
}

}  // namespace

std::optional<DaemonSample> sampleDaemon(pid_t pid, double at) {
    const std::string dir = "/proc/" + std::to_string(pid);
    DaemonSample d{at, 0, -1};
    std::error_code ec;
    for (fs::directory_iterator it(dir + "/fd", ec), end; !ec && it != end; it.increment(ec)) {
        ++d.fds;
    }
    std::ifstream status(dir + "/status");
    for (std::string line; std::getline(status, line);) {
        if (!startsWith(line, "VmRSS:")) continue;
        const std::string_view rest = std::string_view(line).substr(6);
        const size_t from = rest.find_first_not_of(" \t");
        const size_t to = rest.find(' ', from);
        if (from == rest.npos || to == rest.npos) continue;
        const auto kb = logread::unsignedOf(rest.substr(from, to - from), LONG_MAX);
        if (kb) d.vmrssKb = static_cast<long>(*kb);
        break;
    }
    if (ec || d.vmrssKb < 0) return std::nullopt;
    return d;
}

// The wall clock at `start` as a log stamp (local time) on `clock`.
int64_t wallMs(Clock::time_point start, const logread::LogClock& clock) {
    using namespace std::chrono;
    const auto wall =
        system_clock::now() - duration_cast<system_clock::duration>(Clock::now() - start);
    const time_t sec = system_clock::to_time_t(wall);
    struct tm local = {};
    localtime_r(&sec, &local);
    const auto milli = duration_cast<milliseconds>(wall.time_since_epoch()).count() % 1000;
    const logread::Stamp at{local.tm_mon + 1, local.tm_mday, local.tm_hour,
                            local.tm_min,     local.tm_sec,  static_cast<int>(milli)};
    return logread::stampMs(at, clock.year() != 0 ? clock.year() : local.tm_year + 1900);
}

LogTail::LogTail(std::string path, Clock::time_point start, double scale)
    : path_(std::move(path)),
      clock_(time(nullptr)),
      scale_(scale),
      startMs_(wallMs(start, clock_)) {}

double LogTail::timeOf(const logread::Stamp& at) {
    const int64_t ms = clock_.ms(at);
    if (!baseMs_) {
        // The daemon's clock runs `scale` times faster from its first line;
        // the real time from its start to that line counts at that pace too.
        baseMs_ = ms;
        baseSec_ = std::max(0.0, static_cast<double>(ms - startMs_) / 1000.0 * scale_);
    }
    last_ = static_cast<double>(ms - *baseMs_) / 1000.0 + baseSec_;
    return last_;
}

void observe(Outcome& o, DeviceState& device, long lineNo, double t, const logread::Line& line,
             const logread::Step& step, const logread::Run& run) {
    if (step.source != logread::Source::Daemon) return;
    const logread::Event& e = step.event;
    observeReport(o, lineNo, e.kind);
    if (observeKill(o, device, t, line, e)) return;
    observeCondition(o, t, step);
    if (e.kind == Kind::Rebooting) {
        o.rebootLogAt = t;
    } else if (e.kind == Kind::Exiting) {
        o.sawExiting = true;
    } else if (e.kind == Kind::Signal) {
        o.signalLoggedAt = t;
    } else {
        observeCounts(o, e, run);
    }
}

void observeAfterRun(Outcome& o, const Run& run, LogTail& log) {
    std::ifstream powerctl(run.root + "/dev/__properties__/sys.powerctl");
    std::string value;
    std::getline(powerctl, value);
    o.powerctlReboot = value == "reboot";
    std::ifstream metrics(run.logs + "/metrics.log");
    std::string line;
    while (std::getline(metrics, line)) {
        const auto parsed = logread::parse(line);
        if (!parsed) continue;
        const std::string text(parsed->message);
        o.metrics.emplace_back(log.timeOf(parsed->at), text);
        const size_t name = text.find("processName=");
        const size_t count = text.find("killCount=");
        if (name != std::string::npos && count != std::string::npos) {
            const size_t from = name + strlen("processName=");
            const std::string_view digits =
                std::string_view(text).substr(count + strlen("killCount="));
            size_t used = 0;
            const auto n = logread::leadingUnsigned(digits, INT_MAX, used);
            o.recordedKills[text.substr(from, text.find(';', from) - from)] += n.value_or(0);
        }
    }
}

StatusLine::StatusLine(const Scenario& s) : s_(s), tty_(isatty(STDERR_FILENO) != 0) {}

void StatusLine::update(double t, const Outcome& o, bool userActive, bool force) {
    const auto now = Clock::now();
    if (tty_) {
        if (!force && now - lastReal_ < std::chrono::milliseconds(200)) return;
    } else if (!force && (t - lastSim_ < 300 || now - lastReal_ < std::chrono::seconds(1))) {
        return;
    }
    lastReal_ = now;
    lastSim_ = t;
    char tick[32] = "";
    if (o.tick >= 0) snprintf(tick, sizeof(tick), "  tick %ld", o.tick);
    // The counts that decide a condition, against their limits ("-": not logged yet).
    auto count = [](const std::optional<long>& n) { return n ? std::to_string(*n) : "-"; };
    fprintf(stderr,
            "%s[sim] t=%7.0fs%s  condition %-7s  %s  pending kills %d  LMK kills %s/%ld  bad "
            "samples %s/%ld%s%s",
            tty_ ? "\r" : "", t, tick, o.condition.c_str(), userActive ? "busy" : "idle", o.pending,
            count(o.lmkKills).c_str(), s_.lmkTargetKills, count(o.badSamples).c_str(),
            s_.uplBadSampleThreshold, rebooted(o) ? "  rebooting" : "", tty_ ? "\033[K" : "\n");
    fflush(stderr);
    shown_ = true;
}

void StatusLine::finish() const {
    if (tty_ && shown_) fputc('\n', stderr);
}

}  // namespace tavrendctl::sim

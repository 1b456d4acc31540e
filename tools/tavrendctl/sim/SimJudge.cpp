// tavrendctl sim, judge: how the run ended, and how its outcome differs from
// the scenario's "expect".
#include <sys/wait.h>

#include <algorithm>
#include <climits>
#include <set>
#include <string_view>

#include "sim/SimRun.h"

namespace tavrendctl::sim {
namespace {

using Diffs = std::vector<std::string>;

// The pieces of one line, joined.
std::string joined(std::initializer_list<std::string_view> pieces) {
    std::string out;
    for (std::string_view p : pieces) out += p;
    return out;
}

std::string killedKinds(const Outcome& o, const std::string& name) {
    std::set<std::string> kinds;
    for (const Kill& k : o.kills) {
        if (happened(k) && victim(k) == name) kinds.insert(k.kind);
    }
    std::string out;
    for (const auto& k : kinds) out += (out.empty() ? "" : ",") + k;
    return out;
}

bool inRange(const std::optional<double>& t, const std::pair<double, double>& r) {
    return t && *t >= r.first && *t <= r.second;
}

std::string range(const std::pair<double, double>& r) {
    return "[" + secs(r.first) + ", " + secs(r.second) + "]";
}

// The condition, when it was detected, and the reboot.
void compareCondition(const Expect& x, const Outcome& o, Diffs& diffs) {
    if (x.condition && *x.condition != o.condition) {
        diffs.push_back("condition: expected " + *x.condition + ", got " + o.condition);
    }
    if (x.detectedBetween && !inRange(o.detectedAt, *x.detectedBetween)) {
        diffs.push_back("detected: expected within " + range(*x.detectedBetween) + ", got " +
                        (o.detectedAt ? secs(*o.detectedAt) : "never"));
    }
    if (x.reboot && *x.reboot != rebooted(o)) {
        diffs.push_back(std::string("reboot: expected ") + (*x.reboot ? "yes" : "no") + ", got " +
                        (rebooted(o) ? "yes" : "no"));
    }
    if (x.rebootBetween && !(rebooted(o) && inRange(o.rebootLogAt, *x.rebootBetween))) {
        diffs.push_back("reboot: expected within " + range(*x.rebootBetween) + ", got " +
                        (o.rebootLogAt ? secs(*o.rebootLogAt) : "none"));
    }
}

// Who was killed, and how, by the program each kill hit: the kills the
// daemon logged done.
void compareKilled(const std::map<std::string, std::string>& killed, const Outcome& o,
                   Diffs& diffs) {
    std::set<std::string> names;
    for (const Kill& k : o.kills) {
        if (happened(k)) names.insert(victim(k));
    }
    for (const auto& [name, kind] : killed) names.insert(name);
    for (const auto& name : names) {
        const auto it = killed.find(name);
        const std::string want = it == killed.end() ? "not killed" : it->second;
        std::string got = killedKinds(o, name);
        if (got.empty()) got = "not killed";
        if (want != got)
            diffs.push_back(joined({"kill of ", name, ": expected ", want, ", got ", got}));
    }
}

void compareMetrics(const std::vector<std::string>& want, const Outcome& o, Diffs& diffs) {
    if (want.size() != o.metrics.size()) {
        diffs.push_back("metric records: expected " + std::to_string(want.size()) + ", got " +
                        std::to_string(o.metrics.size()));
    }
    for (size_t i = 0; i < want.size() && i < o.metrics.size(); ++i) {
        if (o.metrics[i].second.find(want[i]) == std::string::npos) {
            diffs.push_back("metric record " + std::to_string(i + 1) + ": expected one holding '" +
                            want[i] + "', got '" + o.metrics[i].second + "'");
        }
    }
}

using Counts = std::map<std::string, long>;

long countOf(const Counts& m, const std::string& name) {
    const auto it = m.find(name);
    return it == m.end() ? 0L : it->second;
}

// One line for each name whose counts differ: "kills of NAME" `what` N ", got " M.
void differ(const Counts& want, const Counts& got, const std::string& what, Diffs& diffs) {
    std::set<std::string> names;
    for (const Counts* m : {&want, &got}) {
        for (const auto& entry : *m) names.insert(entry.first);
    }
    for (const auto& name : names) {
        if (countOf(want, name) == countOf(got, name)) continue;
        diffs.push_back(joined({"kills of ", name, what, std::to_string(countOf(want, name)),
                                ", got ", std::to_string(countOf(got, name))}));
    }
}

// Totals, not records: on the fast clock the daemon's ticks lag, and how many
// records the kills are spread over varies. The expected totals are kills
// that happened; the records count by guarded name every kill the daemon
// tried, failed ones too (its killCount does), and must hold each one.
void compareKillTotals(const Counts& want, const Outcome& o, Diffs& diffs) {
    Counts byVictim;
    Counts byGuardedName;
    for (const Kill& k : o.kills) {
        if (happened(k)) ++byVictim[victim(k)];
        ++byGuardedName[k.name];
    }
    differ(want, byVictim, ": expected ", diffs);
    differ(byGuardedName, o.recordedKills, " in MemoryGuardrail records: the log shows ", diffs);
}

void compareFlat(const Expect::Flat& f, const Outcome& o, Diffs& diffs) {
    const auto ends = flatEnds(o.daemon, f.fromSec);
    if (!ends) {
        diffs.push_back("daemon figures: too few samples from " + secs(f.fromSec));
        return;
    }
    const long fds = ends->last.fds - ends->first.fds;
    const long vmrssKb = ends->last.vmrssKb - ends->first.vmrssKb;
    if (f.fds && fds > *f.fds) {
        diffs.push_back("descriptors: grew by " + std::to_string(fds) + " from " + secs(f.fromSec) +
                        ", expected at most " + std::to_string(*f.fds));
    }
    if (f.vmrssKb && vmrssKb > *f.vmrssKb) {
        diffs.push_back("VmRSS: grew by " + std::to_string(vmrssKb) + " kB from " +
                        secs(f.fromSec) + ", expected at most " + std::to_string(*f.vmrssKb) +
                        " kB");
    }
}

}  // namespace

bool rebooted(const Outcome& o) { return o.powerctlReboot && o.rebootLogAt.has_value(); }

std::string ending(const Outcome& o, const Scenario& s) {
    if (o.driverStoppedAt) return "driver stopped";
    if (!o.waitStatus) return "unknown";
    const int st = *o.waitStatus;
    // Killed by the runner, and seen to end by that kill.
    if (o.timedOut) return WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL ? "timeout" : "unknown";
    const bool exited0 = WIFEXITED(st) && WEXITSTATUS(st) == 0;
    if (exited0 && rebooted(o) && !o.sigtermAt) return "reboot";
    if (o.sigtermAt) {
        // With guardrails the runtime's termination handler ends the daemon
        // after "Exiting": the intended ending in that configuration.
        const bool abortAfterExit =
            WIFSIGNALED(st) && WTERMSIG(st) == SIGABRT && o.sawExiting && s.guardrailsEnabled;
        const bool bySignal = WIFSIGNALED(st) && WTERMSIG(st) == SIGTERM;
        if ((exited0 && o.sawExiting && !rebooted(o)) || abortAfterExit || bySignal) {
            return "sigterm";
        }
    }
    if (WIFEXITED(st)) return "exit " + std::to_string(WEXITSTATUS(st));
    if (WIFSIGNALED(st)) return "signal " + signalName(WTERMSIG(st));
    return "unknown";
}

std::string howEnded(const Outcome& o) {
    if (!o.waitStatus) return "not seen to end";
    const int st = *o.waitStatus;
    std::string text = WIFEXITED(st) ? "exit status " + std::to_string(WEXITSTATUS(st))
                                     : "signal " + signalName(WTERMSIG(st));
    if (o.timedOut) {
        text += ", killed by the runner: it did not end within the grace time after SIGTERM";
    }
    return text;
}

std::optional<FlatEnds> flatEnds(const std::vector<DaemonSample>& samples, double from) {
    if (samples.empty() || samples.back().at < from + 2 * kFlatWindowSec) return std::nullopt;
    const double end = samples.back().at;
    auto lowest = [&](double a, double b) {
        DaemonSample low{a, LONG_MAX, LONG_MAX};
        for (const auto& d : samples) {
            if (d.at < a || d.at > b) continue;
            low.fds = std::min(low.fds, d.fds);
            low.vmrssKb = std::min(low.vmrssKb, d.vmrssKb);
        }
        return low;
    };
    FlatEnds f{lowest(from, from + kFlatWindowSec), lowest(end - kFlatWindowSec, end)};
    if (f.first.fds == LONG_MAX || f.last.fds == LONG_MAX) return std::nullopt;
    return f;
}

std::vector<std::string> compare(const Scenario& s, const Outcome& o) {
    const Expect& x = s.expect;
    Diffs diffs;
    compareCondition(x, o, diffs);
    if (x.killed) compareKilled(*x.killed, o, diffs);
    if (x.metricRecords) compareMetrics(*x.metricRecords, o, diffs);
    const std::string ends = ending(o, s);
    if (x.ends && *x.ends != ends) diffs.push_back("ends: expected " + *x.ends + ", got " + ends);
    if (x.killTotals) compareKillTotals(*x.killTotals, o, diffs);
    if (x.uplTotal) {
        const long ok = o.uplSent - static_cast<long>(o.uplErrors.size());
        if (ok != *x.uplTotal || o.uplCounted != *x.uplTotal) {
            diffs.push_back("latency samples: expected " + std::to_string(*x.uplTotal) +
                            " sent and counted, got " + std::to_string(ok) +
                            " sent without error, " + std::to_string(o.uplCounted) +
                            " counted (the highest Total samples logged)");
        }
    }
    if (x.daemonFlat) compareFlat(*x.daemonFlat, o, diffs);
    return diffs;
}

}  // namespace tavrendctl::sim

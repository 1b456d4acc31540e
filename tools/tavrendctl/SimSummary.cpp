// tavrendctl sim, summary: what happened in a run, on standard output.
#include <algorithm>
#include <cstdio>

#include "SimRun.h"

namespace tavrendctl::sim {
namespace {

void printHeader(const RunInfo& run, const Outcome& o) {
    const Scenario& s = run.s;
    printf("== scenario %s%s%s\n", run.path.c_str(), s.description.empty() ? "" : ": ",
           s.description.c_str());
    printf("scale %g (simulated seconds per real second), end %s, real run time %.1f s\n",
           run.scale, secs(s.endSec).c_str(), o.realSec);
    if (o.detectedAt) {
        printf("detected: %s condition at %s\n", o.condition.c_str(), secs(*o.detectedAt).c_str());
    } else {
        printf("detected: no condition\n");
    }
    if (o.reportFirst) {
        printf("crash report: %s/system.log lines %ld-%ld\n", run.logs.c_str(), *o.reportFirst,
               o.reportLast.value_or(*o.reportFirst));
    } else {
        printf("crash report: none\n");
    }
}

void printKills(const Outcome& o) {
    if (o.kills.empty()) printf("kills: none\n");
    for (const Kill& k : o.kills) {
        // The guarded name is what the daemon logged; the victim is who held the pid.
        const char* reason = k.kind == "hard" ? "measured as" : "queued for";
        if (k.holder == k.name) {
            printf("kill: %s (%s) at %s, pid %d\n", k.name.c_str(), k.kind.c_str(),
                   secs(k.at).c_str(), k.pid);
        } else {
            printf("kill: %s (%s) at %s: pid %d held by %s, %s %s\n", victim(k).c_str(),
                   k.kind.c_str(), secs(k.at).c_str(), k.pid,
                   k.holder.value_or("no process").c_str(), reason, k.name.c_str());
        }
    }
    if (!o.recordedKills.empty()) {
        printf("kills in MemoryGuardrail records:");
        for (const auto& [name, n] : o.recordedKills) printf(" %s %ld", name.c_str(), n);
        printf("\n");
    }
    if (o.pending != 0) printf("pending kills at the end: %d\n", o.pending);
}

void printRecordsAndSamples(const RunInfo& run, const Outcome& o) {
    printf("metric records (%s/metrics.log): %zu\n", run.logs.c_str(), o.metrics.size());
    for (const auto& [t, text] : o.metrics) printf("  at %s: %s\n", secs(t).c_str(), text.c_str());
    if (o.uplSent > 0 || !o.uplErrors.empty()) {
        const int clients = run.s.uplClients;
        printf(
            "latency samples sent: %d over %d connection%s, failed: %zu%s%s; counted by the "
            "daemon: %ld\n",
            o.uplSent, clients, clients == 1 ? "" : "s", o.uplErrors.size(),
            o.uplErrors.empty() ? "" : " (first: ",
            o.uplErrors.empty() ? "" : (o.uplErrors.front() + ")").c_str(), o.uplCounted);
    }
}

void printDaemonFigures(const RunInfo& run, const Outcome& o) {
    if (o.daemon.empty()) return;
    const auto& [lowFds, highFds] = std::minmax_element(
        o.daemon.begin(), o.daemon.end(),
        [](const DaemonSample& a, const DaemonSample& b) { return a.fds < b.fds; });
    const auto& [lowRss, highRss] = std::minmax_element(
        o.daemon.begin(), o.daemon.end(),
        [](const DaemonSample& a, const DaemonSample& b) { return a.vmrssKb < b.vmrssKb; });
    printf("daemon, %zu samples from %s to %s: descriptors %ld to %ld, VmRSS %ld to %ld kB\n",
           o.daemon.size(), secs(o.daemon.front().at).c_str(), secs(o.daemon.back().at).c_str(),
           lowFds->fds, highFds->fds, lowRss->vmrssKb, highRss->vmrssKb);
    const double from = run.s.expect.daemonFlat ? run.s.expect.daemonFlat->fromSec : 3600;
    if (const auto f = flatEnds(o.daemon, from)) {
        printf(
            "daemon from %s on (lowest of the first and of the last %s): descriptors %ld "
            "then %ld, VmRSS %ld kB then %ld kB\n",
            secs(from).c_str(), secs(kFlatWindowSec).c_str(), f->first.fds, f->last.fds,
            f->first.vmrssKb, f->last.vmrssKb);
    }
}

void printEnding(const RunInfo& run, const Outcome& o) {
    if (rebooted(o)) {
        printf("reboot: requested at %s (sys.powerctl = reboot)\n", secs(*o.rebootLogAt).c_str());
    } else if (o.rebootLogAt || o.powerctlReboot) {
        printf("reboot: inconsistent (log line %s, sys.powerctl %s)\n",
               o.rebootLogAt ? "present" : "absent", o.powerctlReboot ? "reboot" : "not reboot");
    } else {
        printf("reboot: none\n");
    }
    if (o.sigtermAt) {
        printf("SIGTERM sent at %s; %s\n", secs(*o.sigtermAt).c_str(),
               o.signalLoggedAt ? ("the daemon logged it at " + secs(*o.signalLoggedAt)).c_str()
                                : "the daemon did not log it");
    }
    printf("ended: %s at %s (%s)\n", howEnded(o).c_str(), secs(o.endedAt).c_str(),
           ending(o, run.s).c_str());
    printf(
        "logs: %s (system.log, main.log, metrics.log, daemon.out, dravikfs.out, "
        "daemon_figures.tsv)\n",
        run.logs.c_str());
}

}  // namespace

void printSummary(const RunInfo& run, const Outcome& o) {
    printHeader(run, o);
    printKills(o);
    printRecordsAndSamples(run, o);
    printDaemonFigures(run, o);
    printEnding(run, o);
}

}  // namespace tavrendctl::sim

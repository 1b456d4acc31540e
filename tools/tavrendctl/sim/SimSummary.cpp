// tavrendctl sim, summary: what happened in a run, on standard output, as
// text or as one JSON object.
#include <cjson/cJSON.h>

#include <algorithm>
#include <cstdio>
#include <memory>

#include "sim/SimRun.h"

namespace tavrendctl::sim {
namespace {

void printHeader(const RunInfo& run, const Outcome& o) {
    const Scenario& s = run.s;
    printf("== scenario %s%s%s\n", run.path.c_str(), s.description.empty() ? "" : ": ",
           s.description.c_str());
    printf("scale %g (simulated seconds per real second), end %s, real run time %.1f s\n",
           run.scale, secs(s.endSec).c_str(), o.realSec);
    printf(
        "clocks: times below, the timeline's and the log's alike, are simulated seconds since "
        "the runner started the daemon; the device's uptime (the daemon's Uptime and "
        "durationSec) is that plus boot_uptime_sec %ld\n",
        s.bootUptimeSec);
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
    printf(
        "deciding counts: LMK kills %s of target %ld (%s), bad latency samples %s of threshold "
        "%ld\n",
        o.lmkKills ? std::to_string(*o.lmkKills).c_str() : "(not logged)", s.lmkTargetKills,
        o.lmkFromReport ? "the crash report's LMK Stats" : "the last heartbeat",
        std::to_string(o.badSamples.value_or(0)).c_str(), s.uplBadSampleThreshold);
}

// ": failed: Error killing pid 1: Operation not permitted", or nothing for a kill done.
std::string resultText(const Kill& k) {
    if (happened(k)) return "";
    return k.result.empty() ? ": no result logged" : ": failed: " + k.error;
}

void printKills(const Outcome& o) {
    if (o.kills.empty()) printf("kills: none\n");
    for (const Kill& k : o.kills) {
        if (!happened(k)) {
            printf("kill tried: %s (%s) at %s, pid %d%s\n", victim(k).c_str(), k.kind.c_str(),
                   secs(k.at).c_str(), k.pid, resultText(k).c_str());
            continue;
        }
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
        printf("kills in MemoryGuardrail records (the daemon counts failed ones too):");
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
    if (o.driverStoppedAt) printf("the driver stopped at %s\n", secs(*o.driverStoppedAt).c_str());
    printf("ended: %s at %s (%s)\n", howEnded(o).c_str(), secs(o.endedAt).c_str(),
           ending(o, run.s).c_str());
    printf(
        "logs: %s (system.log, main.log, metrics.log, daemon.out, dravikfs.out, "
        "daemon_figures.tsv)\n",
        run.logs.c_str());
}

void addTime(cJSON* obj, const char* key, const std::optional<double>& t) {
    if (t) {
        cJSON_AddNumberToObject(obj, key, *t);
    } else {
        cJSON_AddNullToObject(obj, key);
    }
}

cJSON* killsJson(const Outcome& o) {
    cJSON* kills = cJSON_CreateArray();
    for (const Kill& k : o.kills) {
        cJSON* kill = cJSON_CreateObject();
        cJSON_AddNumberToObject(kill, "at", k.at);
        cJSON_AddNumberToObject(kill, "pid", k.pid);
        cJSON_AddStringToObject(kill, "victim", victim(k).c_str());
        cJSON_AddStringToObject(kill, "guarded_name", k.name.c_str());
        cJSON_AddStringToObject(kill, "kind", k.kind.c_str());
        cJSON_AddStringToObject(kill, "result", k.result.empty() ? "unknown" : k.result.c_str());
        if (!k.error.empty()) cJSON_AddStringToObject(kill, "error", k.error.c_str());
        cJSON_AddItemToArray(kills, kill);
    }
    return kills;
}

cJSON* recordsJson(const Outcome& o) {
    cJSON* records = cJSON_CreateArray();
    for (const auto& [t, text] : o.metrics) {
        cJSON* record = cJSON_CreateObject();
        cJSON_AddNumberToObject(record, "at", t);
        cJSON_AddStringToObject(record, "text", text.c_str());
        cJSON_AddItemToArray(records, record);
    }
    return records;
}

cJSON* strings(const std::vector<std::string>& texts) {
    cJSON* array = cJSON_CreateArray();
    for (const auto& text : texts) cJSON_AddItemToArray(array, cJSON_CreateString(text.c_str()));
    return array;
}

// The deciding counts and the latency samples.
cJSON* countsJson(const RunInfo& run, const Outcome& o) {
    cJSON* counts = cJSON_CreateObject();
    if (o.lmkKills) {
        cJSON_AddNumberToObject(counts, "lmk_kills", static_cast<double>(*o.lmkKills));
    } else {
        cJSON_AddNullToObject(counts, "lmk_kills");
    }
    cJSON_AddStringToObject(counts, "lmk_kills_from",
                            o.lmkFromReport ? "crash_report" : "heartbeat");
    cJSON_AddNumberToObject(counts, "lmk_target_kills", static_cast<double>(run.s.lmkTargetKills));
    cJSON_AddNumberToObject(counts, "bad_samples", static_cast<double>(o.badSamples.value_or(0)));
    cJSON_AddNumberToObject(counts, "bad_sample_threshold",
                            static_cast<double>(run.s.uplBadSampleThreshold));
    cJSON_AddNumberToObject(counts, "upl_sent", o.uplSent);
    cJSON_AddItemToObject(counts, "upl_errors", strings(o.uplErrors));
    cJSON_AddNumberToObject(counts, "upl_counted", static_cast<double>(o.uplCounted));
    cJSON_AddNumberToObject(counts, "pending_kills", o.pending);
    return counts;
}

}  // namespace

void printJsonSummary(const RunInfo& run, const Outcome& o, const std::string& verdict,
                      const std::vector<std::string>& diffs) {
    const std::unique_ptr<cJSON, void (*)(cJSON*)> root(cJSON_CreateObject(), cJSON_Delete);
    cJSON* r = root.get();
    cJSON_AddStringToObject(r, "scenario", run.path.c_str());
    cJSON_AddStringToObject(r, "description", run.s.description.c_str());
    cJSON_AddNumberToObject(r, "scale", run.scale);
    cJSON_AddStringToObject(
        r, "clock",
        "times, the timeline's and the log's alike, are simulated seconds since "
        "the runner started the daemon; the device's uptime is that plus "
        "boot_uptime_sec");
    cJSON_AddNumberToObject(r, "boot_uptime_sec", static_cast<double>(run.s.bootUptimeSec));
    cJSON_AddNumberToObject(r, "end_sec", run.s.endSec);
    cJSON_AddNumberToObject(r, "real_sec", o.realSec);
    cJSON_AddStringToObject(r, "condition", o.condition.c_str());
    addTime(r, "detected_at", o.detectedAt);
    cJSON_AddItemToObject(r, "counts", countsJson(run, o));
    cJSON_AddItemToObject(r, "kills", killsJson(o));
    cJSON_AddItemToObject(r, "metric_records", recordsJson(o));
    addTime(r, "reboot_at", rebooted(o) ? o.rebootLogAt : std::nullopt);
    addTime(r, "sigterm_at", o.sigtermAt);
    addTime(r, "driver_stopped_at", o.driverStoppedAt);
    cJSON_AddStringToObject(r, "ended", ending(o, run.s).c_str());
    cJSON_AddStringToObject(r, "exit", howEnded(o).c_str());
    cJSON_AddNumberToObject(r, "ended_at", o.endedAt);
    cJSON_AddStringToObject(r, "logs", run.logs.c_str());
    cJSON_AddItemToObject(r, "run_errors", strings(o.runErrors));
    cJSON_AddStringToObject(r, "expected_outcome", verdict.c_str());
    cJSON_AddItemToObject(r, "differences", strings(diffs));
    char* text = cJSON_Print(r);
    if (text != nullptr) printf("%s\n", text);
    cJSON_free(text);
}

void printSummary(const RunInfo& run, const Outcome& o) {
    printHeader(run, o);
    printKills(o);
    printRecordsAndSamples(run, o);
    printDaemonFigures(run, o);
    printEnding(run, o);
}

}  // namespace tavrendctl::sim

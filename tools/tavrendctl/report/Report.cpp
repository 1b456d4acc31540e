// tavrendctl report LOGFILE [--trace OUT.json] [--svg DIR]: the crash reports
// of a system log, summed up, and their histories exported.
#include "report/Report.h"

#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <memory>

#include "toolbox/Commands.h"
#include "toolbox/Text.h"

namespace {

using namespace tavrendctl::report;

constexpr size_t kTopProcesses = 5;

constexpr const char* kHelp =
    "Reads the crash reports tavrend wrote to its log (the host's system.log, a\n"
    "device's `logcat -v threadtime` dump or its bug report, LF or CRLF) and prints\n"
    "for each: the condition it carries (the first monitor's, as the loop takes\n"
    "it), its time, the low-memory-killer kills that decided, the guardrail table,\n"
    "the last value of each history and the 5 processes whose RSS grew most from\n"
    "their baseline.\n"
    "\n"
    "  --trace OUT.json  write the histories as counter tracks of a Chrome trace-event\n"
    "                    JSON file (Perfetto's UI, chrome://tracing), one trace\n"
    "                    process per report, the last sample at the report's time,\n"
    "                    its Date & Time read as UTC (else its log stamp, in 1970).\n"
    "                    The bad latency samples are instant events, each at the time\n"
    "                    of its \"Bad latency-...\" line (else at the report's time,\n"
    "                    marked \"logged\": false).\n"
    "  --svg DIR         draw each system history and the top processes' RSS as SVG\n"
    "                    charts in DIR, made when missing: reportN-other-free.svg,\n"
    "                    ..., reportN-rss-PID-NAME.svg; the x axis in seconds before\n"
    "                    the report, each horizontal line labelled with its value;\n"
    "                    the latency chart draws the daemon's threshold.\n"
    "\n"
    "Samples are as far apart as the daemon's configuration lines in the log say:\n"
    "system histories every memory_read_interval_sec, process histories every\n"
    "proc_scan_interval_sec (1 s when the log has no such line).\n"
    "\n"
    "History lines that cannot be read are skipped with a note on standard error.\n"
    "Exit status: 0 reports found, 1 no crash report in the log, 2 usage error,\n"
    "unreadable log or unwritable output.\n";

// "78 samples, 2 s apart", "20 events".
std::string sampling(const History& h) {
    const std::string n = std::to_string(h.values.size());
    if (h.events) return n + " events";
    if (!h.periodLogged) return n + " samples, no period in the log";
    return n + " samples, " + std::to_string(h.periodSec) + " s apart";
}

// The "LMK Stats" line and the kills of it that decided, the guardrail table.
void printDeciding(const CrashReport& r) {
    if (r.lmkStats) {
        const auto& k = *r.lmkStats;
        const std::string classes = r.lmkCounterThreshold.empty()
                                        ? "all classes: lmk_counter_threshold not logged"
                                        : "classes up to " + r.lmkCounterThreshold;
        printf("  LMK kills: %" PRId32
               " counted against lmk_target_kills %s (%s; persistent %" PRIu64 ", fg %" PRIu64
               ", visible %" PRIu64 ", perceptible %" PRIu64 ", backup %" PRIu64 ", other %" PRIu64
               ")\n",
               *r.lmkDeciding, r.lmkTarget ? std::to_string(*r.lmkTarget).c_str() : "(not logged)",
               classes.c_str(), k[0], k[1], k[2], k[3], k[4], k[5]);
    }
    for (const GuardrailState& g : r.guardrails) {
        printf("  guardrail %s [%d]: PSS %" PRIu64 " kB (soft %s, hard %s), %d kills\n",
               g.name.c_str(), g.pid, g.pssKb, tavrendctl::limitText(g.softKb).c_str(),
               tavrendctl::limitText(g.hardKb).c_str(), g.killCount);
    }
}

void printSummary(const CrashReport& r, size_t index, size_t count, const std::string& log) {
    printf("Crash report %zu of %zu (%s line %ld)\n", index + 1, count, log.c_str(), r.line);
    printf("  condition: %s\n",
           r.condition.empty() ? "(no condition line before the report)" : r.condition.c_str());
    printf("  time:      %s (log stamp %s)\n", r.date.empty() ? "(no Date & Time)" : r.date.c_str(),
           r.stamp.c_str());
    printDeciding(r);
    printf("  last values:\n");
    for (const History& h : r.system) {
        if (!h.present) {
            printf("    %-16s (missing or unreadable)\n", h.name.c_str());
        } else if (h.values.empty()) {
            printf("    %-16s (no samples)\n", h.name.c_str());
        } else {
            printf("    %-16s %" PRIu64 " %s (%s)\n", h.name.c_str(), h.values.back(),
                   h.unit.c_str(), sampling(h).c_str());
        }
    }
    const auto top = topGrowth(r, kTopProcesses);
    if (top.empty()) {
        printf("  no process RSS history in the report\n");
        return;
    }
    printf("  RSS growth from baseline, top %zu of %zu processes:\n", top.size(),
           r.processes.size());
    for (const Process* p : top) {
        printf("    %+9" PRId64 " kB  %s [%d]: %" PRIu64 " -> %" PRIu64 " kB\n", rssGrowth(*p),
               p->name.c_str(), p->pid, p->rssBaseline, p->rss.values.back());
    }
}

int runReport(const tavrendctl::Args& a) {
    const std::string& log = a.operands[0];
    const std::string none;
    const std::string& trace = a.value("--trace", none);
    const std::string& svg = a.value("--svg", none);
    std::vector<CrashReport> reports;
    {
        const std::unique_ptr<FILE, int (*)(FILE*)> in(fopen(log.c_str(), "r"), fclose);
        struct stat st {};
        const time_t end =
            in != nullptr && fstat(fileno(in.get()), &st) == 0 ? st.st_mtime : time(nullptr);
        if (in == nullptr || !readReports(in.get(), log, stderr, reports, end)) {
            fprintf(stderr, "tavrendctl: report: cannot read %s: %s\n", log.c_str(),
                    strerror(errno));
            return 2;
        }
    }
    if (reports.empty()) {
        fprintf(stderr, "tavrendctl: report: no crash report in %s\n", log.c_str());
        return 1;
    }
    for (size_t i = 0; i < reports.size(); ++i) {
        if (i > 0) printf("\n");
        printSummary(reports[i], i, reports.size(), log);
    }
    std::string error;
    if (!trace.empty()) {
        if (!writeTrace(reports, trace, error)) {
            fprintf(stderr, "tavrendctl: report: %s\n", error.c_str());
            return 2;
        }
        printf("\ntrace: %s\n", trace.c_str());
    }
    int charts = 0;
    if (!svg.empty()) {
        if (!writeCharts(reports, svg, charts, error)) {
            fprintf(stderr, "tavrendctl: report: %s\n", error.c_str());
            return 2;
        }
        printf("%ssvg: %d charts in %s\n", trace.empty() ? "\n" : "", charts, svg.c_str());
    }
    return 0;
}

}  // namespace

namespace tavrendctl {

const Command kReportCommand = {"report", "LOGFILE [--trace OUT.json] [--svg DIR]",
                                kHelp,    {{"--trace", "OUT.json"}, {"--svg", "DIR"}},
                                1,        1,
                                false,    runReport};

}  // namespace tavrendctl

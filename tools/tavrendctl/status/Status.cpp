// tavrendctl status [LOG...|-] [--follow] [--json]: the daemon's state at the
// log's last line, read from its system log alone.
#include "status/Status.h"

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "status/Follow.h"
#include "toolbox/Commands.h"
#include "toolbox/Text.h"

namespace {

using namespace tavrendctl::status;
using logread::Stamp;
using tavrendctl::limitText;

constexpr const char* kHelp =
    "Shows what the daemon is doing as of the last line of its log: the host's\n"
    "system.log (and main.log after it), a device's 'logcat -b system,main -v\n"
    "threadtime' dump or its bug report, LF or CRLF, or the same on standard input\n"
    "('-', or no LOG). Several LOGs are read as one log, in order; a log of several\n"
    "runs is read from its last \"Starting Tavren Daemon\". The main buffer holds\n"
    "the statistics readers' failures, shown with the age of each PSS reading.\n"
    "It shows the run (start, configuration, monitors), the low-memory-killer kills\n"
    "counted against lmk_target_kills, the bad latency samples against their\n"
    "threshold, every guardrail row with its latest PSS, queue and kills, and the\n"
    "recovery: the condition, the idle wait, the reboot, and an estimate of the\n"
    "time left until the idle override reboots the device anyway. What the log\n"
    "does not show reads 'unknown'.\n"
    "\n"
    "--follow  print again as lines arrive (the last LOG, or standard input), as\n"
    "          'tail -F' follows: a LOG moved aside or cut back is read anew;\n"
    "          after \"Exiting\" it waits for the next start; ^C ends it\n"
    "--json    one JSON object (one a line with --follow); see the README\n"
    "\n"
    "Exit status: 0 a run was found; 1 the log holds no run of the daemon;\n"
    "2 bad usage or a LOG that cannot be read.\n";

std::string stampText(const Stamp& t) {
    char text[32];
    logread::formatStamp(t, text);
    return text;
}

const char* stateName(State s) {
    switch (s) {
        case State::Monitoring: return "monitoring";
        case State::WaitingForIdle: return "waiting_for_idle";
        case State::Rebooting: return "rebooting";
        case State::Stopped: return "stopped";
    }
    return "unknown";
}

template <typename T>
std::string orUnknown(const std::optional<T>& v) {
    return v ? std::to_string(*v) : "unknown";
}

std::string configText(const DaemonStatus& s, std::string_view key) {
    for (const auto& [k, v] : s.config) {
        if (k == key) return v;
    }
    return "unknown";
}

// ---- Text ----

class Text {
public:
    [[gnu::format(printf, 2, 3)]] void line(const char* fmt, ...) {
        va_list ap;
        va_start(ap, fmt);
        out += tavrendctl::vformat(fmt, ap);
        va_end(ap);
        out += '\n';
    }
    std::string out;
};

void textRun(const DaemonStatus& s, Text& t) {
    t.line("run: pid %d, started %s; log ends %s", s.pid, stampText(s.started).c_str(),
           stampText(s.last).c_str());
    t.line("state: %s%s%s", stateName(s.state), s.stopReason.empty() ? "" : " (",
           s.stopReason.empty() ? "" : (s.stopReason + ")").c_str());
    std::string running, off;
    for (const auto& [name, on] : s.monitors) {
        std::string& list = on ? running : off;
        list += (list.empty() ? "" : ", ") + name;
    }
    t.line("monitors: %s%s%s", running.empty() ? "unknown" : running.c_str(),
           off.empty() ? "" : "; off: ", off.c_str());
    if (s.config.empty()) {
        t.line("configuration: unknown");
        return;
    }
    std::string row = "configuration:";
    for (const auto& [k, v] : s.config) {
        std::string item = " ";
        item.append(k).append(" ").append(v).append(",");
        if (row.size() + item.size() > 100) {
            t.line("%s", row.c_str());
            row = " ";
        }
        row += item;
    }
    row.pop_back();
    t.line("%s", row.c_str());
}

void textCounts(const DaemonStatus& s, Text& t) {
    const std::string beat = s.heartbeat ? "as of heartbeat " + std::to_string(*s.heartbeat) +
                                               " at " + stampText(*s.heartbeatAt)
                                         : "no heartbeat yet";
    const std::string when = s.lmkFromReport ? "as of the crash report" : beat;
    t.line("memory: %s of %s low-memory-killer kills counted (classes up to %s), %s%s",
           orUnknown(s.lmkKills).c_str(), configText(s, "lmk_target_kills").c_str(),
           configText(s, "lmk_counter_threshold").c_str(), when.c_str(),
           s.condition == Condition::Memory ? "; the target was reached at the condition" : "");
    const auto on = s.monitors.find("latency");
    if (on != s.monitors.end() && !on->second) {
        t.line("latency: monitoring off");
    } else if (!s.totalSamples && on != s.monitors.end()) {
        t.line("latency: 0 bad samples, 0 samples in all (threshold unknown until a sample)");
    } else {
        t.line(
            "latency: %s bad samples of %s that raise the condition (bad: %s ms or more), %s "
            "samples in all",
            orUnknown(s.badSamples).c_str(), orUnknown(s.badSampleThreshold).c_str(),
            orUnknown(s.latencyThresholdMs).c_str(), orUnknown(s.totalSamples).c_str());
    }
}

void textGuardrails(const DaemonStatus& s, Text& t) {
    const auto on = s.monitors.find("guardrails");
    if (on == s.monitors.end() || !on->second) {
        t.line("guardrails: %s", on == s.monitors.end() ? "unknown" : "off");
        return;
    }
    t.line("guardrails:");
    std::set<std::string> queued;
    for (const GuardrailRow& r : s.guardrails) {
        const std::string pss = r.pssKb ? std::to_string(*r.pssKb) + " kB at " +
                                              stampText(*r.pssAt) + ", " +
                                              orUnknown(pssAgeSec(s, r)) + " s before the log's end"
                                        : "unknown";
        t.line(
            "  %-20s PSS %s (soft %s, hard %s)%s%s; kills %d (%d over the hard "
            "limit, %d at an idle second)",
            r.name.c_str(), pss.c_str(), limitText(r.softKb).c_str(), limitText(r.hardKb).c_str(),
            r.running ? "" : ", not running", r.queued ? ", queued" : "", r.hardKills + r.idleKills,
            r.hardKills, r.idleKills);
        if (r.queued) queued.insert(r.name);
    }
    std::string names;
    for (const std::string& n : queued) names += (names.empty() ? "" : ", ") + n;
    t.line("  queued for the next idle second: %s", names.empty() ? "none" : names.c_str());
}

void textRecovery(const DaemonStatus& s, Text& t) {
    std::string text = "recovery: condition " + std::string(logread::conditionName(s.condition));
    if (s.conditionAt) text += " at " + stampText(*s.conditionAt);
    if (s.waitingSince) {
        text += "; waiting for idle since " + stampText(*s.waitingSince) + " (uptime " +
                orUnknown(s.startUptime) + " s)";
    }
    text += s.rebootAt ? "; reboot requested at " + stampText(*s.rebootAt) + " (" +
                             (s.rebootReason.empty() ? "unknown" : s.rebootReason) + ")"
                       : "; reboot not requested";
    t.line("%s", text.c_str());
    if (s.state != State::WaitingForIdle) return;
    const auto left = overrideInSec(s);
    t.line(
        "  override in %s (estimate, to within %s s: minimum uptime %s s, override %s s, "
        "idle check every %s s)",
        left ? ("about " + std::to_string(*left) + " s").c_str() : "unknown",
        configText(s, "idle_detection_interval_sec").c_str(),
        configText(s, "critical_memory_minimum_uptime_sec").c_str(),
        configText(s, "critical_memory_idle_override_time_sec").c_str(),
        configText(s, "idle_detection_interval_sec").c_str());
}

void textReaders(const DaemonStatus& s, Text& t) {
    if (s.readerFailures == 0) {
        t.line("statistics readers: no failure logged (main buffer)");
        return;
    }
    t.line("statistics readers: %ld failures logged, the last at %s: %s", s.readerFailures,
           stampText(*s.lastReaderFailureAt).c_str(), s.lastReaderFailure.c_str());
}

std::string renderText(const DaemonStatus& s) {
    Text t;
    textRun(s, t);
    textCounts(s, t);
    textGuardrails(s, t);
    textReaders(s, t);
    textRecovery(s, t);
    return t.out;
}

// ---- JSON ----

template <typename T>
void addNumber(cJSON* o, const char* key, const std::optional<T>& v) {
    if (v) {
        cJSON_AddNumberToObject(o, key, static_cast<double>(*v));
    } else {
        cJSON_AddNullToObject(o, key);
    }
}

void addStamp(cJSON* o, const char* key, const std::optional<Stamp>& t) {
    if (t) {
        cJSON_AddStringToObject(o, key, stampText(*t).c_str());
    } else {
        cJSON_AddNullToObject(o, key);
    }
}

void jsonRun(const DaemonStatus& s, cJSON* doc) {
    cJSON* run = cJSON_AddObjectToObject(doc, "run");
    cJSON_AddNumberToObject(run, "pid", s.pid);
    addStamp(run, "started", s.started);
    addStamp(run, "log_ends", s.last);
    if (s.stopReason.empty()) {
        cJSON_AddNullToObject(run, "stop_reason");
    } else {
        cJSON_AddStringToObject(run, "stop_reason", s.stopReason.c_str());
    }
    cJSON* monitors = cJSON_AddObjectToObject(run, "monitors");
    for (const auto& [name, on] : s.monitors) cJSON_AddBoolToObject(monitors, name.c_str(), on);
    cJSON* config = cJSON_AddObjectToObject(run, "config");
    for (const auto& [k, v] : s.config) {
        if (const auto n = s.configNumber(k)) {
            cJSON_AddNumberToObject(config, k.c_str(), static_cast<double>(*n));
        } else if (v == "true" || v == "false") {
            cJSON_AddBoolToObject(config, k.c_str(), v == "true");
        } else {
            cJSON_AddStringToObject(config, k.c_str(), v.c_str());
        }
    }
}

void jsonCounts(const DaemonStatus& s, cJSON* doc) {
    cJSON* memory = cJSON_AddObjectToObject(doc, "memory");
    addNumber(memory, "lmk_kills", s.lmkKills);
    addNumber(memory, "lmk_target_kills", s.configNumber("lmk_target_kills"));
    cJSON_AddStringToObject(memory, "lmk_kills_from",
                            s.lmkFromReport ? "crash_report" : "heartbeat");
    addNumber(memory, "heartbeat", s.heartbeat);
    addStamp(memory, "heartbeat_at", s.heartbeatAt);
    cJSON* latency = cJSON_AddObjectToObject(doc, "latency");
    const auto on = s.monitors.find("latency");
    const bool running = on != s.monitors.end() && on->second;
    if (on == s.monitors.end()) {
        cJSON_AddNullToObject(latency, "monitoring");
    } else {
        cJSON_AddBoolToObject(latency, "monitoring", running);
    }
    // A running monitor that logged no sample has received none.
    const std::optional<long long> none = running ? std::optional(0LL) : std::nullopt;
    addNumber(latency, "bad_samples", s.totalSamples ? s.badSamples : none);
    addNumber(latency, "bad_sample_threshold", s.badSampleThreshold);
    addNumber(latency, "total_samples", s.totalSamples ? s.totalSamples : none);
    addNumber(latency, "threshold_ms", s.latencyThresholdMs);
}

void jsonGuardrails(const DaemonStatus& s, cJSON* doc) {
    cJSON* block = cJSON_AddObjectToObject(doc, "guardrails");
    cJSON* rows = cJSON_AddArrayToObject(block, "rows");
    cJSON* queued = cJSON_AddArrayToObject(block, "queued");
    cJSON* kills = cJSON_AddObjectToObject(block, "kills");
    std::set<std::string> seen;
    std::map<std::string, int> killsOf;
    std::vector<std::string> order;  // names in the rows' order
    for (const GuardrailRow& r : s.guardrails) {
        cJSON* row = cJSON_CreateObject();
        cJSON_AddStringToObject(row, "name", r.name.c_str());
        cJSON_AddNumberToObject(row, "soft_kb", static_cast<double>(r.softKb));
        cJSON_AddNumberToObject(row, "hard_kb", static_cast<double>(r.hardKb));
        addNumber(row, "pss_kb", r.pssKb);
        addStamp(row, "pss_at", r.pssAt);
        addNumber(row, "pss_age_sec", pssAgeSec(s, r));
        cJSON_AddBoolToObject(row, "running", r.running);
        cJSON_AddBoolToObject(row, "queued", r.queued);
        cJSON_AddNumberToObject(row, "hard_kills", r.hardKills);
        cJSON_AddNumberToObject(row, "idle_kills", r.idleKills);
        cJSON_AddItemToArray(rows, row);
        if (r.queued && seen.insert(r.name).second)
            cJSON_AddItemToArray(queued, cJSON_CreateString(r.name.c_str()));
        // Rows of one name count their kills under that name, as the records do.
        const auto [it, added] = killsOf.try_emplace(r.name, 0);
        if (added) order.push_back(r.name);
        it->second += r.hardKills + r.idleKills;
    }
    for (const std::string& name : order)
        cJSON_AddNumberToObject(kills, name.c_str(), killsOf[name]);
}

void jsonRecovery(const DaemonStatus& s, cJSON* doc) {
    cJSON* recovery = cJSON_AddObjectToObject(doc, "recovery");
    cJSON_AddStringToObject(recovery, "condition", logread::conditionName(s.condition));
    addStamp(recovery, "condition_at", s.conditionAt);
    addStamp(recovery, "waiting_since", s.waitingSince);
    addNumber(recovery, "start_uptime", s.startUptime);
    cJSON_AddBoolToObject(recovery, "reboot_requested", s.rebootAt.has_value());
    addStamp(recovery, "reboot_at", s.rebootAt);
    if (s.rebootReason.empty()) {
        cJSON_AddNullToObject(recovery, "reboot_reason");
    } else {
        cJSON_AddStringToObject(recovery, "reboot_reason", s.rebootReason.c_str());
    }
    addNumber(recovery, "override_in_sec", overrideInSec(s));
    cJSON_AddStringToObject(recovery, "override_in_sec_is",
                            "an estimate, to within idle_detection_interval_sec");
}

void jsonReaders(const DaemonStatus& s, cJSON* doc) {
    cJSON* readers = cJSON_AddObjectToObject(doc, "readers");
    cJSON_AddNumberToObject(readers, "failures", static_cast<double>(s.readerFailures));
    if (s.readerFailures == 0) {
        cJSON_AddNullToObject(readers, "last");
    } else {
        cJSON_AddStringToObject(readers, "last", s.lastReaderFailure.c_str());
    }
    addStamp(readers, "last_at", s.lastReaderFailureAt);
}

std::string renderJson(const DaemonStatus& s, bool compact) {
    cJSON* doc = cJSON_CreateObject();
    cJSON_AddStringToObject(doc, "state", stateName(s.state));
    jsonRun(s, doc);
    jsonCounts(s, doc);
    jsonGuardrails(s, doc);
    jsonReaders(s, doc);
    jsonRecovery(s, doc);
    char* text = compact ? cJSON_PrintUnformatted(doc) : cJSON_Print(doc);
    std::string out = text != nullptr ? text : "{}";
    cJSON_free(text);
    cJSON_Delete(doc);
    return out + "\n";
}

// ---- Reading ----

struct Options {
    std::vector<std::string> logs;  // "-" is standard input
    bool follow = false;
    bool json = false;
};

void show(const DaemonStatus& s, const Options& o, bool again) {
    if (!s.found) {
        if (!o.follow)
            fprintf(stderr, "tavrendctl: status: no \"Starting Tavren Daemon\" in the log\n");
        return;
    }
    if (o.json) {
        fputs(renderJson(s, o.follow).c_str(), stdout);
    } else {
        if (again) fputs(isatty(STDOUT_FILENO) ? "\x1b[H\x1b[2J" : "\n", stdout);
        fputs(renderText(s).c_str(), stdout);
    }
    fflush(stdout);
}

int openLog(const std::string& path) {
    if (path == "-") return STDIN_FILENO;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) fprintf(stderr, "tavrendctl: status: %s: %s\n", path.c_str(), strerror(errno));
    return fd;
}

// Reads `fd` to its end; false on a read error.
bool readAll(int fd, LineFeed& feed) {
    ssize_t n;
    while ((n = feed.readOnce(fd)) > 0) {
    }
    return n == 0;
}

// When the log ends, to date its stamps: the latest of its files' times, or now.
time_t logEnd(const std::vector<std::string>& logs) {
    time_t end = 0;
    for (const std::string& path : logs) {
        struct stat st {};
        if (path != "-" && stat(path.c_str(), &st) == 0) end = std::max(end, st.st_mtime);
    }
    return end != 0 ? end : time(nullptr);
}

Options optionsOf(const tavrendctl::Args& a) {
    Options o;
    o.follow = a.has("--follow");
    o.json = a.has("--json");
    o.logs = a.operands;
    if (o.logs.empty()) o.logs.push_back("-");
    return o;
}

int runStatus(const tavrendctl::Args& a) {
    const Options o = optionsOf(a);
    StatusReader reader(logEnd(o.logs));
    LineFeed feed(reader);
    for (size_t i = 0; i < o.logs.size(); ++i) {
        const int fd = openLog(o.logs[i]);
        if (fd < 0) return 2;
        const bool isStdin = fd == STDIN_FILENO;
        if (o.follow && i + 1 == o.logs.size()) {
            // A file is read to its end first; standard input as it comes.
            bool shown = false;
            if (!isStdin) {
                if (!readAll(fd, feed)) {
                    fprintf(stderr, "tavrendctl: status: %s: cannot read: %s\n", o.logs[i].c_str(),
                            strerror(errno));
                    close(fd);
                    return 2;
                }
                show(reader.status(), o, false);
                shown = reader.status().found;
            }
            const int status = followLog(
                o.logs[i], fd, feed, reader, [&](bool again) { show(reader.status(), o, again); },
                shown);
            if (!isStdin) close(fd);
            return status;
        }
        const bool ok = readAll(fd, feed);
        if (!ok)
            fprintf(stderr, "tavrendctl: status: %s: %s\n", o.logs[i].c_str(), strerror(errno));
        feed.finish();
        if (!isStdin) close(fd);
        if (!ok) return 2;
    }
    show(reader.status(), o, false);
    return reader.status().found ? 0 : 1;
}

}  // namespace

namespace tavrendctl {

const Command kStatusCommand = {"status", "[LOG...|-] [--follow] [--json]",
                                kHelp,    {{"--follow", nullptr}, {"--json", nullptr}},
                                0,        kAnyOperands,
                                false,    runStatus};

}  // namespace tavrendctl

// The crash reports of the daemon's log, each read once: its histories, its
// "LMK Stats" line, its guardrail table, and the bad latency samples with the
// time of each one's own line.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace logread {

// A history of samples as the report printed it, oldest first.
struct History {
    std::string name;  // "Other Free", ...
    std::string slug;  // the name in a file name: "other-free"
    std::string unit;  // "kB" or "ms"
    std::vector<uint64_t> values;
    bool present = false;  // read from the report
    // Seconds between two samples, from the daemon's configuration lines in
    // the log ("memory_read_interval_sec: 2"); 1 when the log has none.
    int periodSec = 1;
    bool periodLogged = false;
    // Samples that are events, not a series: the bad latency samples. Each
    // one's time (microseconds, as CrashReport::endUs) when the log has its
    // "Bad latency-..." line.
    bool events = false;
    std::vector<std::optional<int64_t>> eventUs;
    // The value at and above which a sample is bad, from the daemon's last
    // "Total samples=..." line before the report (the bad latency samples).
    std::optional<uint64_t> threshold;
};

struct Process {
    int pid = 0;
    std::string name;
    History rss;
    History rswap;
    uint64_t rssBaseline = 0;
};

// A row of the report's guardrail table.
struct GuardrailState {
    int pid = 0;
    std::string name;
    uint64_t pssKb = 0, softKb = 0, hardKb = 0;
    int killCount = 0;
};

struct CrashReport {
    long line = 0;          // the report's first line in the log
    std::string stamp;      // that line's log stamp, "MM-DD HH:MM:SS.mmm"
    std::string date;       // its "Date & Time", empty when missing
    int64_t endUs = 0;      // its time, microseconds since 1970 (see --help)
    std::string condition;  // the line of the condition it carries, empty when none
    // Its "LMK Stats" line (Persistent to Other), and the kills of it that the
    // daemon counted against lmk_target_kills (the run's lmk_counter_threshold).
    std::optional<std::array<uint64_t, 6>> lmkStats;
    std::optional<int32_t> lmkDeciding;
    std::optional<long long> lmkTarget;  // lmk_target_kills of the run, when logged
    std::string lmkCounterThreshold;     // lmk_counter_threshold of the run, "" when not logged
    std::vector<GuardrailState> guardrails;
    std::vector<History> system;  // Other Free, Other File, Swap Free, SUnreclaim, bad UPL
    std::vector<Process> processes;
};

// Reads every crash report of `in`, whose stamps are dated by `logEnd` (the
// file's time) until a report's Date & Time. History lines that cannot be read
// are skipped with a note on `notes`, naming `logName` and the line. Returns
// false on a read error.
bool readReports(FILE* in, const std::string& logName, FILE* notes, std::vector<CrashReport>& out,
                 time_t logEnd = time(nullptr));

// The change of a process's RSS from its baseline to its last sample, in kB.
int64_t rssGrowth(const Process& p);

// The processes with an RSS history, most grown first, at most `n`.
std::vector<const Process*> topGrowth(const CrashReport& r, size_t n);

}  // namespace logread

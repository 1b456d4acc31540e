// The crash reports of a tavrend system log, read back for `tavrendctl report`.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace tavrendctl::report {

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
};

struct Process {
    int pid = 0;
    std::string name;
    History rss;
    History rswap;
    uint64_t rssBaseline = 0;
};

struct CrashReport {
    long line = 0;                // the report's first line in the log
    std::string stamp;            // that line's log stamp, "MM-DD HH:MM:SS.mmm"
    std::string date;             // its "Date & Time", empty when missing
    int64_t endUs = 0;            // its time, microseconds since 1970 (see --help)
    std::string condition;        // the condition line before it, empty when none
    std::vector<History> system;  // Other Free, Other File, Swap Free, SUnreclaim, bad UPL
    std::vector<Process> processes;
};

// Reads every crash report of `in`. History lines that cannot be read are
// skipped with a note on `notes`, naming `logName` and the line. Returns false
// on a read error.
bool readReports(FILE* in, const std::string& logName, FILE* notes, std::vector<CrashReport>& out);

// The change of a process's RSS from its baseline to its last sample, in kB.
int64_t rssGrowth(const Process& p);

// The processes with an RSS history, most grown first, at most `n`.
std::vector<const Process*> topGrowth(const CrashReport& r, size_t n);

// Writes the histories as counter tracks of a Chrome trace-event JSON file.
// Returns false with `error` set when the file cannot be written.
bool writeTrace(const std::vector<CrashReport>& reports, const std::string& path,
                std::string& error);

// Draws each system history and the top processes' RSS as SVG line charts in
// `dir`, made when missing. Counts the files in `written`.
bool writeCharts(const std::vector<CrashReport>& reports, const std::string& dir, int& written,
                 std::string& error);

}  // namespace tavrendctl::report

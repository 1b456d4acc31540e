// tavrendctl sim: one run of a scenario, in rooms of its own.
//   SimSetup.cpp    the temporary device: its root, dravikfs, the daemon
//   SimPlay.cpp     the timeline played against the clock, latency clients
//   SimObserve.cpp  what the daemon did, read from its logs; the status line
//   SimJudge.cpp    the outcome against the scenario's "expect"
//   SimSummary.cpp  the summary, as text or JSON
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "logread/Clock.h"
#include "logread/LogLine.h"
#include "logread/Runs.h"
#include "sim/SimScenario.h"
#include "toolbox/Text.h"

namespace tavrendctl::sim {

using Clock = std::chrono::steady_clock;

// Set by SIGINT, SIGTERM and SIGHUP: the run ends in order.
extern volatile sig_atomic_t gInterrupted;

// "12 s": a time in simulated seconds.
std::string secs(double t);
std::string signalName(int sig);
using tavrendctl::startsWith;

// ---- set-up -----------------------------------------------------------------

// A child process with its output in `logPath`, in a process group of its own
// (so that ^C reaches only this program, which then ends the run in order).
pid_t spawn(const std::string& path, const std::vector<std::string>& args,
            const std::map<std::string, std::string>& env, const std::string& logPath,
            bool dieWithParent);
// Waits for `pid` up to `limit`; its wait status, if it ended.
std::optional<int> waitFor(pid_t pid, std::chrono::milliseconds limit);

// The temporary device of one run: $TMPDIR/tavrend-sim-XXXXXX/{root,logs}.
struct Run {
    std::string base;
    std::string root;
    std::string logs;
    std::string mountPoint;
    pid_t dravik = -1;
    pid_t daemon = -1;
    Clock::time_point start;  // when the daemon was started

    // Kills the daemon; its wait status once it has ended.
    std::optional<int> killDaemon();
    // Stops the daemon and dravikfs, unmounts and removes the root (the logs stay).
    void cleanup();
};

// Builds the device root, mounts dravikfs and starts the daemon. An exit
// status (2) when that fails, after an error line; the run is cleaned up.
std::optional<int> setUp(const std::string& path, const Scenario& s, double scale, Run& run);

// Removes the $TMPDIR/tavrend-sim-* folders of this user's runs whose
// processes are all gone, naming each; the exit status of `sim --clean`.
int cleanOldRuns();

// ---- observe ----------------------------------------------------------------

struct Kill {
    double at = 0;
    int pid = 0;
    std::string name;                   // the guarded name the daemon logged
    std::optional<std::string> holder;  // the program on the pid then, if any
    std::string kind;                   // hard or idle
    // "done" once the daemon logs it so, "failed" with its error line, else
    // empty: the log ended before either.
    std::string result;
    std::string error;
};

// A kill that happened: the daemon logged it done.
inline bool happened(const Kill& k) { return k.result == "done"; }

// The name a kill is judged by: the program it hit.
inline std::string victim(const Kill& k) { return k.holder.value_or("(no process)"); }

// The daemon's descriptors and resident memory at one moment.
struct DaemonSample {
    double at = 0;
    long fds = 0;
    long vmrssKb = 0;
};

std::optional<DaemonSample> sampleDaemon(pid_t pid, double at);

// What the daemon did, read from its log as it runs.
struct Outcome {
    std::string condition = "none";    // the crash report's, else the one the loop would take
    std::optional<double> detectedAt;  // that condition's first line
    std::optional<double> memoryAt, latencyAt;  // each condition's first line
    bool conditionTaken = false;                // a crash report carried it
    std::optional<long> reportFirst;
    std::optional<long> reportLast;
    bool reportOpen = false;
    std::vector<Kill> kills;
    int pending = 0;
    std::optional<double> rebootLogAt;
    bool powerctlReboot = false;
    long tick = -1;  // the loop's tick at the last system memory heartbeat
    long ticksPerSample = 1;
    std::optional<long> lmkKills;  // the daemon's count at its last heartbeat, then its report's
    bool lmkFromReport = false;
    std::optional<long> badSamples;  // the daemon's count of bad latency samples
    bool sawExiting = false;
    std::optional<double> signalLoggedAt;
    std::vector<std::pair<double, std::string>> metrics;
    std::optional<int> waitStatus;
    bool timedOut = false;
    std::optional<double> sigtermAt;
    double endedAt = 0;
    double realSec = 0;
    int uplSent = 0;
    std::vector<std::string> uplErrors;
    long uplCounted = 0;                        // the highest "Total samples" the daemon logged
    std::map<std::string, long> recordedKills;  // killCount of the guardrail records, by name
    std::vector<DaemonSample> daemon;
    std::optional<std::string> hardKill;  // a hard kill's name, until its driver request
    std::vector<std::string> runErrors;
    std::optional<double> driverStoppedAt;  // dravikfs ended while the daemon ran
};

// Reads a growing log file line by line; times are simulated seconds since
// the daemon was started (`start`), as the timeline's are.
class LogTail {
public:
    LogTail(std::string path, Clock::time_point start, double scale);

    // Calls f(lineNumber, seconds, line, step) for each new complete line of
    // the logcat layout.
    template <typename F>
    void poll(F&& f) {
        std::ifstream in(path_, std::ios::binary);
        if (!in) return;
        in.seekg(static_cast<std::streamoff>(offset_));
        char buf[65536];
        while (in.read(buf, sizeof(buf)) || in.gcount() > 0) {
            const auto n = static_cast<size_t>(in.gcount());
            offset_ += n;
            partial_.append(buf, n);
        }
        size_t start = 0;
        for (size_t nl = partial_.find('\n'); nl != std::string::npos;
             nl = partial_.find('\n', start)) {
            const std::string line = partial_.substr(start, nl - start);
            start = nl + 1;
            ++lineNo_;
            const auto parsed = logread::parse(line);
            if (!parsed) continue;
            const double t = timeOf(parsed->at);
            f(lineNo_, t, *parsed, runs_.feed(*parsed));
        }
        partial_.erase(0, start);
    }

    double timeOf(const logread::Stamp& at);
    const logread::Run& run() const { return runs_.run(); }

private:
    std::string path_;
    size_t offset_ = 0;
    std::string partial_;
    long lineNo_ = 0;
    logread::LogClock clock_;
    logread::RunReader runs_;
    double scale_;
    int64_t startMs_;  // the daemon's start on the log's clock
    std::optional<int64_t> baseMs_;
    double baseSec_ = 0;  // the first line's time
    double last_ = 0;
};

// Takes one line of the daemon's system log into `o`.
void observe(Outcome& o, DeviceState& device, long lineNo, double t, const logread::Line& line,
             const logread::Step& step, const logread::Run& run);
// What the run left behind: the reboot property and the metric records.
void observeAfterRun(Outcome& o, const Run& run, LogTail& log);

// The live status line on standard error.
class StatusLine {
public:
    explicit StatusLine(const Scenario& s);
    void update(double t, const Outcome& o, bool userActive, bool force);
    void finish() const;

private:
    const Scenario& s_;
    bool tty_;
    Clock::time_point lastReal_{};
    double lastSim_ = -1e9;
    bool shown_ = false;
};

// ---- play -------------------------------------------------------------------

// Plays `s` on a fresh device and judges it; the exit status of `sim`.
int play(const std::string& path, const Scenario& s, double scale, bool json);

// ---- judge ------------------------------------------------------------------

bool rebooted(const Outcome& o);
// How the run ended, as "expect.ends" names it.
std::string ending(const Outcome& o, const Scenario& s);
// The daemon's wait status in words.
std::string howEnded(const Outcome& o);
// Each way the outcome differs from "expect", one line each.
std::vector<std::string> compare(const Scenario& s, const Outcome& o);

// The lowest figures of the first and of the last kFlatWindowSec of the
// samples from `from` on: a file the daemon holds open for a moment, or a
// thread between two passes, does not count as growth.
constexpr double kFlatWindowSec = 600;
struct FlatEnds {
    DaemonSample first;
    DaemonSample last;
};
std::optional<FlatEnds> flatEnds(const std::vector<DaemonSample>& samples, double from);

// ---- summary ----------------------------------------------------------------

struct RunInfo {
    const std::string& path;
    const Scenario& s;
    double scale;
    const std::string& logs;
};

void printSummary(const RunInfo& run, const Outcome& o);
// The summary, the verdict ("matches", "differs", "none stated", "not judged") and the
// differences as one JSON object.
void printJsonSummary(const RunInfo& run, const Outcome& o, const std::string& verdict,
                      const std::vector<std::string>& diffs);

}  // namespace tavrendctl::sim

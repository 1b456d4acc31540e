// A log of the daemon split into its runs: each "Starting Tavren Daemon"
// begins one, and only that process's lines are the run's (other processes
// and an earlier run's threads may write between them). A run keeps its
// configuration block and the conditions its monitors raised.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "LogLine.h"
#include "Messages.h"

namespace logread {

enum class Condition { None, Memory, Latency };
const char* conditionName(Condition c);

// The condition a crash report carries. The monitoring loop asks its monitors
// in the order it created them (the system memory sampler before the latency
// monitor) and takes the first one's condition, so with both raised before a
// report the memory condition is the report's, whichever line came first.
class ConditionRule {
public:
    void see(Kind k);
    // The condition of a report at this point; the rule starts again.
    Condition take();
    Condition pending() const;

private:
    bool memory_ = false, latency_ = false;
};

// Where a line's process stands to the run.
enum class Source {
    None,    // before any run, or another process
    Daemon,  // the run's own lines (tag "tavrend")
    Reader,  // the statistics readers inside the run's process (main buffer)
};

constexpr std::string_view kDaemonTag = "tavrend";
constexpr std::string_view kReaderTag = "quillend:StatUtil";

struct Run {
    int pid = 0;
    Stamp started;
    // The configuration the daemon printed, in its order ("key", "value").
    std::vector<std::pair<std::string, std::string>> config;
    std::optional<std::string_view> configText(std::string_view key) const;
    std::optional<int64_t> configNumber(std::string_view key) const;
};

// What one line is to the run.
struct Step {
    Source source = Source::None;
    bool started = false;  // the line began a new run
    bool config = false;   // a line of the configuration block
    Event event;
    Condition condition = Condition::None;  // at a crash report: the condition it carries
};

class RunReader {
public:
    Step feed(const Line& line);
    bool found() const { return found_; }
    const Run& run() const { return run_; }
    Condition pendingCondition() const { return rule_.pending(); }

private:
    bool found_ = false;
    Run run_;
    bool inConfig_ = false;
    ConditionRule rule_;
};

// The low-memory killer's kills that the daemon counts against
// lmk_target_kills, from a crash report's "LMK Stats" line: the classes from
// Persistent through the one lmk_counter_threshold names (all six when it
// names none), summed as the daemon sums them (32-bit, wrapping).
int32_t decidingLmkKills(const Event& lmkStats, std::string_view counterThreshold);

}  // namespace logread

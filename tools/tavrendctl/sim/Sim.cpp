// tavrendctl sim SCENARIO [--scale N] [--json]: plays a scenario on a simulated device
// (a temporary device root served by dravikfs) with the built daemon, then
// compares what happened with the scenario's expected outcome.
#include <signal.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "sim/SimRun.h"
#include "toolbox/Commands.h"

namespace tavrendctl::sim {

volatile sig_atomic_t gInterrupted = 0;

std::string signalName(int sig) {
    switch (sig) {
        case SIGTERM: return "SIGTERM";
        case SIGABRT: return "SIGABRT";
        case SIGKILL: return "SIGKILL";
        case SIGSEGV: return "SIGSEGV";
        case SIGBUS: return "SIGBUS";
        case SIGILL: return "SIGILL";
        case SIGFPE: return "SIGFPE";
        case SIGINT: return "SIGINT";
        case SIGHUP: return "SIGHUP";
        case SIGPIPE: return "SIGPIPE";
        default: return std::to_string(sig);
    }
}

std::string secs(double t) {
    char buf[32];
    snprintf(buf, sizeof(buf), "%.0f s", t);
    return buf;
}

namespace {

void onInterrupt(int) { gInterrupted = 1; }

constexpr const char* kHelp =
    "Plays SCENARIO, a JSON file, on a simulated device: builds a temporary device\n"
    "root from it, mounts dravikfs on it, starts tavrend (both found beside this\n"
    "program) with TAVREND_TIME_SCALE=N, plays the timeline, ends the daemon at the\n"
    "scenario's end_sec (SIGTERM) unless it ended before, prints a summary and\n"
    "compares the outcome with the scenario's \"expect\". The logs are kept.\n"
    "\n"
    "Scenario (times in simulated seconds from the daemon's start):\n"
    "  {\"description\": TEXT, \"scale\": N, \"end_sec\": S, \"boot_uptime_sec\": S,\n"
    "   \"config\": {...merged over the defaults}, \"metric_config\": {...},\n"
    "   \"guardrails\": [{\"name\", \"soft_memory_limit\", \"hard_memory_limit\"}],\n"
    "   \"device\": {\"meminfo\": {NAME: kB}, \"lmk_stats\": {CLASS: N},\n"
    "              \"processes\": [{\"pid\", \"name\", \"cmdline\", \"rss_kb\", \"swap_kb\",\n"
    "                             \"pss_kb\", \"graphics_kb\"}], \"user_active\": BOOL},\n"
    "   \"upl_clients\": N (connections sending the latency samples at once),\n"
    "   \"timeline\": [{\"at\": S, [\"every\": S, \"times\": N,]\n"
    "                 ONE OF \"lmk_stats\": {...} | \"meminfo\": {...} |\n"
    "                 \"process\": {...} | \"exit\": PID | \"user_active\": BOOL |\n"
    "                 \"upl\": [MS, ...] | \"sigterm\": true}],\n"
    "   a figure of lmk_stats, meminfo or a process in the timeline is a number,\n"
    "   or {\"add\": N} to change it by N (never below 0),\n"
    "   \"expect\": {\"condition\": \"none\"|\"memory\"|\"latency\",\n"
    "              \"detected_between\": [S, S], \"reboot\": BOOL,\n"
    "              \"reboot_between\": [S, S], \"killed\": {NAME: \"hard\"|\"idle\"},\n"
    "              \"metric_records\": [TEXT, ...], \"kill_totals\": {NAME: N},\n"
    "              \"upl_total\": N, \"daemon_flat\": {\"from\": S, \"fds\": N,\n"
    "              \"vmrss_kb\": KB},\n"
    "              \"ends\": \"reboot\"|\"sigterm\"|\"exit N\"|\"signal NAME\"|\"timeout\"}}\n"
    "\n"
    "--scale N overrides the scenario's scale (default 1): N simulated seconds per\n"
    "real second. The device boots with the run: its uptime starts at boot_uptime_sec\n"
    "(default 0). --json prints the summary and the verdict as one JSON object.\n"
    "--clean removes the $TMPDIR/tavrend-sim-* folders of your own runs whose\n"
    "processes (runner, daemon, dravikfs) are all gone, with any mount they left,\n"
    "and names each; other users' folders and runs still going are left alone.\n"
    "\n"
    "The scenario's config and guardrails are checked with check-config's rules\n"
    "first: a key or section the daemon does not know makes it a bad scenario, and\n"
    "other warnings are printed above the run.\n"
    "\n"
    "Exit status: 0 when the outcome matches \"expect\" (or there is none), 1 when it\n"
    "differs (each difference is printed), 2 for a bad scenario file or a failure\n"
    "to set up or run the device (no FUSE, missing binaries, a driver that stopped\n"
    "mid-run, interrupted).\n"
    "Errors and the live status line (with the counts that decide a condition:\n"
    "LMK kills against lmk_target_kills, bad latency samples against their\n"
    "threshold) go to standard error, the summary to standard output.\n";

bool parseScale(const char* text, double& out) {
    char* end = nullptr;
    errno = 0;
    const double v = strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || !std::isfinite(v) || v < 0.001 || v > 100000) {
        return false;
    }
    out = v;
    return true;
}

struct SimArgs {
    const char* path = nullptr;
    std::optional<double> scale;
    bool json = false;
    bool clean = false;
};

// The arguments, or an exit status when there is nothing to play.
std::optional<int> simArgs(const tavrendctl::Args& in, SimArgs& a) {
    const tavrendctl::Command& c = tavrendctl::kSimCommand;
    a.json = in.has("--json");
    a.clean = in.has("--clean");
    if (!in.operands.empty()) a.path = in.operands[0].c_str();
    if (in.has("--scale")) {
        double v = 0;
        if (!parseScale(in.options.at("--scale").c_str(), v)) {
            return usageError(c, "--scale needs a number from 0.001 to 100000");
        }
        a.scale = v;
    }
    if (a.clean && (a.path != nullptr || a.scale || a.json)) {
        return usageError(c, "--clean takes nothing else");
    }
    if (a.path == nullptr && !a.clean) return usageError(c, "no scenario given");
    return std::nullopt;
}

void handleSignals() {
    struct sigaction sa = {};
    sa.sa_handler = onInterrupt;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, nullptr);
}

int runSim(const tavrendctl::Args& in) {
    SimArgs a;
    if (const auto status = simArgs(in, a)) return *status;
    if (a.clean) return cleanOldRuns();
    Scenario s;
    std::string error;
    if (!loadScenario(a.path, s, error)) {
        fprintf(stderr, "tavrendctl: bad scenario: %s\n", error.c_str());
        return 2;
    }
    for (const auto& w : s.configWarnings) fprintf(stderr, "tavrendctl: warning: %s\n", w.c_str());
    handleSignals();
    return play(a.path, s, a.scale.value_or(s.scale.value_or(1.0)), a.json);
}

}  // namespace
}  // namespace tavrendctl::sim

namespace tavrendctl {

const Command kSimCommand = {
    "sim",      "SCENARIO [--scale N] [--json] | --clean",
    sim::kHelp, {{"--scale", "N"}, {"--json", nullptr}, {"--clean", nullptr}},
    0,          1,
    false,      sim::runSim};

}  // namespace tavrendctl

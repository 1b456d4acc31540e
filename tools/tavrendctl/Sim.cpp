// tavrendctl sim SCENARIO [--scale N]: plays a scenario on a simulated device
// (a temporary device root served by dravikfs) with the built daemon, then
// compares what happened with the scenario's expected outcome.
#include <signal.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "Commands.h"
#include "SimRun.h"

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

int usage() {
    fprintf(
        stderr,
        "usage: tavrendctl sim SCENARIO [--scale N]\n"
        "\n"
        "Plays SCENARIO, a JSON file, on a simulated device: builds a temporary device\n"
        "root from it, mounts dravikfs on it, starts tavrend (both found beside this\n"
        "program) with TAVREND_TIME_SCALE=N, plays the timeline, ends the daemon at the\n"
        "scenario's end_sec (SIGTERM) unless it ended before, prints a summary and\n"
        "compares the outcome with the scenario's \"expect\". The logs are kept.\n"
        "\n"
        "Scenario (times in simulated seconds from the daemon's start):\n"
        "  {\"description\": TEXT, \"scale\": N, \"end_sec\": S,\n"
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
        "   \"expect\": {\"condition\": \"none\"|\"memory\"|\"latency\",\n"
        "              \"detected_between\": [S, S], \"reboot\": BOOL,\n"
        "              \"reboot_between\": [S, S], \"killed\": {NAME: \"hard\"|\"idle\"},\n"
        "              \"metric_records\": [TEXT, ...], \"kill_totals\": {NAME: N},\n"
        "              \"upl_total\": N, \"daemon_flat\": {\"from\": S, \"fds\": N,\n"
        "              \"vmrss_kb\": KB},\n"
        "              \"ends\": \"reboot\"|\"sigterm\"|\"exit N\"|\"signal NAME\"|\"timeout\"}}\n"
        "\n"
        "--scale N overrides the scenario's scale (default 1): N simulated seconds per\n"
        "real second.\n"
        "\n"
        "Exit status: 0 when the outcome matches \"expect\" (or there is none), 1 when it\n"
        "differs (each difference is printed), 2 for a bad scenario file or a failure\n"
        "to set up or run the device (no FUSE, missing binaries, interrupted).\n"
        "Errors and the live status line go to standard error, the summary to\n"
        "standard output.\n");
    return 2;
}

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

}  // namespace
}  // namespace tavrendctl::sim

int simCommand(int argc, char** argv) {
    using namespace tavrendctl::sim;
    const char* path = nullptr;
    std::optional<double> scale;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            usage();
            return 0;
        }
        if (arg == "--scale") {
            double v = 0;
            if (i + 1 >= argc || !parseScale(argv[i + 1], v)) {
                fprintf(stderr, "tavrendctl: --scale needs a number from 0.001 to 100000\n");
                return usage();
            }
            scale = v;
            ++i;
        } else if (path == nullptr && !arg.empty() && arg[0] != '-') {
            path = argv[i];
        } else {
            fprintf(stderr, "tavrendctl: unexpected argument '%s'\n", argv[i]);
            return usage();
        }
    }
    if (path == nullptr) return usage();
    Scenario s;
    std::string error;
    if (!loadScenario(path, s, error)) {
        fprintf(stderr, "tavrendctl: bad scenario: %s\n", error.c_str());
        return 2;
    }
    struct sigaction sa = {};
    sa.sa_handler = onInterrupt;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, nullptr);
    return play(path, s, scale.value_or(s.scale.value_or(1.0)));
}

// tavrendctl sim, observe: what the daemon did, read from its system log as
// it runs and from what it left behind; its descriptors and memory; the live
// status line.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "sim/SimRun.h"

namespace tavrendctl::sim {
namespace {

namespace fs = std::filesystem;

// A log stamp's time in seconds, in the given year.
double stampSeconds(const logcat::Stamp& at, int year) {
    struct tm t = {};
    t.tm_year = year - 1900;
    t.tm_mon = at.month - 1;
    t.tm_mday = at.day;
    t.tm_hour = at.hour;
    t.tm_min = at.minute;
    t.tm_sec = at.second;
    return static_cast<double>(timegm(&t)) + at.milli / 1000.0;
}

// The crash report runs from its first line to the line before the next
// condition, idle wait or signal.
void observeReport(Outcome& o, long lineNo, const std::string& msg) {
    if (o.reportOpen) {
        if (msg == "Critical condition is detected" ||
            startsWith(msg, "Starting post-critical condition idle detection") ||
            startsWith(msg, "Received signal") || msg == "Exiting") {
            o.reportOpen = false;
        } else {
            o.reportLast = lineNo;
        }
    }
    if (msg == "------Tavrend Crash Report------" && !o.reportFirst) {
        o.reportFirst = lineNo;
        o.reportLast = lineNo;
        o.reportOpen = true;
    }
}

// Every kill names the program that held the pid when the daemon asked the
// driver for it ("Trying to kill pid N", logged just before); the runner owns
// the device, so it knows. True when `msg` was about a kill.
bool observeKill(Outcome& o, DeviceState& device, double t, const std::string& msg) {
    int pid = 0;
    if (startsWith(msg, "Adding process ")) {
        ++o.pending;
    } else if (startsWith(msg, "Removing process ")) {
        --o.pending;
    } else if (startsWith(msg, "Memory usage for ") &&
               msg.find(") exceeds hard guardrails, killing it immediately") != std::string::npos) {
        std::string name = msg.substr(strlen("Memory usage for "));
        o.hardKill = name.substr(0, name.rfind(" ("));
    } else if (sscanf(msg.c_str(), "Trying to kill pid %d", &pid) == 1) {
        o.kills.push_back(
            {t, pid, o.hardKill.value_or(""), device.holder(pid), o.hardKill ? "hard" : ""});
        o.hardKill.reset();
    } else if (sscanf(msg.c_str(), "Successfully killed pid %d", &pid) == 1) {
        device.killed(pid);
    } else if (startsWith(msg, "process=") && msg.find(" kill_count=") != std::string::npos) {
        --o.pending;
        const std::string rest = msg.substr(strlen("process="));
        const size_t at = rest.rfind(" pid=");
        pid = atoi(rest.c_str() + at + 5);
        auto k = std::find_if(o.kills.rbegin(), o.kills.rend(),
                              [&](const Kill& x) { return x.pid == pid && x.kind.empty(); });
        if (k == o.kills.rend()) {
            o.kills.push_back({t, pid, "", device.holder(pid), ""});
            k = o.kills.rbegin();
        }
        k->name = rest.substr(0, at);
        k->kind = "idle";
    } else if (startsWith(msg, "process=") && msg.find("no longer over") != std::string::npos) {
        --o.pending;
    } else {
        return false;
    }
    return true;
}

// The counts that decide a condition: LMK kills and bad latency samples.
void observeCounts(Outcome& o, const std::string& msg) {
    unsigned long long n = 0;
    long first = 0;
    long second = 0;
    int got = sscanf(msg.c_str(), "SystemMemorySampler heartbeat %llu, lmk_current_kills %ld", &n,
                     &first);
    if (got >= 1) {
        o.tick = static_cast<long>(n) * o.ticksPerSample;
        if (got == 2) o.lmkKills = first;
        return;
    }
    got = sscanf(msg.c_str(), "Total samples=%ld, bad samples=%ld,", &first, &second);
    if (got >= 1) o.uplCounted = std::max(o.uplCounted, first);
    if (got == 2) o.badSamples = std::max(o.badSamples.value_or(0), second);
}

}  // namespace

std::optional<DaemonSample> sampleDaemon(pid_t pid, double at) {
    const std::string dir = "/proc/" + std::to_string(pid);
    DaemonSample d{at, 0, -1};
    std::error_code ec;
    for (fs::directory_iterator it(dir + "/fd", ec), end; !ec && it != end; it.increment(ec)) {
        ++d.fds;
    }
    std::ifstream status(dir + "/status");
    for (std::string line; std::getline(status, line);) {
        if (sscanf(line.c_str(), "VmRSS: %ld kB", &d.vmrssKb) == 1) break;
    }
    if (ec || d.vmrssKb < 0) return std::nullopt;
    return d;
}

LogTail::LogTail(std::string path) : path_(std::move(path)) {
    const time_t now = time(nullptr);
    struct tm local = {};
    localtime_r(&now, &local);
    year_ = local.tm_year + 1900;
}

double LogTail::timeOf(const std::optional<logcat::Line>& line) {
    if (!line) return last_;
    double stamp = stampSeconds(line->at, year_);
    if (!base_) base_ = stamp;
    // Past new year's eve: the stamps carry no year.
    if (stamp < *base_ - 180 * 86400.0) stamp = stampSeconds(line->at, year_ + 1);
    last_ = stamp - *base_;
    return last_;
}

void observe(Outcome& o, DeviceState& device, long lineNo, double t, const std::string& msg) {
    observeReport(o, lineNo, msg);
    if (observeKill(o, device, t, msg)) return;
    if (msg == "Memory is being leaked, need to take action" && !o.detectedAt) {
        o.condition = "memory";
        o.detectedAt = t;
    } else if (msg == "Critical UPL condition detected since bad sample count threshold reached" &&
               !o.detectedAt) {
        o.condition = "latency";
        o.detectedAt = t;
    } else if (msg == "Rebooting device") {
        o.rebootLogAt = t;
    } else if (msg == "Exiting") {
        o.sawExiting = true;
    } else if (startsWith(msg, "Received signal")) {
        o.signalLoggedAt = t;
    } else {
        observeCounts(o, msg);
    }
}

void observeAfterRun(Outcome& o, const Run& run, LogTail& log) {
    std::ifstream powerctl(run.root + "/dev/__properties__/sys.powerctl");
    std::string value;
    std::getline(powerctl, value);
    o.powerctlReboot = value == "reboot";
    std::ifstream metrics(run.logs + "/metrics.log");
    std::string line;
    while (std::getline(metrics, line)) {
        const auto parsed = logcat::parse(line);
        if (!parsed) continue;
        const std::string text(parsed->message);
        o.metrics.emplace_back(log.timeOf(parsed), text);
        const size_t name = text.find("processName=");
        const size_t count = text.find("killCount=");
        if (name != std::string::npos && count != std::string::npos) {
            const size_t from = name + strlen("processName=");
            o.recordedKills[text.substr(from, text.find(';', from) - from)] +=
                atol(text.c_str() + count + strlen("killCount="));
        }
    }
}

StatusLine::StatusLine(const Scenario& s) : s_(s), tty_(isatty(STDERR_FILENO) != 0) {}

void StatusLine::update(double t, const Outcome& o, bool userActive, bool force) {
    const auto now = Clock::now();
    if (tty_) {
        if (!force && now - lastReal_ < std::chrono::milliseconds(200)) return;
    } else if (!force && (t - lastSim_ < 300 || now - lastReal_ < std::chrono::seconds(1))) {
        return;
    }
    lastReal_ = now;
    lastSim_ = t;
    char tick[32] = "";
    if (o.tick >= 0) snprintf(tick, sizeof(tick), "  tick %ld", o.tick);
    // The counts that decide a condition, against their limits ("-": not logged yet).
    auto count = [](const std::optional<long>& n) { return n ? std::to_string(*n) : "-"; };
    fprintf(stderr,
            "%s[sim] t=%7.0fs%s  condition %-7s  %s  pending kills %d  LMK kills %s/%ld  bad "
            "samples %s/%ld%s%s",
            tty_ ? "\r" : "", t, tick, o.condition.c_str(), userActive ? "busy" : "idle", o.pending,
            count(o.lmkKills).c_str(), s_.lmkTargetKills, count(o.badSamples).c_str(),
            s_.uplBadSampleThreshold, rebooted(o) ? "  rebooting" : "", tty_ ? "\033[K" : "\n");
    fflush(stderr);
    shown_ = true;
}

void StatusLine::finish() const {
    if (tty_ && shown_) fputc('\n', stderr);
}

}  // namespace tavrendctl::sim

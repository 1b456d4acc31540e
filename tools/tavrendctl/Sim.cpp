// tavrendctl sim SCENARIO [--scale N]: plays a scenario on a simulated device
// (a temporary device root served by dravikfs) with the built daemon, then
// compares what happened with the scenario's expected outcome.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Commands.h"
#include "LogcatLine.h"
#include "SimScenario.h"
#include "monitors/TavrendIPC.h"

extern char** environ;

namespace tavrendctl::sim {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

volatile sig_atomic_t gInterrupted = 0;

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

// A child process with its output in `logPath`, in a process group of its own
// (so that ^C reaches only this program, which then ends the run in order).
pid_t spawn(const std::string& path, const std::vector<std::string>& args,
            const std::map<std::string, std::string>& env, const std::string& logPath,
            bool dieWithParent) {
    std::vector<std::string> envText;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        const std::string name = entry.substr(0, entry.find('='));
        if (env.count(name) == 0) envText.push_back(entry);
    }
    for (const auto& [k, v] : env) {
        std::string entry = k;
        entry += '=';
        entry += v;
        envText.push_back(std::move(entry));
    }
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    envp.reserve(envText.size() + 1);
    for (auto& e : envText) envp.push_back(e.data());
    envp.push_back(nullptr);
    const int out = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (out < 0) return -1;
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        if (dieWithParent) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(127);
        }
        struct sigaction dfl = {};
        dfl.sa_handler = SIG_DFL;
        sigaction(SIGPIPE, &dfl, nullptr);
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        const int null = open("/dev/null", O_RDONLY);
        if (null >= 0) dup2(null, STDIN_FILENO);
        execve(path.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    close(out);
    return pid;
}

// Waits for `pid` up to `limit`; its wait status, if it ended.
std::optional<int> waitFor(pid_t pid, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (true) {
        int status = 0;
        const pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return status;
        if (r < 0) return std::nullopt;
        if (Clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

bool mounted(const std::string& mountPoint) {
    struct stat here = {};
    struct stat parent = {};
    return stat(mountPoint.c_str(), &here) == 0 &&
           stat((mountPoint + "/..").c_str(), &parent) == 0 && here.st_dev != parent.st_dev;
}

void forceUnmount(const std::string& mountPoint, const std::string& logPath) {
    if (!mounted(mountPoint)) return;
    const pid_t p = spawn("/usr/bin/fusermount3", {"-u", "-z", mountPoint}, {}, logPath, true);
    if (p > 0 && !waitFor(p, std::chrono::seconds(5))) {
        kill(p, SIGKILL);
        waitFor(p, std::chrono::seconds(1));
    }
    for (int i = 0; i < 16 && mounted(mountPoint); ++i) {
        if (umount2(mountPoint.c_str(), MNT_DETACH) != 0) break;
    }
}

constexpr const char* kNoService = "service not found";

// One latency sample through the daemon's binder service, as `tavrendctl upl`
// sends it, on the connection `binder` (made when null, dropped when broken).
// Empty on success, else what went wrong.
std::string sendUpl(android::sp<android::IBinder>& binder, int64_t ms) {
    if (binder == nullptr) {
        binder = android::defaultServiceManager()->checkService(
            android::String16(android::kTavrendIpcServiceName));
    }
    if (binder == nullptr) return kNoService;
    android::Parcel data;
    android::Parcel reply;
    data.writeInterfaceToken(android::String16(android::kTavrendIpcDescriptor));
    data.writeInt64(ms);
    const android::status_t status =
        binder->transact(android::kRecordDuplTransaction, data, &reply);
    if (status != android::OK) {
        binder = nullptr;
        return "status " + std::to_string(status);
    }
    int32_t result = 0;
    if (reply.readInt32(&result) != android::OK) return "no reply";
    if (result != 0) return "reply " + std::to_string(result);
    return {};
}

// Several clients of the latency service, each on a connection of its own
// kept for the whole run and a thread of its own, so that samples reach the
// daemon at once; the samples of an event are dealt to them in turn.
class UplClients {
public:
    explicit UplClients(int clients) : queues_(static_cast<size_t>(clients)) {
        for (size_t i = 0; i < queues_.size(); ++i) threads_.emplace_back([this, i] { run(i); });
    }
    ~UplClients() { finish(); }
    UplClients(const UplClients&) = delete;
    UplClients& operator=(const UplClients&) = delete;

    void send(double at, const std::vector<int64_t>& samples) {
        const std::lock_guard<std::mutex> lock(mutex_);
        for (int64_t ms : samples) queues_[next_++ % queues_.size()].emplace_back(at, ms);
        wake_.notify_all();
    }
    // Sends what is queued, then closes the connections.
    void finish() {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            finishing_ = true;
            wake_.notify_all();
        }
        for (auto& t : threads_) t.join();
        threads_.clear();
    }
    int sent() const { return sent_; }  // once finished
    const std::vector<std::string>& errors() const { return errors_; }

private:
    void run(size_t i) {
        android::sp<android::IBinder> binder;
        bool connected = false;
        std::unique_lock<std::mutex> lock(mutex_);
        while (true) {
            wake_.wait(lock, [&] { return finishing_ || !queues_[i].empty(); });
            if (queues_[i].empty()) return;
            const auto [at, ms] = queues_[i].front();
            queues_[i].pop_front();
            lock.unlock();
            // The first sample waits a moment for a daemon still starting up
            // (its service is registered after the configuration is loaded).
            const auto deadline = Clock::now() + std::chrono::seconds(3);
            std::string error = sendUpl(binder, ms);
            while (!connected && error == kNoService && Clock::now() < deadline) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                error = sendUpl(binder, ms);
            }
            connected = connected || error != kNoService;
            lock.lock();
            ++sent_;
            if (!error.empty()) errors_.push_back("at " + secs(at) + ": " + error);
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<std::deque<std::pair<double, int64_t>>> queues_;
    size_t next_ = 0;
    bool finishing_ = false;
    int sent_ = 0;
    std::vector<std::string> errors_;
    std::vector<std::thread> threads_;
};

struct Kill {
    double at = 0;
    int pid = 0;
    std::string name;                   // the guarded name the daemon logged
    std::optional<std::string> holder;  // the program on the pid then, if any
    std::string kind;                   // hard or idle
};

// The name a kill is judged by: the program it hit.
std::string victim(const Kill& k) { return k.holder.value_or("(no process)"); }

// The daemon's descriptors and resident memory at one moment.
struct DaemonSample {
    double at = 0;
    long fds = 0;
    long vmrssKb = 0;
};

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

// What the daemon did, read from its log as it runs.
struct Outcome {
    std::string condition = "none";
    std::optional<double> detectedAt;
    std::optional<long> reportFirst;
    std::optional<long> reportLast;
    bool reportOpen = false;
    std::vector<Kill> kills;
    int pending = 0;
    std::optional<double> rebootLogAt;
    bool powerctlReboot = false;
    long tick = -1;  // the loop's tick at the last system memory heartbeat
    long ticksPerSample = 1;
    bool sawExiting = false;
    std::optional<double> signalLoggedAt;
    std::vector<std::pair<double, std::string>> metrics;
    std::optional<int> waitStatus;
    bool timedOut = false;
    std::optional<double> sigtermAt;
    double endedAt = 0;
    int uplSent = 0;
    std::vector<std::string> uplErrors;
    long uplCounted = 0;                        // the highest "Total samples" the daemon logged
    std::map<std::string, long> recordedKills;  // killCount of the guardrail records, by name
    std::vector<DaemonSample> daemon;
    std::optional<std::string> hardKill;  // a hard kill's name, until its driver request
    std::vector<std::string> runErrors;
};

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

bool startsWith(const std::string& s, const char* prefix) {
    return s.compare(0, strlen(prefix), prefix) == 0;
}

// Reads a growing log file line by line; times are simulated seconds since
// the daemon's first line.
class LogTail {
public:
    explicit LogTail(std::string path) : path_(std::move(path)) {
        const time_t now = time(nullptr);
        struct tm local = {};
        localtime_r(&now, &local);
        year_ = local.tm_year + 1900;
    }

    // Calls f(lineNumber, seconds, message) for each new complete line.
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
            const auto parsed = logcat::parse(line);
            const double t = timeOf(parsed);
            if (parsed) f(lineNo_, t, std::string(parsed->message));
        }
        partial_.erase(0, start);
    }

    double timeOf(const std::optional<logcat::Line>& line) {
        if (!line) return last_;
        double stamp = stampSeconds(line->at, year_);
        if (!base_) base_ = stamp;
        // Past new year's eve: the stamps carry no year.
        if (stamp < *base_ - 180 * 86400.0) stamp = stampSeconds(line->at, year_ + 1);
        last_ = stamp - *base_;
        return last_;
    }

    long lines() const { return lineNo_; }

private:
    std::string path_;
    size_t offset_ = 0;
    std::string partial_;
    long lineNo_ = 0;
    int year_ = 1970;
    std::optional<double> base_;
    double last_ = 0;
};

// Every kill names the program that held the pid when the daemon asked the
// driver for it ("Trying to kill pid N", logged just before); the runner owns
// the device, so it knows.
void observe(Outcome& o, DeviceState& device, long lineNo, double t, const std::string& msg) {
    int pid = 0;
    long n = 0;
    if (o.reportOpen) {
        if (msg == "Critical condition is detected" ||
            startsWith(msg, "Starting post-critical condition idle detection") ||
            startsWith(msg, "Received signal") || msg == "Exiting") {
            o.reportOpen = false;
        } else {
            o.reportLast = lineNo;
        }
    }
    if (msg == "Memory is being leaked, need to take action" && !o.detectedAt) {
        o.condition = "memory";
        o.detectedAt = t;
    } else if (msg == "Critical UPL condition detected since bad sample count threshold reached" &&
               !o.detectedAt) {
        o.condition = "latency";
        o.detectedAt = t;
    } else if (msg == "------Tavrend Crash Report------" && !o.reportFirst) {
        o.reportFirst = lineNo;
        o.reportLast = lineNo;
        o.reportOpen = true;
    } else if (startsWith(msg, "Adding process ")) {
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
    } else if (sscanf(msg.c_str(), "Total samples=%ld,", &n) == 1) {
        o.uplCounted = std::max(o.uplCounted, n);
    } else if (startsWith(msg, "process=") && msg.find("no longer over") != std::string::npos) {
        --o.pending;
    } else if (msg == "Rebooting device") {
        o.rebootLogAt = t;
    } else if (msg == "Exiting") {
        o.sawExiting = true;
    } else if (startsWith(msg, "Received signal")) {
        o.signalLoggedAt = t;
    } else if (startsWith(msg, "SystemMemorySampler heartbeat ")) {
        unsigned long long n = 0;
        if (sscanf(msg.c_str(), "SystemMemorySampler heartbeat %llu", &n) == 1) {
            o.tick = static_cast<long>(n) * o.ticksPerSample;
        }
    }
}

std::string killedKinds(const Outcome& o, const std::string& name) {
    std::set<std::string> kinds;
    for (const Kill& k : o.kills) {
        if (victim(k) == name) kinds.insert(k.kind);
    }
    std::string out;
    for (const auto& k : kinds) out += (out.empty() ? "" : ",") + k;
    return out;
}

bool rebooted(const Outcome& o) { return o.powerctlReboot && o.rebootLogAt.has_value(); }

std::string ending(const Outcome& o, const Scenario& s) {
    if (!o.waitStatus) return "unknown";
    const int st = *o.waitStatus;
    // Killed by the runner, and seen to end by that kill.
    if (o.timedOut) return WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL ? "timeout" : "unknown";
    const bool exited0 = WIFEXITED(st) && WEXITSTATUS(st) == 0;
    if (exited0 && rebooted(o) && !o.sigtermAt) return "reboot";
    if (o.sigtermAt) {
        // With guardrails the runtime's termination handler ends the daemon
        // after "Exiting": the intended ending in that configuration.
        const bool abortAfterExit =
            WIFSIGNALED(st) && WTERMSIG(st) == SIGABRT && o.sawExiting && s.guardrailsEnabled;
        const bool bySignal = WIFSIGNALED(st) && WTERMSIG(st) == SIGTERM;
        if ((exited0 && o.sawExiting && !rebooted(o)) || abortAfterExit || bySignal) {
            return "sigterm";
        }
    }
    if (WIFEXITED(st)) return "exit " + std::to_string(WEXITSTATUS(st));
    if (WIFSIGNALED(st)) return "signal " + signalName(WTERMSIG(st));
    return "unknown";
}

std::string howEnded(const Outcome& o) {
    if (!o.waitStatus) return "not seen to end";
    const int st = *o.waitStatus;
    std::string text = WIFEXITED(st) ? "exit status " + std::to_string(WEXITSTATUS(st))
                                     : "signal " + signalName(WTERMSIG(st));
    if (o.timedOut) {
        text += ", killed by the runner: it did not end within the grace time after SIGTERM";
    }
    return text;
}

// The lowest figures of the first and of the last kFlatWindowSec of the
// samples from `from` on: a file the daemon holds open for a moment, or a
// thread between two passes, does not count as growth.
constexpr double kFlatWindowSec = 600;

struct FlatEnds {
    DaemonSample first;
    DaemonSample last;
};

std::optional<FlatEnds> flatEnds(const std::vector<DaemonSample>& samples, double from) {
    if (samples.empty() || samples.back().at < from + 2 * kFlatWindowSec) return std::nullopt;
    const double end = samples.back().at;
    auto lowest = [&](double a, double b) {
        DaemonSample low{a, LONG_MAX, LONG_MAX};
        for (const auto& d : samples) {
            if (d.at < a || d.at > b) continue;
            low.fds = std::min(low.fds, d.fds);
            low.vmrssKb = std::min(low.vmrssKb, d.vmrssKb);
        }
        return low;
    };
    FlatEnds f{lowest(from, from + kFlatWindowSec), lowest(end - kFlatWindowSec, end)};
    if (f.first.fds == LONG_MAX || f.last.fds == LONG_MAX) return std::nullopt;
    return f;
}

std::vector<std::string> compare(const Scenario& s, const Outcome& o) {
    const Expect& x = s.expect;
    std::vector<std::string> diffs;
    auto inRange = [](const std::optional<double>& t, const std::pair<double, double>& r) {
        return t && *t >= r.first && *t <= r.second;
    };
    auto range = [](const std::pair<double, double>& r) {
        return "[" + secs(r.first) + ", " + secs(r.second) + "]";
    };
    if (x.condition && *x.condition != o.condition) {
        diffs.push_back("condition: expected " + *x.condition + ", got " + o.condition);
    }
    if (x.detectedBetween && !inRange(o.detectedAt, *x.detectedBetween)) {
        diffs.push_back("detected: expected within " + range(*x.detectedBetween) + ", got " +
                        (o.detectedAt ? secs(*o.detectedAt) : "never"));
    }
    if (x.reboot && *x.reboot != rebooted(o)) {
        diffs.push_back(std::string("reboot: expected ") + (*x.reboot ? "yes" : "no") + ", got " +
                        (rebooted(o) ? "yes" : "no"));
    }
    if (x.rebootBetween && !(rebooted(o) && inRange(o.rebootLogAt, *x.rebootBetween))) {
        diffs.push_back("reboot: expected within " + range(*x.rebootBetween) + ", got " +
                        (o.rebootLogAt ? secs(*o.rebootLogAt) : "none"));
    }
    if (x.killed) {
        std::set<std::string> names;
        for (const Kill& k : o.kills) names.insert(victim(k));
        for (const auto& [name, kind] : *x.killed) names.insert(name);
        for (const auto& name : names) {
            const auto it = x.killed->find(name);
            const std::string want = it == x.killed->end() ? "not killed" : it->second;
            std::string got = killedKinds(o, name);
            if (got.empty()) got = "not killed";
            if (want != got) {
                std::string d = "kill of ";
                d += name;
                d += ": expected ";
                d += want;
                d += ", got ";
                d += got;
                diffs.push_back(std::move(d));
            }
        }
    }
    if (x.metricRecords) {
        const auto& want = *x.metricRecords;
        if (want.size() != o.metrics.size()) {
            diffs.push_back("metric records: expected " + std::to_string(want.size()) + ", got " +
                            std::to_string(o.metrics.size()));
        }
        for (size_t i = 0; i < want.size() && i < o.metrics.size(); ++i) {
            if (o.metrics[i].second.find(want[i]) == std::string::npos) {
                diffs.push_back("metric record " + std::to_string(i + 1) +
                                ": expected one holding '" + want[i] + "', got '" +
                                o.metrics[i].second + "'");
            }
        }
    }
    const std::string ends = ending(o, s);
    if (x.ends && *x.ends != ends) diffs.push_back("ends: expected " + *x.ends + ", got " + ends);
    if (x.killTotals) {
        // Totals, not records: on the fast clock the daemon's ticks lag, and
        // how many records the kills are spread over varies. The records count
        // by guarded name, and must hold every kill the log shows.
        using Counts = std::map<std::string, long>;
        Counts byVictim;
        Counts byGuardedName;
        for (const Kill& k : o.kills) {
            ++byVictim[victim(k)];
            ++byGuardedName[k.name];
        }
        auto count = [](const Counts& m, const std::string& name) {
            const auto it = m.find(name);
            return it == m.end() ? 0L : it->second;
        };
        auto differ = [&](const Counts& want, const Counts& got, const std::string& what) {
            std::set<std::string> names;
            for (const Counts* m : {&want, &got}) {
                for (const auto& entry : *m) names.insert(entry.first);
            }
            for (const auto& name : names) {
                if (count(want, name) == count(got, name)) continue;
                std::string d = "kills of ";
                d += name;
                d += what;
                d += std::to_string(count(want, name));
                d += ", got ";
                d += std::to_string(count(got, name));
                diffs.push_back(std::move(d));
            }
        };
        differ(*x.killTotals, byVictim, ": expected ");
        differ(byGuardedName, o.recordedKills, " in MemoryGuardrail records: the log shows ");
    }
    if (x.uplTotal) {
        const long ok = o.uplSent - static_cast<long>(o.uplErrors.size());
        if (ok != *x.uplTotal || o.uplCounted != *x.uplTotal) {
            diffs.push_back("latency samples: expected " + std::to_string(*x.uplTotal) +
                            " sent and counted, got " + std::to_string(ok) +
                            " sent without error, " + std::to_string(o.uplCounted) +
                            " counted (the highest Total samples logged)");
        }
    }
    if (x.daemonFlat) {
        const auto& f = *x.daemonFlat;
        const auto ends = flatEnds(o.daemon, f.fromSec);
        if (!ends) {
            diffs.push_back("daemon figures: too few samples from " + secs(f.fromSec));
        } else {
            const long fds = ends->last.fds - ends->first.fds;
            const long vmrssKb = ends->last.vmrssKb - ends->first.vmrssKb;
            if (f.fds && fds > *f.fds) {
                diffs.push_back("descriptors: grew by " + std::to_string(fds) + " from " +
                                secs(f.fromSec) + ", expected at most " + std::to_string(*f.fds));
            }
            if (f.vmrssKb && vmrssKb > *f.vmrssKb) {
                diffs.push_back("VmRSS: grew by " + std::to_string(vmrssKb) + " kB from " +
                                secs(f.fromSec) + ", expected at most " +
                                std::to_string(*f.vmrssKb) + " kB");
            }
        }
    }
    return diffs;
}

void printSummary(const std::string& path, const Scenario& s, double scale, const Outcome& o,
                  const std::string& logs, double realSec) {
    printf("== scenario %s%s%s\n", path.c_str(), s.description.empty() ? "" : ": ",
           s.description.c_str());
    printf("scale %g (simulated seconds per real second), end %s, real run time %.1f s\n", scale,
           secs(s.endSec).c_str(), realSec);
    if (o.detectedAt) {
        printf("detected: %s condition at %s\n", o.condition.c_str(), secs(*o.detectedAt).c_str());
    } else {
        printf("detected: no condition\n");
    }
    if (o.reportFirst) {
        printf("crash report: %s/system.log lines %ld-%ld\n", logs.c_str(), *o.reportFirst,
               o.reportLast.value_or(*o.reportFirst));
    } else {
        printf("crash report: none\n");
    }
    if (o.kills.empty()) printf("kills: none\n");
    for (const Kill& k : o.kills) {
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
        printf("kills in MemoryGuardrail records:");
        for (const auto& [name, n] : o.recordedKills) printf(" %s %ld", name.c_str(), n);
        printf("\n");
    }
    if (o.pending != 0) printf("pending kills at the end: %d\n", o.pending);
    printf("metric records (%s/metrics.log): %zu\n", logs.c_str(), o.metrics.size());
    for (const auto& [t, text] : o.metrics) printf("  at %s: %s\n", secs(t).c_str(), text.c_str());
    if (o.uplSent > 0 || !o.uplErrors.empty()) {
        printf(
            "latency samples sent: %d over %d connection%s, failed: %zu%s%s; counted by the "
            "daemon: %ld\n",
            o.uplSent, s.uplClients, s.uplClients == 1 ? "" : "s", o.uplErrors.size(),
            o.uplErrors.empty() ? "" : " (first: ",
            o.uplErrors.empty() ? "" : (o.uplErrors.front() + ")").c_str(), o.uplCounted);
    }
    if (!o.daemon.empty()) {
        const auto& [lowFds, highFds] = std::minmax_element(
            o.daemon.begin(), o.daemon.end(),
            [](const DaemonSample& a, const DaemonSample& b) { return a.fds < b.fds; });
        const auto& [lowRss, highRss] = std::minmax_element(
            o.daemon.begin(), o.daemon.end(),
            [](const DaemonSample& a, const DaemonSample& b) { return a.vmrssKb < b.vmrssKb; });
        printf("daemon, %zu samples from %s to %s: descriptors %ld to %ld, VmRSS %ld to %ld kB\n",
               o.daemon.size(), secs(o.daemon.front().at).c_str(), secs(o.daemon.back().at).c_str(),
               lowFds->fds, highFds->fds, lowRss->vmrssKb, highRss->vmrssKb);
        const double from = s.expect.daemonFlat ? s.expect.daemonFlat->fromSec : 3600;
        if (const auto f = flatEnds(o.daemon, from)) {
            printf(
                "daemon from %s on (lowest of the first and of the last %s): descriptors %ld "
                "then %ld, VmRSS %ld kB then %ld kB\n",
                secs(from).c_str(), secs(kFlatWindowSec).c_str(), f->first.fds, f->last.fds,
                f->first.vmrssKb, f->last.vmrssKb);
        }
    }
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
    printf("ended: %s at %s (%s)\n", howEnded(o).c_str(), secs(o.endedAt).c_str(),
           ending(o, s).c_str());
    printf(
        "logs: %s (system.log, main.log, metrics.log, daemon.out, dravikfs.out, "
        "daemon_figures.tsv)\n",
        logs.c_str());
}

class StatusLine {
public:
    StatusLine() : tty_(isatty(STDERR_FILENO) != 0) {}

    void update(double t, const Outcome& o, bool userActive, bool force) {
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
        fprintf(stderr, "%s[sim] t=%7.0fs%s  condition %-7s  %s  pending kills %d%s%s",
                tty_ ? "\r" : "", t, tick, o.condition.c_str(), userActive ? "busy" : "idle",
                o.pending, rebooted(o) ? "  rebooting" : "", tty_ ? "\033[K" : "\n");
        fflush(stderr);
        shown_ = true;
    }

    void finish() const {
        if (tty_ && shown_) fputc('\n', stderr);
    }

private:
    bool tty_;
    Clock::time_point lastReal_{};
    double lastSim_ = -1e9;
    bool shown_ = false;
};

std::string exeDir() {
    std::error_code ec;
    const fs::path self = fs::read_symlink("/proc/self/exe", ec);
    return ec ? std::string(".") : self.parent_path().string();
}

struct Run {
    std::string base;
    std::string root;
    std::string logs;
    std::string mountPoint;
    pid_t dravik = -1;
    pid_t daemon = -1;

    // Kills the daemon; its wait status once it has ended.
    std::optional<int> killDaemon() {
        kill(daemon, SIGKILL);
        const auto status = waitFor(daemon, std::chrono::seconds(5));
        daemon = -1;
        return status;
    }

    // Stops the daemon and dravikfs, unmounts and removes the root (the logs stay).
    void cleanup() {
        if (daemon > 0) killDaemon();
        if (dravik > 0) {
            kill(dravik, SIGTERM);
            if (!waitFor(dravik, std::chrono::seconds(5))) {
                kill(dravik, SIGKILL);
                waitFor(dravik, std::chrono::seconds(2));
            }
            dravik = -1;
        }
        if (!mountPoint.empty()) forceUnmount(mountPoint, logs + "/dravikfs.out");
        if (root.empty()) return;
        if (!mountPoint.empty() && mounted(mountPoint)) {
            fprintf(stderr, "tavrendctl: %s is still mounted; leaving %s in place\n",
                    mountPoint.c_str(), root.c_str());
            return;
        }
        std::error_code ec;
        fs::remove_all(root, ec);
        if (ec)
            fprintf(stderr, "tavrendctl: cannot remove %s: %s\n", root.c_str(),
                    ec.message().c_str());
    }
};

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

int play(const std::string& path, const Scenario& s, double scale) {
    const std::string dir = exeDir();
    const std::string tavrend = dir + "/tavrend";
    const std::string dravikfs = dir + "/dravikfs";
    for (const auto& bin : {tavrend, dravikfs}) {
        if (access(bin.c_str(), X_OK) != 0) {
            fprintf(stderr, "tavrendctl: %s is missing (build it beside tavrendctl)\n",
                    bin.c_str());
            return 2;
        }
    }
    if (access("/dev/fuse", R_OK | W_OK) != 0) {
        fprintf(stderr, "tavrendctl: /dev/fuse is not usable here (%s): no FUSE, no driver\n",
                strerror(errno));
        return 2;
    }
    std::error_code ec;
    std::string tmpl = (fs::temp_directory_path(ec) / "tavrend-sim-XXXXXX").string();
    if (ec || mkdtemp(tmpl.data()) == nullptr) {
        fprintf(stderr, "tavrendctl: cannot create a temporary directory: %s\n", strerror(errno));
        return 2;
    }
    Run run;
    run.base = tmpl;
    run.root = tmpl + "/root";
    run.logs = tmpl + "/logs";
    fs::create_directories(run.logs, ec);
    std::string error;
    if (ec || !writeDeviceRoot(run.root, s, error)) {
        fprintf(stderr, "tavrendctl: cannot build the device root: %s\n",
                ec ? ec.message().c_str() : error.c_str());
        run.cleanup();
        fs::remove_all(run.base, ec);  // nothing ran: no logs to keep
        return 2;
    }
    // The binder client below finds the daemon's service through this root.
    setenv("TAVREND_ROOT", run.root.c_str(), 1);

    run.mountPoint = run.root + "/sys/kernel/dravik";
    run.dravik = spawn(dravikfs, {"--root", run.root, "--foreground", "--die-with-parent"}, {},
                       run.logs + "/dravikfs.out", false);
    const auto mountDeadline = Clock::now() + std::chrono::seconds(10);
    const std::string probe = run.mountPoint + "/total_pss_kb";
    bool up = false;
    while (run.dravik > 0 && Clock::now() < mountDeadline && !gInterrupted) {
        if (mounted(run.mountPoint) && access(probe.c_str(), F_OK) == 0) {
            up = true;
            break;
        }
        int status = 0;
        if (waitpid(run.dravik, &status, WNOHANG) == run.dravik) {
            run.dravik = -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!up) {
        fprintf(stderr, "tavrendctl: dravikfs did not mount %s (see %s/dravikfs.out)\n",
                run.mountPoint.c_str(), run.logs.c_str());
        run.cleanup();
        return 2;
    }

    char scaleText[32];
    snprintf(scaleText, sizeof(scaleText), "%g", scale);
    fprintf(stderr, "[sim] %s: device root %s, logs %s, scale %s\n", path.c_str(), run.root.c_str(),
            run.logs.c_str(), scaleText);
    const auto start = Clock::now();
    run.daemon = spawn(tavrend, {},
                       {{"TAVREND_ROOT", run.root},
                        {"TAVREND_LOG_DIR", run.logs},
                        {"TAVREND_TIME_SCALE", scaleText}},
                       run.logs + "/daemon.out", true);
    if (run.daemon < 0) {
        fprintf(stderr, "tavrendctl: cannot start %s\n", tavrend.c_str());
        run.cleanup();
        return 2;
    }

    Outcome o;
    o.ticksPerSample = s.memoryReadIntervalSec;
    DeviceState device(run.root, s);
    LogTail log(run.logs + "/system.log");
    StatusLine status;
    UplClients upl(s.uplClients);
    size_t next = 0;
    auto simNow = [&] {
        return std::chrono::duration<double>(Clock::now() - start).count() * scale;
    };
    auto observeLog = [&] {
        log.poll([&](long n, double t, const std::string& m) { observe(o, device, n, t, m); });
    };
    // The daemon's descriptors and VmRSS once a simulated minute (20 a real second at most).
    double sampledAt = -1e9;
    auto lastSample = start;
    std::optional<Clock::time_point> sigtermReal;
    // After SIGTERM the daemon gets 60 simulated seconds, at least 3 real ones,
    // to end; then it is killed, as init would at shutdown.
    const auto grace = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(std::max(3.0, 60.0 / scale)));
    while (true) {
        // The log first: a kill it shows happened before the events now due.
        observeLog();
        const double t = simNow();
        for (; next < s.timeline.size() && s.timeline[next].at <= t && !sigtermReal; ++next) {
            const Event& e = s.timeline[next];
            if (e.kind == Event::Kind::Sigterm) {
                kill(run.daemon, SIGTERM);
                o.sigtermAt = t;
                sigtermReal = Clock::now();
            } else if (e.kind == Event::Kind::Upl) {
                upl.send(t, e.upl);
            } else if (!device.apply(e, error)) {
                o.runErrors.push_back(error);
                fprintf(stderr, "tavrendctl: at %s: %s\n", secs(t).c_str(), error.c_str());
            }
        }
        if (!sigtermReal && t - sampledAt >= 60 &&
            Clock::now() - lastSample >= std::chrono::milliseconds(50)) {
            if (const auto d = sampleDaemon(run.daemon, t)) o.daemon.push_back(*d);
            sampledAt = t;
            lastSample = Clock::now();
        }
        int st = 0;
        if (waitpid(run.daemon, &st, WNOHANG) == run.daemon) {
            o.waitStatus = st;
            run.daemon = -1;
            break;
        }
        if ((t >= s.endSec || gInterrupted) && !sigtermReal) {
            kill(run.daemon, SIGTERM);
            o.sigtermAt = t;
            sigtermReal = Clock::now();
        }
        if (sigtermReal && Clock::now() - *sigtermReal > grace) {
            o.waitStatus = run.killDaemon();
            o.timedOut = true;
            break;
        }
        status.update(t, o, device.userActive(), false);
        std::this_thread::sleep_for(std::chrono::milliseconds(scale >= 100 ? 4 : 10));
    }
    o.endedAt = simNow();
    const double realSec = std::chrono::duration<double>(Clock::now() - start).count();
    observeLog();
    status.update(o.endedAt, o, device.userActive(), true);
    status.finish();
    upl.finish();
    o.uplSent = upl.sent();
    o.uplErrors = upl.errors();

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
    run.cleanup();
    if (FILE* f = fopen((run.logs + "/daemon_figures.tsv").c_str(), "w")) {
        fprintf(f, "second\tdescriptors\tvmrss_kb\n");
        for (const auto& d : o.daemon) fprintf(f, "%.0f\t%ld\t%ld\n", d.at, d.fds, d.vmrssKb);
        fclose(f);
    }
    // The root is gone; what is left of the run is its logs.
    printSummary(path, s, scale, o, run.logs, realSec);
    if (gInterrupted) {
        fprintf(stderr, "tavrendctl: interrupted\n");
        return 2;
    }
    if (!o.runErrors.empty()) {
        fprintf(stderr, "tavrendctl: the timeline could not be played in full\n");
        return 2;
    }
    if (!s.expect.any()) {
        printf("expected outcome: none stated\n");
        return 0;
    }
    const auto diffs = compare(s, o);
    if (diffs.empty()) {
        printf("expected outcome: matches\n");
        return 0;
    }
    printf("expected outcome: DIFFERS\n");
    for (const auto& d : diffs) printf("  %s\n", d.c_str());
    return 1;
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

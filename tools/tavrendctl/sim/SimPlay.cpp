// tavrendctl sim, play: the timeline played against the clock on a set-up
// device, the latency samples sent as binder clients, and the verdict.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <sys/wait.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <thread>

#include "monitors/TavrendIPC.h"
#include "sim/SimRun.h"

namespace tavrendctl::sim {
namespace {

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

// One run's timeline against the clock, from the daemon's start to its end.
class Player {
public:
    Player(const Scenario& s, double scale, Run& run)
        : s_(s),
          scale_(scale),
          run_(run),
          device_(run.root, s),
          log_(run.logs + "/system.log", run.start, scale),
          status_(s),
          upl_(s.uplClients),
          // After SIGTERM the daemon gets 60 simulated seconds, at least 3
          // real ones, to end; then it is killed, as init would at shutdown.
          grace_(std::chrono::duration_cast<Clock::duration>(
              std::chrono::duration<double>(std::max(3.0, 60.0 / scale)))) {
        o_.ticksPerSample = s.memoryReadIntervalSec;
    }

    // Plays until the daemon ends (or is killed), then gathers what it left.
    Outcome play() {
        while (!step()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(scale_ >= 100 ? 4 : 10));
        }
        o_.endedAt = simNow();
        o_.realSec = std::chrono::duration<double>(Clock::now() - run_.start).count();
        observeLog();
        status_.update(o_.endedAt, o_, device_.userActive(), true);
        status_.finish();
        upl_.finish();
        o_.uplSent = upl_.sent();
        o_.uplErrors = upl_.errors();
        observeAfterRun(o_, run_, log_);
        return o_;
    }

private:
    double simNow() const {
        return std::chrono::duration<double>(Clock::now() - run_.start).count() * scale_;
    }
    void observeLog() {
        log_.poll([&](long n, double t, const logread::Line& line, const logread::Step& step) {
            observe(o_, device_, n, t, line, step, log_.run());
        });
    }
    void sigterm(double t) {
        kill(run_.daemon, SIGTERM);
        o_.sigtermAt = t;
        sigtermReal_ = Clock::now();
    }

    // One pass: the log, the events now due, a sample of the daemon. True
    // once the daemon has ended.
    bool step() {
        // The log first: a kill it shows happened before the events now due.
        observeLog();
        const double t = simNow();
        playDue(t);
        // The daemon's descriptors and VmRSS once a simulated minute (20 a real second at most).
        if (!sigtermReal_ && t - sampledAt_ >= 60 &&
            Clock::now() - lastSample_ >= std::chrono::milliseconds(50)) {
            if (const auto d = sampleDaemon(run_.daemon, t)) o_.daemon.push_back(*d);
            sampledAt_ = t;
            lastSample_ = Clock::now();
        }
        int st = 0;
        if (waitpid(run_.daemon, &st, WNOHANG) == run_.daemon) {
            o_.waitStatus = st;
            run_.daemon = -1;
            return true;
        }
        if (driverStopped()) {
            // The daemon's readings and kills go nowhere now: the run ends here.
            o_.driverStoppedAt = t;
            o_.waitStatus = run_.killDaemon();
            return true;
        }
        if ((t >= s_.endSec || gInterrupted) && !sigtermReal_) sigterm(t);
        if (sigtermReal_ && Clock::now() - *sigtermReal_ > grace_) {
            o_.waitStatus = run_.killDaemon();
            o_.timedOut = true;
            return true;
        }
        status_.update(t, o_, device_.userActive(), false);
        return false;
    }

    // Whether dravikfs has ended (killed, or its mount taken away) while the
    // daemon runs; it is reaped here.
    bool driverStopped() {
        int st = 0;
        if (run_.dravik <= 0 || waitpid(run_.dravik, &st, WNOHANG) != run_.dravik) return false;
        run_.dravik = -1;
        return true;
    }

    void playDue(double t) {
        std::string error;
        for (; next_ < s_.timeline.size() && s_.timeline[next_].at <= t && !sigtermReal_; ++next_) {
            const Event& e = s_.timeline[next_];
            if (e.kind == Event::Kind::Sigterm) {
                sigterm(t);
            } else if (e.kind == Event::Kind::Upl) {
                upl_.send(t, e.upl);
            } else if (!device_.apply(e, error)) {
                o_.runErrors.push_back(error);
                fprintf(stderr, "tavrendctl: at %s: %s\n", secs(t).c_str(), error.c_str());
            }
        }
    }

    const Scenario& s_;
    const double scale_;
    Run& run_;
    Outcome o_;
    DeviceState device_;
    LogTail log_;
    StatusLine status_;
    UplClients upl_;
    const Clock::duration grace_;
    size_t next_ = 0;
    double sampledAt_ = -1e9;
    Clock::time_point lastSample_ = Clock::now();
    std::optional<Clock::time_point> sigtermReal_;
};

void writeDaemonFigures(const std::string& logs, const Outcome& o) {
    if (FILE* f = fopen((logs + "/daemon_figures.tsv").c_str(), "w")) {
        fprintf(f, "second\tdescriptors\tvmrss_kb\n");
        for (const auto& d : o.daemon) fprintf(f, "%.0f\t%ld\t%ld\n", d.at, d.fds, d.vmrssKb);
        fclose(f);
    }
}

}  // namespace

int play(const std::string& path, const Scenario& s, double scale, bool json) {
    Run run;
    if (const auto status = setUp(path, s, scale, run)) return *status;
    const Outcome o = Player(s, scale, run).play();
    run.cleanup();
    writeDaemonFigures(run.logs, o);
    // The root is gone; what is left of the run is its logs.
    const RunInfo info{path, s, scale, run.logs};
    const bool played = !gInterrupted && o.runErrors.empty() && !o.driverStoppedAt;
    const auto diffs = played && s.expect.any() ? compare(s, o) : std::vector<std::string>{};
    const char* verdict = !played           ? "not judged"
                          : !s.expect.any() ? "none stated"
                          : diffs.empty()   ? "matches"
                                            : "differs";
    if (json) {
        printJsonSummary(info, o, verdict, diffs);
    } else {
        printSummary(info, o);
    }
    if (o.driverStoppedAt) {
        fprintf(stderr,
                "tavrendctl: the driver stopped at %s (see %s/dravikfs.out); the daemon was "
                "stopped and the run is not judged\n",
                secs(*o.driverStoppedAt).c_str(), run.logs.c_str());
        return 2;
    }
    if (gInterrupted) {
        fprintf(stderr, "tavrendctl: interrupted\n");
        return 2;
    }
    if (!o.runErrors.empty()) {
        fprintf(stderr, "tavrendctl: the timeline could not be played in full\n");
        return 2;
    }
    if (!json) {
        printf("expected outcome: %s\n", diffs.empty() ? verdict : "DIFFERS");
        for (const auto& d : diffs) printf("  %s\n", d.c_str());
    }
    return diffs.empty() ? 0 : 1;
}

}  // namespace tavrendctl::sim

#include "status/Follow.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <tuple>

namespace tavrendctl::status {

ssize_t LineFeed::readOnce(int fd) {
    char buf[65536];
    const ssize_t n = read(fd, buf, sizeof(buf));
    if (n <= 0) return n;
    partial_.append(buf, static_cast<size_t>(n));
    size_t start = 0;
    for (size_t nl; (nl = partial_.find('\n', start)) != std::string::npos; start = nl + 1) {
        reader_.feed(std::string_view(partial_).substr(start, nl - start));
    }
    partial_.erase(0, start);
    return n;
}

void LineFeed::finish() {
    if (!partial_.empty()) reader_.feed(partial_);
    partial_.clear();
}

namespace {

using Clock = std::chrono::steady_clock;

// How often a quiet file is looked at again.
constexpr auto kPause = std::chrono::milliseconds(250);

void note(const std::string& text) {
    fprintf(stderr, "tavrendctl: status: %s\n", text.c_str());
    fflush(stderr);
}

bool sameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Whether the reader of standard output has gone: the reading end of a pipe
// was closed (`status --follow | head`), or the terminal hung up.
bool outputGone() {
    pollfd p{STDOUT_FILENO, 0, 0};
    return poll(&p, 1, 0) == 1 && (p.revents & (POLLERR | POLLHUP)) != 0;
}

// A run is told apart by its process id and its first line's stamp.
auto runKey(const DaemonStatus& s) {
    const logread::Stamp& t = s.started;
    return std::make_tuple(s.pid, t.month, t.day, t.hour, t.minute, t.second, t.milli);
}

class Follower {
public:
    Follower(const std::string& path, int fd, LineFeed& feed, const StatusReader& reader,
             const ShowStatus& show, bool shown)
        : path_(path),
          fd_(fd),
          isStdin_(path == "-"),
          feed_(feed),
          reader_(reader),
          show_(show),
          shown_(shown),
          changed_(!shown) {
        if (shown) noteRun();
    }
    ~Follower() {
        if (own_ >= 0) close(own_);
    }
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    int run();

private:
    enum class Step { kMore, kQuiet, kEnd, kError };
    Step readStep();
    bool checkPath();
    bool reopen();
    void showNow();
    void noteRun();
    bool readError(const char* what) {
        note(path_ + ": " + what + ": " + strerror(errno));
        return false;
    }

    const std::string& path_;
    int fd_;
    int own_ = -1;  // a file opened here after a rotation
    const bool isStdin_;
    LineFeed& feed_;
    const StatusReader& reader_;
    const ShowStatus& show_;
    bool shown_;
    bool changed_;
    bool gone_ = false;     // the path names no file at the moment
    bool stopped_ = false;  // the shown run has stopped
    decltype(runKey(DaemonStatus{})) run_{};
    Clock::time_point lastShown_ = Clock::now();
};

int Follower::run() {
    while (true) {
        const Step step = readStep();
        if (step == Step::kError) return 2;
        if (step == Step::kEnd) {
            feed_.finish();
            showNow();
            return reader_.status().found ? 0 : 1;
        }
        changed_ = changed_ || step == Step::kMore;
        // Printed again once new lines pause, and at least every second.
        if (changed_ &&
            (step == Step::kQuiet || Clock::now() - lastShown_ > std::chrono::seconds(1))) {
            showNow();
        }
        if (step == Step::kMore) continue;
        if (outputGone()) return 0;
        if (isStdin_) continue;  // its wait was the poll
        if (!checkPath()) return 2;
        std::this_thread::sleep_for(kPause);
    }
}

// One read; standard input is waited for a moment first.
Follower::Step Follower::readStep() {
    if (isStdin_) {
        pollfd p{fd_, POLLIN, 0};
        const int ready = poll(&p, 1, 500);
        if (ready == 0 || (ready < 0 && errno == EINTR)) return Step::kQuiet;
        if (ready < 0) {
            readError("cannot wait for input");
            return Step::kError;
        }
    }
    const ssize_t n = feed_.readOnce(fd_);
    if (n > 0) return Step::kMore;
    if (n == 0) return isStdin_ ? Step::kEnd : Step::kQuiet;
    if (errno == EINTR || errno == EAGAIN) return Step::kQuiet;
    readError("cannot read");
    return Step::kError;
}

// After a read found nothing new: a file in the path's place other than the
// one open is the log after a rotation; an open file now shorter than what
// was read of it was cut back. False after an error line.
bool Follower::checkPath() {
    struct stat open = {};
    struct stat now = {};
    if (fstat(fd_, &open) != 0) return readError("cannot look at the open file");
    if (stat(path_.c_str(), &now) != 0) {
        if (errno != ENOENT) return readError("cannot look at the file");
        if (!gone_) note(path_ + " is gone; waiting for a new one");
        gone_ = true;
        return true;
    }
    if (!sameFile(open, now)) return reopen();
    gone_ = false;
    const off_t at = lseek(fd_, 0, SEEK_CUR);
    if (at >= 0 && now.st_size < at) {
        note(path_ + " was cut back; reading it again from its start");
        feed_.finish();
        if (lseek(fd_, 0, SEEK_SET) != 0) return readError("cannot seek");
    }
    return true;
}

// Moves on to the new file at the path, once the old one is read to its end.
bool Follower::reopen() {
    for (ssize_t n; (n = feed_.readOnce(fd_)) != 0; changed_ = true) {
        if (n < 0) return readError("cannot read");
    }
    const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT) return true;  // moved again: looked at once more later
        return readError("cannot open the new file");
    }
    feed_.finish();
    if (own_ >= 0) close(own_);
    own_ = fd_ = fd;
    gone_ = false;
    note(path_ + " was replaced; following the new file");
    return true;
}

void Follower::showNow() {
    if (changed_) show_(shown_);
    shown_ = shown_ || reader_.status().found;
    changed_ = false;
    lastShown_ = Clock::now();
    noteRun();
}

// Says when another run began, and when the run shown has stopped.
void Follower::noteRun() {
    const DaemonStatus& s = reader_.status();
    if (!s.found) return;
    if (runKey(s) != run_) {
        if (run_ != decltype(run_){}) {
            note("a new run of the daemon, pid " + std::to_string(s.pid));
        }
        run_ = runKey(s);
        stopped_ = false;
    }
    if (s.state == State::Stopped && !stopped_) {
        note("the daemon stopped (" + s.stopReason + "); waiting for it to start again");
    }
    stopped_ = s.state == State::Stopped;
}

}  // namespace

int followLog(const std::string& path, int fd, LineFeed& feed, const StatusReader& reader,
              const ShowStatus& show, bool shown) {
    return Follower(path, fd, feed, reader, show, shown).run();
}

}  // namespace tavrendctl::status

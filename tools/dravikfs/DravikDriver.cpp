#include "DravikDriver.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <utility>

namespace dravikfs {
namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Reads at most kMaxRollupBytes of `path`. A file cut at the limit loses its
// last, partial line, so a figure is never read from half a line.
std::optional<std::string> readBounded(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string text;
    char buf[4096];
    bool cut = false;
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) continue;
            close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        size_t room = kMaxRollupBytes - text.size();
        if (static_cast<size_t>(n) > room) {
            text.append(buf, room);
            cut = true;
            break;
        }
        text.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    if (cut) {
        size_t lastNewline = text.rfind('\n');
        text.resize(lastNewline == std::string::npos ? 0 : lastNewline + 1);
    }
    return text;
}

bool isProcfs(const std::string& dir) {
    struct statfs sfs;
    return statfs(dir.c_str(), &sfs) == 0 && sfs.f_type == PROC_SUPER_MAGIC;
}

}  // namespace

std::optional<int> parsePidText(std::string_view text) {
    if (text.size() > kMaxWriteBytes) return std::nullopt;
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    bool negative = false;
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty()) return std::nullopt;
    // INT_MIN has one more unit of magnitude than INT_MAX.
    const int64_t limit = negative ? -static_cast<int64_t>(INT_MIN) : INT_MAX;
    int64_t value = 0;
    for (char c : text) {
        if (!isDigit(c)) return std::nullopt;
        value = value * 10 + (c - '0');
        if (value > limit) return std::nullopt;
    }
    return static_cast<int>(negative ? -value : value);
}

std::optional<uint64_t> parsePssKb(std::string_view rollup) {
    static constexpr std::string_view kKey = "Pss:";
    while (!rollup.empty()) {
        size_t end = rollup.find('\n');
        std::string_view line = rollup.substr(0, end);
        rollup.remove_prefix(end == std::string_view::npos ? rollup.size() : end + 1);
        if (line.substr(0, kKey.size()) != kKey) continue;

        // The first "Pss:" line decides; a malformed one is not skipped over.
        line.remove_prefix(kKey.size());
        while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) {
            line.remove_prefix(1);
        }
        if (line.empty() || !isDigit(line.front())) return std::nullopt;
        uint64_t value = 0;
        while (!line.empty() && isDigit(line.front())) {
            uint64_t digit = static_cast<uint64_t>(line.front() - '0');
            if (value > (UINT64_MAX - digit) / 10) return std::nullopt;
            value = value * 10 + digit;
            line.remove_prefix(1);
        }
        // What may follow the figure: the unit, then nothing but blanks.
        while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) {
            line.remove_prefix(1);
        }
        if (line.substr(0, 2) == "kB") line.remove_prefix(2);
        for (char c : line) {
            if (!isBlank(c)) return std::nullopt;
        }
        return value;
    }
    return std::nullopt;
}

std::string chooseProcSource(const std::string& root, bool hostProc, ProcSource& out) {
    std::string own = root;
    while (!own.empty() && own.back() == '/') own.pop_back();
    own += "/proc";
    struct stat st;
    const bool folder = stat(own.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    if (folder && !isProcfs(own)) {
        out = {own, false};
        return {};
    }
    if (!hostProc) {
        return (folder ? own + " is the machine's procfs"
                       : "the device root " + root + " has no proc/ folder") +
               ": serving the machine's own processes needs --host-proc";
    }
    // A root whose proc/ is a procfs (e.g. a bind mount) is served from there.
    out = {folder ? own : std::string("/proc"), true};
    return {};
}

Driver::Driver(ProcSource source, Faults faults, pid_t selfPid)
    : source_(std::move(source)),
      selfPid_(selfPid),
      pssAnswer_(std::move(faults.pssAnswer)),
      killStatusOverride_(faults.killStatus),
      failWrites_(faults.failWrites) {}

bool Driver::sourcePresent() const {
    struct stat st;
    return stat(source_.dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
           isProcfs(source_.dir) == source_.machine;
}

bool Driver::takeWriteFault() {
    if (failWrites_ == 0) return false;
    --failWrites_;
    return true;
}

int Driver::writePss(std::string_view text) {
    std::lock_guard<std::mutex> lock(mutex_);
    // A refused write also drops the old selection, so a client that ignores
    // the error reads "" rather than another process's figure.
    if (takeWriteFault()) {
        selected_ = 0;
        return -EIO;
    }
    std::optional<int> pid = parsePidText(text);
    if (!pid || *pid <= 0) {
        selected_ = 0;
        return -EINVAL;
    }
    selected_ = *pid;
    return 0;
}

int Driver::writeKill(std::string_view text) {
    std::lock_guard<std::mutex> lock(mutex_);
    // Every refused request is recorded as the status too: a client that only
    // reads the status back must not see the success of an earlier kill.
    int status;
    if (takeWriteFault()) {
        status = EIO;
    } else if (std::optional<int> pid = parsePidText(text); !pid) {
        status = EINVAL;
    } else if (*pid <= 1 || *pid == selfPid_) {
        status = EPERM;
    } else if (!sourcePresent()) {
        fprintf(stderr, "dravikfs: refusing to kill pid %d: %s, served since mounting, is gone\n",
                *pid, source_.dir.c_str());
        status = ENOENT;
    } else {
        killStatus_ = procIsMachine() ? killMachine(*pid) : killSynthetic(procDir(), *pid);
        // The request was taken; how the kill went is for the status read.
        return 0;
    }
    killStatus_ = status;
    return -status;
}

int Driver::killMachine(int pid) {
    // Through a pidfd, so the signal reaches the process that had this id when
    // the request came, never one that took the id over afterwards.
    long fd = syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0u);
    if (fd < 0) return errno;
    int status = 0;
    if (syscall(SYS_pidfd_send_signal, static_cast<int>(fd), SIGKILL, nullptr, 0u) != 0) {
        status = errno;
    }
    close(static_cast<int>(fd));
    return status;
}

int Driver::killSynthetic(const std::string& procDir, int pid) {
    const std::string dir = procDir + "/" + std::to_string(pid);
    struct stat st;
    if (lstat(dir.c_str(), &st) != 0) return errno == ENOENT ? ESRCH : errno;
    if (!S_ISDIR(st.st_mode)) return ESRCH;
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return ec ? ec.value() : 0;
}

std::string Driver::readPss() {
    if (!sourcePresent()) return {};
    if (pssAnswer_) return *pssAnswer_;
    pid_t pid = selectedPid();
    if (pid <= 0) return {};
    std::optional<std::string> rollup =
        readBounded(procDir() + "/" + std::to_string(pid) + "/smaps_rollup");
    if (!rollup) return {};
    std::optional<uint64_t> pssKb = parsePssKb(*rollup);
    if (!pssKb) return {};
    return std::to_string(*pssKb) + "\n";
}

std::string Driver::readKill() {
    if (killStatusOverride_) return std::to_string(*killStatusOverride_) + "\n";
    return std::to_string(lastKillStatus()) + "\n";
}

pid_t Driver::selectedPid() {
    std::lock_guard<std::mutex> lock(mutex_);
    return selected_;
}

int Driver::lastKillStatus() {
    std::lock_guard<std::mutex> lock(mutex_);
    return killStatus_;
}

}  // namespace dravikfs

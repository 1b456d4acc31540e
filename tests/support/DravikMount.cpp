#include "support/DravikMount.h"

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace fs = std::filesystem;

namespace tavrend::test {
namespace {

using Clock = std::chrono::steady_clock;

void pause5ms() { std::this_thread::sleep_for(std::chrono::milliseconds(5)); }

// /proc/mounts writes blanks and backslashes in paths as octal escapes,
// e.g. "/tmp/a\040b".
std::string unescapeMountPath(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 3 < s.size() && s[i + 1] >= '0' && s[i + 1] <= '3' &&
            s[i + 2] >= '0' && s[i + 2] <= '7' && s[i + 3] >= '0' && s[i + 3] <= '7') {
            out.push_back(
                static_cast<char>((s[i + 1] - '0') * 64 + (s[i + 2] - '0') * 8 + (s[i + 3] - '0')));
            i += 3;
        } else {
            out.push_back(s[i]);
        }
    }
    return out;
}

std::string describeStatus(int status) {
    if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
    return "wait status " + std::to_string(status);
}

// Runs a program to completion (bounded); true when it exited with 0.
bool runQuietly(const std::vector<std::string>& argv, int timeoutMs) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return false;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    int status = 0;
    for (;;) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return WIFEXITED(status) && WEXITSTATUS(status) == 0;
        if (r < 0 && errno != EINTR) return false;
        if (Clock::now() >= deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return false;
        }
        pause5ms();
    }
}

std::string defaultBinary() {
#ifdef TAVREND_BIN_DIR
    return std::string(TAVREND_BIN_DIR) + "/dravikfs";
#else
    std::error_code ec;
    fs::path self = fs::read_symlink("/proc/self/exe", ec);
    if (ec) return "dravikfs";
    return (self.parent_path() / "dravikfs").string();
#endif
}

}  // namespace

bool DravikMount::isMounted(const std::string& mountPoint) {
    std::ifstream mounts("/proc/mounts");
    std::string line;
    while (std::getline(mounts, line)) {
        std::istringstream fields(line);
        std::string device, target;
        if (fields >> device >> target && unescapeMountPath(target) == mountPoint) return true;
    }
    return false;
}

void DravikMount::forceUnmount(const std::string& mountPoint) {
    if (!isMounted(mountPoint)) return;
    runQuietly({"fusermount3", "-u", "-z", mountPoint}, 5000);
    // Stacked mounts (e.g. from an earlier crashed run) need one detach each.
    for (int i = 0; i < 16 && isMounted(mountPoint); ++i) {
        if (umount2(mountPoint.c_str(), MNT_DETACH) != 0) break;
    }
}

DravikMount::DravikMount(const std::string& root, DravikOptions options)
    : stopTimeoutMs_(options.stopTimeoutMs) {
    start(root, options);
    if (!ok_ && !unavailable_) stop(SIGTERM);
}

void DravikMount::start(const std::string& root, const DravikOptions& options) {
    struct stat st;
    if (stat("/dev/fuse", &st) != 0) {
        unavailable_ = true;
        error_ =
            std::string("dravikfs needs /dev/fuse, which this machine lacks: ") + strerror(errno);
        return;
    }
    const std::string binary = options.binary.empty() ? defaultBinary() : options.binary;
    if (access(binary.c_str(), X_OK) != 0) {
        error_ = "no dravikfs program at " + binary + ": " + strerror(errno);
        return;
    }

    // Created here so the path can be made canonical, as /proc/mounts shows it.
    std::string mp = options.mountPoint.empty() ? root + "/sys/kernel/dravik" : options.mountPoint;
    std::error_code ec;
    fs::create_directories(mp, ec);
    fs::path canonical = fs::canonical(mp, ec);
    if (ec) {
        error_ = "cannot prepare mount point " + mp + ": " + ec.message();
        return;
    }
    mountPoint_ = canonical.string();
    if (isMounted(mountPoint_)) {
        error_ = "something is already mounted at " + mountPoint_;
        mountPoint_.clear();  // not ours to unmount
        return;
    }

    std::string logTemplate = (fs::temp_directory_path() / "dravikfs-log-XXXXXX").string();
    int logFd = mkostemp(logTemplate.data(), O_CLOEXEC);
    if (logFd < 0) {
        error_ = std::string("cannot create the server log: ") + strerror(errno);
        return;
    }
    logPath_ = logTemplate;

    std::vector<std::string> argv = {binary,    "--root",    root,
                                     "--mount", mountPoint_, "--foreground"};
    if (options.dieWithParent) argv.push_back("--die-with-parent");
    if (options.failWrites) {
        argv.push_back("--fail-writes");
        argv.push_back(std::to_string(*options.failWrites));
    }
    if (options.pssAnswer) argv.push_back("--pss-answer=" + *options.pssAnswer);
    if (options.killStatus) {
        argv.push_back("--kill-status=" + std::to_string(*options.killStatus));
    }
    argv.insert(argv.end(), options.extraArgs.begin(), options.extraArgs.end());
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, logFd, 1);
    posix_spawn_file_actions_adddup2(&actions, logFd, 2);
    int rc = posix_spawn(&pid_, binary.c_str(), &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(logFd);
    if (rc != 0) {
        pid_ = -1;
        error_ = "cannot start " + binary + ": " + strerror(rc);
        return;
    }

    const auto deadline = Clock::now() + std::chrono::milliseconds(options.startTimeoutMs);
    const std::string probe = file("total_pss_kb");
    for (;;) {
        if (reap()) {
            error_ = "dravikfs ended during start-up (" + describeStatus(*waitStatus_) +
                     "): " + serverLog();
            return;
        }
        if (isMounted(mountPoint_) && stat(probe.c_str(), &st) == 0) {
            ok_ = true;
            return;
        }
        if (Clock::now() >= deadline) {
            error_ = "dravikfs did not mount " + mountPoint_ + " within " +
                     std::to_string(options.startTimeoutMs) + " ms: " + serverLog();
            return;
        }
        pause5ms();
    }
}

bool DravikMount::reap() {
    if (waitStatus_) return true;
    if (pid_ <= 0) return false;
    int status = 0;
    pid_t r;
    do {
        r = waitpid(pid_, &status, WNOHANG);
    } while (r < 0 && errno == EINTR);
    if (r == pid_) {
        waitStatus_ = status;
        return true;
    }
    return false;
}

bool DravikMount::stop(int sig) {
    if (stopped_) return false;
    stopped_ = true;
    bool exitedCleanly = false;
    if (pid_ > 0) {
        if (!reap()) kill(pid_, sig);
        const auto deadline = Clock::now() + std::chrono::milliseconds(stopTimeoutMs_);
        while (!reap() && Clock::now() < deadline) pause5ms();
        if (!reap()) {
            kill(pid_, SIGKILL);
            int status = 0;
            while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
            }
            waitStatus_ = status;
        }
        exitedCleanly = WIFEXITED(*waitStatus_) && WEXITSTATUS(*waitStatus_) == 0;
    }
    bool mountLeft = !mountPoint_.empty() && isMounted(mountPoint_);
    if (mountLeft) forceUnmount(mountPoint_);
    return exitedCleanly && !mountLeft;
}

DravikMount::~DravikMount() {
    if (!unavailable_) stop(SIGTERM);
    if (!logPath_.empty()) unlink(logPath_.c_str());
}

std::string DravikMount::serverLog() const {
    if (logPath_.empty()) return {};
    std::ifstream in(logPath_);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace tavrend::test

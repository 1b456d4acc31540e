#include "DravikTestUtil.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

extern char** environ;

namespace tavrend::test {
namespace {

using Clock = std::chrono::steady_clock;

// Polls waitpid until `pid` (or any child, for -1) ends or the time is up.
std::optional<int> waitBounded(pid_t pid, int timeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int status = 0;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r > 0 && (pid == -1 || r == pid)) return status;
        if (r < 0 && errno != EINTR) return std::nullopt;
        if (Clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

}  // namespace

int writeText(const std::string& path, const std::string& text) {
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    int err = 0;
    ssize_t n = write(fd, text.data(), text.size());
    if (n < 0) {
        err = errno;
    } else if (static_cast<size_t>(n) != text.size()) {
        err = EIO;  // a short write would mean the request was cut
    }
    close(fd);
    return err;
}

std::optional<std::string> readText(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string out;
    char buf[512];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0) {
            close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return out;
}

std::optional<uint64_t> procPssKb(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
    std::string line;
    while (std::getline(in, line)) {
        uint64_t kb = 0;
        if (line.rfind("Pss:", 0) == 0 && sscanf(line.c_str(), "Pss: %" SCNu64, &kb) == 1) {
            return kb;
        }
    }
    return std::nullopt;
}

ChildProcess::ChildProcess(size_t touchMb) {
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) return;
    pid_t pid = fork();
    if (pid < 0) {
        close(ready[0]);
        close(ready[1]);
        return;
    }
    if (pid == 0) {
        // Only async-signal-safe calls from here on.
        close(ready[0]);
        if (touchMb > 0) {
            size_t bytes = touchMb << 20;
            void* mem =
                mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (mem == MAP_FAILED) _exit(1);
            memset(mem, 0x5a, bytes);
        }
        char c = 'r';
        if (write(ready[1], &c, 1) != 1) _exit(1);
        for (;;) pause();
    }
    close(ready[1]);
    struct pollfd pfd = {ready[0], POLLIN, 0};
    char c = 0;
    bool ok = poll(&pfd, 1, 10000) == 1 && read(ready[0], &c, 1) == 1;
    close(ready[0]);
    pid_ = pid;
    if (!ok) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        reaped_ = true;
        pid_ = -1;
    }
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0 && !reaped_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

std::optional<int> ChildProcess::waitExit(int timeoutMs) {
    if (pid_ <= 0 || reaped_) return std::nullopt;
    std::optional<int> status = waitBounded(pid_, timeoutMs);
    if (status) reaped_ = true;
    return status;
}

OrphanReaper::OrphanReaper() { prctl(PR_SET_CHILD_SUBREAPER, 1); }

OrphanReaper::~OrphanReaper() {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

std::optional<int> OrphanReaper::waitAny(int timeoutMs) { return waitBounded(-1, timeoutMs); }

ProgramResult runProgram(const std::vector<std::string>& argv, int timeoutMs) {
    ProgramResult result;
    std::string outPath =
        (std::filesystem::temp_directory_path() / "dravikfs-test-out-XXXXXX").string();
    int outFd = mkostemp(outPath.data(), O_CLOEXEC);
    if (outFd < 0) return result;

    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outFd, 1);
    posix_spawn_file_actions_adddup2(&actions, outFd, 2);
    pid_t pid;
    int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(outFd);
    if (rc == 0) {
        std::optional<int> status = waitBounded(pid, timeoutMs);
        if (!status) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        } else {
            result.waitStatus = *status;
        }
    }
    result.output = readText(outPath).value_or("");
    unlink(outPath.c_str());
    return result;
}

}  // namespace tavrend::test

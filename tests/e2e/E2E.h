// Shared pieces of the end-to-end tests: a daemon run on a device root with
// its logs in a temporary directory.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/DeviceRoot.h"
#include "support/LogLine.h"
#include "support/Subprocess.h"

namespace tavrend::test {

// Parses a host log file written in `logcat -v threadtime` layout.
inline std::vector<LogLine> readLog(const std::string& path) {
    std::vector<LogLine> out;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (auto parsed = parseLogLine(line)) out.push_back(*parsed);
    }
    return out;
}

inline std::vector<std::string> messagesOf(const std::vector<LogLine>& lines) {
    std::vector<std::string> out;
    for (const auto& l : lines) out.push_back(l.message);
    return out;
}

// Index of the first message equal to `msg` at or after `from`, or -1.
inline long findMessage(const std::vector<LogLine>& lines, const std::string& msg,
                        size_t from = 0) {
    for (size_t i = from; i < lines.size(); ++i) {
        if (lines[i].message == msg) return static_cast<long>(i);
    }
    return -1;
}

// What a tavrendctl run printed (standard output and error) and its exit
// status (-1: it did not exit within 10 s). TAVREND_ROOT is the given root.
struct CtlResult {
    int exitCode;
    std::string output;
};

inline CtlResult ctl(const DeviceRoot& root, const std::vector<std::string>& args) {
    const std::string out = root.path() + "-ctl-out.txt";  // beside the root, per test
    Subprocess p(binPath("tavrendctl"), args, {{"TAVREND_ROOT", root.path()}}, out);
    const auto status = p.wait(std::chrono::seconds(10));
    CtlResult r{status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1, readText(out)};
    std::remove(out.c_str());
    return r;
}

// Each thread of process `pid` ("<tid> <name>") and whether it blocks `signal`,
// from its SigBlk line in /proc/<pid>/task/<tid>/status.
inline std::map<std::string, bool> threadsBlocking(int pid, int signal) {
    std::map<std::string, bool> out;
    std::error_code ec;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks, ec)) {
        const std::string status = readText(task.path().string() + "/status");
        const size_t blocked = status.find("\nSigBlk:");
        if (blocked == std::string::npos) continue;                        // the thread has ended
        const std::string name = status.substr(6, status.find('\n') - 6);  // after "Name:\t"
        const uint64_t mask = std::stoull(status.substr(blocked + 8), nullptr, 16);
        out[task.path().filename().string() + " " + name] = (mask >> (signal - 1)) & 1;
    }
    return out;
}

class DaemonRun {
public:
    explicit DaemonRun(const DeviceRoot& root) : root_(root) {
        logDir_ =
            root.path() + "/../" + std::filesystem::path(root.path()).filename().string() + "-logs";
        std::filesystem::create_directories(logDir_);
    }
    ~DaemonRun() {
        std::error_code ec;
        std::filesystem::remove_all(logDir_, ec);
    }
    // `env` adds to the test's environment, ASAN_OPTIONS to the test's own.
    void start(std::map<std::string, std::string> env = {}) {
        env["TAVREND_ROOT"] = root_.path();
        env["TAVREND_LOG_DIR"] = logDir_;
        const char* asan = getenv("ASAN_OPTIONS");
        if (asan != nullptr && env.count("ASAN_OPTIONS"))
            env["ASAN_OPTIONS"].insert(0, asan + std::string(":"));
        proc_ = std::make_unique<Subprocess>(binPath("tavrend"), std::vector<std::string>{}, env,
                                             logDir_ + "/stderr.txt");
    }
    Subprocess& process() { return *proc_; }
    std::vector<LogLine> log(const char* buffer = "system") const {
        return readLog(logDir_ + "/" + buffer + ".log");
    }
    bool waitForMessage(const std::string& msg, std::chrono::milliseconds timeout) const {
        return waitUntil([&] { return findMessage(log(), msg) >= 0; }, timeout);
    }
    const std::string& logDir() const { return logDir_; }

private:
    const DeviceRoot& root_;
    std::string logDir_;
    std::unique_ptr<Subprocess> proc_;
};

}  // namespace tavrend::test

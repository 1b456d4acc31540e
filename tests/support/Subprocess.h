// Runs a built program as a child with its own environment, for end-to-end tests.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tavrend::test {

class Subprocess {
public:
    // Starts `program` with `args`; `env` entries are added to (or replace
    // entries of) the test's own environment. Standard error goes to `stderrPath`
    // when given, else to /dev/null.
    Subprocess(const std::string& program, const std::vector<std::string>& args,
               const std::map<std::string, std::string>& env, const std::string& stderrPath = "");
    ~Subprocess();  // kills and reaps a child still running
    Subprocess(const Subprocess&) = delete;
    Subprocess& operator=(const Subprocess&) = delete;

    pid_t pid() const { return pid_; }
    bool running();
    void signal(int sig);
    // Waits up to `timeout` for the exit; the raw wait status, or nullopt on timeout.
    std::optional<int> wait(std::chrono::milliseconds timeout);

private:
    pid_t pid_ = -1;
    std::optional<int> status_;
};

// Polls `pred` every 20 ms until it holds or `timeout` passes.
bool waitUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout);

// The whole content of a file; empty when it can't be read.
std::string readText(const std::string& path);

// Path of a built program (build*/bin/<name>).
std::string binPath(const std::string& name);

}  // namespace tavrend::test

#include "support/Subprocess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace tavrend::test {

Subprocess::Subprocess(const std::string& program, const std::vector<std::string>& args,
                       const std::map<std::string, std::string>& env,
                       const std::string& stderrPath) {
    std::vector<std::string> envStrings;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        if (env.count(entry.substr(0, entry.find('='))) == 0) envStrings.push_back(entry);
    }
    for (const auto& [k, v] : env) envStrings.push_back(k + "=" + v);
    std::vector<char*> argv = {const_cast<char*>(program.c_str())}, envp;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    for (auto& s : envStrings) envp.push_back(s.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);

    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        int fd = open(stderrPath.empty() ? "/dev/null" : stderrPath.c_str(),
                      O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) {
            dup2(fd, STDERR_FILENO);
            dup2(fd, STDOUT_FILENO);
        }
        // The child must not inherit a blocked SIGTERM from a test thread.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execve(program.c_str(), argv.data(), envp.data());
        _exit(127);
    }
}

Subprocess::~Subprocess() {
    if (running()) {
        kill(pid_, SIGKILL);
        wait(std::chrono::seconds(5));
    }
}

bool Subprocess::running() {
    if (status_ || pid_ <= 0) return false;
    int st;
    pid_t r = waitpid(pid_, &st, WNOHANG);
    if (r == pid_) {
        status_ = st;
        return false;
    }
    return r == 0;
}

void Subprocess::signal(int sig) {
    if (running()) kill(pid_, sig);
}

std::optional<int> Subprocess::wait(std::chrono::milliseconds timeout) {
    waitUntil([this] { return !running(); }, timeout);
    return status_;
}

bool waitUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        if (pred()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

std::string readText(const std::string& path) {
    std::ostringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

std::string binPath(const std::string& name) { return std::string(TAVREND_BIN_DIR) + "/" + name; }

}  // namespace tavrend::test

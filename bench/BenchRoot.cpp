#include "BenchRoot.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace tavrend::bench {
namespace {

constexpr int kBinderEvery = 10;

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void writeAll(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace

BenchRoot::BenchRoot(int processCount) {
    std::string tmpl = (fs::temp_directory_path() / "tavrend-bench-XXXXXX").string();
    if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    root = tmpl;
    writeAll(root + "/proc/meminfo", readAll("/proc/meminfo"));
    writeAll(root + "/proc/zoneinfo", readAll("/proc/zoneinfo"));
    writeAll(root + "/proc/lmk_stats",
             "Persistent: 0\nFg: 1\nVisible: 2\nPerceptible: 3\nBackup: 40\nOther: 500\n");

    const std::string status = readAll("/proc/self/status");
    const std::string statusTail = status.substr(status.find('\n') + 1);  // after Name:
    for (int i = 0; i < processCount; ++i) {
        const int pid = 300 + 7 * i;
        const bool binder = i % kBinderEvery == 0;
        const std::string dir = root + "/proc/" + std::to_string(pid);
        const std::string comm =
            binder ? "Binder:" + std::to_string(pid) + "_2" : "app_" + std::to_string(i);
        writeAll(dir + "/comm", comm + "\n");
        writeAll(dir + "/cmdline",
                 "/system/bin/service_" + std::to_string(i) + std::string("\0--flag\0", 8));
        writeAll(dir + "/status", "Name:\t" + comm + "\n" + statusTail);
        pids.push_back(pid);
    }
}

BenchRoot::~BenchRoot() {
    std::error_code ec;
    fs::remove_all(root, ec);
}

size_t readFileRaw(const char* path) {
    char buf[4096];
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    size_t total = 0;
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0) total += static_cast<size_t>(n);
    close(fd);
    return total;
}

size_t readFirstRaw(const char* path) {
    char buf[4096];
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    const ssize_t n = read(fd, buf, sizeof(buf));
    close(fd);
    return n > 0 ? static_cast<size_t>(n) : 0;
}

void pidPathRaw(char (&path)[256], const char* procDir, int pid, const char* file) {
    char* p = path;
    while (*procDir != '\0') *p++ = *procDir++;
    *p++ = '/';
    char digits[12];
    size_t n = 0;
    unsigned magnitude = pid < 0 ? 0u - static_cast<unsigned>(pid) : static_cast<unsigned>(pid);
    if (pid < 0) *p++ = '-';
    do {
        digits[n++] = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    while (n > 0) *p++ = digits[--n];
    *p++ = '/';
    while (*file != '\0') *p++ = *file++;
    *p = '\0';
}

size_t readNameFilesRaw(const char* procDir, int pid) {
    char path[256];
    char comm[4096];
    pidPathRaw(path, procDir, pid, "comm");
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    const ssize_t n = read(fd, comm, sizeof(comm) - 1);
    close(fd);
    if (n <= 0) return 0;
    comm[n] = '\0';
    size_t total = static_cast<size_t>(n);
    if (strstr(comm, "Binder") != nullptr) {
        pidPathRaw(path, procDir, pid, "cmdline");
        total += readFirstRaw(path);
    }
    return total;
}

MachineProc::MachineProc(int idleCount) {
    const pid_t parent = getpid();
    for (int i = 0; i < idleCount; ++i) {
        char name[32];  // the kernel keeps the first 15 characters
        if (i % 20 == 0) {
            snprintf(name, sizeof(name), "Binder:%d_1", i % 10000);
        } else {
            snprintf(name, sizeof(name), "idle_%d", i);
        }
        const pid_t child = fork();
        if (child < 0) throw std::runtime_error("fork failed");
        if (child == 0) {
            // Only async-signal-safe calls here: the parent may have threads.
            prctl(PR_SET_NAME, name);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(0);
            for (;;) pause();
        }
        children.push_back(child);
    }
    DIR* dir = opendir("/proc");
    if (dir == nullptr) throw std::runtime_error("cannot list /proc");
    while (const struct dirent* entry = readdir(dir)) {
        if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9') pids.push_back(atoi(entry->d_name));
    }
    closedir(dir);
}

MachineProc::~MachineProc() {
    for (int child : children) kill(child, SIGKILL);
    for (int child : children) waitpid(child, nullptr, 0);
}

MachineProc& machineProc() {
    static MachineProc m(400);
    return m;
}

size_t processScanRaw(const std::string& procDir, const std::vector<int>& statusPids) {
    size_t total = 0;
    DIR* dir = opendir(procDir.c_str());
    if (dir == nullptr) return 0;
    while (const struct dirent* entry = readdir(dir)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        total += readNameFilesRaw(procDir.c_str(), atoi(entry->d_name));
    }
    closedir(dir);
    for (int pid : statusPids) {
        char status[256];
        pidPathRaw(status, procDir.c_str(), pid, "status");
        total += readFileRaw(status);
    }
    return total;
}

}  // namespace tavrend::bench

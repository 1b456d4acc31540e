#include "BenchRoot.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

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
    systemFiles = {root + "/proc/meminfo", root + "/proc/zoneinfo", root + "/proc/lmk_stats"};

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
        processFiles.push_back(dir + "/comm");
        if (binder) processFiles.push_back(dir + "/cmdline");
        processFiles.push_back(dir + "/status");
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

}  // namespace tavrend::bench

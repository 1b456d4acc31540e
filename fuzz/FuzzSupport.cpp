#include "FuzzSupport.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "platform/host_root.h"
#include "platform/log_hook.h"
#include "platform/time_source.h"

namespace fs = std::filesystem;

namespace tavrend::fuzz {
namespace {

// Uptime and wall clock stand still and sleeps return at once: a report that
// pauses a second per process must not slow the fuzzer down.
class StillClock : public platform::TimeSource {
public:
    int sysinfo(struct ::sysinfo* info) override {
        *info = {};
        info->uptime = 3600;
        return 0;
    }
    void sleepSeconds(unsigned) override {}
    time_t now() override { return 1700000000; }
};

std::string gRoot;

void removeRoot() {
    if (gRoot.empty()) return;
    std::error_code ec;
    fs::remove_all(gRoot, ec);
}

}  // namespace

void initHarness() {
    if (!gRoot.empty()) return;
    // The log goes nowhere: no copy on stderr, no log files even when the
    // caller's environment names a log directory.
    unsetenv("TAVREND_LOG_DIR");
    platform::reopenLogFiles();
    platform::setLogToStderr(false);
    static StillClock clock;
    platform::setTimeSource(&clock);

    std::string tmpl = (fs::temp_directory_path() / "tavrend-fuzz-XXXXXX").string();
    if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    gRoot = tmpl;
    // proc/ must exist before the root is set, or /proc would be the machine's.
    fs::create_directories(gRoot + "/proc");
    fs::create_directories(gRoot + "/dev/memtrack");
    fs::create_directories(gRoot + "/dev/__properties__");
    platform::setDeviceRoot(gRoot);
    atexit(removeRoot);
}

const std::string& rootPath() { return gRoot; }

void writeDeviceFile(const std::string& devicePath, std::string_view content) {
    const std::string host = gRoot + devicePath;
    FILE* f = fopen(host.c_str(), "wb");
    if (f == nullptr) {
        fs::create_directories(fs::path(host).parent_path());
        f = fopen(host.c_str(), "wb");
        if (f == nullptr) throw std::runtime_error("cannot write " + host);
    }
    const bool ok = fwrite(content.data(), 1, content.size(), f) == content.size();
    if (fclose(f) != 0 || !ok) throw std::runtime_error("cannot write " + host);
}

void removeDevicePath(const std::string& devicePath) {
    std::error_code ec;
    fs::remove_all(gRoot + devicePath, ec);
}

std::vector<std::string_view> splitSections(const uint8_t* data, size_t size, size_t maxSections) {
    std::vector<std::string_view> sections;
    if (size == 0 || maxSections == 0) return sections;
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    while (sections.size() + 1 < maxSections) {
        const size_t at = rest.find(kSectionSeparator);
        if (at == std::string_view::npos) break;
        sections.push_back(rest.substr(0, at));
        rest.remove_prefix(at + 1);
    }
    sections.push_back(rest);
    return sections;
}

void checkFailed(const char* expr, const char* file, int line) {
    fprintf(stderr, "fuzz check failed: %s at %s:%d\n", expr, file, line);
    abort();
}

}  // namespace tavrend::fuzz

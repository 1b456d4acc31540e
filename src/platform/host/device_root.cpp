#include <sys/stat.h>

#include <cstdlib>
#include <memory>
#include <mutex>

#include "platform/host_root.h"

namespace tavrend::platform {
namespace {

struct RootInfo {
    std::string root;  // without a trailing slash; empty for "/"
    bool ownProc = false;
};

struct RootState {
    std::mutex mutex;
    std::shared_ptr<const RootInfo> root;  // guarded by mutex
};

// Never destroyed: guardrail passes and the idle detector's thread open device
// files, and no thread of the daemon may find a static destroyed under it at exit.
RootState& state() {
    static RootState* s = new RootState;
    return *s;
}

std::shared_ptr<const RootInfo> makeRoot(std::string root) {
    auto info = std::make_shared<RootInfo>();
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    if (root == "/") root.clear();
    info->root = std::move(root);
    if (!info->root.empty()) {
        struct stat st;
        std::string proc = info->root + "/proc";
        info->ownProc = stat(proc.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    }
    return info;
}

std::shared_ptr<const RootInfo> current() {
    RootState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.root) {
        const char* env = getenv("TAVREND_ROOT");
        s.root = makeRoot(env ? env : "");
    }
    return s.root;
}

bool isProcPath(std::string_view p) { return p == "/proc" || p.substr(0, 6) == "/proc/"; }

}  // namespace

void setDeviceRoot(const std::string& root) {
    auto info = makeRoot(root);
    RootState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.root = std::move(info);
}

std::string deviceRoot() {
    auto info = current();
    return info->root.empty() ? std::string("/") : info->root;
}

std::string hostPath(std::string_view devicePath) {
    auto info = current();
    if (info->root.empty() || (isProcPath(devicePath) && !info->ownProc)) {
        return std::string(devicePath);
    }
    std::string out;
    out.reserve(info->root.size() + devicePath.size() + 1);
    out.append(info->root);
    if (devicePath.empty() || devicePath.front() != '/') out.push_back('/');
    out.append(devicePath);
    return out;
}

FILE* openDeviceFile(const char* devicePath, const char* mode) {
    return fopen(hostPath(devicePath).c_str(), mode);
}

DIR* openDeviceDir(const char* devicePath) { return opendir(hostPath(devicePath).c_str()); }

}  // namespace tavrend::platform

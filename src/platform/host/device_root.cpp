#include <fcntl.h>
#include <limits.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/host_root.h"

namespace tavrend::platform {
namespace {

struct RootInfo {
    std::string root;  // without a trailing slash; empty for "/"
    bool ownProc = false;
};

// The root in force, read without a lock by every open. A root that is
// replaced is kept to the end of the process, never freed: another thread may
// still be building a path with it. Tests replace it a few thousand times at
// most; the daemon sets it once.
std::mutex gMutex;  // serialises installing a root
std::atomic<const RootInfo*> gRoot{nullptr};

std::vector<std::unique_ptr<const RootInfo>>& everyRoot() {
    static auto* roots = new std::vector<std::unique_ptr<const RootInfo>>;  // never destroyed
    return *roots;
}

std::atomic<const MemoryFiles*> gMemoryFiles{nullptr};

std::unique_ptr<const RootInfo> makeRoot(std::string root) {
    auto info = std::make_unique<RootInfo>();
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

// Caller holds gMutex.
const RootInfo* installLocked(std::unique_ptr<const RootInfo> info) {
    everyRoot().push_back(std::move(info));
    const RootInfo* installed = everyRoot().back().get();
    gRoot.store(installed, std::memory_order_release);
    return installed;
}

const RootInfo& current() {
    if (const RootInfo* info = gRoot.load(std::memory_order_acquire)) return *info;
    std::lock_guard<std::mutex> lock(gMutex);
    if (const RootInfo* info = gRoot.load(std::memory_order_relaxed)) return *info;
    const char* env = getenv("TAVREND_ROOT");
    return *installLocked(makeRoot(env ? env : ""));
}

bool isProcPath(std::string_view p) { return p == "/proc" || p.substr(0, 6) == "/proc/"; }

// The host path of `devicePath` into `out` without allocating; false (errno
// ENAMETOOLONG, as open(2) would say) when it doesn't fit.
bool hostPathInto(const char* devicePath, char (&out)[PATH_MAX]) {
    const RootInfo& info = current();
    const size_t len = strlen(devicePath);
    size_t rootLen = 0;
    bool slash = false;
    if (!info.root.empty() && (info.ownProc || !isProcPath(devicePath))) {
        rootLen = info.root.size();
        slash = devicePath[0] != '/';
    }
    const size_t prefix = rootLen + (slash ? 1 : 0);
    if (prefix + len >= sizeof(out)) {
        errno = ENAMETOOLONG;
        return false;
    }
    memcpy(out, info.root.data(), rootLen);
    if (slash) out[rootLen] = '/';
    memcpy(out + prefix, devicePath, len + 1);
    return true;
}

// A table's entry for `devicePath`, or nullptr.
const MemoryFile* memoryFile(const char* devicePath) {
    const MemoryFiles* table = gMemoryFiles.load(std::memory_order_acquire);
    if (table == nullptr) return nullptr;
    for (size_t i = 0; i < table->count; ++i) {
        if (strcmp(table->files[i].devicePath, devicePath) == 0) return &table->files[i];
    }
    return nullptr;
}

// A read-only descriptor on a copy of the entry's bytes, at offset 0.
int openMemoryFile(const MemoryFile& file) {
    if (file.data == nullptr) {
        errno = ENOENT;
        return -1;
    }
    const int fd = memfd_create("tavrend-device-file", MFD_CLOEXEC);
    if (fd < 0) return -1;
    size_t done = 0;
    while (done < file.size) {
        const ssize_t n = write(fd, file.data + done, file.size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            close(fd);
            errno = EIO;
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    if (lseek(fd, 0, SEEK_SET) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

void setDeviceRoot(const std::string& root) {
    auto info = makeRoot(root);
    std::lock_guard<std::mutex> lock(gMutex);
    installLocked(std::move(info));
}

std::string deviceRoot() {
    const RootInfo& info = current();
    return info.root.empty() ? std::string("/") : info.root;
}

std::string hostPath(std::string_view devicePath) {
    const RootInfo& info = current();
    if (info.root.empty() || (isProcPath(devicePath) && !info.ownProc)) {
        return std::string(devicePath);
    }
    std::string out;
    out.reserve(info.root.size() + devicePath.size() + 1);
    out.append(info.root);
    if (devicePath.empty() || devicePath.front() != '/') out.push_back('/');
    out.append(devicePath);
    return out;
}

void setMemoryFiles(const MemoryFiles* table) {
    gMemoryFiles.store(table, std::memory_order_release);
}

FILE* openDeviceFile(const char* devicePath, const char* mode) {
    if (const MemoryFile* file = memoryFile(devicePath)) {
        if (strcmp(mode, "r") != 0 && strcmp(mode, "re") != 0) {
            errno = EROFS;
            return nullptr;
        }
        const int fd = openMemoryFile(*file);
        if (fd < 0) return nullptr;
        FILE* f = fdopen(fd, "r");
        if (f == nullptr) close(fd);
        return f;
    }
    char path[PATH_MAX];
    return hostPathInto(devicePath, path) ? fopen(path, mode) : nullptr;
}

DIR* openDeviceDir(const char* devicePath) {
    char path[PATH_MAX];
    return hostPathInto(devicePath, path) ? opendir(path) : nullptr;
}

int openDeviceFd(const char* devicePath) {
    if (const MemoryFile* file = memoryFile(devicePath)) return openMemoryFile(*file);
    char path[PATH_MAX];
    return hostPathInto(devicePath, path) ? open(path, O_RDONLY | O_CLOEXEC) : -1;
}

}  // namespace tavrend::platform

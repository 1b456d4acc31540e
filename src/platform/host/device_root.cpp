#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
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
// most; the daemon sets it once. Nothing here is destroyed at exit (the mutex
// and the pointers have no destructor to run): guardrail passes and the idle
// thread may open device files while the process runs its exit handlers.
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
    if (!info.root.empty() && (info.ownProc || !isProcPath({devicePath, len}))) {
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

// The descriptors of files opened from memory: kMemoryFdBase + a slot, above
// any descriptor the kernel hands out (at most the open-file limit, far below).
constexpr int kMemoryFdBase = 1 << 30;
struct OpenMemoryFile {
    const char* data = nullptr;  // nullptr: the slot is free
    size_t size = 0;
    size_t offset = 0;
};
std::mutex gMemoryMutex;
std::array<OpenMemoryFile, 64> gOpenMemory;  // guarded by gMemoryMutex

int openMemoryFd(const MemoryFile& file) {
    if (file.data == nullptr) {
        errno = ENOENT;
        return -1;
    }
    std::lock_guard<std::mutex> lock(gMemoryMutex);
    for (size_t slot = 0; slot < gOpenMemory.size(); ++slot) {
        if (gOpenMemory[slot].data == nullptr) {
            gOpenMemory[slot] = {file.data, file.size, 0};
            return kMemoryFdBase + static_cast<int>(slot);
        }
    }
    errno = EMFILE;
    return -1;
}

// The slot of a descriptor of openMemoryFd; caller holds gMemoryMutex.
OpenMemoryFile* openMemorySlotLocked(int fd) {
    const size_t slot = static_cast<size_t>(fd - kMemoryFdBase);
    if (slot >= gOpenMemory.size() || gOpenMemory[slot].data == nullptr) return nullptr;
    return &gOpenMemory[slot];
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
        if (file->data == nullptr) {
            errno = ENOENT;
            return nullptr;
        }
        if (strcmp(mode, "r") != 0 && strcmp(mode, "re") != 0) {
            errno = EROFS;
            return nullptr;
        }
        return fmemopen(const_cast<char*>(file->data), file->size, "r");
    }
    char path[PATH_MAX];
    return hostPathInto(devicePath, path) ? fopen(path, mode) : nullptr;
}

DIR* openDeviceDir(const char* devicePath) {
    char path[PATH_MAX];
    return hostPathInto(devicePath, path) ? opendir(path) : nullptr;
}

int openDeviceFd(const char* devicePath) {
    if (const MemoryFile* file = memoryFile(devicePath)) return openMemoryFd(*file);
    char path[PATH_MAX];
    return hostPathInto(devicePath, path) ? open(path, O_RDONLY | O_CLOEXEC) : -1;
}

ssize_t readDeviceFd(int fd, void* buf, size_t count) {
    if (fd < kMemoryFdBase) return read(fd, buf, count);
    std::lock_guard<std::mutex> lock(gMemoryMutex);
    OpenMemoryFile* file = openMemorySlotLocked(fd);
    if (file == nullptr) {
        errno = EBADF;
        return -1;
    }
    const size_t n = std::min(count, file->size - file->offset);
    memcpy(buf, file->data + file->offset, n);
    file->offset += n;
    return static_cast<ssize_t>(n);
}

int closeDeviceFd(int fd) {
    if (fd < kMemoryFdBase) return close(fd);
    std::lock_guard<std::mutex> lock(gMemoryMutex);
    OpenMemoryFile* file = openMemorySlotLocked(fd);
    if (file == nullptr) {
        errno = EBADF;
        return -1;
    }
    *file = OpenMemoryFile{};
    return 0;
}

}  // namespace tavrend::platform

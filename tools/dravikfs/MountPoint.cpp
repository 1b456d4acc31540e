#include "MountPoint.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace dravikfs {
namespace {

namespace fs = std::filesystem;

// The mount table writes a blank, a tab, a newline and a backslash in a path
// as \040, \011, \012 and \134.
std::string unescape(const std::string& field) {
    std::string out;
    for (size_t i = 0; i < field.size(); ++i) {
        const bool octal = field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' &&
                           field[i + 1] <= '3' && field[i + 2] >= '0' && field[i + 2] <= '7' &&
                           field[i + 3] >= '0' && field[i + 3] <= '7';
        if (!octal) {
            out += field[i];
            continue;
        }
        out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                                 (field[i + 3] - '0'));
        i += 3;
    }
    return out;
}

// The path as the mount table shows it: symbolic links of its folders
// resolved. The last component is kept, since a stale mount can't be looked at.
std::string tablePath(const std::string& path) {
    const fs::path p(path);
    std::error_code ec;
    const fs::path parent = fs::canonical(p.parent_path(), ec);
    return ec || !p.has_filename() ? path : (parent / p.filename()).string();
}

std::string clearHint(const std::string& mountPoint) {
    return "clear it with: fusermount3 -u " + mountPoint;
}

}  // namespace

std::optional<std::string> mountedAt(const std::string& path) {
    // 36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw
    std::ifstream table("/proc/self/mountinfo");
    std::optional<std::string> type;
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string id, parent, device, source, target, rest;
        if (!(fields >> id >> parent >> device >> source >> target)) continue;
        if (unescape(target) != path) continue;
        const size_t dash = line.find(" - ");
        std::istringstream after(dash == std::string::npos ? "" : line.substr(dash + 3));
        std::string fsType;
        after >> fsType;
        type = fsType.empty() ? "unknown" : fsType;  // the last one is on top
    }
    return type;
}

MountPointClaim::~MountPointClaim() {
    if (fd_ >= 0) close(fd_);
}

std::string MountPointClaim::claim(const std::string& mountPoint) {
    if (const auto type = mountedAt(tablePath(mountPoint))) {
        // Asks the filesystem itself: a cached stat can still answer for a
        // driver that has died.
        struct statfs info;
        if (statfs(mountPoint.c_str(), &info) != 0 && errno == ENOTCONN) {
            return mountPoint + " holds a stale mount (Transport endpoint is not connected); " +
                   clearHint(mountPoint);
        }
        return mountPoint + " is mounted already (" + *type +
               "): one driver a mount point; stop the one serving it, or, if none does, " +
               clearHint(mountPoint);
    }
    std::error_code ec;
    fs::create_directories(mountPoint, ec);
    if (ec) return "cannot create mount point " + mountPoint + ": " + ec.message();
    // Two drivers started at once both find it free: the lock on the folder
    // under the mount lets only one go on to mount.
    fd_ = open(mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd_ < 0) return "cannot use mount point " + mountPoint + ": " + strerror(errno);
    if (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK
                   ? mountPoint + " is being mounted by another driver"
                   : "cannot lock mount point " + mountPoint + ": " + strerror(errno);
    }
    return {};
}

}  // namespace dravikfs

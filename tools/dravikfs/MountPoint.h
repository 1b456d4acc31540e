// The mount point of one driver: made when missing, and held so that no
// second driver mounts on it while this one serves it.
#pragma once

#include <optional>
#include <string>

namespace dravikfs {

class MountPointClaim {
public:
    MountPointClaim() = default;
    ~MountPointClaim();
    MountPointClaim(const MountPointClaim&) = delete;
    MountPointClaim& operator=(const MountPointClaim&) = delete;

    // Creates `mountPoint` (absolute) when missing and claims it. Refuses a
    // mount point that holds a mount already, live or stale, and one another
    // driver is about to mount on; the error line names the command that
    // clears a stale mount. An error line, or "".
    std::string claim(const std::string& mountPoint);

private:
    int fd_ = -1;  // the directory under the mount, locked while held
};

// The type of the filesystem mounted at `path` (absolute, normalised), as
// this process's mount table has it; nullopt when nothing is mounted there.
std::optional<std::string> mountedAt(const std::string& path);

}  // namespace dravikfs

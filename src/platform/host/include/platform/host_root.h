// Where the host finds what a device keeps at /proc, /sys, /system, /data
// and /dev.
//
// A device path P is opened as <root>/P. The root comes from TAVREND_ROOT
// (unset or empty means "/"), read once on first use; tests set it with
// setDeviceRoot(). When <root>/proc does not exist, /proc paths resolve to the
// machine's own /proc, so a root holding only configuration watches the real
// machine. Whether <root>/proc exists is decided when the root is set.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/device_root.h"

namespace tavrend::platform {

// Replaces the device root. An empty root means "/".
void setDeviceRoot(const std::string& root);

// The device root in force ("/" when none is set).
std::string deviceRoot();

// Maps a device path such as "/proc/meminfo" to the host path to open.
std::string hostPath(std::string_view devicePath);

// For tests and fuzzing only: device files served from memory, so that a
// target can hand the readers thousands of files a second without writing
// them or asking the kernel for each. While a table is installed, a device
// path it names opens from its bytes: openDeviceFd gives a descriptor of the
// layer's own (above any real one) that readDeviceFd and closeDeviceFd serve
// from memory, so the readers' own code reads and closes it as any file;
// openDeviceFile gives a read-only stream on the bytes (fmemopen). A path
// named with `data` nullptr is absent (ENOENT). Paths the table doesn't name,
// and every directory, come from the device root as usual. The caller keeps
// the table and its bytes alive and unchanged until it installs another table
// or nullptr and every file opened from it is closed.
struct MemoryFile {
    const char* devicePath;
    const char* data;  // nullptr: no such file
    size_t size;
};
struct MemoryFiles {
    const MemoryFile* files;
    size_t count;
};
void setMemoryFiles(const MemoryFiles* table);

}  // namespace tavrend::platform

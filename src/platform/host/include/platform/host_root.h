// Where the host finds what a device keeps at /proc, /sys, /system, /data
// and /dev.
//
// A device path P is opened as <root>/P. The root comes from TAVREND_ROOT
// (unset or empty means "/"), read once on first use; tests set it with
// setDeviceRoot(). When <root>/proc does not exist, /proc paths resolve to the
// machine's own /proc, so a root holding only configuration watches the real
// machine. Whether <root>/proc exists is decided when the root is set.
#pragma once

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

}  // namespace tavrend::platform

// The device root: every file the daemon opens is named by its device path
// (/proc/..., /sys/..., /system/..., /data/..., /dev/...) and opened here.
//
// On a device these open the path as it is. On a host the platform layer
// finds the path under a device root (see platform/host_root.h).
#pragma once

#include <dirent.h>
#include <stdio.h>

namespace tavrend::platform {

// fopen/opendir of a device path.
FILE* openDeviceFile(const char* devicePath, const char* mode);
DIR* openDeviceDir(const char* devicePath);

// open(2) of a device path for reading, close-on-exec: a descriptor the caller
// reads and closes, or -1 with errno set. For the readers that read a kernel
// text file once a second and don't need a stdio stream's buffer.
int openDeviceFd(const char* devicePath);

}  // namespace tavrend::platform

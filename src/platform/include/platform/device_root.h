// The device root: every file the daemon opens is named by its device path
// (/proc/..., /sys/..., /system/..., /data/..., /dev/...) and opened here.
//
// On a device these open the path as it is. On a host the platform layer
// finds the path under a device root (see platform/host_root.h).
#pragma once

#include <dirent.h>
#include <stdio.h>
#include <sys/types.h>

namespace tavrend::platform {

// fopen/opendir of a device path.
FILE* openDeviceFile(const char* devicePath, const char* mode);
DIR* openDeviceDir(const char* devicePath);

// A device file read through a descriptor, for the readers that read a kernel
// text file once a second and need no stdio stream: on a device these are
// open(2) for reading (close-on-exec), read(2) and close(2), and each answers
// as they do (-1 with errno set on failure). A descriptor of openDeviceFd is
// read and closed only through the other two.
int openDeviceFd(const char* devicePath);
ssize_t readDeviceFd(int fd, void* buf, size_t count);
int closeDeviceFd(int fd);

}  // namespace tavrend::platform

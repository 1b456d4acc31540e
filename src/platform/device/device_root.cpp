// On a device a device path is the path to open.
#include "platform/device_root.h"

#include <fcntl.h>
#include <unistd.h>

namespace tavrend::platform {

FILE* openDeviceFile(const char* devicePath, const char* mode) { return fopen(devicePath, mode); }

DIR* openDeviceDir(const char* devicePath) { return opendir(devicePath); }

int openDeviceFd(const char* devicePath) { return open(devicePath, O_RDONLY | O_CLOEXEC); }

ssize_t readDeviceFd(int fd, void* buf, size_t count) { return read(fd, buf, count); }

int closeDeviceFd(int fd) { return close(fd); }

}  // namespace tavrend::platform

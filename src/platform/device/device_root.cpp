// On a device a device path is the path to open.
#include "platform/device_root.h"

#include <fcntl.h>

namespace tavrend::platform {

FILE* openDeviceFile(const char* devicePath, const char* mode) { return fopen(devicePath, mode); }

DIR* openDeviceDir(const char* devicePath) { return opendir(devicePath); }

int openDeviceFd(const char* devicePath) { return open(devicePath, O_RDONLY | O_CLOEXEC); }

}  // namespace tavrend::platform

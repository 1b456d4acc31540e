// On a device a device path is the path to open.
#include "platform/device_root.h"

namespace tavrend::platform {

FILE* openDeviceFile(const char* devicePath, const char* mode) { return fopen(devicePath, mode); }

DIR* openDeviceDir(const char* devicePath) { return opendir(devicePath); }

}  // namespace tavrend::platform

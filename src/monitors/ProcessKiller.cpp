#include "monitors/ProcessKiller.h"

#include <platform/device_root.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/Log.h"
#include "common/LogMessages.h"
#include "stats/TextScan.h"

namespace tavrend {

using platform::openDeviceFile;
using quillend::text::File;
using quillend::text::LineBuffer;
using quillend::text::parseInt;

bool killProcess(int pid) {
    TLOGI(TAVREND_MSG_KILL_TRY, pid);
    FILE* request = openDeviceFile(kDravikKillPath, "r+");
    if (request == nullptr) {
        TLOGE(TAVREND_MSG_OPEN_FOR_WRITE_FAILED, kDravikKillPath);
        return false;
    }
    char text[16];
    snprintf(text, sizeof(text), "%d", pid);
    fputs(text, request);  // not checked: the status read back tells
    fclose(request);

    File answer(openDeviceFile(kDravikKillPath, "r"));
    if (!answer) {
        TLOGE(TAVREND_MSG_OPEN_FAILED, kDravikKillPath);
        return false;
    }
    // One decimal number; one past int's range saturates, so it is not 0.
    int status = 0;
    {
        LineBuffer line;
        if (line.read(answer.get()) != -1 && !parseInt(line.data, status)) {
            // An answer that isn't a number leaves the status at 0: success. Intended.
            TLOGE(TAVREND_MSG_SCAN_FAILED, kDravikKillPath);
        }
    }
    answer.reset();

    if (status != 0) {
        // The reason is errno as it stands, not the driver's status. Intended.
        TLOGE(TAVREND_MSG_KILL_ERROR, pid, strerror(errno));
        return false;
    }
    TLOGI(TAVREND_MSG_KILL_DONE, pid);
    return true;
}

}  // namespace tavrend

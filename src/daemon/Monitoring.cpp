#include "daemon/Monitoring.h"

#include <sys/select.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <stdexcept>

#include "common/Log.h"
#include "common/LogMessages.h"
#include "platform/time_seam.h"

namespace tavrend {

bool startMonitoring(int& fd, SamplerList& samplers, CriticalConditionType& result,
                     IdleDetector& idleDetector) {
    uint64_t tick = 0;
    while (true) {
        fd_set readSet;
        FD_ZERO(&readSet);
        FD_SET(fd, &readSet);
        // One second through the time seam: select(2) with a 1 s timeout on a device.
        int ready = platform::waitReadable(fd + 1, &readSet, 1);
        if (ready == 0) {
            CriticalConditionType found = NO_CRITICAL_CONDITION;
            for (auto& sampler : samplers) {
                bool idle = idleDetector.getDeviceIdleStatus();
                if (sampler->check(tick, false, idle)) {
                    found = sampler->getCriticalCondition();
                    if (found != NO_CRITICAL_CONDITION) break;
                }
            }
            if (found != NO_CRITICAL_CONDITION) {
                result = found;
                TLOGE(TAVREND_MSG_REPORT);
                time_t now = platform::wallClockNow();
                char when[64];
                // ctime's text ends in a newline, which the log drops.
                if (ctime_r(&now, when) == nullptr) when[0] = '\0';
                TLOGE(TAVREND_MSG_REPORT_DATE, when);
                for (auto& sampler : samplers) sampler->dumpReport();
                return true;
            }
            ++tick;
            continue;
        }
        if (ready == 1) {
            if (FD_ISSET(fd, &readSet)) {
                struct signalfd_siginfo info;
                if (read(fd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
                    TLOGI(TAVREND_MSG_SIGNAL, static_cast<int>(info.ssi_signo));
                }
            }
            return false;
        }
        if (errno == ENOMEM) throw std::runtime_error("Memory allocation error");
        return false;
    }
}

}  // namespace tavrend

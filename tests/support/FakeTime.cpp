#include "support/FakeTime.h"

#include <sys/sysinfo.h>

#include <cstring>

namespace tavrend::test {

int FakeTime::sysinfo(struct ::sysinfo* info) {
    if (failSysinfo_.load()) return -1;
    memset(info, 0, sizeof(*info));
    info->uptime = static_cast<long>(uptime_.load());
    return 0;
}

void FakeTime::sleepSeconds(unsigned seconds) {
    uptime_ += seconds;
    const unsigned long index = sleepCalls_++;
    if (onSleep) onSleep(index);
}

}  // namespace tavrend::test

// Host stand-in for the device's <binder/ProcessState.h>: the process's binder
// thread pool.
#pragma once

#include <utils/Errors.h>
#include <utils/RefBase.h>

#include <cstddef>

namespace android {

class ProcessState : public virtual RefBase {
public:
    static sp<ProcessState> self();

    // Starts the pool threads that serve every service this process adds,
    // before or after the call. Later calls do nothing. The threads run with
    // every signal blocked.
    void startThreadPool();
    // The number of pool threads (default 4); takes effect when the pool starts.
    status_t setThreadPoolMaxThreadCount(size_t maxThreads);

private:
    ProcessState() = default;
    ~ProcessState() override = default;
};

}  // namespace android

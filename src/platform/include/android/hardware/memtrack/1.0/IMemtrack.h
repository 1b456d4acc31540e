// Host stand-in for the memtrack HAL service, version 1.0. Only the lookup
// exists: the service is there when the directory <root>/dev/memtrack exists.
#pragma once

#include <memory>
#include <string>

namespace android::hardware::memtrack::V1_0 {

class IMemtrack {
public:
    // Non-null exactly when <root>/dev/memtrack is a directory.
    static std::shared_ptr<IMemtrack> getService(const std::string& instance = "default");
    virtual ~IMemtrack();
};

}  // namespace android::hardware::memtrack::V1_0

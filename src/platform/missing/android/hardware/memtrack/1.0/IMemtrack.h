// The memtrack HAL's service interface, version 1.0, as far as the daemon uses
// it: the lookup. On a device this header is generated from the HAL's
// interface definition and declares the same lookup; no platform package
// offers it for a host, so this one is used wherever the generated one is
// missing. Results are sp<>, as the generated header's are.
//
// On a host the service is there when the directory <root>/dev/memtrack
// exists.
#pragma once

#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

#include <string>

namespace android::hardware::memtrack::V1_0 {

struct IMemtrack : public virtual ::android::RefBase {
    // Null when no memtrack service is registered under `serviceName`.
    static ::android::sp<IMemtrack> getService(const std::string& serviceName = "default",
                                               bool getStub = false);
};

}  // namespace android::hardware::memtrack::V1_0

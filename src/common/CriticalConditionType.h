// The conditions a monitor raises, handed from the monitoring loop to the
// idle detector.
#pragma once

#include <cstdint>

namespace tavrend {

enum CriticalConditionType : int32_t {
    CRITICAL_MEMORY = 0,        // memory is being leaked
    CRITICAL_UPL = 1,           // too many bad user-perceived-latency samples
    NO_CRITICAL_CONDITION = 2,  // nothing detected
};

}  // namespace tavrend

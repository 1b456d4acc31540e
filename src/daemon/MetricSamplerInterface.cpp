#include "daemon/MetricSamplerInterface.h"

#include "config/ConfigVariables.h"

namespace tavrend {

bool MetricSamplerInterface::checkPeriodic(unsigned long long tick, bool force,
                                           int32_t periodSec) {
    if (!force && tick % effectivePeriod(periodSec) != 0) return true;
    return fetch();
}

}  // namespace tavrend

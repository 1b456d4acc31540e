// The once-a-second monitoring loop.
#pragma once

#include <memory>
#include <vector>

#include "daemon/MetricSamplerInterface.h"
#include "recovery/IdleDetector.h"

namespace tavrend {

using SamplerList = std::vector<std::shared_ptr<MetricSamplerInterface>>;

// Waits up to one second on `fd` (the SIGTERM signalfd); every second that
// passes without a signal, checks every monitor in order with the idle status
// read just before its call. The first monitor showing a critical condition
// after a successful check ends the loop: its condition goes to `result`, the
// crash report header is logged and every monitor dumps its report, and the
// loop returns true. A signal, or a failing select, returns false. Throws
// std::runtime_error("Memory allocation error") when select fails with ENOMEM.
bool startMonitoring(int& fd, SamplerList& samplers, CriticalConditionType& result,
                     IdleDetector& idleDetector);

}  // namespace tavrend

// Ends a process through the kernel statistics driver's kill file rather
// than with a signal: the driver resolves the pid itself, so a reused pid is
// its concern, not ours.
#pragma once

#include "common/DevicePaths.h"

namespace tavrend {

inline constexpr const char* kDravikKillPath = paths::kDravikKill;

// Writes `pid` into the kill file, closes it (the close hands the request to
// the driver) and reads back the driver's status. True when the status is 0.
// An empty answer, or one that isn't a number, counts as success. Not
// serialised: callers must not kill from two threads at once.
bool killProcess(int pid);

}  // namespace tavrend

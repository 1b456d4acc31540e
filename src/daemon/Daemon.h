#pragma once

#include "daemon/Monitoring.h"

namespace tavrend {

// Initialises the monitors front to back; one whose init fails is dropped and
// the monitor that moves into its place is initialised next.
void initMonitors(SamplerList& samplers);

// The whole life of the daemon; the process's exit status.
int daemonMain();

}  // namespace tavrend

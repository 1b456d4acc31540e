#pragma once

namespace tavrend {

// The whole life of the daemon; the process's exit status.
int daemonMain();

}  // namespace tavrend

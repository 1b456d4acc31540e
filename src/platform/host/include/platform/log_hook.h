// Test access to the host log: every record, before it is split into lines.
#pragma once

#include <functional>

namespace tavrend::platform {

using LogHook = std::function<void(int bufId, int prio, const char* tag, const char* msg)>;

// Installs a hook called for every accepted record (nullptr removes it).
// The hook may be called from any thread, concurrently.
void setLogHook(LogHook hook);

// Turns the copy of every record on standard error on or off (default on).
void setLogToStderr(bool enabled);

// Re-reads TAVREND_LOG_DIR and closes any open log files.
void reopenLogFiles();

}  // namespace tavrend::platform

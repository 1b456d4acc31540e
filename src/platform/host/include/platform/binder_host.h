// Host side of the binder layer: its limits and a reset for tests.
#pragma once

#include <cstddef>
#include <string>

namespace tavrend::platform {

// The largest request (code, flags and data) a service takes, and the largest
// reply parcel it sends: the size of the device's binder buffer.
inline constexpr size_t kBinderTransactionMax = 1040384;

// Device path of the socket a service listens on: /dev/socket/binder/<name>.
std::string binderSocketDevicePath(const std::string& serviceName);

// Stops the pool threads (after the transactions they run), closes every
// service socket and connection, removes the socket files and forgets every
// service, so that the next service and startThreadPool() begin afresh.
// Proxies already handed out see DEAD_OBJECT. For tests.
void resetBinderHost();

}  // namespace tavrend::platform

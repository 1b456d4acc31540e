// Host side of the binder layer: its limits, a reset for tests and the
// request path on its own for fuzzing.
#pragma once

#include <binder/IBinder.h>
#include <utils/StrongPointer.h>

#include <cstddef>
#include <string>

namespace tavrend::platform {

// The largest request (code, flags and data) a service takes, and the largest
// reply parcel it sends: the size of the device's binder buffer.
inline constexpr size_t kBinderTransactionMax = 1040384;

// The most connections open at once, across every service of the process.
// Each costs a descriptor here (none on a device); one more is accepted and
// closed at once. Well under the usual limit of 1,024 descriptors.
inline constexpr size_t kBinderMaxConnections = 256;

// Device path of the socket a service listens on: /dev/socket/binder/<name>.
std::string binderSocketDevicePath(const std::string& serviceName);

// Stops the pool threads (after the transactions they run), closes every
// service socket and connection, removes the socket files and forgets every
// service, so that the next service and startThreadPool() begin afresh.
// Proxies already handed out see DEAD_OBJECT. For tests.
void resetBinderHost();

// Serves the requests waiting on the connected socket `fd` with `binder` on
// the calling thread, as a pool thread serves a connection, until none is
// waiting. False when the connection would be closed (the peer is gone or the
// socket failed), or when a reply found no room in the socket. For fuzzing.
bool serveBinderRequests(int fd, const android::sp<android::IBinder>& binder);

}  // namespace tavrend::platform

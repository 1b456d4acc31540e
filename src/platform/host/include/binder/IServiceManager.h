// Host stand-in for the device's <binder/IServiceManager.h>.
//
// A service added here listens on the Unix SOCK_SEQPACKET socket
// <root>/dev/socket/binder/<name>. checkService() connects to that socket,
// also for a service of this same process, and hands back a proxy whose
// transact() sends the transaction over it.
#pragma once

#include <binder/IInterface.h>

namespace android {

class IServiceManager : public IInterface {
public:
    enum {
        DUMP_FLAG_PRIORITY_CRITICAL = 1 << 0,
        DUMP_FLAG_PRIORITY_HIGH = 1 << 1,
        DUMP_FLAG_PRIORITY_NORMAL = 1 << 2,
        DUMP_FLAG_PRIORITY_DEFAULT = 1 << 3,
        DUMP_FLAG_PRIORITY_ALL = DUMP_FLAG_PRIORITY_CRITICAL | DUMP_FLAG_PRIORITY_HIGH |
                                 DUMP_FLAG_PRIORITY_NORMAL | DUMP_FLAG_PRIORITY_DEFAULT,
        DUMP_FLAG_PROTO = 1 << 4,
    };

    // Null when no such service listens.
    virtual sp<IBinder> checkService(const String16& name) const = 0;
    // The same as checkService on the host: nothing waits for a service to come.
    virtual sp<IBinder> getService(const String16& name) const = 0;
    // Serves `service` under `name`: BAD_VALUE for a null service or a name that
    // is empty, holds '/' or is "." or "..", and an error when the socket can't
    // be made. Adding a name again serves the new object on later connections.
    virtual status_t addService(const String16& name, const sp<IBinder>& service,
                                bool allowIsolated = false,
                                int dumpsysFlags = DUMP_FLAG_PRIORITY_DEFAULT) = 0;
};

sp<IServiceManager> defaultServiceManager();

}  // namespace android

// Host stand-in for the device's <binder/Binder.h>: the local binder object a
// service derives from.
#pragma once

#include <binder/IBinder.h>

namespace android {

class BBinder : public IBinder {
public:
    BBinder() = default;

    const String16& getInterfaceDescriptor() const override;  // empty unless overridden
    // Answers PING_TRANSACTION itself and hands every other code to onTransact,
    // with the data read from its start. The reply is left at position 0.
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) final;
    BBinder* localBinder() override { return this; }

protected:
    ~BBinder() override;
    // Answers INTERFACE_TRANSACTION with getInterfaceDescriptor(), and any
    // other code with UNKNOWN_TRANSACTION. An override that answers codes of
    // its own hands the rest here.
    virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                uint32_t flags = 0);
};

}  // namespace android

// Host stand-in for the device's <binder/IBinder.h>: a binder object, local
// (BBinder) or the proxy of one in another process.
#pragma once

#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>

#include <cstdint>

#define B_PACK_CHARS(c1, c2, c3, c4) \
    ((static_cast<uint32_t>(c1) << 24) | ((c2) << 16) | ((c3) << 8) | (c4))

namespace android {

class BBinder;
class IInterface;
class Parcel;

class IBinder : public virtual RefBase {
public:
    enum {
        FIRST_CALL_TRANSACTION = 0x00000001,
        LAST_CALL_TRANSACTION = 0x00ffffff,
        PING_TRANSACTION = B_PACK_CHARS('_', 'P', 'N', 'G'),
        INTERFACE_TRANSACTION = B_PACK_CHARS('_', 'N', 'T', 'F'),

        FLAG_ONEWAY = 0x00000001,
    };

    IBinder() = default;

    // The local interface named `descriptor` when this object implements it, else null.
    virtual sp<IInterface> queryLocalInterface(const String16& descriptor);
    // For a proxy, asked of the remote object once; empty when it can't be reached.
    virtual const String16& getInterfaceDescriptor() const = 0;
    virtual status_t pingBinder();
    // A one-way transaction (flags has FLAG_ONEWAY) gets no reply.
    virtual status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                              uint32_t flags = 0) = 0;
    virtual BBinder* localBinder();

protected:
    ~IBinder() override;
};

}  // namespace android

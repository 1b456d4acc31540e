// Host stand-in for the device's <binder/IInterface.h>.
//
// An interface declares its `descriptor` and `getInterfaceDescriptor() const`
// (what the platform's meta-interface macros declare) and derives from
// IInterface; its local implementation derives from
// BnInterface<ITheInterface> and overrides onTransact.
#pragma once

#include <binder/Binder.h>

namespace android {

class IInterface : public virtual RefBase {
public:
    IInterface() = default;
    static sp<IBinder> asBinder(const IInterface* iface);
    static sp<IBinder> asBinder(const sp<IInterface>& iface);

protected:
    ~IInterface() override;
    virtual IBinder* onAsBinder() = 0;
};

template <typename INTERFACE>
class BnInterface : public INTERFACE, public BBinder {
public:
    sp<IInterface> queryLocalInterface(const String16& descriptor) override {
        if (descriptor == INTERFACE::descriptor)
            return sp<IInterface>(static_cast<INTERFACE*>(this));
        return nullptr;
    }
    // As on a device: the interface names its descriptor.
    const String16& getInterfaceDescriptor() const override {
        return INTERFACE::getInterfaceDescriptor();
    }

protected:
    typedef INTERFACE BaseInterface;
    IBinder* onAsBinder() override { return this; }
};

}  // namespace android

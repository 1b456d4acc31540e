// Host stand-in for the device's <binder/IInterface.h>.
//
// An interface declares `static const android::String16 descriptor;` and
// derives from IInterface; its local implementation derives from
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
    const String16& getInterfaceDescriptor() const override { return INTERFACE::descriptor; }

protected:
    typedef INTERFACE BaseInterface;
    IBinder* onAsBinder() override { return this; }
};

}  // namespace android

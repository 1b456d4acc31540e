// The object side of the binder layer: references, local binders, interfaces.
#include <binder/Binder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <utils/RefBase.h>

namespace android {

RefBase::~RefBase() = default;

IBinder::~IBinder() = default;

sp<IInterface> IBinder::queryLocalInterface(const String16&) { return nullptr; }

status_t IBinder::pingBinder() {
    Parcel data, reply;
    return transact(PING_TRANSACTION, data, &reply);
}

BBinder* IBinder::localBinder() { return nullptr; }

BBinder::~BBinder() = default;

const String16& BBinder::getInterfaceDescriptor() const {
    static const String16* const kEmpty = new String16();
    return *kEmpty;
}

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    data.setDataPosition(0);
    const status_t err = code == PING_TRANSACTION ? OK : onTransact(code, data, reply, flags);
    if (reply != nullptr) reply->setDataPosition(0);
    return err;
}

status_t BBinder::onTransact(uint32_t code, const Parcel&, Parcel* reply, uint32_t) {
    if (code == INTERFACE_TRANSACTION && reply != nullptr) {
        return reply->writeString16(getInterfaceDescriptor());
    }
    return UNKNOWN_TRANSACTION;
}

IInterface::~IInterface() = default;

sp<IBinder> IInterface::asBinder(const IInterface* iface) {
    return iface != nullptr ? sp<IBinder>(const_cast<IInterface*>(iface)->onAsBinder()) : nullptr;
}

sp<IBinder> IInterface::asBinder(const sp<IInterface>& iface) { return asBinder(iface.get()); }

}  // namespace android

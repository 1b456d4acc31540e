// The daemon's binder service: other components report latency samples to it.
//
// Transaction 2: the interface token of "com.corvail.android.service.TavrenIPC",
// then one int64, the latency in milliseconds. The reply is one int32, 0.
#pragma once

#include <binder/IInterface.h>
#include <binder/Parcel.h>
#include <utils/String16.h>

#include <cstdint>

namespace tavrend {
class DeviceUplMonitor;
}

namespace android {

inline constexpr const char* kTavrendIpcServiceName = "tavrend.ipc.service";
inline constexpr const char* kTavrendIpcDescriptor = "com.corvail.android.service.TavrenIPC";
inline constexpr uint32_t kRecordDuplTransaction = 2;

// The interface declares only what BnInterface<> asks of it: its descriptor.
// No operation of its own and no client proxy: callers send transaction 2.
class ITavrendIPC : public IInterface {
public:
    static const String16& descriptor;
    virtual const String16& getInterfaceDescriptor() const;
};

// Hands every sample to the latency monitor, which must outlive it.
class BnTavrendIPC : public BnInterface<ITavrendIPC> {
public:
    explicit BnTavrendIPC(tavrend::DeviceUplMonitor& monitor);
    ~BnTavrendIPC() override;

    // Code 2 only: any other code is answered 0 with nothing read or written;
    // a wrong token is answered -1 with nothing recorded. The sample's low 32
    // bits are recorded; the reply is int32 0.
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                        uint32_t flags = 0) override;

private:
    tavrend::DeviceUplMonitor& monitor;
};

}  // namespace android

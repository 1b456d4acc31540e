#include "monitors/TavrendIPC.h"

#include "common/NoDestroy.h"
#include "monitors/DeviceUplMonitor.h"

namespace android {

namespace {
// Never destroyed, on purpose: a pool thread may still check a request's token
// while the process runs its exit handlers, after the daemon's last clean-up.
const tavrend::NoDestroy<const String16> gDescriptor(kTavrendIpcDescriptor);
}  // namespace

const String16& ITavrendIPC::descriptor = *gDescriptor;

const String16& ITavrendIPC::getInterfaceDescriptor() const { return descriptor; }

BnTavrendIPC::BnTavrendIPC(tavrend::DeviceUplMonitor& monitor) : monitor(monitor) {}

BnTavrendIPC::~BnTavrendIPC() = default;

status_t BnTavrendIPC::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t) {
    // Other codes get 0 and nothing else, not the base class's handling. Intended.
    if (code != kRecordDuplTransaction) return 0;
    if (!data.enforceInterface(ITavrendIPC::descriptor)) return -1;
    const int64_t sample = data.readInt64();
    monitor.recordDupl(static_cast<int32_t>(static_cast<uint32_t>(sample)));
    if (reply != nullptr) reply->writeInt32(0);
    return 0;
}

}  // namespace android

// The latency service's request path. The input is one request as it arrives
// on the service's socket: u32 code, u32 flags, then the data parcel, e.g.
// 02000000 00000000 00000080 ffffffff 54535953 25000000 "c.o.m..." 84030000 00000000
// (transaction 2, the interface token, the int64 sample 900).
#include <binder/Parcel.h>

#include <cstdint>
#include <cstring>

#include "FuzzSupport.h"
#include "monitors/DeviceUplMonitor.h"
#include "monitors/TavrendIPC.h"

namespace {

tavrend::ConfigVariables& config() {
    static tavrend::ConfigVariables c = [] {
        tavrend::ConfigVariables v;
        v.dupl_monitoring_enabled = true;
        v.critical_upl_threshold_ms = 500;
        v.critical_upl_bad_sample_count_threshold = 3;
        return v;
    }();
    return c;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    tavrend::fuzz::initHarness();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 8) return 0;  // the transport refuses these before any parcel exists
    uint32_t code = 0;
    uint32_t flags = 0;
    memcpy(&code, data, 4);
    memcpy(&flags, data + 4, 4);

    tavrend::DeviceUplMonitor monitor(config());
    android::sp<android::BnTavrendIPC> service = new android::BnTavrendIPC(monitor);
    android::Parcel request;
    request.setData(data + 8, size - 8);
    android::Parcel reply;
    const android::status_t status = service->transact(code, request, &reply, flags);

    const int recorded = monitor.getTotalSampleCount();
    FUZZ_CHECK(recorded == 0 || recorded == 1);
    if (code == android::kRecordDuplTransaction) {
        // Recorded exactly when the token matched; the reply is then int32 0.
        FUZZ_CHECK((status == 0) == (recorded == 1));
        FUZZ_CHECK(status == 0 || status == -1);
        if (status == 0) {
            reply.setDataPosition(0);
            FUZZ_CHECK(reply.dataSize() == 4 && reply.readInt32() == 0);
        }
    } else {
        FUZZ_CHECK(recorded == 0);
    }

    // The parcel's readers on the same bytes never read past the end.
    request.setDataPosition(0);
    for (int i = 0; i < 8 && request.dataPosition() < request.dataSize(); ++i) {
        const size_t before = request.dataPosition();
        // The parcel is not empty here, so size > 8: pick a reader by its bytes.
        switch (data[8 + static_cast<size_t>(i) % (size - 8)] % 4) {
            case 0: (void)request.readInt32(); break;
            case 1: (void)request.readInt64(); break;
            case 2: (void)request.readString16(); break;
            default: (void)request.enforceInterface(android::ITavrendIPC::descriptor); break;
        }
        FUZZ_CHECK(request.dataPosition() <= request.dataSize());
        if (request.dataPosition() == before) break;
    }
    return 0;
}

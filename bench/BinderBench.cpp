// Binder round trips through the host layer beside their floor.
//
// Layer: a proxy from checkService() sends transaction 1 (interface token and
// an int64) to a BBinder service of this process, which checks the token and
// answers an int64; the pool's threads serve it. Floor: the same request and
// reply bytes over a raw SOCK_SEQPACKET connection to a thread that does
// nothing but recv and send. The ratio layer/floor (items per second) is what
// the layer adds: parcels, the epoll pool, the proxy's lock. Each client
// thread has its own connection in both.
#include <benchmark/benchmark.h>
#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "BenchRoot.h"
#include "platform/host_root.h"
#include "platform/log_hook.h"

namespace {

using android::Parcel;
using android::String16;

const String16& descriptor() {
    static const String16* d = new String16("tavrend.bench.IEcho");
    return *d;
}

class EchoService : public android::BBinder {
protected:
    android::status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                 uint32_t flags) override {
        if (code != 1) return BBinder::onTransact(code, data, reply, flags);
        if (!data.enforceInterface(descriptor())) return android::BAD_TYPE;
        return reply->writeInt64(data.readInt64() + 1);
    }
};

// The request the layer sends: u32 code, u32 flags, token, int64.
std::vector<uint8_t> floorRequest() {
    Parcel p;
    p.writeUint32(1);
    p.writeUint32(0);
    p.writeInterfaceToken(descriptor());
    p.writeInt64(41);
    return std::vector<uint8_t>(p.data(), p.data() + p.dataSize());
}
constexpr size_t kReplySize = 4 + 8;  // status, int64

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un addr{AF_UNIX, {}};
    if (path.size() >= sizeof(addr.sun_path)) throw std::runtime_error("socket path too long");
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return addr;
}

// A device root with the service added and the pool started, and the floor's
// server listening: set up once for the whole run.
struct BinderSetup {
    tavrend::bench::BenchRoot root{0};
    std::string floorPath;

    BinderSetup() {
        tavrend::platform::setLogToStderr(false);
        tavrend::platform::setDeviceRoot(root.root);
        android::defaultServiceManager()->addService(String16("bench.echo"), new EchoService);
        android::ProcessState::self()->startThreadPool();

        floorPath = root.root + "/floor.sock";
        const sockaddr_un addr = addressOf(floorPath);
        int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 ||
            listen(fd, SOMAXCONN) != 0) {
            throw std::runtime_error("floor socket");
        }
        // One thread per connection, each blocked in recv between requests.
        std::thread([fd] {
            for (;;) {
                int c = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
                if (c < 0) continue;
                std::thread([c] {
                    uint8_t buf[256];
                    uint8_t reply[kReplySize] = {0, 0, 0, 0, 42};
                    while (recv(c, buf, sizeof(buf), 0) > 0) {
                        if (send(c, reply, sizeof(reply), MSG_NOSIGNAL) < 0) break;
                    }
                    close(c);
                }).detach();
            }
        }).detach();
    }
};

BinderSetup& setup() {
    static BinderSetup* s = new BinderSetup();  // threads use it until the process ends
    return *s;
}

void BM_Binder_RoundTrip_Layer(benchmark::State& state) {
    setup();
    android::sp<android::IBinder> b =
        android::defaultServiceManager()->checkService(String16("bench.echo"));
    if (!b) return state.SkipWithError("no service");
    int64_t n = 0;
    for (auto _ : state) {
        Parcel data, reply;
        data.writeInterfaceToken(descriptor());
        data.writeInt64(n);
        if (b->transact(1, data, &reply) != android::OK || reply.readInt64() != n + 1) {
            return state.SkipWithError("bad reply");
        }
        ++n;
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_Binder_RoundTrip_Floor(benchmark::State& state) {
    const sockaddr_un addr = addressOf(setup().floorPath);
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return state.SkipWithError("no floor server");
    }
    const std::vector<uint8_t> request = floorRequest();
    uint8_t reply[64];
    for (auto _ : state) {
        if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0 ||
            recv(fd, reply, sizeof(reply), 0) != static_cast<ssize_t>(kReplySize)) {
            close(fd);
            return state.SkipWithError("floor transport failed");
        }
        benchmark::DoNotOptimize(reply[4]);
    }
    close(fd);
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_Binder_RoundTrip_Layer)->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(BM_Binder_RoundTrip_Floor)->Threads(1)->Threads(4)->UseRealTime();

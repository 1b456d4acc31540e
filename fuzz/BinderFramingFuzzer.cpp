// The binder transport's framing: what a service's connection does with the
// messages a client sends, through the socket and the pool's own request path.
// The input is a list of messages, each a u16 (little-endian) then bytes:
// - the low 12 bits say how many of the following input bytes the message holds;
// - bit 15 pads the message with zeros to a size near the request limit:
//   kBinderTransactionMax - 3 plus bits 12-14 (two such messages at most);
// - 0xffff ends the list and the client hangs up its sending side.
// e.g. 0c00 01000000 01000000 2a000000: code 1, flags one-way, data int32 42.
// The service records every request that reaches it and replies with its code
// as the status and the first bytes of its data. Checked on every input: the
// requests that reach the service are exactly those of 8 bytes to the limit,
// with their code, flags and data; the replies come in order, one per request
// that is not one-way (a bad request is not one-way unless its header says so),
// each a status and a parcel; and the connection stays open unless the client
// hung up.
#include <binder/IBinder.h>
#include <binder/Parcel.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "FuzzSupport.h"
#include "platform/binder_host.h"

namespace {

using Bytes = std::vector<uint8_t>;
using tavrend::platform::kBinderTransactionMax;

constexpr size_t kMaxMessages = 24;  // more than a pool thread serves per wake-up
constexpr size_t kMaxNearLimit = 2;
constexpr size_t kEchoMax = 64;
constexpr int32_t kFailed = android::FAILED_TRANSACTION;

struct Call {
    uint32_t code;
    uint32_t flags;
    Bytes data;
    bool operator==(const Call&) const = default;
};

class Recorder : public android::IBinder {
public:
    std::vector<Call> calls;

    const android::String16& getInterfaceDescriptor() const override {
        static const android::String16* const kNone = new android::String16();
        return *kNone;
    }

    android::status_t transact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                               uint32_t flags) override {
        calls.push_back({code, flags, Bytes(data.data(), data.data() + data.dataSize())});
        reply->write(data.data(), std::min(data.dataSize(), kEchoMax));
        return static_cast<android::status_t>(code);
    }
};

Bytes replyOf(int32_t status, const uint8_t* data, size_t len) {
    Bytes r(4);
    memcpy(r.data(), &status, 4);
    len = std::min(len, kEchoMax);
    r.insert(r.end(), data, data + len);
    r.resize(4 + ((len + 3) & ~size_t{3}), 0);
    return r;
}

const uint8_t* zeros() {
    static const Bytes z(kBinderTransactionMax + 8, 0);
    return z.data();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    tavrend::fuzz::initHarness();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int fds[2];
    FUZZ_CHECK(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) == 0);
    const int client = fds[0];
    // Room for the near-limit messages; without the privilege they can't be sent.
    const int room = static_cast<int>(3 * (kBinderTransactionMax + 4096));
    const bool big = setsockopt(client, SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof(room)) == 0;

    std::vector<Call> wantCalls;
    Bytes wantReplies;  // every reply, each after its u32 length
    size_t messages = 0, nearLimit = 0, at = 0;
    bool hungUp = false;
    while (at + 2 <= size && messages < kMaxMessages) {
        const uint16_t h = static_cast<uint16_t>(data[at] | data[at + 1] << 8);
        at += 2;
        if (h == 0xffff) {
            shutdown(client, SHUT_WR);
            hungUp = true;
            break;
        }
        const uint8_t* head = data + at;
        const size_t headLen = std::min<size_t>(h & 0xfff, size - at);
        at += headLen;
        size_t len = headLen;
        if ((h & 0x8000) && big && nearLimit < kMaxNearLimit) {
            len = kBinderTransactionMax - 3 + ((h >> 12) & 7);
            ++nearLimit;
        }
        iovec iov[2] = {{const_cast<uint8_t*>(head), headLen},
                        {const_cast<uint8_t*>(zeros()), len - headLen}};
        msghdr msg{};
        msg.msg_iov = iov;
        msg.msg_iovlen = 2;
        FUZZ_CHECK(sendmsg(client, &msg, MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(len));
        ++messages;

        Bytes whole(head, head + headLen);  // the first bytes: all that a reply or a call shows
        whole.resize(std::min(len, headLen + kEchoMax + 8), 0);
        uint32_t header[2] = {0, 0};
        if (len >= 8) memcpy(header, whole.data(), 8);
        const bool oneway = len >= 8 && (header[1] & android::IBinder::FLAG_ONEWAY) != 0;
        Bytes reply;
        if (len < 8 || len > kBinderTransactionMax) {
            reply = replyOf(kFailed, nullptr, 0);
        } else {
            Bytes callData(whole.begin() + 8, whole.end());
            if (len > whole.size()) callData.resize(len - 8, 0);
            wantCalls.push_back({header[0], header[1], callData});
            reply = replyOf(static_cast<int32_t>(header[0]), callData.data(), callData.size());
        }
        if (!oneway) {
            const uint32_t n = static_cast<uint32_t>(reply.size());
            wantReplies.insert(wantReplies.end(), reinterpret_cast<const uint8_t*>(&n),
                               reinterpret_cast<const uint8_t*>(&n) + 4);
            wantReplies.insert(wantReplies.end(), reply.begin(), reply.end());
        }
    }

    android::sp<Recorder> service = android::sp<Recorder>::make();
    const bool open = tavrend::platform::serveBinderRequests(fds[1], service);
    FUZZ_CHECK(open == !hungUp);
    FUZZ_CHECK(service->calls == wantCalls);

    Bytes gotReplies;
    static Bytes buf(1 << 16);
    for (;;) {
        const ssize_t n = recv(client, buf.data(), buf.size(), MSG_DONTWAIT | MSG_TRUNC);
        if (n < 0) break;
        FUZZ_CHECK(n >= 4 && static_cast<size_t>(n) <= buf.size());  // a status, then a parcel
        const uint32_t len = static_cast<uint32_t>(n);
        gotReplies.insert(gotReplies.end(), reinterpret_cast<const uint8_t*>(&len),
                          reinterpret_cast<const uint8_t*>(&len) + 4);
        gotReplies.insert(gotReplies.end(), buf.begin(), buf.begin() + n);
    }
    FUZZ_CHECK(gotReplies == wantReplies);
    close(fds[0]);
    close(fds[1]);
    return 0;
}

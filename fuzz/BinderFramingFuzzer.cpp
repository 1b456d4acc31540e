// The binder transport's framing: what a service's connection does with the
// messages a client sends, through the socket and the pool's own request path.
// The input is a list of messages, each a u16 h (little-endian) then bytes:
// - 0xffff ends the list and the client hangs up its sending side;
// - with the top 6 bits set, the message is the next h & 0xff input bytes
//   padded with zeros to kBinderTransactionMax - 1 plus bits 8-9, around the
//   request limit (one such message at most: a megabyte is slow to serve);
// - otherwise, it is the next h & 0xfff input bytes.
// e.g. 0c00 01000000 01000000 2a000000: code 1, flags one-way, data int32 42.
// The service checks every request that reaches it against the next one
// expected and replies with its code as the status and the first bytes of its
// data. Checked on every input: the
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
constexpr size_t kMaxNearLimit = 1;
constexpr size_t kEchoMax = 64;
constexpr int32_t kFailed = android::FAILED_TRANSACTION;

const uint8_t* zeros() {
    static const Bytes z(kBinderTransactionMax + 8, 0);
    return z.data();
}

// A request that must reach the service: its data is `headLen` bytes of the
// input, then zeros up to `size`.
struct Want {
    uint32_t code;
    uint32_t flags;
    size_t size;
    const uint8_t* head;
    size_t headLen;
};

// Checks each request against the next one expected, in place: near-limit
// requests are not copied again.
class Recorder : public android::IBinder {
public:
    std::vector<Want> wants;
    size_t seen = 0;

    const android::String16& getInterfaceDescriptor() const override {
        static const android::String16* const kNone = new android::String16();
        return *kNone;
    }
    android::status_t transact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                               uint32_t flags) override {
        FUZZ_CHECK(seen < wants.size());
        const Want& w = wants[seen++];
        FUZZ_CHECK(code == w.code && flags == w.flags && data.dataSize() == w.size);
        FUZZ_CHECK(w.headLen == 0 || memcmp(data.data(), w.head, w.headLen) == 0);
        FUZZ_CHECK(w.size == w.headLen ||
                   memcmp(data.data() + w.headLen, zeros(), w.size - w.headLen) == 0);
        reply->write(data.data(), std::min(data.dataSize(), kEchoMax));
        return static_cast<android::status_t>(code);
    }
};

// The reply to a request whose data starts with `head` (then zeros).
Bytes replyOf(int32_t status, const uint8_t* head, size_t headLen, size_t size) {
    Bytes r(4);
    memcpy(r.data(), &status, 4);
    const size_t echoed = std::min(size, kEchoMax);
    r.insert(r.end(), head, head + std::min(headLen, echoed));
    r.resize(4 + ((echoed + 3) & ~size_t{3}), 0);
    return r;
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

    android::sp<Recorder> service = android::sp<Recorder>::make();
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
        const bool near = (h & 0xfc00) == 0xfc00 && big && nearLimit < kMaxNearLimit;
        const uint8_t* head = data + at;
        const size_t headLen = std::min<size_t>(h & (near ? 0xff : 0xfff), size - at);
        at += headLen;
        size_t len = headLen;
        if (near) {
            len = kBinderTransactionMax - 1 + ((h >> 8) & 3);
            ++nearLimit;
        }
        iovec iov[2] = {{const_cast<uint8_t*>(head), headLen},
                        {const_cast<uint8_t*>(zeros()), len - headLen}};
        msghdr msg{};
        msg.msg_iov = iov;
        msg.msg_iovlen = 2;
        FUZZ_CHECK(sendmsg(client, &msg, MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(len));
        ++messages;

        uint32_t header[2] = {0, 0};  // a near-limit message has its header in the input
        if (len >= 8) memcpy(header, headLen >= 8 ? head : zeros(), 8);
        if (len >= 8 && headLen < 8) memcpy(header, head, headLen);
        const bool oneway = len >= 8 && (header[1] & android::IBinder::FLAG_ONEWAY) != 0;
        Bytes reply;
        if (len < 8 || len > kBinderTransactionMax) {
            reply = replyOf(kFailed, nullptr, 0, 0);
        } else {
            const size_t dataHead = headLen > 8 ? headLen - 8 : 0;
            const uint8_t* dataStart = dataHead > 0 ? head + 8 : nullptr;
            service->wants.push_back({header[0], header[1], len - 8, dataStart, dataHead});
            reply = replyOf(static_cast<int32_t>(header[0]), dataStart, dataHead, len - 8);
        }
        if (!oneway) {
            const uint32_t n = static_cast<uint32_t>(reply.size());
            wantReplies.insert(wantReplies.end(), reinterpret_cast<const uint8_t*>(&n),
                               reinterpret_cast<const uint8_t*>(&n) + 4);
            wantReplies.insert(wantReplies.end(), reply.begin(), reply.end());
        }
    }

    const bool open = tavrend::platform::serveBinderRequests(fds[1], service);
    FUZZ_CHECK(open == !hungUp);
    FUZZ_CHECK(service->seen == service->wants.size());

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

// The host binder layer: parcel bytes, and services reached over their sockets.
#include <binder/IInterface.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <log/log.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utils/String8.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/binder_host.h"
#include "support/DeviceRoot.h"
#include "support/LogCapture.h"
#include "support/Subprocess.h"

using namespace android;
using tavrend::platform::kBinderMaxConnections;
using tavrend::platform::kBinderTransactionMax;
using Bytes = std::vector<uint8_t>;

namespace {

Bytes bytesOf(const Parcel& p) { return Bytes(p.data(), p.data() + p.dataSize()); }

size_t openFds() {
    using Dir = std::filesystem::directory_iterator;
    return static_cast<size_t>(std::distance(Dir("/proc/self/fd"), Dir()));
}

class ITestEcho : public IInterface {
public:
    static const String16 descriptor;
    virtual const String16& getInterfaceDescriptor() const { return descriptor; }
};
const String16 ITestEcho::descriptor("tavrend.test.IEcho");

// Code 1: token, int64 N; the reply is int64 N + 1. Code 2 does nothing.
class EchoService : public BnInterface<ITestEcho> {
public:
    std::atomic<int> calls{0};
    std::atomic<int> sigtermBlockedCalls{0};

    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        if (sigismember(&mask, SIGTERM)) ++sigtermBlockedCalls;
        ++calls;
        if (code == 2) return OK;
        if (code != 1) return BBinder::onTransact(code, data, reply, flags);
        if (!data.enforceInterface(descriptor)) return BAD_TYPE;
        return reply->writeInt64(data.readInt64() + 1);
    }
};

Bytes echoRequest(uint32_t code, uint32_t flags, int64_t n) {
    Parcel p;
    p.writeUint32(code);
    p.writeUint32(flags);
    p.writeInterfaceToken(ITestEcho::descriptor);
    p.writeInt64(n);
    return bytesOf(p);
}

int64_t echo(const sp<IBinder>& b, int64_t n) {
    Parcel data, reply;
    data.writeInterfaceToken(ITestEcho::descriptor);
    data.writeInt64(n);
    return b->transact(1, data, &reply) == OK ? reply.readInt64() : -1;
}

const Bytes kReply42 = {0, 0, 0, 0, 42, 0, 0, 0, 0, 0, 0, 0};  // OK, int64 42
const Bytes kTokenAb = {0x00, 0x00, 0x00, 0x80, 0xff, 0xff, 0xff, 0xff, 'T', 'S', 'Y', 'S',
                        2,    0,    0,    0,    'a',  0,    'b',  0,    0,   0,   0,   0};

}  // namespace

TEST(BinderParcel, WritesTheDeviceLayout) {
    struct Case {
        const char* name;
        std::function<void(Parcel&)> write;
        Bytes want;
    };
    auto s16 = [](const char* text) {
        return [text](Parcel& p) { p.writeString16(String16(text)); };
    };
    const std::vector<Case> cases = {
        {"int64 right after an int32",
         [](Parcel& p) { p.writeInt32(-2), p.writeInt64(0x0102030405060708); },
         {0xfe, 0xff, 0xff, 0xff, 8, 7, 6, 5, 4, 3, 2, 1}},
        {"empty", s16(""), {0, 0, 0, 0, 0, 0, 0, 0}},
        {"a", s16("a"), {1, 0, 0, 0, 'a', 0, 0, 0}},
        {"ab", s16("ab"), {2, 0, 0, 0, 'a', 0, 'b', 0, 0, 0, 0, 0}},
        {"abc", s16("abc"), {3, 0, 0, 0, 'a', 0, 'b', 0, 'c', 0, 0, 0}},
        {"abcd", s16("abcd"), {4, 0, 0, 0, 'a', 0, 'b', 0, 'c', 0, 'd', 0, 0, 0, 0, 0}},
        {"utf-8 and a bad byte",
         s16("\xc3\xa9\xff"),
         {2, 0, 0, 0, 0xe9, 0, 0xfd, 0xff, 0, 0, 0, 0}},
        {"surrogates written in utf-8",
         s16("\xed\xa0\x80\xed\xbf\xbf"),  // U+D800 and U+DFFF: one U+FFFD a byte
         {6,    0,    0,    0,    0xfd, 0xff, 0xfd, 0xff, 0xfd, 0xff,
          0xfd, 0xff, 0xfd, 0xff, 0xfd, 0xff, 0,    0,    0,    0}},
        {"null",
         [](Parcel& p) { p.writeString16(std::optional<String16>()); },
         {0xff, 0xff, 0xff, 0xff}},
        {"interface token", [](Parcel& p) { p.writeInterfaceToken(String16("ab")); }, kTokenAb},
        {"zero bytes from null",
         [](Parcel& p) {
             EXPECT_EQ(p.write(nullptr, 0), OK);  // also into an empty parcel
             EXPECT_EQ(p.writeInt32(7) + p.write(nullptr, 0), OK);
             EXPECT_EQ(p.write(nullptr, 1), BAD_VALUE);
         },
         {7, 0, 0, 0}},
    };
    for (const auto& c : cases) {
        Parcel p;
        c.write(p);
        EXPECT_EQ(bytesOf(p), c.want) << c.name;
        EXPECT_EQ(p.dataPosition(), c.want.size()) << c.name;
    }
}

TEST(BinderParcel, ReadsStopAtTheEndAndCheckTheToken) {
    const Bytes fourBytes = {7, 0, 0, 0};
    Parcel p;
    EXPECT_EQ(p.setData(nullptr, 4), BAD_VALUE);  // and nothing is read from null
    p.setData(fourBytes.data(), 4);
    int64_t v64 = 5;
    EXPECT_EQ(p.readInt64(&v64), NOT_ENOUGH_DATA);
    EXPECT_EQ(p.readInt64(), 0);
    EXPECT_EQ(p.dataPosition(), 0u);
    EXPECT_EQ(p.readInt32(), 7);
    int32_t v32 = 5;
    EXPECT_EQ(p.readInt32(&v32), NOT_ENOUGH_DATA);
    EXPECT_EQ(p.readInt32(), 0);
    EXPECT_EQ(p.dataPosition(), 4u);
    p.setDataPosition(0);
    EXPECT_EQ(p.readUint32(), 7u);
    EXPECT_EQ(p.readUint32(), 0u);
    p.setDataPosition(0);  // a String16 of 7 units in 0 bytes
    String16 str;
    EXPECT_EQ(p.readString16(&str), NOT_ENOUGH_DATA);
    EXPECT_EQ(p.dataPosition(), 0u);

    // Each length's first and last code point (U+007F, U+0080, U+07FF, U+0800,
    // U+FFFF), and the surrogate pairs of U+1F642, U+10000 and U+10FFFF.
    const char* const text =
        "h\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbfllo \xf0\x9f\x99\x82\xf0\x90\x80\x80"
        "\xf4\x8f\xbf\xbf";
    Parcel s;
    s.writeString16(String16(text));
    s.setDataPosition(0);
    EXPECT_STREQ(String8(s.readString16()).c_str(), text);
    const Bytes lone = {2, 0, 0, 0, 0xff, 0xdf, 0x00, 0xd8, 0, 0, 0, 0};  // U+DFFF, then U+D800
    Parcel l;
    l.setData(lone.data(), lone.size());
    EXPECT_STREQ(String8(l.readString16()).c_str(), "\xef\xbf\xbd\xef\xbf\xbd");

    struct Case {
        const char* name;
        size_t at;  // the byte changed
        uint8_t value;
        bool accepted;
    };
    const Case cases[] = {
        {"as written", 0, 0x00, true},        {"other policy", 3, 0x00, true},
        {"set work source", 4, 0x12, true},   {"other header", 8, 'X', false},
        {"other descriptor", 18, 'c', false}, {"no terminator", 20, 1, false},
    };
    for (const auto& c : cases) {
        Bytes b = kTokenAb;
        b[c.at] = c.value;
        Parcel t;
        t.setData(b.data(), b.size());
        EXPECT_EQ(t.enforceInterface(String16("ab")), c.accepted) << c.name;
    }
    Parcel shortToken;
    shortToken.setData(kTokenAb.data(), 12);
    EXPECT_FALSE(shortToken.enforceInterface(String16("ab")));
    // checkInterface reads the token of the binder's own interface; no binder, no match.
    const sp<EchoService> echo = sp<EchoService>::make();
    Parcel token;
    token.writeInterfaceToken(ITestEcho::descriptor);
    token.setDataPosition(0);
    EXPECT_TRUE(token.checkInterface(echo.get()));
    EXPECT_FALSE(token.checkInterface(nullptr));
}

class BinderService : public ::testing::Test {
protected:
    void SetUp() override { tavrend::platform::resetBinderHost(); }
    void TearDown() override { tavrend::platform::resetBinderHost(); }

    void addEcho() {
        ASSERT_EQ(defaultServiceManager()->addService(String16("test.echo"), service), OK);
    }
    sp<IBinder> proxy() const {
        return defaultServiceManager()->checkService(String16("test.echo"));
    }
    // A client speaking the socket protocol directly; `beforeConnect` runs once its socket exists.
    int rawClient(bool bindInstead = false, const std::function<void()>& beforeConnect = {}) const {
        int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        const timeval noHang{10, 0};  // a missing reply fails the test instead of hanging it
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &noHang, sizeof(noHang));
        if (beforeConnect) beforeConnect();
        sockaddr_un addr{AF_UNIX, {}};
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
        auto* a = reinterpret_cast<sockaddr*>(&addr);
        EXPECT_EQ(bindInstead ? bind(fd, a, sizeof(addr)) : connect(fd, a, sizeof(addr)), 0);
        return fd;
    }
    static Bytes receive(int fd) {
        Bytes b(64);
        ssize_t n = recv(fd, b.data(), b.size(), 0);
        b.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return b;
    }
    static Bytes call41(int fd) {
        const Bytes request = echoRequest(1, 0, 41);
        send(fd, request.data(), request.size(), MSG_NOSIGNAL);
        return receive(fd);
    }

    tavrend::test::DeviceRoot root;
    std::string path = root.host("/dev/socket/binder/test.echo");
    sp<EchoService> service = sp<EchoService>::make();
};

TEST_F(BinderService, RefusesBadRequestsWhileOtherClientsGoOn) {
    std::filesystem::create_directories(root.host("/dev/socket/binder"));
    close(rawClient(true));  // a socket file left by an earlier run
    addEcho();
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0660u);
    for (const char* name : {"", ".", "..", "a/b"}) {  // no socket file of its own
        EXPECT_EQ(defaultServiceManager()->addService(String16(name), service), BAD_VALUE) << name;
    }
    ProcessState::self()->startThreadPool();

    sp<IBinder> good = proxy();
    ASSERT_TRUE(good);
    EXPECT_EQ(good->getInterfaceDescriptor(), ITestEcho::descriptor);
    const size_t fds = openFds();
    const int raw = rawClient();
    const int big = static_cast<int>(2 * kBinderTransactionMax);
    setsockopt(raw, SOL_SOCKET, SO_SNDBUFFORCE, &big, sizeof(big));
    // Each request (size, flags, whether it reaches the service) is followed by a
    // call on the same connection: its reply, if any, comes first, so a one-way
    // request must get none whatever its size. The framing fuzzer holds the rest.
    constexpr uint32_t kOneway = IBinder::FLAG_ONEWAY;
    const std::tuple<size_t, uint32_t, bool> cases[] = {
        {7, 0, false},
        {kBinderTransactionMax, 0, true},
        {kBinderTransactionMax + 1, 0, false},
        {kBinderTransactionMax + 1, kOneway, false},
    };
    for (const auto& [size, flags, reaches] : cases) {
        const int before = service->calls;
        Bytes request(size);
        if (size >= 8) memcpy(request.data() + 4, &flags, 4);
        if (send(raw, request.data(), size, MSG_NOSIGNAL) < 0) {
            ASSERT_EQ(errno, EMSGSIZE);  // an unprivileged host can't send it
            continue;
        }
        if (flags != kOneway) {
            const status_t status = reaches ? UNKNOWN_TRANSACTION : FAILED_TRANSACTION;
            const auto* want = reinterpret_cast<const uint8_t*>(&status);
            EXPECT_EQ(receive(raw), Bytes(want, want + 4)) << size;
        }
        EXPECT_EQ(call41(raw), kReply42) << size << " flags " << flags;
        EXPECT_EQ(service->calls, before + (reaches ? 1 : 0) + 1) << size;
    }

    // A client that sends calls faster than it reads their replies: a reply
    // that finds its socket full waits, the connection stays, none is lost.
    const timeval stall{0, 300000};  // the service stops reading while a reply waits
    setsockopt(raw, SOL_SOCKET, SO_SNDTIMEO, &stall, sizeof(stall));
    const Bytes call = echoRequest(1, 0, 41);
    int sent = 0;
    while (sent < 20000 && send(raw, call.data(), call.size(), MSG_NOSIGNAL) >= 0) ++sent;
    for (int i = 0; i < sent; ++i) ASSERT_EQ(receive(raw), kReply42) << i << " of " << sent;

    close(rawClient());  // leaves at once
    const int leaver = rawClient();
    const Bytes request = echoRequest(1, 0, 1);
    send(leaver, request.data(), request.size(), MSG_NOSIGNAL);
    close(leaver);  // leaves before its reply
    EXPECT_EQ(echo(good, 6), 7);
    close(raw);
    // The service closes its end of every connection that went away.
    EXPECT_TRUE(
        tavrend::test::waitUntil([&] { return openFds() == fds; }, std::chrono::seconds(5)));
}

// Each connection costs a descriptor. Beyond the cap a connection ends at once
// and the others go on; once some close, new ones are taken again. Out of
// descriptors, accept fails on every retry. Each episode is logged once, and
// its end once. Idle connections hold no pool thread. The pool's threads keep
// the signal mask of the thread that started the pool, SIGTERM unblocked here.
TEST_F(BinderService, ConnectionsAreBoundedAndRefusalsLoggedOncePerEpisode) {
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    ASSERT_EQ(pthread_sigmask(SIG_UNBLOCK, &term, nullptr), 0);
    ProcessState::self()->startThreadPool();
    addEcho();  // after the pool started
    tavrend::test::LogCapture log;
    std::vector<int> fds;
    for (size_t i = 0; i < kBinderMaxConnections + 2; ++i) fds.push_back(rawClient());
    char byte;
    EXPECT_EQ(recv(fds[kBinderMaxConnections], &byte, 1, 0), 0);  // the end, not a timeout
    EXPECT_EQ(recv(fds[kBinderMaxConnections + 1], &byte, 1, 0), 0);
    EXPECT_EQ(call41(fds[kBinderMaxConnections - 1]), kReply42);
    EXPECT_EQ(service->sigtermBlockedCalls, 0);  // pool threads keep their starter's mask
    const size_t before = openFds();
    for (int fd : fds) close(fd);
    ASSERT_TRUE(tavrend::test::waitUntil(
        [&] { return openFds() == before - fds.size() - kBinderMaxConnections; },
        std::chrono::seconds(5)));

    rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    const int late = rawClient(false, [&] {  // no descriptor is free from here on
        const int lowestFree = open("/dev/null", O_RDONLY | O_CLOEXEC);
        close(lowestFree);
        const rlimit none{static_cast<rlim_t>(lowestFree), saved.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    });
    EXPECT_TRUE(tavrend::test::waitUntil([&] { return log.messages(LOG_ID_MAIN).size() > 1; },
                                         std::chrono::seconds(5)));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // six retries or so
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    EXPECT_EQ(call41(late), kReply42);
    EXPECT_EQ(log.messages(LOG_ID_MAIN, "binder"),
              (std::vector<std::string>{
                  "binder: " + std::to_string(kBinderMaxConnections) +
                      " connections open, refusing new ones until some close",
                  "binder accept: Too many open files; retrying quietly until it succeeds",
                  "binder accept: succeeds again", "binder: accepting connections again"}));
    close(late);

    // A pool that cannot get its own descriptors refuses the service.
    tavrend::platform::resetBinderHost();
    const int lowestFree = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(lowestFree);
    const rlimit none{static_cast<rlim_t>(lowestFree), saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const status_t refused = defaultServiceManager()->addService(String16("test.echo"), service);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    EXPECT_EQ(refused, UNKNOWN_ERROR);
}

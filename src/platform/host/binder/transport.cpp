// The binder transport on the host: one Unix SOCK_SEQPACKET socket per service.
//
// A request is one message: u32 code, u32 flags, the data parcel's bytes. A
// reply is one message: i32 status, the reply parcel's bytes. A request
// shorter than the 8-byte header or longer than kBinderTransactionMax never
// reaches the service and is answered FAILED_TRANSACTION, unless it is one-way:
// a one-way request never gets a reply, whatever its size, so that a client's
// replies always pair with its calls.
//
// Serving: one epoll set holds every service's listening socket and every
// accepted connection, each armed EPOLLONESHOT, so exactly one pool thread
// handles a ready socket at a time and re-arms it when done. A pool thread
// does one thing per wake-up (accept the waiting connections, or read one
// request, run it and send its reply, then the next one when it is already
// there, up to a few) and goes back to epoll_wait, so clients take turns.
// Sockets are non-blocking: an idle client costs no thread, and a reply that
// finds no room in the socket waits on its connection (armed for
// EPOLLOUT) instead of holding a thread. A small fixed pool (4 threads unless
// set otherwise) thus serves any number of connections; only a slow
// onTransact holds a thread. Pool threads inherit the signal mask of the
// thread that starts the pool.
//
// Each connection costs a descriptor, which a device's binder does not: at most
// kBinderMaxConnections are open at once, across every service. One beyond
// that is accepted and closed at once, so its client sees the end of the
// stream instead of waiting in the backlog; the others go on. When accept
// fails (out of descriptors or memory) the pool backs off and retries; the
// failure is logged once, and its end once, not once per retry.
//
// Clients: checkService() connects at once (null when nobody listens) and
// hands back a proxy owning that connection. The proxy runs one transaction
// at a time on it; after a transport error it is dead for good.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <fcntl.h>
#include <log/log.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utils/String8.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/binder_host.h"
#include "platform/host_root.h"

namespace android {
namespace {

using tavrend::platform::kBinderMaxConnections;
using tavrend::platform::kBinderTransactionMax;

constexpr const char* kTag = "binder";
constexpr size_t kHeaderSize = 8;  // u32 code, u32 flags
constexpr size_t kStatusSize = 4;
constexpr size_t kDefaultThreads = 4;
constexpr int kAcceptBatch = 16;
constexpr int kServeBatch = 16;  // requests of one connection per wake-up

#define BLOGE(...) __android_log_print(ANDROID_LOG_ERROR, kTag, __VA_ARGS__)
#define BLOGW(...) __android_log_print(ANDROID_LOG_WARN, kTag, __VA_ARGS__)
#define BLOGI(...) __android_log_print(ANDROID_LOG_INFO, kTag, __VA_ARGS__)

std::string toUtf8(const String16& s) {
    const String8 utf8(s);
    return std::string(utf8.c_str(), utf8.size());
}

bool validServiceName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

bool makeAddress(const std::string& path, sockaddr_un* addr) {
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    if (path.size() >= sizeof(addr->sun_path)) return false;
    memcpy(addr->sun_path, path.c_str(), path.size() + 1);
    return true;
}

// A message of `need` bytes needs a send buffer of about twice that; the
// kernel caps SO_SNDBUF, so the privileged form is tried first.
void raiseSendBuffer(int fd, size_t need) {
    const int size = static_cast<int>(need + 4096);
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof(size)) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    }
}

// sendmsg of [head, body] with MSG_NOSIGNAL; on EMSGSIZE the send buffer is
// raised once and the send tried again. -1 with errno on failure.
ssize_t sendTwoParts(int fd, const void* head, size_t headLen, const void* body, size_t bodyLen,
                     int extraFlags) {
    iovec iov[2] = {{const_cast<void*>(head), headLen}, {const_cast<void*>(body), bodyLen}};
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = bodyLen > 0 ? 2 : 1;
    bool raised = false;
    for (;;) {
        ssize_t n = sendmsg(fd, &msg, MSG_NOSIGNAL | extraFlags);
        if (n >= 0) return n;
        if (errno == EINTR) continue;
        if (errno == EMSGSIZE && !raised) {
            raiseSendBuffer(fd, headLen + bodyLen);
            raised = true;
            continue;
        }
        return -1;
    }
}

struct Entry {
    enum Kind { kListener, kConnection };
    Entry(Kind k, int f) : kind(k), fd(f) {}
    const Kind kind;
    const int fd;
};

bool arm(int epfd, int op, Entry* e, uint32_t events) {
    epoll_event ev{};
    ev.events = events | EPOLLONESHOT;
    ev.data.ptr = e;
    return epoll_ctl(epfd, op, e->fd, &ev) == 0;
}

struct Listener : Entry {
    Listener(int fd, std::string p, sp<IBinder> b)
        : Entry(kListener, fd), path(std::move(p)), binder(std::move(b)) {}
    const std::string path;
    sp<IBinder> binder;  // guarded by Host::mutex_
};

// Owned by the one pool thread that handles it at a time (EPOLLONESHOT).
struct Connection : Entry {
    Connection(int fd, sp<IBinder> b) : Entry(kConnection, fd), binder(std::move(b)) {}
    // Held by the pool thread serving the connection, re-arming included. It
    // is never contended for long: it only orders one thread's turn after the
    // last one's, which the kernel already does but tools can't see.
    std::mutex serving;
    const sp<IBinder> binder;
    std::vector<uint8_t> pending;  // a reply waiting for room in the socket
};

// A condition that is logged when it starts and when it ends, however often it
// is met in between.
class Episode {
public:
    bool begin() { return !on_.exchange(true); }  // true when it was not on
    bool end() { return on_.exchange(false); }    // true when it was on
    void clear() { on_ = false; }

private:
    std::atomic<bool> on_{false};
};

status_t run(const sp<IBinder>& binder, uint32_t code, uint32_t flags, const uint8_t* data,
             size_t len, Parcel* reply) {
    try {
        Parcel in;
        status_t err = in.setData(data, len);
        if (err != OK) return err;
        err = binder->transact(code, in, reply, flags);
        if (reply->dataSize() > kBinderTransactionMax) {
            BLOGW("binder reply of %zu bytes dropped", reply->dataSize());
            reply->freeData();
            return FAILED_TRANSACTION;
        }
        return err;
    } catch (const std::exception& e) {
        BLOGE("binder transaction %u failed: %s", code, e.what());
    } catch (...) {
        BLOGE("binder transaction %u failed", code);
    }
    reply->freeData();
    return FAILED_TRANSACTION;
}

// False when the connection must be closed.
bool sendReply(Connection* c, status_t status, const Parcel& reply) {
    const int32_t st = status;
    if (sendTwoParts(c->fd, &st, kStatusSize, reply.data(), reply.dataSize(), MSG_DONTWAIT) >= 0) {
        return true;
    }
    if (errno == EMSGSIZE) {
        // Too large even for a raised send buffer (a host without the privilege).
        BLOGW("binder reply of %zu bytes too large for the socket", reply.dataSize());
        return sendReply(c, FAILED_TRANSACTION, Parcel());
    }
    if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
    // The client has not read its earlier replies: park this one.
    c->pending.resize(kStatusSize + reply.dataSize());
    memcpy(c->pending.data(), &st, kStatusSize);
    if (reply.dataSize() > 0)
        memcpy(c->pending.data() + kStatusSize, reply.data(), reply.dataSize());
    return true;
}

bool flushPending(Connection* c) {
    if (sendTwoParts(c->fd, c->pending.data(), c->pending.size(), nullptr, 0, MSG_DONTWAIT) >= 0) {
        c->pending.clear();
        return true;
    }
    return errno == EAGAIN || errno == EWOULDBLOCK;
}

// Each message a connection receives then comes with its sender's
// credentials, which tells an empty request from the end of the stream: recv
// gives 0 for both.
void passCredentials(int fd) {
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &one, sizeof(one));
}

// For a 0 from recv() that came without credentials.
bool peerGone(int fd, uint32_t events) {
    if (events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) return true;
    pollfd p{fd, POLLRDHUP, 0};
    return poll(&p, 1, 0) == 1 && (p.revents & (POLLHUP | POLLRDHUP | POLLERR)) != 0;
}

// Reads the requests waiting on the connection, runs them and sends their
// replies. `buf` holds kBinderTransactionMax + 1 bytes, so a longer request
// shows. False when the connection must be closed.
bool serveWaiting(Connection* c, uint32_t events, uint8_t* buf) {
    if (!c->pending.empty() && !flushPending(c)) return false;
    // A client quick to send its next request finds this thread still here:
    // serving it at once saves a trip through epoll. A few at most, so that a
    // busy client does not keep the thread from others.
    for (int i = 0; i < kServeBatch && c->pending.empty(); ++i) {
        ssize_t n;
        msghdr msg;
        iovec iov{buf, kBinderTransactionMax + 1};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
        do {
            msg = msghdr{};
            msg.msg_iov = &iov;
            msg.msg_iovlen = 1;
            msg.msg_control = control;
            msg.msg_controllen = sizeof(control);
            n = recvmsg(c->fd, &msg, MSG_DONTWAIT | MSG_TRUNC);
        } while (n < 0 && errno == EINTR);
        if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
        // The requests a client sent before it left are still served.
        if (n == 0 && msg.msg_controllen == 0 && peerGone(c->fd, events)) return false;
        // n is the whole request's length; the buffer holds its start, so even
        // a request too long to run shows its header and whether it is one-way.
        const size_t len = static_cast<size_t>(n);
        uint32_t header[2] = {0, 0};
        if (len >= kHeaderSize) memcpy(header, buf, sizeof(header));
        const bool oneway = len >= kHeaderSize && (header[1] & IBinder::FLAG_ONEWAY) != 0;
        Parcel reply;
        status_t status = FAILED_TRANSACTION;
        if (len < kHeaderSize || len > kBinderTransactionMax) {
            BLOGW("binder request of %zu bytes refused", len);
        } else {
            status =
                run(c->binder, header[0], header[1], buf + kHeaderSize, len - kHeaderSize, &reply);
        }
        if (!oneway && !sendReply(c, status, reply)) return false;
    }
    return true;
}

class Host {
public:
    static Host& get() {
        static Host* host = new Host();  // never destroyed: pool threads may outlive statics
        return *host;
    }

    status_t addService(const std::string& name, const sp<IBinder>& binder);
    void startPool();
    status_t setThreadCount(size_t n);
    void reset();

private:
    bool ensureEpollLocked();
    void workerLoop(int epfd);
    void acceptAll(int epfd, Listener* l);
    void closeConnection(Connection* c);

    std::mutex mutex_;
    int epfd_ = -1;
    int stopFd_ = -1;  // eventfd in the epoll set: readable means the pool stops
    std::map<std::string, std::unique_ptr<Listener>> listeners_;
    std::unordered_set<Connection*> connections_;
    std::vector<std::thread> threads_;
    size_t threadCount_ = kDefaultThreads;
    bool started_ = false;
    Episode acceptFailing_;  // accept fails, for want of descriptors or memory
    Episode full_;           // kBinderMaxConnections are open
};

bool Host::ensureEpollLocked() {
    if (epfd_ >= 0) return true;
    int ep = epoll_create1(EPOLL_CLOEXEC);
    int stop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event ev{};
    ev.events = EPOLLIN;  // level-triggered, never read: wakes every pool thread
    ev.data.ptr = nullptr;
    if (ep < 0 || stop < 0 || epoll_ctl(ep, EPOLL_CTL_ADD, stop, &ev) != 0) {
        BLOGE("cannot set up the binder pool: %s", strerror(errno));
        if (ep >= 0) close(ep);
        if (stop >= 0) close(stop);
        return false;
    }
    epfd_ = ep;
    stopFd_ = stop;
    return true;
}

status_t Host::addService(const std::string& name, const sp<IBinder>& binder) {
    if (binder == nullptr || !validServiceName(name)) {
        BLOGE("addService: invalid service '%s'", name.c_str());
        return BAD_VALUE;
    }
    sp<IBinder> replaced;  // declared first: released once the lock is dropped
    std::lock_guard<std::mutex> lock(mutex_);
    if (auto it = listeners_.find(name); it != listeners_.end()) {
        replaced = std::exchange(it->second->binder, binder);
        return OK;
    }
    if (!ensureEpollLocked()) return UNKNOWN_ERROR;

    const std::string devicePath = tavrend::platform::binderSocketDevicePath(name);
    const std::string path = tavrend::platform::hostPath(devicePath);
    sockaddr_un addr;
    if (!makeAddress(path, &addr)) {
        BLOGE("addService: socket path for %s is too long", devicePath.c_str());
        return BAD_VALUE;
    }
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    struct stat st;
    if (lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            BLOGE("addService: %s exists and is not a socket", devicePath.c_str());
            return ALREADY_EXISTS;
        }
        unlink(path.c_str());  // left by an earlier run
    }
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        chmod(path.c_str(), 0660) != 0 || listen(fd, SOMAXCONN) != 0) {
        const int err = errno;
        BLOGE("addService: cannot listen on %s: %s", devicePath.c_str(), strerror(err));
        if (fd >= 0) close(fd);
        return -err;
    }
    auto l = std::make_unique<Listener>(fd, path, binder);
    if (!arm(epfd_, EPOLL_CTL_ADD, l.get(), EPOLLIN)) {
        const int err = errno;
        BLOGE("addService: epoll: %s", strerror(err));
        close(fd);
        unlink(path.c_str());
        return -err;
    }
    listeners_.emplace(name, std::move(l));
    return OK;
}

void Host::startPool() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (started_ || !ensureEpollLocked()) return;
    // The threads inherit the caller's signal mask and nothing else is done to
    // it, as on a device: a caller that wants a signal kept off the pool
    // blocks it around this call.
    for (size_t i = 0; i < threadCount_; ++i) {
        try {
            threads_.emplace_back([this, ep = epfd_] { workerLoop(ep); });
        } catch (const std::system_error& e) {
            BLOGE("cannot start a binder pool thread: %s", e.what());
            break;
        }
    }
    started_ = !threads_.empty();
}

status_t Host::setThreadCount(size_t n) {
    if (n == 0) return BAD_VALUE;
    std::lock_guard<std::mutex> lock(mutex_);
    threadCount_ = n;
    return OK;
}

void Host::reset() {
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        threads.swap(threads_);
        if (!threads.empty()) {
            const uint64_t one = 1;
            if (write(stopFd_, &one, sizeof(one)) != sizeof(one)) {
                BLOGE("cannot stop the binder pool: %s", strerror(errno));
            }
        }
    }
    for (auto& t : threads) t.join();

    // Services are released outside the lock: their destructors may call in here.
    std::unordered_set<Connection*> connections;
    std::map<std::string, std::unique_ptr<Listener>> listeners;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        connections.swap(connections_);
        listeners.swap(listeners_);
        if (epfd_ >= 0) close(epfd_);
        if (stopFd_ >= 0) close(stopFd_);
        epfd_ = stopFd_ = -1;
        threadCount_ = kDefaultThreads;
        started_ = false;
        acceptFailing_.clear();
        full_.clear();
    }
    for (Connection* c : connections) {
        close(c->fd);
        delete c;
    }
    for (auto& [name, l] : listeners) {
        close(l->fd);
        unlink(l->path.c_str());
    }
}

void Host::workerLoop(int epfd) {
    // One request at most this size plus one byte, so a longer one shows.
    std::unique_ptr<uint8_t[]> buf(new uint8_t[kBinderTransactionMax + 1]);
    for (;;) {
        epoll_event ev;
        int n = epoll_wait(epfd, &ev, 1, -1);
        if (n < 0 && errno != EINTR) {
            BLOGE("binder pool: epoll_wait: %s", strerror(errno));
            return;
        }
        if (n <= 0) continue;
        if (ev.data.ptr == nullptr) return;  // the stop event
        auto* e = static_cast<Entry*>(ev.data.ptr);
        if (e->kind == Entry::kListener) {
            acceptAll(epfd, static_cast<Listener*>(e));
            continue;
        }
        auto* c = static_cast<Connection*>(e);
        c->serving.lock();
        const bool keep =
            serveWaiting(c, ev.events, buf.get()) &&
            arm(epfd, EPOLL_CTL_MOD, c, (c->pending.empty() ? EPOLLIN : EPOLLOUT) | EPOLLRDHUP);
        c->serving.unlock();
        if (!keep) closeConnection(c);
    }
}

void Host::acceptAll(int epfd, Listener* l) {
    for (int i = 0; i < kAcceptBatch; ++i) {
        int fd = accept4(l->fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) break;
            // Out of descriptors or memory (EMFILE, ENFILE, ENOBUFS, ENOMEM): the
            // connection stays queued. Back off rather than spin, and say it once.
            if (acceptFailing_.begin()) {
                BLOGE("binder accept: %s; retrying quietly until it succeeds", strerror(errno));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            break;
        }
        if (acceptFailing_.end()) BLOGI("binder accept: succeeds again");
        passCredentials(fd);
        Connection* c = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (connections_.size() < kBinderMaxConnections) {
                c = new Connection(fd, l->binder);
                connections_.insert(c);
            }
        }
        if (c == nullptr) {
            close(fd);  // its client sees the end of the stream
            if (full_.begin()) {
                BLOGW("binder: %zu connections open, refusing new ones until some close",
                      kBinderMaxConnections);
            }
            continue;
        }
        if (full_.end()) BLOGI("binder: accepting connections again");
        // Once added, another pool thread may own (and close) it: not touched again here.
        if (!arm(epfd, EPOLL_CTL_ADD, c, EPOLLIN | EPOLLRDHUP)) {
            BLOGE("binder accept: epoll: %s", strerror(errno));
            closeConnection(c);
        }
    }
    arm(epfd, EPOLL_CTL_MOD, l, EPOLLIN);
}

void Host::closeConnection(Connection* c) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        connections_.erase(c);
    }
    close(c->fd);  // also takes it out of the epoll set
    delete c;
}

// The client side of a service's connection.
class SocketProxy : public IBinder {
public:
    explicit SocketProxy(int fd) : fd_(fd) {}

    const String16& getInterfaceDescriptor() const override;
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply,
                      uint32_t flags = 0) override;

protected:
    ~SocketProxy() override {
        if (fd_ >= 0) close(fd_);
    }

private:
    status_t deadLocked() {
        close(fd_);
        fd_ = -1;
        return DEAD_OBJECT;
    }

    std::mutex mutex_;
    int fd_;                          // -1 once dead; guarded by mutex_
    std::unique_ptr<uint8_t[]> buf_;  // reply buffer; guarded by mutex_

    mutable std::mutex descriptorMutex_;
    mutable String16 descriptor_;  // written once, before haveDescriptor_
    mutable std::atomic<bool> haveDescriptor_{false};
};

const String16& SocketProxy::getInterfaceDescriptor() const {
    static const String16* const kEmpty = new String16();
    if (haveDescriptor_.load(std::memory_order_acquire)) return descriptor_;
    std::lock_guard<std::mutex> lock(descriptorMutex_);
    if (haveDescriptor_.load(std::memory_order_relaxed)) return descriptor_;
    Parcel data, reply;
    String16 got;
    if (const_cast<SocketProxy*>(this)->transact(INTERFACE_TRANSACTION, data, &reply) != OK ||
        reply.readString16(&got) != OK) {
        return *kEmpty;
    }
    descriptor_ = std::move(got);
    haveDescriptor_.store(true, std::memory_order_release);
    return descriptor_;
}

status_t SocketProxy::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (data.dataSize() > kBinderTransactionMax - kHeaderSize) {
        BLOGW("binder request of %zu bytes too large", data.dataSize());
        return FAILED_TRANSACTION;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (fd_ < 0) return DEAD_OBJECT;
    const uint32_t header[2] = {code, flags};
    if (sendTwoParts(fd_, header, kHeaderSize, data.data(), data.dataSize(), 0) < 0) {
        if (errno == EMSGSIZE) return FAILED_TRANSACTION;
        return deadLocked();
    }
    if (flags & FLAG_ONEWAY) return OK;

    constexpr size_t kReplyMax = kStatusSize + kBinderTransactionMax;
    if (!buf_) buf_.reset(new uint8_t[kReplyMax + 1]);
    ssize_t n;
    do {
        n = recv(fd_, buf_.get(), kReplyMax + 1, MSG_TRUNC);
    } while (n < 0 && errno == EINTR);
    if (n <= 0) return deadLocked();
    if (static_cast<size_t>(n) < kStatusSize || static_cast<size_t>(n) > kReplyMax) {
        BLOGW("binder reply of %zd bytes malformed", n);
        return FAILED_TRANSACTION;
    }
    int32_t status;
    memcpy(&status, buf_.get(), kStatusSize);
    if (reply != nullptr) reply->setData(buf_.get() + kStatusSize, n - kStatusSize);
    return status;
}

sp<IBinder> connectService(const String16& name) {
    const std::string utf8 = toUtf8(name);
    if (!validServiceName(utf8)) return nullptr;
    sockaddr_un addr;
    if (!makeAddress(tavrend::platform::hostPath(tavrend::platform::binderSocketDevicePath(utf8)),
                     &addr)) {
        return nullptr;
    }
    int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return nullptr;
    }
    return sp<IBinder>(new SocketProxy(fd));
}

class HostServiceManager : public IServiceManager {
public:
    sp<IBinder> checkService(const String16& name) const override { return connectService(name); }
    sp<IBinder> getService(const String16& name) const override { return connectService(name); }
    status_t addService(const String16& name, const sp<IBinder>& service, bool, int) override {
        return Host::get().addService(toUtf8(name), service);
    }

protected:
    IBinder* onAsBinder() override { return nullptr; }
};

}  // namespace

sp<IServiceManager> defaultServiceManager() {
    static const sp<IServiceManager>* const sm = new sp<IServiceManager>(new HostServiceManager());
    return *sm;
}

sp<ProcessState> ProcessState::self() {
    static const sp<ProcessState>* const self = new sp<ProcessState>(new ProcessState());
    return *self;
}

void ProcessState::startThreadPool() { Host::get().startPool(); }

status_t ProcessState::setThreadPoolMaxThreadCount(size_t maxThreads) {
    return Host::get().setThreadCount(maxThreads);
}

}  // namespace android

namespace tavrend::platform {

std::string binderSocketDevicePath(const std::string& serviceName) {
    return "/dev/socket/binder/" + serviceName;
}

void resetBinderHost() { android::Host::get().reset(); }

bool serveBinderRequests(int fd, const android::sp<android::IBinder>& binder) {
    // One receive buffer for every caller, never freed; callers take turns.
    static std::mutex mutex;
    static uint8_t* const buf = new uint8_t[kBinderTransactionMax + 1];
    std::lock_guard<std::mutex> lock(mutex);
    android::passCredentials(fd);
    android::Connection c(fd, binder);
    pollfd p{fd, POLLIN, 0};
    do {
        if (!android::serveWaiting(&c, 0, buf) || !c.pending.empty()) return false;
    } while (poll(&p, 1, 0) == 1);
    return true;
}

}  // namespace tavrend::platform

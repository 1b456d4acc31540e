// tavrendctl upl and call: transactions to a binder service of the device root.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "monitors/TavrendIPC.h"
#include "toolbox/Commands.h"

using android::Parcel;
using android::status_t;
using android::String16;

namespace tavrendctl {

namespace {

constexpr const char* kIpcService = android::kTavrendIpcServiceName;
constexpr const char* kIpcDescriptor = android::kTavrendIpcDescriptor;
constexpr uint32_t kRecordLatencyCode = android::kRecordDuplTransaction;

template <typename T>
bool parseInt(const char* text, T* out) {
    errno = 0;
    char* end = nullptr;
    if (*text == '\0' || isspace(static_cast<unsigned char>(*text))) return false;
    if constexpr (std::numeric_limits<T>::is_signed) {
        long long v = strtoll(text, &end, 10);
        if (errno != 0 || *end != '\0' || v < std::numeric_limits<T>::min() ||
            v > std::numeric_limits<T>::max()) {
            return false;
        }
        *out = static_cast<T>(v);
    } else {
        if (*text == '-') return false;
        unsigned long long v = strtoull(text, &end, 10);
        if (errno != 0 || *end != '\0' || v > std::numeric_limits<T>::max()) return false;
        *out = static_cast<T>(v);
    }
    return true;
}

const char* statusName(status_t s) {
    switch (s) {
        case android::OK: return "OK";
        case android::PERMISSION_DENIED: return "PERMISSION_DENIED";
        case android::NAME_NOT_FOUND: return "NAME_NOT_FOUND";
        case android::BAD_VALUE: return "BAD_VALUE";
        case android::DEAD_OBJECT: return "DEAD_OBJECT";
        case android::NOT_ENOUGH_DATA: return "NOT_ENOUGH_DATA";
        case android::UNKNOWN_TRANSACTION: return "UNKNOWN_TRANSACTION";
        case android::BAD_TYPE: return "BAD_TYPE";
        case android::FAILED_TRANSACTION: return "FAILED_TRANSACTION";
        case android::UNEXPECTED_NULL: return "UNEXPECTED_NULL";
        default: return "";
    }
}

void printStatus(status_t s) {
    const char* name = statusName(s);
    if (*name != '\0') {
        printf("status: %d (%s)\n", s, name);
    } else {
        printf("status: %d\n", s);
    }
}

// One line of up to 16 bytes: words in hex, then the bytes as text.
std::string dumpLine(const uint8_t* p, size_t n) {
    std::string out;
    char word[16];
    for (size_t i = 0; i < n; i += 4) {
        uint32_t v = 0;
        for (size_t b = 0; b < 4 && i + b < n; ++b) v |= static_cast<uint32_t>(p[i + b]) << (8 * b);
        snprintf(word, sizeof(word), "%s%08" PRIx32, i > 0 ? " " : "", v);
        out += word;
    }
    out += " '";
    for (size_t i = 0; i < n; ++i) out += isprint(p[i]) ? static_cast<char>(p[i]) : '.';
    out += "'";
    return out;
}

void printParcel(const Parcel& p) {
    const uint8_t* d = p.data();
    const size_t n = p.dataSize();
    if (n <= 16) {
        printf("Result: Parcel(%s)\n", n > 0 ? dumpLine(d, n).c_str() : "");
        return;
    }
    printf("Result: Parcel(\n");
    for (size_t off = 0; off < n; off += 16) {
        printf("  0x%08zx: %s%s\n", off, dumpLine(d + off, n - off < 16 ? n - off : 16).c_str(),
               off + 16 >= n ? ")" : "");
    }
}

android::sp<android::IBinder> findService(const char* name) {
    auto binder = android::defaultServiceManager()->checkService(String16(name));
    if (binder == nullptr) fprintf(stderr, "tavrendctl: service '%s' not found\n", name);
    return binder;
}

int failedStatus(status_t s) {
    const char* name = statusName(s);
    fprintf(stderr, "tavrendctl: transaction failed with status %d%s%s%s\n", s, *name ? " (" : "",
            name, *name ? ")" : "");
    return 1;
}

int upl(const char* msText) {
    int64_t ms;
    if (!parseInt(msText, &ms)) {
        return usageError(kUplCommand, "bad latency '%s'", msText);
    }
    if (ms != static_cast<int32_t>(ms)) {
        fprintf(stderr,
                "tavrendctl: warning: %" PRId64
                " does not fit in 32 bits; the daemon keeps its "
                "low 32 bits, %" PRId32 "\n",
                ms, static_cast<int32_t>(static_cast<uint32_t>(ms)));
    }
    auto binder = findService(kIpcService);
    if (binder == nullptr) return 1;
    Parcel data, reply;
    data.writeInterfaceToken(String16(kIpcDescriptor));
    data.writeInt64(ms);
    const status_t status = binder->transact(kRecordLatencyCode, data, &reply);
    printStatus(status);
    int32_t result = 0;
    const bool haveResult = reply.readInt32(&result) == android::OK;
    if (haveResult) printf("reply: %" PRId32 "\n", result);
    if (status != android::OK) return failedStatus(status);
    if (!haveResult) {
        fprintf(stderr, "tavrendctl: the reply holds no int32\n");
        return 1;
    }
    if (result != 0) {
        fprintf(stderr, "tavrendctl: the service answered %" PRId32 "\n", result);
        return 1;
    }
    return 0;
}

int call(int argc, const char* const* argv) {
    // argv: SERVICE CODE [args...]
    uint32_t code;
    if (!parseInt(argv[1], &code)) {
        return usageError(kCallCommand, "bad transaction code '%s'", argv[1]);
    }
    Parcel data;
    uint32_t flags = 0;
    for (int i = 2; i < argc; ++i) {
        const std::string kind = argv[i];
        if (kind == "oneway") {
            flags |= android::IBinder::FLAG_ONEWAY;
            continue;
        }
        if (i + 1 >= argc) {
            return usageError(kCallCommand, "'%s' needs a value", kind.c_str());
        }
        const char* value = argv[++i];
        int32_t v32;
        int64_t v64;
        if (kind == "token") {
            data.writeInterfaceToken(String16(value));
        } else if (kind == "s16") {
            data.writeString16(String16(value));
        } else if (kind == "i32" && parseInt(value, &v32)) {
            data.writeInt32(v32);
        } else if (kind == "i64" && parseInt(value, &v64)) {
            data.writeInt64(v64);
        } else {
            return usageError(kCallCommand, "bad argument '%s %s'", kind.c_str(), value);
        }
    }
    auto binder = findService(argv[0]);
    if (binder == nullptr) return 1;
    Parcel reply;
    const status_t status = binder->transact(code, data, &reply, flags);
    printStatus(status);
    if ((flags & android::IBinder::FLAG_ONEWAY) == 0) printParcel(reply);
    return status == android::OK ? 0 : failedStatus(status);
}

int runUpl(const Args& a) { return upl(a.operands[0].c_str()); }

int runCall(const Args& a) {
    std::vector<const char*> argv;
    for (const std::string& s : a.operands) argv.push_back(s.c_str());
    return call(static_cast<int>(argv.size()), argv.data());
}

}  // namespace

const Command kUplCommand = {
    "upl",
    "MS",
    "Sends one latency sample of MS milliseconds to tavrend.ipc.service: transaction\n"
    "2 with the interface token com.corvail.android.service.TavrenIPC, then MS as an\n"
    "int64. Prints 'status: S' and 'reply: R', the reply's int32. The daemon keeps\n"
    "the low 32 bits of MS: a value outside 32 bits is sent with a warning.\n"
    "\n"
    "Exit status: 0 the service answered 0; 1 no such service, a status other than\n"
    "0 or a reply other than 0; 2 bad arguments.\n",
    {},
    1,
    1,
    true,
    runUpl};

const Command kCallCommand = {
    "call",
    "SERVICE CODE [token TEXT] [i32 N] [i64 N] [s16 TEXT] [oneway]",
    "Sends transaction CODE to SERVICE; the arguments, in order, make the data\n"
    "parcel: 'token TEXT' an interface token, 'i32 N' and 'i64 N' integers, 's16\n"
    "TEXT' a string; 'oneway' sends it one-way (no reply). The daemon's\n"
    "tavrend.ipc.service takes transaction 2 with the token\n"
    "com.corvail.android.service.TavrenIPC and an i64 latency, e.g.:\n"
    "  tavrendctl call tavrend.ipc.service 2 token com.corvail.android.service.TavrenIPC "
    "i64 250\n"
    "Prints 'status: S' and the reply parcel as 'Result: Parcel(...)': 32-bit\n"
    "little-endian words in hex, then the bytes as text ('.' for unprintable ones),\n"
    "16 bytes a line when longer.\n"
    "\n"
    "Exit status: 0 the status is 0; 1 no such service or another status; 2 bad\n"
    "arguments.\n",
    {},
    2,
    kAnyOperands,
    true,
    runCall};

}  // namespace tavrendctl

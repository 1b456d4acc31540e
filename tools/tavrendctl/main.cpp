// tavrendctl: the host command line for a device root.
//
//   tavrendctl getprop NAME [DEFAULT]
//   tavrendctl setprop NAME VALUE
//   tavrendctl upl MS
//   tavrendctl call SERVICE CODE [token TEXT] [i32 N] [i64 N] [s16 TEXT] [oneway]
//
// The device root comes from TAVREND_ROOT, as for the daemon.
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <cutils/properties.h>

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "Commands.h"
#include "monitors/TavrendIPC.h"

using android::Parcel;
using android::status_t;
using android::String16;

namespace {

constexpr const char* kIpcService = android::kTavrendIpcServiceName;
constexpr const char* kIpcDescriptor = android::kTavrendIpcDescriptor;
constexpr uint32_t kRecordLatencyCode = android::kRecordDuplTransaction;

// The usage text, on standard error after a mistake (exit 2) or on standard
// output for --help (exit 0).
int usage(FILE* out = stderr, int status = 2) {
    fprintf(out,
            "usage: tavrendctl getprop NAME [DEFAULT]\n"
            "       tavrendctl setprop NAME VALUE\n"
            "       tavrendctl upl MS\n"
            "       tavrendctl call SERVICE CODE [token TEXT] [i32 N] [i64 N] [s16 TEXT] [oneway]\n"
            "       tavrendctl check-config [ROOT]   (see tavrendctl check-config --help)\n"
            "       tavrendctl report LOGFILE [--trace OUT.json] [--svg DIR]\n"
            "       tavrendctl sim SCENARIO [--scale N]\n"
            "       tavrendctl status [LOG...|-] [--follow] [--json]\n"
            "       tavrendctl --help\n"
            "\n"
            "upl sends one latency sample of MS milliseconds to %s (transaction %u,\n"
            "interface token, int64 MS) and prints 'status: S' and 'reply: R', the reply's int32.\n"
            "\n"
            "call sends transaction CODE to SERVICE; the arguments, in order, make the data\n"
            "parcel: 'token TEXT' an interface token, 'i32 N' and 'i64 N' integers, 's16 TEXT'\n"
            "a string; 'oneway' sends it one-way (no reply). It prints 'status: S' and the reply\n"
            "parcel as 'Result: Parcel(...)': 32-bit little-endian words in hex, then the bytes\n"
            "as text ('.' for unprintable ones), 16 bytes a line when longer.\n"
            "\n"
            "getprop prints the value (or DEFAULT); setprop exits 1 when the set is refused.\n"
            "upl and call exit 1 when the service does not exist, the status is not 0 or\n"
            "(upl) the reply is not 0. Every subcommand exits 2 for bad arguments; errors\n"
            "go to standard error. check-config, report and sim state their own exit codes\n"
            "in their --help. The device root is $TAVREND_ROOT (default /).\n",
            kIpcService, kRecordLatencyCode);
    return status;
}

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
        fprintf(stderr, "tavrendctl: bad latency '%s'\n", msText);
        return usage();
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

int call(int argc, char** argv) {
    // argv: SERVICE CODE [args...]
    uint32_t code;
    if (!parseInt(argv[1], &code)) {
        fprintf(stderr, "tavrendctl: bad transaction code '%s'\n", argv[1]);
        return usage();
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
            fprintf(stderr, "tavrendctl: '%s' needs a value\n", kind.c_str());
            return usage();
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
            fprintf(stderr, "tavrendctl: bad argument '%s %s'\n", kind.c_str(), value);
            return usage();
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

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage();
    const char* cmd = argv[1];
    if (argc == 2 && (strcmp(cmd, "--help") == 0 || strcmp(cmd, "-h") == 0)) {
        return usage(stdout, 0);
    }
    if (strcmp(cmd, "getprop") == 0 && (argc == 3 || argc == 4)) {
        char value[PROPERTY_VALUE_MAX];
        property_get(argv[2], value, argc == 4 ? argv[3] : "");
        printf("%s\n", value);
        return 0;
    }
    if (strcmp(cmd, "setprop") == 0 && argc == 4) {
        if (property_set(argv[2], argv[3]) != 0) {
            fprintf(stderr, "tavrendctl: failed to set property '%s' to '%s'\n", argv[2], argv[3]);
            return 1;
        }
        return 0;
    }
    if (strcmp(cmd, "upl") == 0 && argc == 3) return upl(argv[2]);
    if (strcmp(cmd, "call") == 0 && argc >= 4) return call(argc - 2, argv + 2);
    if (strcmp(cmd, "check-config") == 0) return checkConfigCommand(argc - 1, argv + 1);
    if (strcmp(cmd, "report") == 0) return reportCommand(argc - 1, argv + 1);
    if (strcmp(cmd, "sim") == 0) return simCommand(argc - 1, argv + 1);
    if (strcmp(cmd, "status") == 0) return statusCommand(argc - 1, argv + 1);
    return usage();
}

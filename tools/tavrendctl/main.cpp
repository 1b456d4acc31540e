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
#include <sys/stat.h>

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
            "       tavrendctl sim SCENARIO [--scale N] [--json] | --clean\n"
            "       tavrendctl status [LOG...|-] [--follow] [--json]\n"
            "       tavrendctl --help | --version\n"
            "       tavrendctl SUBCOMMAND --help\n"
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

// The subcommands of this file: their synopsis and what --help adds to it.
struct Subcommand {
    const char* name;
    const char* synopsis;
    const char* help;
};

const Subcommand kSubcommands[] = {
    {"getprop", "NAME [DEFAULT]",
     "Prints the value of property NAME, or DEFAULT (else an empty line) when it is\n"
     "unset. Properties are files under $TAVREND_ROOT/dev/__properties__.\n"},
    {"setprop", "NAME VALUE",
     "Sets property NAME to VALUE, as a device does: names are letters, digits and\n"
     ". - @ : _; values are at most 91 bytes except under ro.; an ro. property is\n"
     "set once. Exits 1, saying why, when the set is refused.\n"},
    {"upl", "MS",
     "Sends one latency sample of MS milliseconds to tavrend.ipc.service: transaction\n"
     "2 with the interface token com.corvail.android.service.TavrenIPC, then MS as an\n"
     "int64. Prints 'status: S' and 'reply: R'. The daemon keeps the low 32 bits of\n"
     "MS: a value outside 32 bits is sent with a warning.\n"},
    {"call", "SERVICE CODE [token TEXT] [i32 N] [i64 N] [s16 TEXT] [oneway]",
     "Sends transaction CODE to SERVICE; the arguments, in order, make the data\n"
     "parcel: 'token TEXT' an interface token, 'i32 N' and 'i64 N' integers, 's16\n"
     "TEXT' a string; 'oneway' sends it one-way. The daemon's tavrend.ipc.service\n"
     "takes transaction 2 with the token com.corvail.android.service.TavrenIPC and\n"
     "an i64 latency, e.g.:\n"
     "  tavrendctl call tavrend.ipc.service 2 token com.corvail.android.service.TavrenIPC "
     "i64 250\n"
     "Prints 'status: S' and the reply parcel as 'Result: Parcel(...)'.\n"},
};

const Subcommand* findSubcommand(const char* name) {
    for (const Subcommand& sub : kSubcommands) {
        if (strcmp(sub.name, name) == 0) return &sub;
    }
    return nullptr;
}

bool isHelp(const char* arg) { return strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0; }

// "SUBCOMMAND --help" on standard output, or its synopsis after a mistake.
int subcommandUsage(const Subcommand& sub, bool help) {
    FILE* out = help ? stdout : stderr;
    fprintf(out, "usage: tavrendctl %s %s\n", sub.name, sub.synopsis);
    if (help) fprintf(out, "\n%s", sub.help);
    return help ? 0 : 2;
}

// The device root of $TAVREND_ROOT must exist: a mistyped one would be made.
bool rootExists() {
    const char* root = getenv("TAVREND_ROOT");
    if (root == nullptr || *root == '\0') return true;
    struct stat st;
    if (stat(root, &st) == 0 && S_ISDIR(st.st_mode)) return true;
    fprintf(stderr, "tavrendctl: the device root %s ($TAVREND_ROOT) is not a directory\n", root);
    return false;
}

// Why property_set refused NAME=VALUE; errno is what it left.
std::string whySetFailed(const char* name, const char* value, int err) {
    const bool readOnly = strncmp(name, "ro.", 3) == 0;
    if (!readOnly && strlen(value) >= PROPERTY_VALUE_MAX) {
        return "the value is " + std::to_string(strlen(value)) + " bytes, at most " +
               std::to_string(PROPERTY_VALUE_MAX - 1) + " are allowed outside ro.";
    }
    char existing[PROPERTY_VALUE_MAX];
    if (readOnly && property_get(name, existing, "") > 0) return "it is read-only and already set";
    if (err == 0) return "not a property name (letters, digits and . - @ : _ between dots)";
    return std::string("cannot store it under $TAVREND_ROOT/dev/__properties__: ") + strerror(err);
}

int setprop(const char* name, const char* value) {
    errno = 0;
    if (property_set(name, value) == 0) return 0;
    const int err = errno;
    fprintf(stderr, "tavrendctl: failed to set property '%s' to '%s': %s\n", name, value,
            whySetFailed(name, value, err).c_str());
    return 1;
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
    if (argc == 2 && isHelp(cmd)) return usage(stdout, 0);
    if (argc == 2 && strcmp(cmd, "--version") == 0) {
        printf("tavrendctl %s\n", TAVREND_VERSION);
        return 0;
    }
    if (const Subcommand* sub = findSubcommand(cmd)) {
        if (argc == 3 && isHelp(argv[2])) return subcommandUsage(*sub, true);
        const bool argsOk = strcmp(cmd, "getprop") == 0   ? argc == 3 || argc == 4
                            : strcmp(cmd, "setprop") == 0 ? argc == 4
                            : strcmp(cmd, "upl") == 0     ? argc == 3
                                                          : argc >= 4;
        if (!argsOk) return subcommandUsage(*sub, false);
        if (!rootExists()) return 2;
    }
    if (strcmp(cmd, "getprop") == 0) {
        char value[PROPERTY_VALUE_MAX];
        property_get(argv[2], value, argc == 4 ? argv[3] : "");
        printf("%s\n", value);
        return 0;
    }
    if (strcmp(cmd, "setprop") == 0) return setprop(argv[2], argv[3]);
    if (strcmp(cmd, "upl") == 0) return upl(argv[2]);
    if (strcmp(cmd, "call") == 0) return call(argc - 2, argv + 2);
    if (strcmp(cmd, "check-config") == 0) return checkConfigCommand(argc - 1, argv + 1);
    if (strcmp(cmd, "report") == 0) return reportCommand(argc - 1, argv + 1);
    if (strcmp(cmd, "sim") == 0) return simCommand(argc - 1, argv + 1);
    if (strcmp(cmd, "status") == 0) return statusCommand(argc - 1, argv + 1);
    fprintf(stderr, "tavrendctl: unknown command '%s'\n", cmd);
    return usage();
}

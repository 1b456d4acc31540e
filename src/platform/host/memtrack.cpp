// Host libmemtrack and memtrack HAL lookup, answered from <root>/dev/memtrack.
#include <android/hardware/memtrack/1.0/IMemtrack.h>
#include <memtrack/memtrack.h>
#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "platform/host_root.h"

struct memtrack_proc {
    bool valid = false;
    ssize_t graphics = -1;
    ssize_t gl = -1;
    ssize_t other = -1;
};

namespace {

// A figures file is one short line; anything longer is not one.
constexpr size_t kMaxFileBytes = 256;

// One signed decimal number after optional blanks; false on no digits or overflow.
bool parseCount(const char*& p, ssize_t& out) {
    while (*p == ' ' || *p == '\t') ++p;
    if (!isdigit(static_cast<unsigned char>(*p)) &&
        !((*p == '-' || *p == '+') && isdigit(static_cast<unsigned char>(p[1])))) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    long long v = strtoll(p, &end, 10);
    if (errno == ERANGE) return false;
    out = static_cast<ssize_t>(v);
    p = end;
    return true;
}

// "8388608 4096 0\n": exactly three numbers, then nothing but white space.
bool parseFigures(const char* text, memtrack_proc& out) {
    const char* p = text;
    ssize_t v[3];
    for (ssize_t& x : v) {
        if (!parseCount(p, x)) return false;
        if (*p != '\0' && !isspace(static_cast<unsigned char>(*p))) return false;
    }
    while (isspace(static_cast<unsigned char>(*p))) ++p;
    if (*p != '\0') return false;
    out.graphics = v[0];
    out.gl = v[1];
    out.other = v[2];
    return true;
}

ssize_t figure(const memtrack_proc* p, ssize_t memtrack_proc::*field) {
    return p != nullptr && p->valid ? p->*field : -1;
}

}  // namespace

extern "C" {

memtrack_proc* memtrack_proc_new(void) { return new (std::nothrow) memtrack_proc(); }

void memtrack_proc_destroy(memtrack_proc* p) { delete p; }

int memtrack_proc_get(memtrack_proc* p, pid_t pid) {
    if (p == nullptr) return -1;
    *p = memtrack_proc{};
    std::string path = "/dev/memtrack/" + std::to_string(pid);
    FILE* f = tavrend::platform::openDeviceFile(path.c_str(), "r");
    if (f == nullptr) return -1;
    char text[kMaxFileBytes + 1];
    size_t n = fread(text, 1, kMaxFileBytes + 1, f);
    bool readError = ferror(f) != 0;
    fclose(f);
    if (readError || n > kMaxFileBytes) return -1;
    text[n] = '\0';
    if (memchr(text, '\0', n) != nullptr) return -1;  // NUL bytes: not a text line
    memtrack_proc figures;
    if (!parseFigures(text, figures)) return -1;
    figures.valid = true;
    *p = figures;
    return 0;
}

ssize_t memtrack_proc_graphics_pss(memtrack_proc* p) { return figure(p, &memtrack_proc::graphics); }
ssize_t memtrack_proc_gl_pss(memtrack_proc* p) { return figure(p, &memtrack_proc::gl); }
ssize_t memtrack_proc_other_pss(memtrack_proc* p) { return figure(p, &memtrack_proc::other); }

}  // extern "C"

namespace android::hardware::memtrack::V1_0 {

::android::sp<IMemtrack> IMemtrack::getService(const std::string& /*serviceName*/,
                                               bool /*getStub*/) {
    struct stat st;
    const std::string dir = tavrend::platform::hostPath("/dev/memtrack");
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return nullptr;
    return ::android::sp<IMemtrack>(new IMemtrack);
}

}  // namespace android::hardware::memtrack::V1_0

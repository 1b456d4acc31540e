// Host property store: one file per property under <root>/dev/__properties__.
#include <cutils/properties.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/host_root.h"

namespace {

constexpr const char* kStoreDir = "/dev/__properties__";

std::mutex gSetMutex;  // serialises the check-then-write of read-only properties

bool validName(const char* name) {
    size_t len = strlen(name);
    if (len == 0 || name[0] == '.' || name[len - 1] == '.') return false;
    if (strstr(name, "..") != nullptr) return false;
    for (size_t i = 0; i < len; ++i) {
        unsigned char c = static_cast<unsigned char>(name[i]);
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '.' || c == '-' || c == '@' || c == ':' || c == '_';
        if (!ok) return false;
    }
    return true;
}

std::string storeDir() { return tavrend::platform::hostPath(kStoreDir); }

// Reads the stored value; false when unset (no file or empty value).
bool readValue(const char* key, std::string& out) {
    if (key == nullptr || !validName(key)) return false;
    std::string path = storeDir() + "/" + key;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    out.clear();
    char buf[512];
    while (true) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
        if (out.size() > 65536) break;  // a property is short; don't slurp a huge file
    }
    close(fd);
    if (!out.empty() && out.back() == '\n') out.pop_back();
    return !out.empty();
}

bool makeDirs(const std::string& dir) {
    std::string partial;
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = dir.find('/', pos + 1);
        partial = dir.substr(0, pos);
        if (partial.empty()) continue;
        if (mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
    return true;
}

std::atomic<unsigned> gTempCounter{0};

}  // namespace

extern "C" int property_get(const char* key, char* value, const char* default_value) {
    std::string v;
    const char* src;
    size_t len;
    if (readValue(key, v)) {
        src = v.c_str();
        len = v.size();
    } else if (default_value != nullptr) {
        src = default_value;
        len = strlen(default_value);
    } else {
        value[0] = '\0';
        return 0;
    }
    if (len > PROPERTY_VALUE_MAX - 1) len = PROPERTY_VALUE_MAX - 1;
    memcpy(value, src, len);
    value[len] = '\0';
    return static_cast<int>(len);
}

extern "C" bool property_get_bool(const char* key, bool default_value) {
    std::string v;
    if (!readValue(key, v)) return default_value;
    if (v.size() == 1) {
        if (v[0] == '0' || v[0] == 'n') return false;
        if (v[0] == '1' || v[0] == 'y') return true;
        return default_value;
    }
    if (v == "no" || v == "false" || v == "off") return false;
    if (v == "yes" || v == "true" || v == "on") return true;
    return default_value;
}

extern "C" int property_set(const char* key, const char* value) {
    if (key == nullptr || !validName(key)) return -1;
    if (value == nullptr) value = "";
    const bool readOnly = strncmp(key, "ro.", 3) == 0;
    const size_t valueLen = strlen(value);
    if (valueLen >= PROPERTY_VALUE_MAX && !readOnly) return -1;

    std::lock_guard<std::mutex> lock(gSetMutex);
    std::string existing;
    if (readOnly && readValue(key, existing)) return -1;

    std::string dir = storeDir();
    if (!makeDirs(dir)) return -1;
    std::string path = dir + "/" + key;
    std::string tmp = dir + "/." + key + ".tmp." + std::to_string(getpid()) + "." +
                      std::to_string(gTempCounter.fetch_add(1));
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return -1;
    size_t off = 0;
    bool ok = true;
    while (off < valueLen) {
        ssize_t n = write(fd, value + off, valueLen - off);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ok = false;
            break;
        }
        off += static_cast<size_t>(n);
    }
    if (close(fd) != 0) ok = false;
    if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
        unlink(tmp.c_str());
        return -1;
    }
    return 0;
}

#include "config/cjson_ext.h"

#include <cstdio>
#include <string>

#include "platform/device_root.h"

namespace {
// Configuration files are small; refuse anything absurd instead of reading it all.
constexpr size_t kMaxJsonFileBytes = size_t{16} << 20;
}  // namespace

extern "C" cJSON* cJSON_Parse_File(const char* path, int flags) {
    (void)flags;
    if (path == nullptr) return nullptr;
    FILE* f = tavrend::platform::openDeviceFile(path, "re");
    if (f == nullptr) return nullptr;
    std::string text;
    char buf[8192];
    size_t n;
    bool tooBig = false;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0) {
        text.append(buf, n);
        if (text.size() > kMaxJsonFileBytes) {
            tooBig = true;
            break;
        }
    }
    bool readError = ferror(f) != 0;
    fclose(f);
    if (tooBig || readError) return nullptr;
    // Trailing text after the value makes the file invalid, as it would any JSON parser;
    // the length includes the string's terminator so that the check can see it.
    return cJSON_ParseWithLengthOpts(text.c_str(), text.size() + 1, nullptr, 1);
}

extern "C" int cJSON_get_bool_val(const cJSON* item) { return cJSON_IsTrue(item) ? 1 : 0; }

#include "toolbox/Text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tavrendctl {

std::string vformat(const char* fmt, va_list ap) {
    va_list again;
    va_copy(again, ap);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): started by the caller
    const int n = vsnprintf(nullptr, 0, fmt, ap);
    std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    if (n > 0) vsnprintf(text.data(), text.size() + 1, fmt, again);
    va_end(again);
    return text;
}

std::string format(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::string text = vformat(fmt, ap);
    va_end(ap);
    return text;
}

std::string limitText(uint64_t kb) {
    return kb == UINT64_MAX ? "none" : std::to_string(kb) + " kB";
}

bool writeFile(const std::string& path, std::string_view content, std::string& error) {
    FILE* f = fopen(path.c_str(), "w");
    bool ok = f != nullptr && fwrite(content.data(), 1, content.size(), f) == content.size();
    if (f != nullptr) ok = fclose(f) == 0 && ok;
    if (!ok) error = "cannot write " + path + ": " + strerror(errno);
    return ok;
}

}  // namespace tavrendctl

// Small pieces shared by the readers of kernel text files: owned FILE* and
// getline() buffers, and scanf-like number scanning without its undefined
// behaviour on overflow.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace quillend::text {

struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

// One getline() buffer that every return path frees.
struct LineBuffer {
    char* data = nullptr;
    size_t capacity = 0;
    LineBuffer() = default;
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;
    ~LineBuffer() { free(data); }
    ssize_t read(FILE* f) { return getline(&data, &capacity, f); }
};

// White space as scanf sees it in the "C" locale.
inline bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

inline const char* skipSpace(const char* p) {
    while (isSpace(*p)) ++p;
    return p;
}

// scanf's "%llu" at `p`: leading white space, an optional sign, decimal
// digits; a number past 2^64-1 saturates. On success `p` moves past it.
inline bool scanU64(const char*& p, uint64_t& value) {
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = strtoull(p, &end, 10);
    if (end == p) return false;
    value = errno == ERANGE ? UINT64_MAX : v;
    p = end;
    return true;
}

// The same on a whole text, where the caller doesn't need the position.
inline bool parseU64(const char* text, uint64_t& value) {
    const char* p = text;
    return scanU64(p, value);
}

}  // namespace quillend::text

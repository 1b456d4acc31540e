// Small pieces shared by the readers of kernel text files: a file read through
// its own descriptor into a buffer on the stack, owned FILE* and getline()
// buffers, and scanf-like number scanning without its undefined behaviour on
// overflow.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string_view>

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

// A device file read as getline() and fgets() would read it, through one
// descriptor and a buffer inside the object (on the reader's stack): no stdio
// stream, so no allocation and no fstat(2) per file, and reads of a page at a
// time. Only a line longer than the buffer moves to the heap; kernel text has
// none. The constructor opens the file and the destructor closes it, so a
// reader still opens and closes its file on every call.
class DeviceText {
public:
    explicit DeviceText(const char* devicePath);
    ~DeviceText();
    DeviceText(const DeviceText&) = delete;
    DeviceText& operator=(const DeviceText&) = delete;

    bool isOpen() const { return fd_ >= 0; }

    // As getline(): the next line with its newline, NUL-terminated; returns its
    // length counting every byte (NULs included), or -1 at the end of the file.
    ssize_t line(const char*& text) {
        restore();
        if (const void* nl = memchr(buf_ + begin_, '\n', end_ - begin_)) {
            const size_t start = begin_;
            text = take(static_cast<size_t>(static_cast<const char*>(nl) - buf_) + 1);
            return static_cast<ssize_t>(begin_ - start);
        }
        return lineAfterRead(text);
    }

    // As fgets() into a buffer of `size` bytes (2 to kChunk): the next line, or
    // its next `size` - 1 bytes when it is longer; nullptr at the end of the file.
    const char* piece(size_t size) {
        restore();
        const size_t available = end_ - begin_;
        const size_t window = available < size - 1 ? available : size - 1;
        if (const void* nl = memchr(buf_ + begin_, '\n', window)) {
            return take(static_cast<size_t>(static_cast<const char*>(nl) - buf_) + 1);
        }
        return pieceAfterRead(size);
    }

    // As piece(size), but skipping every piece whose text after white space
    // doesn't start with one of `prefixes` (which all start with the same
    // character, and hold no newline): the next piece that does, or nullptr at
    // the end of the file. For a reader that looks at no other line; it costs
    // a search for that first character, not a look at every line.
    const char* pieceStartingWith(std::initializer_list<std::string_view> prefixes, size_t size);

    // The first line read as a C string, that is up to its first NUL, as
    // getline() and then strlen() would give it, but without reading past that
    // NUL: a command line's first argument. False for an empty file.
    bool firstString(const char*& text);

    // The end of the text last returned by line() or piece(): its terminating NUL.
    const char* textEnd() const { return buf_ + cut_; }

    static constexpr size_t kChunk = 4096;  // bytes asked of each read(2)

private:
    // The byte that the last text's terminating NUL replaced goes back.
    void restore() {
        if (cut_ != kNoCut) buf_[cut_] = saved_;
        cut_ = kNoCut;
    }
    // Returns the bytes from begin_ to `stop` as a C string.
    const char* take(size_t stop) {
        const char* text = buf_ + begin_;
        saved_ = buf_[stop];
        buf_[stop] = '\0';
        cut_ = stop;
        begin_ = stop;
        return text;
    }
    // line() and piece() when what is buffered doesn't hold the answer.
    ssize_t lineAfterRead(const char*& text);
    const char* pieceAfterRead(size_t size);
    // Where the piece of at most `max` bytes that holds position `at` starts,
    // knowing that one starts at begin_.
    size_t pieceStartOf(size_t at, size_t max) const;
    bool fill();

    int fd_;
    char* buf_;
    size_t cap_ = kChunk;  // bytes of buf_ for data; one more holds a NUL
    size_t begin_ = 0;     // the first byte not yet returned
    size_t end_ = 0;       // the end of what has been read
    static constexpr size_t kNoCut = ~size_t{0};
    size_t cut_ = kNoCut;  // where a NUL was written over the data, if anywhere...
    char saved_ = '\0';    // ...and the byte it replaced
    bool atEnd_ = false;
    std::unique_ptr<char[]> heap_;
    char inline_[kChunk + 1];
};

// White space as scanf sees it in the "C" locale.
inline bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

inline bool isDigit(char c) { return c >= '0' && c <= '9'; }

inline const char* skipSpace(const char* p) {
    while (*p == ' ') ++p;  // the kernel indents with blanks: the short way
    while (isSpace(*p)) ++p;
    return p;
}

// The blanks at the start of the text [p, end), eight at a time: the
// indentation of /proc/zoneinfo is most of the file.
inline const char* skipBlanks(const char* p, const char* end) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    constexpr uint64_t kBlanks = 0x2020202020202020;
    while (end - p >= 8) {
        uint64_t word;
        memcpy(&word, p, sizeof(word));
        // The first byte that is not a blank is the lowest one set in diff.
        if (const uint64_t diff = word ^ kBlanks) return p + __builtin_ctzll(diff) / 8;
        p += 8;
    }
#endif
    while (p < end && *p == ' ') ++p;
    return p;
}

// scanf's "%llu" at `p`: leading white space, an optional sign, decimal
// digits; a number past 2^64-1 saturates. On success `p` moves past it.
inline bool scanU64(const char*& p, uint64_t& value) {
    // Kernel figures take the short way: plain digits, at most 19 of them,
    // can't overflow. Signs, longer numbers and no number go to strtoull.
    const char* digits = skipSpace(p);
    uint64_t small = 0;
    size_t n = 0;
    while (n < 19 && isDigit(digits[n]))
        small = small * 10 + static_cast<uint64_t>(digits[n++] - '0');
    if (n > 0 && !isDigit(digits[n])) {
        value = small;
        p = digits + n;
        return true;
    }
    if (n == 0 && *digits != '+' && *digits != '-') return false;  // no number here
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

// scanf's "%d" on a whole text: leading white space, an optional sign, decimal
// digits. A number past int's range saturates to INT_MIN or INT_MAX, as
// strtol() does with long, instead of scanf's undefined behaviour.
inline bool parseInt(const char* text, int& value) {
    const char* p = skipSpace(text);
    const bool negative = *p == '-';
    if (*p == '-' || *p == '+') ++p;
    uint64_t magnitude = 0;
    if (!isDigit(*p) || !scanU64(p, magnitude)) return false;
    const uint64_t limit = negative ? uint64_t{INT_MAX} + 1 : uint64_t{INT_MAX};
    if (magnitude > limit) {
        value = negative ? INT_MIN : INT_MAX;
    } else {
        value = negative ? static_cast<int>(-static_cast<int64_t>(magnitude))
                         : static_cast<int>(magnitude);
    }
    return true;
}

}  // namespace quillend::text

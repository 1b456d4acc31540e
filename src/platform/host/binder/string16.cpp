// UTF-8 <-> UTF-16 for String16 and String8.
#include <utils/String16.h>
#include <utils/String8.h>

#include <cstring>

namespace android {
namespace {

constexpr char16_t kReplacement = 0xFFFD;

bool isContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

void appendUtf16(std::u16string& out, char32_t cp) {
    if (cp < 0x10000) {
        out.push_back(static_cast<char16_t>(cp));
    } else {
        cp -= 0x10000;
        out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
        out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    }
}

// Decodes one well-formed sequence at s[0..len); its length, or 0 when malformed.
size_t decodeUtf8(const unsigned char* s, size_t len, char32_t* cp) {
    const unsigned char c = s[0];
    size_t need;
    char32_t min;
    if (c < 0x80) {
        *cp = c;
        return 1;
    } else if ((c & 0xE0) == 0xC0) {
        need = 2, min = 0x80, *cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
        need = 3, min = 0x800, *cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
        need = 4, min = 0x10000, *cp = c & 0x07;
    } else {
        return 0;
    }
    if (len < need) return 0;
    for (size_t i = 1; i < need; ++i) {
        if (!isContinuation(s[i])) return 0;
        *cp = (*cp << 6) | (s[i] & 0x3F);
    }
    if (*cp < min || *cp > 0x10FFFF || (*cp >= 0xD800 && *cp <= 0xDFFF)) return 0;
    return need;
}

std::u16string fromUtf8(const char* utf8, size_t len) {
    std::u16string out;
    out.reserve(len);
    const auto* s = reinterpret_cast<const unsigned char*>(utf8);
    size_t i = 0;
    while (i < len) {
        char32_t cp;
        size_t n = decodeUtf8(s + i, len - i, &cp);
        if (n == 0) {
            out.push_back(kReplacement);
            i += 1;
        } else {
            appendUtf16(out, cp);
            i += n;
        }
    }
    return out;
}

void appendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

}  // namespace

String16::String16(const char16_t* s) : s_(s != nullptr ? s : u"") {}

String16::String16(const char16_t* s, size_t len)
    : s_(s != nullptr ? std::u16string(s, len) : u"") {}

String16::String16(const char* utf8) : String16(utf8, utf8 != nullptr ? strlen(utf8) : 0) {}

String16::String16(const char* utf8, size_t len) {
    if (utf8 != nullptr) s_ = fromUtf8(utf8, len);
}

String8::String8(const String16& str) {
    const char16_t* s = str.c_str();
    const size_t len = str.size();
    s_.reserve(len);
    for (size_t i = 0; i < len; ++i) {
        char32_t cp = s[i];
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < len && s[i + 1] >= 0xDC00 &&
            s[i + 1] <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (s[i + 1] - 0xDC00);
            ++i;
        } else if (cp >= 0xD800 && cp <= 0xDFFF) {
            cp = kReplacement;
        }
        appendUtf8(s_, cp);
    }
}

}  // namespace android

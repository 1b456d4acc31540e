// Host stand-in for the device's <utils/String16.h>: a UTF-16 string.
//
// Built from UTF-8, a malformed sequence (a stray or missing continuation
// byte, an overlong form, a surrogate, a value above U+10FFFF) becomes one
// U+FFFD per offending byte; the text never reads past its end.
#pragma once

#include <cstddef>
#include <string>

namespace android {

class String16 {
public:
    String16() = default;
    explicit String16(const char16_t* s);
    String16(const char16_t* s, size_t len);
    explicit String16(const char* utf8);  // nullptr gives the empty string
    String16(const char* utf8, size_t len);

    // Length in UTF-16 units.
    size_t size() const { return s_.size(); }
    // The units, zero-terminated.
    const char16_t* c_str() const { return s_.c_str(); }
    const char16_t* string() const { return s_.c_str(); }

    bool operator==(const String16& o) const { return s_ == o.s_; }
    bool operator<(const String16& o) const { return s_ < o.s_; }

private:
    std::u16string s_;
};

}  // namespace android

// Host stand-in for the device's <utils/String8.h>: a UTF-8 string, mostly to
// turn a String16 back into text: String8(s16).c_str().
#pragma once

#include <utils/String16.h>

#include <cstddef>
#include <string>

namespace android {

class String8 {
public:
    String8() = default;
    explicit String8(const char* s) : s_(s != nullptr ? s : "") {}
    // An unpaired surrogate becomes U+FFFD.
    explicit String8(const String16& s);

    const char* c_str() const { return s_.c_str(); }
    const char* string() const { return s_.c_str(); }
    size_t size() const { return s_.size(); }
    size_t length() const { return s_.size(); }
    bool operator==(const String8& o) const { return s_ == o.s_; }

private:
    std::string s_;
};

}  // namespace android

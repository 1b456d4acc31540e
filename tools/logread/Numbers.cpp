#include "Numbers.h"

#include "stats/TextScan.h"

namespace logread {

using quillend::text::isDigit;

std::optional<uint64_t> leadingUnsigned(std::string_view text, uint64_t max, size_t& used) {
    uint64_t value = 0;
    size_t n = 0;
    for (; n < text.size() && isDigit(text[n]); ++n) {
        const auto digit = static_cast<uint64_t>(text[n] - '0');
        if (digit > max || value > (max - digit) / 10) return std::nullopt;  // past `max`
        value = value * 10 + digit;
    }
    if (n == 0) return std::nullopt;
    used = n;
    return value;
}

std::optional<uint64_t> unsignedOf(std::string_view text, uint64_t max) {
    size_t used = 0;
    const auto v = leadingUnsigned(text, max, used);
    if (!v || used != text.size()) return std::nullopt;
    return v;
}

std::optional<int64_t> signedOf(std::string_view text, int64_t min, int64_t max) {
    const bool negative = !text.empty() && text[0] == '-';
    if (negative) text.remove_prefix(1);
    // The magnitude of min may be one more than max's: both fit in uint64_t.
    const uint64_t limit = negative ? (min < 0 ? static_cast<uint64_t>(-(min + 1)) + 1 : 0)
                                    : static_cast<uint64_t>(max);
    const auto m = unsignedOf(text, limit);
    if (!m || (negative && min >= 0)) return std::nullopt;
    if (!negative) return static_cast<int64_t>(*m);
    return *m == 0 ? 0 : -static_cast<int64_t>(*m - 1) - 1;
}

}  // namespace logread

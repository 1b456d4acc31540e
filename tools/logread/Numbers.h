// Numbers read from a log with bounds: text that a device wrote is outside
// input, and a figure past its type's range is no figure, never undefined.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace logread {

// Decimal digits, the whole text, at most `max`.
std::optional<uint64_t> unsignedOf(std::string_view text, uint64_t max = UINT64_MAX);

// An optional '-' and decimal digits, the whole text, within [min, max].
std::optional<int64_t> signedOf(std::string_view text, int64_t min, int64_t max);

// The digits at the start of `text` (at most `max`), and how many characters
// they take; nullopt when there are none or the number is too large.
std::optional<uint64_t> leadingUnsigned(std::string_view text, uint64_t max, size_t& used);

}  // namespace logread

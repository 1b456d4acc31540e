// Text and file helpers shared by the subcommands.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>
#include <string_view>

namespace tavrendctl {

inline bool startsWith(std::string_view s, std::string_view prefix) {
    return s.substr(0, prefix.size()) == prefix;
}

// printf into a string of any length.
[[gnu::format(printf, 1, 2)]] std::string format(const char* fmt, ...);
std::string vformat(const char* fmt, va_list ap);

// A guardrail limit as the file means it: -1 is stored as the largest value.
std::string limitText(uint64_t kb);

// Writes `content` to `path` (replacing it). On failure returns false with
// `error` saying which file and why.
bool writeFile(const std::string& path, std::string_view content, std::string& error);

}  // namespace tavrendctl

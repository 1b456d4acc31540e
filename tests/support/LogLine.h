// Parses one line of the host log, written as `logcat -v threadtime` does:
//   "11-23 08:18:39.123  4711  4712 I tavrend : Starting Tavren Daemon"
// i.e. "%s.%03d %5d %5d %c %-8s: %s" with the date and time first.
#pragma once

#include <cctype>
#include <optional>
#include <string>

namespace tavrend::test {

struct LogLine {
    int pid = 0;
    int tid = 0;
    char priority = '?';
    std::string tagField;  // the tag as written, padded to at least 8 characters
    std::string tag;       // without the padding
    std::string message;
};

inline std::optional<LogLine> parseLogLine(const std::string& s) {
    // "MM-DD HH:MM:SS.mmm"
    static const char kStamp[] = "dd-dd dd:dd:dd.ddd";
    if (s.size() < sizeof(kStamp) - 1) return std::nullopt;
    for (size_t i = 0; i + 1 < sizeof(kStamp); ++i) {
        bool ok = kStamp[i] == 'd' ? isdigit(static_cast<unsigned char>(s[i])) != 0
                                   : s[i] == kStamp[i];
        if (!ok) return std::nullopt;
    }
    size_t p = sizeof(kStamp) - 1;
    LogLine line;
    for (int* field : {&line.pid, &line.tid}) {
        if (p >= s.size() || s[p] != ' ') return std::nullopt;
        while (p < s.size() && s[p] == ' ') ++p;
        size_t start = p;
        while (p < s.size() && isdigit(static_cast<unsigned char>(s[p]))) ++p;
        if (p == start || p - start > 9) return std::nullopt;
        *field = std::stoi(s.substr(start, p - start));
    }
    if (p + 3 > s.size() || s[p] != ' ' || s[p + 2] != ' ') return std::nullopt;
    line.priority = s[p + 1];
    if (std::string("VDIWEF").find(line.priority) == std::string::npos) return std::nullopt;
    p += 3;
    size_t sep = s.find(": ", p + 8 <= s.size() ? p + 8 : s.size());
    if (sep == std::string::npos) return std::nullopt;
    line.tagField = s.substr(p, sep - p);
    line.tag = line.tagField.substr(0, line.tagField.find_last_not_of(' ') + 1);
    line.message = s.substr(sep + 2);
    return line;
}

}  // namespace tavrend::test

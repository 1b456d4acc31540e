// Parses one line of the host log, written as `logcat -v threadtime` does:
//   "11-23 08:18:39.123  4711  4712 I tavrend : Starting Tavren Daemon"
#pragma once

#include <algorithm>
#include <cstdio>
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
    LogLine line;
    int at = 0;
    if (sscanf(s.c_str(), "%*2d-%*2d %*2d:%*2d:%*2d.%*3d %d %d %c %n", &line.pid, &line.tid,
               &line.priority, &at) != 3 ||
        at == 0 || std::string("VDIWEF").find(line.priority) == std::string::npos) {
        return std::nullopt;
    }
    const size_t sep = s.find(": ", std::min(s.size(), static_cast<size_t>(at) + 8));
    if (sep == std::string::npos) return std::nullopt;
    line.tagField = s.substr(at, sep - at);
    line.tag = line.tagField.substr(0, line.tagField.find_last_not_of(' ') + 1);
    line.message = s.substr(sep + 2);
    return line;
}

}  // namespace tavrend::test

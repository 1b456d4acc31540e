// One line of a log written as `logcat -v threadtime` does:
//   "11-23 08:18:39.123  4711  4712 I tavrend : Starting Tavren Daemon"
// The one reader of that layout, for the report, the scenario runner and the
// tests.
#pragma once

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace tavrendctl::logcat {

struct Stamp {
    int month = 0, day = 0, hour = 0, minute = 0, second = 0, milli = 0;
};

// Views into the parsed text.
struct Line {
    Stamp at;
    int pid = 0, tid = 0;
    char priority = '?';
    std::string_view tagField;  // the tag as written, padded to at least 8 characters
    std::string_view tag;       // without the padding
    std::string_view message;
};

inline std::optional<Line> parse(std::string_view s) {
    Line l;
    int at = 0;
    const std::string head(s.substr(0, 64));  // the fields before the tag
    Stamp& t = l.at;
    if (sscanf(head.c_str(), "%2d-%2d %2d:%2d:%2d.%3d %d %d %c %n", &t.month, &t.day, &t.hour,
               &t.minute, &t.second, &t.milli, &l.pid, &l.tid, &l.priority, &at) != 9 ||
        at == 0 || std::string_view("VDIWEF").find(l.priority) == s.npos || t.month < 1 ||
        t.month > 12 || t.day < 1 || t.day > 31 || t.hour < 0 || t.hour > 23 || t.minute < 0 ||
        t.minute > 59 || t.second < 0 || t.second > 60 || t.milli < 0) {
        return std::nullopt;
    }
    // The tag is padded to at least 8 characters, so ": " within them is the tag's.
    const size_t sep = s.find(": ", std::min(s.size(), static_cast<size_t>(at) + 8));
    if (sep == s.npos) return std::nullopt;
    l.tagField = s.substr(at, sep - at);
    l.tag = l.tagField.substr(0, l.tagField.find_last_not_of(' ') + 1);
    l.message = s.substr(sep + 2);
    return l;
}

}  // namespace tavrendctl::logcat

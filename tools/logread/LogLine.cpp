// The layout mirrors release 10's system/core/liblog/logprint.cpp
// (android_log_formatLogLine, FORMAT_THREADTIME): the stamp, then with the uid
// modifier the uid as "%5d" or a name of at most 5 characters as "%5s" (six
// blanks when the entry has none), then "%5d %5d %c %-8.*s: " and the message.
#include "LogLine.h"

#include <climits>
#include <cstdio>

#include "Numbers.h"

namespace logread {
namespace {

// The letters logcat writes, '?' for a priority it does not know
// (system/core/liblog/logprint.cpp, filterPriToChar).
constexpr std::string_view kPriorities = "VDIWEFS?";

bool isBlank(char c) { return c == ' '; }

// The next word of `s` from `at` on, after blanks; moves `at` past it.
std::string_view word(std::string_view s, size_t& at) {
    while (at < s.size() && isBlank(s[at])) ++at;
    const size_t start = at;
    while (at < s.size() && !isBlank(s[at])) ++at;
    return s.substr(start, at - start);
}

// Two digits at `at`, within [lo, hi].
bool twoDigits(std::string_view s, size_t at, int lo, int hi, int& out) {
    const auto v = unsignedOf(s.substr(at, 2), 99);
    if (!v || s.size() < at + 2 || static_cast<int>(*v) < lo || static_cast<int>(*v) > hi)
        return false;
    out = static_cast<int>(*v);
    return true;
}

// "MM-DD HH:MM:SS.mmm" at the start of `s`.
bool stampOf(std::string_view s, Stamp& t) {
    if (s.size() < 18 || s[2] != '-' || s[5] != ' ' || s[8] != ':' || s[11] != ':' ||
        s[14] != '.') {
        return false;
    }
    const auto milli = unsignedOf(s.substr(15, 3), 999);
    if (!milli || !twoDigits(s, 0, 1, 12, t.month) || !twoDigits(s, 3, 1, 31, t.day) ||
        !twoDigits(s, 6, 0, 23, t.hour) || !twoDigits(s, 9, 0, 59, t.minute) ||
        !twoDigits(s, 12, 0, 60, t.second)) {
        return false;
    }
    t.milli = static_cast<int>(*milli);
    return true;
}

std::optional<int> idOf(std::string_view w) {
    const auto v = unsignedOf(w, INT_MAX);
    if (!v) return std::nullopt;
    return static_cast<int>(*v);
}

// The words between the stamp and the tag: [user] pid tid priority.
bool headOf(std::string_view s, size_t& at, Line& l) {
    std::string_view words[4];
    size_t n = 0;
    while (n < 4) {
        words[n] = word(s, at);
        if (words[n].empty()) return false;
        if (words[n].size() == 1 && kPriorities.find(words[n][0]) != kPriorities.npos && n >= 2) {
            break;
        }
        ++n;
    }
    if (n == 4 || n < 2) return false;
    if (n == 3) {
        if (words[0].size() > 10) return false;  // a uid or a name of at most 5 letters
        l.user = words[0];
    }
    const auto pid = idOf(words[n - 2]);
    const auto tid = idOf(words[n - 1]);
    if (!pid || !tid) return false;
    l.pid = *pid;
    l.tid = *tid;
    l.priority = words[n][0];
    return true;
}

}  // namespace

std::string_view withoutLineEnd(std::string_view s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.remove_suffix(1);
    return s;
}

std::optional<Line> parse(std::string_view s) {
    s = withoutLineEnd(s);
    Line l;
    size_t at = 18;
    if (!stampOf(s, l.at) || !headOf(s, at, l) || at >= s.size() || s[at] != ' ')
        return std::nullopt;
    ++at;
    // The tag is padded to at least 8 characters, so ": " within them is the tag's.
    const size_t end = s.find(": ", std::min(s.size(), at + 8));
    if (end == s.npos) return std::nullopt;
    l.tagField = s.substr(at, end - at);
    l.tag = l.tagField.substr(0, l.tagField.find_last_not_of(' ') + 1);
    l.message = s.substr(end + 2);
    return l;
}

bool isBufferMark(std::string_view s) {
    return withoutLineEnd(s).substr(0, 22) == "--------- beginning of";
}

void formatStamp(const Stamp& t, char (&out)[32]) {
    snprintf(out, sizeof(out), "%02d-%02d %02d:%02d:%02d.%03d", t.month % 100, t.day % 100,
             t.hour % 100, t.minute % 100, t.second % 100, t.milli % 1000);
}

}  // namespace logread

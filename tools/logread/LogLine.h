// One line of the daemon's log as logcat writes it with `-v threadtime`, in
// every form an engineer has: the host layer's files and a device's dump
//   "11-23 08:18:39.123  4711  4712 I tavrend : Starting Tavren Daemon"
// and release 10's bug report, which adds `-v printable -v uid`: the writer's
// uid, or a user name of up to five letters, before the pid
//   "11-25 15:43:53.050  1000 26513 26513 E tavrend : ..."
//   "11-25 15:43:53.050 system 26513 26513 E tavrend : ..."
// and "--------- beginning of system" between the buffers. Either may end in
// CRLF.
#pragma once

#include <optional>
#include <string_view>

namespace logread {

struct Stamp {
    int month = 0, day = 0, hour = 0, minute = 0, second = 0, milli = 0;
};

// Views into the parsed text.
struct Line {
    Stamp at;
    std::string_view user;  // the uid or user name of a bug report's line, else empty
    int pid = 0, tid = 0;
    char priority = '?';
    std::string_view tagField;  // the tag as written, padded to at least 8 characters
    std::string_view tag;       // without the padding
    std::string_view message;   // as written; a bug report's escapes are kept
};

// The text without its line end ("\n", "\r\n" or "\r").
std::string_view withoutLineEnd(std::string_view s);

// Nullopt for anything that is not such a line, including the marks between
// buffers (see isBufferMark) and a line cut before its message.
std::optional<Line> parse(std::string_view s);

// "--------- beginning of main", as logcat prints when it changes buffers.
bool isBufferMark(std::string_view s);

// "MM-DD HH:MM:SS.mmm".
void formatStamp(const Stamp& t, char (&out)[32]);

}  // namespace logread

// A host log line, read with the tools' reader of the `logcat -v threadtime`
// layout, kept after its text is gone.
#pragma once

#include <optional>
#include <string>

#include "logread/LogLine.h"

namespace tavrend::test {

struct LogLine {
    int pid = 0;
    char priority = '?';
    std::string tagField;  // the tag as written, padded to at least 8 characters
    std::string tag;       // without the padding
    std::string message;
};

inline std::optional<LogLine> parseLogLine(const std::string& s) {
    const auto l = logread::parse(s);
    if (!l) return std::nullopt;
    return LogLine{l->pid, l->priority, std::string(l->tagField), std::string(l->tag),
                   std::string(l->message)};
}

}  // namespace tavrend::test

// Small helpers shared by the monitor tests.
#pragma once

#include <gtest/gtest.h>
#include <log/log.h>

#include <string>
#include <utility>
#include <vector>

#include "support/LogCapture.h"

namespace tavrend {

// The system-buffer messages that start with `prefix`, in order.
inline std::vector<std::string> heartbeats(const test::LogCapture& log, const std::string& prefix) {
    std::vector<std::string> out;
    for (const std::string& m : log.messages(LOG_ID_SYSTEM)) {
        if (m.compare(0, prefix.size(), prefix) == 0) out.push_back(m);
    }
    return out;
}

// Every system-buffer record starting with one of the prefixes has that
// prefix's priority, and each prefix occurs at least once.
inline testing::AssertionResult checkPriorities(
    const test::LogCapture& log, const std::vector<std::pair<std::string, int>>& expected) {
    for (const auto& [prefix, priority] : expected) {
        bool seen = false;
        for (const auto& r : log.records()) {
            if (r.buffer != LOG_ID_SYSTEM || r.message.compare(0, prefix.size(), prefix) != 0) {
                continue;
            }
            seen = true;
            if (r.priority != priority) {
                return testing::AssertionFailure()
                       << "\"" << r.message << "\" has priority " << r.priority;
            }
        }
        if (!seen) return testing::AssertionFailure() << "no line starts with \"" << prefix << "\"";
    }
    return testing::AssertionSuccess();
}

}  // namespace tavrend

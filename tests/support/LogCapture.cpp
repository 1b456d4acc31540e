#include "support/LogCapture.h"

#include <algorithm>

#include "platform/log_hook.h"

namespace tavrend::test {

LogCapture::LogCapture() {
    platform::setLogHook([this](int buf, int prio, const char* tag, const char* msg) {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.push_back({buf, prio, tag, msg});
    });
}

LogCapture::~LogCapture() { platform::setLogHook(nullptr); }

std::vector<LogRecord> LogCapture::records() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
}

std::vector<std::string> LogCapture::messages(int buffer, const char* tag) const {
    std::vector<std::string> out;
    for (const auto& r : records()) {
        if (r.buffer == buffer && (tag == nullptr || r.tag == tag)) out.push_back(r.message);
    }
    return out;
}

bool LogCapture::contains(int buffer, const std::string& message) const {
    const auto all = messages(buffer);
    return std::find(all.begin(), all.end(), message) != all.end();
}

size_t LogCapture::countPrefix(int buffer, const std::string& prefix) const {
    const auto all = messages(buffer);
    return std::count_if(all.begin(), all.end(),
                         [&](const std::string& m) { return m.starts_with(prefix); });
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.clear();
}

}  // namespace tavrend::test

#include "support/LogCapture.h"

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
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> out;
    for (const auto& r : records_) {
        if (r.buffer == buffer && (tag == nullptr || r.tag == tag)) out.push_back(r.message);
    }
    return out;
}

bool LogCapture::contains(int buffer, const std::string& message) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& r : records_) {
        if (r.buffer == buffer && r.message == message) return true;
    }
    return false;
}

size_t LogCapture::countPrefix(int buffer, const std::string& prefix) const {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t n = 0;
    for (const auto& r : records_) {
        if (r.buffer == buffer && r.message.compare(0, prefix.size(), prefix) == 0) ++n;
    }
    return n;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.clear();
}

}  // namespace tavrend::test

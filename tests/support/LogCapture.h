// Captures the host log's records in memory for the life of the object.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace tavrend::test {

struct LogRecord {
    int buffer;
    int priority;
    std::string tag;
    std::string message;
};

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogRecord> records() const;
    // Messages of one buffer (and, when given, one tag), in order.
    std::vector<std::string> messages(int buffer, const char* tag = nullptr) const;
    bool contains(int buffer, const std::string& message) const;
    // Number of messages of `buffer` that start with `prefix`.
    size_t countPrefix(int buffer, const std::string& prefix) const;
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<LogRecord> records_;
};

}  // namespace tavrend::test

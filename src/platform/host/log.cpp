// Host liblog: logcat-style lines on standard error and in per-buffer files.
#include <fcntl.h>
#include <log/log.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "platform/log_hook.h"
#include "platform/time_source.h"

namespace {

// liblog formats into a buffer of this size; longer messages are cut.
constexpr size_t kMessageMax = 1024;

constexpr std::array<const char*, 9> kBufferNames = {
    "main", "radio", "events", "system", "crash", "stats", "security", "kernel", "metrics"};

constexpr char kPriorityLetters[] = "??VDIWEFS";

struct LogState {
    std::mutex mutex;
    std::shared_ptr<tavrend::platform::LogHook> hook;
    bool toStderr = true;
    bool dirRead = false;
    std::string dir;
    std::array<int, kBufferNames.size()> fds;
    LogState() { fds.fill(-1); }
};

LogState& state() {
    static LogState* s = new LogState();  // never destroyed: logging may outlive statics
    return *s;
}

// Returns the file descriptor of the buffer's log file, or -1. Caller holds the mutex.
int bufferFdLocked(LogState& s, int bufId) {
    if (!s.dirRead) {
        const char* env = getenv("TAVREND_LOG_DIR");
        s.dir = env ? env : "";
        s.dirRead = true;
    }
    if (s.dir.empty()) return -1;
    int& fd = s.fds[bufId];
    if (fd < 0) {
        std::string path = s.dir + "/" + kBufferNames[bufId] + ".log";
        fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    }
    return fd;
}

void writeAll(int fd, const char* data, size_t len) {
    while (len > 0) {
        ssize_t n = write(fd, data, len);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
}

int vlog(int bufId, int prio, const char* tag, const char* fmt, va_list ap) {
    if (bufId < 0 || bufId >= static_cast<int>(kBufferNames.size())) return -EINVAL;
    if (tag == nullptr) tag = "";
    char msg[kMessageMax];
    // `ap` was started by the public entry points.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    int n = vsnprintf(msg, sizeof(msg), fmt ? fmt : "", ap);
    if (n < 0) return -EINVAL;
    size_t msgLen = strnlen(msg, sizeof(msg));

    LogState& s = state();
    std::shared_ptr<tavrend::platform::LogHook> hook;
    bool toStderr;
    int fileFd;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        hook = s.hook;
        toStderr = s.toStderr;
        fileFd = bufferFdLocked(s, bufId);
    }
    if (hook) (*hook)(bufId, prio, tag, msg);
    if (!toStderr && fileFd < 0) return static_cast<int>(msgLen);

    struct timespec ts;
    tavrend::platform::scaledRealtime(&ts);
    struct tm tmv;
    localtime_r(&ts.tv_sec, &tmv);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", &tmv);
    char letter = (prio >= 0 && prio < static_cast<int>(sizeof(kPriorityLetters) - 1))
                      ? kPriorityLetters[prio]
                      : '?';
    int pid = static_cast<int>(getpid());
    int tid = static_cast<int>(syscall(SYS_gettid));

    // One trailing newline ends the message without adding an empty line.
    if (msgLen > 0 && msg[msgLen - 1] == '\n') msg[--msgLen] = '\0';

    const size_t tagLen = strlen(tag);
    std::string line;
    const char* p = msg;
    const char* end = msg + msgLen;
    while (true) {
        const char* nl = static_cast<const char*>(memchr(p, '\n', static_cast<size_t>(end - p)));
        const char* stop = nl ? nl : end;
        // "%s.%03d %5d %5d %c %-8s: %s": the tag is padded to 8, never cut.
        char prefix[64];
        int plen = snprintf(prefix, sizeof(prefix), "%s.%03d %5d %5d %c ", stamp,
                            static_cast<int>(ts.tv_nsec / 1000000), pid, tid, letter);
        line.assign(prefix, static_cast<size_t>(plen));
        line.append(tag);
        if (tagLen < 8) line.append(8 - tagLen, ' ');
        line.append(": ");
        line.append(p, static_cast<size_t>(stop - p));
        line.push_back('\n');
        if (toStderr) writeAll(STDERR_FILENO, line.data(), line.size());
        if (fileFd >= 0) writeAll(fileFd, line.data(), line.size());
        if (!nl) break;
        p = nl + 1;
    }
    return static_cast<int>(msgLen);
}

}  // namespace

extern "C" int __android_log_buf_print(int bufID, int prio, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int r = vlog(bufID, prio, tag, fmt, ap);
    va_end(ap);
    return r;
}

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int r = vlog(LOG_ID_MAIN, prio, tag, fmt, ap);
    va_end(ap);
    return r;
}

namespace tavrend::platform {

void setLogHook(LogHook hook) {
    auto p = hook ? std::make_shared<LogHook>(std::move(hook)) : nullptr;
    std::lock_guard<std::mutex> lock(state().mutex);
    state().hook = std::move(p);
}

void setLogToStderr(bool enabled) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().toStderr = enabled;
}

void reopenLogFiles() {
    std::lock_guard<std::mutex> lock(state().mutex);
    for (int& fd : state().fds) {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    state().dirRead = false;
}

}  // namespace tavrend::platform

// Host stand-in for the device's <log/log.h> (liblog).
//
// Records are written in `logcat -v threadtime` layout to standard error and,
// when TAVREND_LOG_DIR names a directory, appended to <dir>/<buffer>.log.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum android_LogPriority {
    ANDROID_LOG_UNKNOWN = 0,
    ANDROID_LOG_DEFAULT,
    ANDROID_LOG_VERBOSE,
    ANDROID_LOG_DEBUG,
    ANDROID_LOG_INFO,
    ANDROID_LOG_WARN,
    ANDROID_LOG_ERROR,
    ANDROID_LOG_FATAL,
    ANDROID_LOG_SILENT,
} android_LogPriority;

typedef enum log_id {
    LOG_ID_MAIN = 0,
    LOG_ID_RADIO = 1,
    LOG_ID_EVENTS = 2,
    LOG_ID_SYSTEM = 3,
    LOG_ID_CRASH = 4,
    LOG_ID_STATS = 5,
    LOG_ID_SECURITY = 6,
    LOG_ID_KERNEL = 7,

    LOG_ID_MAX
} log_id_t;

// Ids 0 to 7 are the buffers above; id 8 is the device's metrics buffer, which
// has no name in log_id_t. Returns the number of bytes of the message written, or a negative errno
// value when the buffer id is unknown (the record is dropped).
int __android_log_buf_print(int bufID, int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

// Same as __android_log_buf_print on the main buffer.
int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

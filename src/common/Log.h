// The daemon's diagnostics: system log buffer, tag "tavrend". Every subsystem
// logs through these macros.
#pragma once

#include <log/log.h>

namespace tavrend {
inline constexpr const char* kTavrendLogTag = "tavrend";
}  // namespace tavrend

#define TAVREND_LOG(prio, ...) \
    __android_log_buf_print(LOG_ID_SYSTEM, (prio), ::tavrend::kTavrendLogTag, __VA_ARGS__)
#define TLOGD(...) TAVREND_LOG(ANDROID_LOG_DEBUG, __VA_ARGS__)
#define TLOGI(...) TAVREND_LOG(ANDROID_LOG_INFO, __VA_ARGS__)
#define TLOGW(...) TAVREND_LOG(ANDROID_LOG_WARN, __VA_ARGS__)
#define TLOGE(...) TAVREND_LOG(ANDROID_LOG_ERROR, __VA_ARGS__)

// Names shared across the daemon: configuration keys, process classes, the
// log tag, metric names and the metric device keys.
#pragma once

#include <cstddef>

namespace tavrend {

// Keys of the daemon configuration's four sections, in the order the loader
// reads them; the index decides which field an item goes to.
inline constexpr size_t kSystemMemKeyCount = 16;
inline constexpr size_t kProcScanKeyCount = 7;
inline constexpr size_t kDeviceUplKeyCount = 3;
inline constexpr size_t kProcessGuardrailKeyCount = 4;
extern const char* const SYSTEM_MEM_KEYS[kSystemMemKeyCount];
extern const char* const PROC_SCAN_KEYS[kProcScanKeyCount];
extern const char* const DEVICE_UPL_KEYS[kDeviceUplKeyCount];
extern const char* const PROCESS_GUARDRAIL_KEYS[kProcessGuardrailKeyCount];

// Low-memory-killer process classes.
extern const char* const PERSISTENT;
extern const char* const VISIBLE;
extern const char* const PERCEPTIBLE;
extern const char* const BACKUP;
extern const char* const OTHER;

// The daemon's log tag and name.
extern const char* const LOG_TAG_TAVREND;

// Idle detector and metric names.
extern const char* const UPTIME_TILL_IDLE_OVERRIDE;
extern const char* const TIME_TILL_IDLE;
extern const char* const UPTIME_TILL_REBOOT;
extern const char* const UPTIME_TILL_CRITICAL_MEM;
extern const char* const UPTIME_TILL_BAD_DUPL;
extern const char* const IDLE_DETECTOR;
extern const char* const USER_ACTIVITY_PROPERTY;
extern const char* const DURATION_TYPE;
extern const char* const DURATION_VALUE;
extern const char* const MEMORY_GUARDRAIL;
extern const char* const DEFAULT_NAME;

// Device fields of every metric record's tail, in record order.
inline constexpr size_t kMetricDeviceKeyCount = 13;
extern const char* const METRIC_DEVICE_KEYS[kMetricDeviceKeyCount];

}  // namespace tavrend

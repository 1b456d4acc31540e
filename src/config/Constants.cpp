#include "config/Constants.h"

#include "common/Log.h"

namespace tavrend {

const char* const SYSTEM_MEM_KEYS[kSystemMemKeyCount] = {
    "memory_read_interval_sec",
    "critical_memory_threshold_percent",
    "critical_memory_bucket",
    "critical_memory_measurement_time",
    "critical_memory_default_threshold_kb",
    "critical_memory_over_threshold_percent",
    "critical_memory_action",
    "critical_memory_minimum_uptime_sec",
    "critical_memory_minimum_idle_time_sec",
    "critical_memory_idle_override_time_sec",
    "lmk_counter_threshold",
    "lmk_target_kills",
    "system_mem_heartbeat_samples",
    "idle_detection_interval_sec",
    "critical_memory_swap_free_threshold_kb",
    "critical_memory_s_unreclaim_threshold_kb",
};

const char* const PROC_SCAN_KEYS[kProcScanKeyCount] = {
    "proc_scan_interval_sec",        "rss_read_interval_sec",
    "pss_read_interval_sec",         "num_pss_processes",
    "num_historical_vals",           "pss_logging",
    "process_mem_heartbeat_samples",
};

const char* const DEVICE_UPL_KEYS[kDeviceUplKeyCount] = {
    "dupl_monitoring_enabled",
    "critical_upl_threshold_ms",
    "critical_upl_bad_sample_count_threshold",
};

const char* const PROCESS_GUARDRAIL_KEYS[kProcessGuardrailKeyCount] = {
    "process_guardrail_monitoring_enabled",
    "guardrail_check_interval_sec",
    "pss_sleep_interval_sec",
    "process_kill_metrics_interval_sec",
};

const char* const PERSISTENT = "Persistent";
const char* const VISIBLE = "Visible";
const char* const PERCEPTIBLE = "Perceptible";
const char* const BACKUP = "Backup";
const char* const OTHER = "Other";

const char* const LOG_TAG_TAVREND = kTavrendLogTag;

const char* const UPTIME_TILL_IDLE_OVERRIDE = "uptime_till_idle_override";
const char* const TIME_TILL_IDLE = "time_till_idle";
const char* const UPTIME_TILL_REBOOT = "uptime_till_reboot";
const char* const UPTIME_TILL_CRITICAL_MEM = "uptime_till_critical_mem";
const char* const UPTIME_TILL_BAD_DUPL = "uptime_till_bad_dupl";
const char* const IDLE_DETECTOR = "IdleDetector";
const char* const USER_ACTIVITY_PROPERTY = "sys.user_activity_detected";
const char* const DURATION_TYPE = "duration_type";
const char* const DURATION_VALUE = "duration_value";
const char* const MEMORY_GUARDRAIL = "MemoryGuardrail";
const char* const DEFAULT_NAME = "default";

const char* const METRIC_DEVICE_KEYS[kMetricDeviceKeyCount] = {
    "_softwareVersion", "_deviceType",         "_platform",       "_model",        "_buildType",
    "_marketPlaceId",   "_countryOfResidence", "_deviceLanguage", "_otaGroupName", "_timeZone",
    "_deviceId",        "_customerId",         "_hardware",
};

}  // namespace tavrend

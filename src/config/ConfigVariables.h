// The daemon's settings, read once at start-up from tavrend_config.json.
#pragma once

#include <cstdint>
#include <string>

namespace tavrend {

// Codes of "critical_memory_bucket": the minfree entry that sets the threshold.
enum CriticalMemoryBucket : int32_t {
    BUCKET_FOREGROUND = 0,
    BUCKET_VISIBLE = 1,
    BUCKET_PERCEPTIBLE = 2,
    BUCKET_BACKUP = 3,
    BUCKET_CACHE_START = 4,
    BUCKET_CACHE_END = 5,
};

// Each field bears the name of its JSON key; the initialisers are the defaults
// that stand when a key is absent from the file.
struct ConfigVariables {
    int32_t memory_read_interval_sec = 0;
    int32_t critical_memory_threshold_percent = 0;
    int32_t critical_memory_bucket = 0;
    int32_t critical_memory_default_threshold_kb = 0;
    int32_t critical_memory_measurement_time = 0;
    int32_t critical_memory_over_threshold_percent = 0;
    int32_t critical_memory_action = 0;
    int32_t critical_memory_minimum_uptime_sec = 0;
    int32_t critical_memory_minimum_idle_time_sec = 0;
    int32_t critical_memory_idle_override_time_sec = 0;
    int32_t critical_memory_swap_free_threshold_kb = 0;
    int32_t critical_memory_s_unreclaim_threshold_kb = 0;
    int32_t critical_upl_threshold_ms = 0;
    int32_t critical_upl_bad_sample_count_threshold = 0;
    std::string lmk_counter_threshold;
    int32_t lmk_target_kills = 0;
    int32_t system_mem_heartbeat_samples = 1;
    int32_t idle_detection_interval_sec = 1;
    int32_t proc_scan_interval_sec = 0;
    int32_t rss_read_interval_sec = 0;
    int32_t pss_read_interval_sec = 0;
    int32_t num_pss_processes = 0;
    int32_t pss_logging = 0;
    int32_t num_historical_vals = 0;
    int32_t process_mem_heartbeat_samples = 1;
    bool sample = false;
    bool dupl_monitoring_enabled = false;
    bool process_guardrail_monitoring_enabled = false;
    int32_t guardrail_check_interval_sec = 0;
    int32_t pss_sleep_interval_sec = 0;
    int32_t process_kill_metrics_interval_sec = 0;
};

// A period or divisor taken from the configuration, as used in a modulo or a
// division. The file may leave a period at 0 (an absent key) or below; such a
// period counts as 1 second (or 1 sample), so nothing ever divides by zero.
inline uint64_t effectivePeriod(int32_t configured) {
    return configured < 1 ? 1u : static_cast<uint64_t>(configured);
}

}  // namespace tavrend

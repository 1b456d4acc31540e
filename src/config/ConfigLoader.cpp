#include "config/ConfigLoader.h"

#include <cutils/properties.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "common/Log.h"
#include "common/LogMessages.h"
#include "common/NoDestroy.h"
#include "config/Constants.h"
#include "config/cjson_ext.h"

namespace tavrend {
namespace {

const NoDestroy<std::mutex> configLoadMutex;

// The value read from the file is stored as is when it is 2 or more, else as 1.
int32_t atLeastOne(int32_t v) { return v < 1 ? 1 : v; }

const char* stringOf(const cJSON* item) {
    // A key given with a non-string value reads as absent rather than as garbage.
    return cJSON_IsString(item) && item->valuestring != nullptr ? item->valuestring : nullptr;
}

void storeBucket(const cJSON* item, int32_t& field) {
    static const char* const kBuckets[] = {"foreground", "visible",     "perceptible",
                                           "backup",     "cache_start", "cache_end"};
    const char* s = stringOf(item);
    if (s == nullptr) return;
    for (int32_t code = 0; code < 6; ++code) {
        if (strcmp(s, kBuckets[code]) == 0) {
            field = code;
            return;
        }
    }
    // Any other string leaves the field unchanged.
}

void loadSystemMem(const cJSON* section, ConfigVariables& c) {
    for (size_t i = 0; i < kSystemMemKeyCount; ++i) {
        const cJSON* item = cJSON_GetObjectItem(section, SYSTEM_MEM_KEYS[i]);
        if (item == nullptr) continue;
        const int32_t v = item->valueint;
        switch (i) {
            case 0: c.memory_read_interval_sec = atLeastOne(v); break;
            case 1: c.critical_memory_threshold_percent = v; break;
            case 2: storeBucket(item, c.critical_memory_bucket); break;
            case 3: c.critical_memory_measurement_time = atLeastOne(v); break;
            case 4:
                // Also lands in critical_memory_action, which its own key (read
                // later in this section) overwrites when present. Intended.
                c.critical_memory_default_threshold_kb = v;
                c.critical_memory_action = v;
                break;
            case 5: c.critical_memory_over_threshold_percent = v; break;
            case 6: c.critical_memory_action = v; break;
            case 7: c.critical_memory_minimum_uptime_sec = atLeastOne(v); break;
            case 8: c.critical_memory_minimum_idle_time_sec = atLeastOne(v); break;
            case 9: c.critical_memory_idle_override_time_sec = atLeastOne(v); break;
            case 10:
                if (const char* s = stringOf(item)) c.lmk_counter_threshold = s;
                break;
            case 11: c.lmk_target_kills = atLeastOne(v); break;
            case 12: c.system_mem_heartbeat_samples = atLeastOne(v); break;
            case 13: c.idle_detection_interval_sec = atLeastOne(v); break;
            case 14: c.critical_memory_swap_free_threshold_kb = v; break;
            case 15: c.critical_memory_s_unreclaim_threshold_kb = v; break;
        }
    }
}

void loadProcScan(const cJSON* section, ConfigVariables& c) {
    for (size_t i = 0; i < kProcScanKeyCount; ++i) {
        const cJSON* item = cJSON_GetObjectItem(section, PROC_SCAN_KEYS[i]);
        if (item == nullptr) continue;
        const int32_t v = item->valueint;
        switch (i) {
            case 0: c.proc_scan_interval_sec = atLeastOne(v); break;
            case 1: c.rss_read_interval_sec = atLeastOne(v); break;
            case 2: c.pss_read_interval_sec = atLeastOne(v); break;
            case 3: c.num_pss_processes = v; break;
            case 4: c.num_historical_vals = v; break;
            case 5: c.pss_logging = v; break;
            case 6: c.process_mem_heartbeat_samples = atLeastOne(v); break;
        }
    }
}

void loadDeviceUpl(const cJSON* section, ConfigVariables& c) {
    for (size_t i = 0; i < kDeviceUplKeyCount; ++i) {
        const cJSON* item = cJSON_GetObjectItem(section, DEVICE_UPL_KEYS[i]);
        if (item == nullptr) continue;
        switch (i) {
            case 0: c.dupl_monitoring_enabled = cJSON_get_bool_val(item) != 0; break;
            case 1: c.critical_upl_threshold_ms = item->valueint; break;
            case 2: c.critical_upl_bad_sample_count_threshold = item->valueint; break;
        }
    }
}

void loadProcessGuardrail(const cJSON* section, ConfigVariables& c) {
    for (size_t i = 0; i < kProcessGuardrailKeyCount; ++i) {
        const cJSON* item = cJSON_GetObjectItem(section, PROCESS_GUARDRAIL_KEYS[i]);
        if (item == nullptr) continue;
        switch (i) {
            case 0:
                // The item's integer value (1 for true, 0 for false) also lands in
                // guardrail_check_interval_sec until that key, read next, overwrites it.
                c.process_guardrail_monitoring_enabled = cJSON_get_bool_val(item) != 0;
                c.guardrail_check_interval_sec = item->valueint;
                break;
            case 1: c.guardrail_check_interval_sec = item->valueint; break;
            case 2: c.pss_sleep_interval_sec = item->valueint; break;
            case 3: c.process_kill_metrics_interval_sec = item->valueint; break;
        }
    }
}

}  // namespace

int tavren_config_load_info(cJSON* root, ConfigVariables& config) {
    static const char* const kSections[5] = {"system_mem", "proc_scan", "sample", "device_upl",
                                             "process_guardrail"};
    std::lock_guard<std::mutex> lock(*configLoadMutex);
    int result = -EINVAL;
    for (int s = 0; s < 5; ++s) {
        const cJSON* member = cJSON_GetObjectItem(root, kSections[s]);
        if (member == nullptr) continue;
        switch (s) {
            case 0: loadSystemMem(member, config); break;
            case 1: loadProcScan(member, config); break;
            case 2: config.sample = cJSON_get_bool_val(member) != 0; break;
            case 3: loadDeviceUpl(member, config); break;
            case 4: loadProcessGuardrail(member, config); break;
        }
        result = 0;
    }
    return result;
}

int tavren_config_load(ConfigVariables& config) {
    const char* path = property_get_bool(kConfigOverrideProperty, false) ? kOverrideConfigPath
                                                                         : kDefaultConfigPath;
    cJSON* root = cJSON_Parse_File(path, 0);
    if (root == nullptr) {
        TLOGE("root_json is null %s, malformed json file?", path);
        return -1;
    }
    int result = tavren_config_load_info(root, config);
    cJSON_Delete(root);
    if (result != 0) {
        TLOGE("Opening of %s failed, could not parse json", path);
        return result;
    }
    return 0;
}

bool parseJSONConfig(ConfigVariables& c) {
    TLOGI("Parsing JSON config");
    if (tavren_config_load(c) != 0) {
        TLOGE(TAVREND_MSG_CONFIG_UNPARSED);
        return false;
    }
    TLOGI(TAVREND_MSG_CONFIG_BEGIN);
    TLOGI("memory_read_interval_sec: %d", c.memory_read_interval_sec);
    TLOGI("critical_memory_threshold_percent: %d", c.critical_memory_threshold_percent);
    TLOGI("critical_memory_bucket: %d", c.critical_memory_bucket);
    TLOGI("critical_memory_measurement_time: %d", c.critical_memory_measurement_time);
    TLOGI("critical_memory_over_threshold_percent: %d", c.critical_memory_over_threshold_percent);
    TLOGI("critical_memory_action: %d", c.critical_memory_action);
    TLOGI("critical_memory_minimum_uptime_sec: %d", c.critical_memory_minimum_uptime_sec);
    TLOGI("critical_memory_minimum_idle_time_sec: %d", c.critical_memory_minimum_idle_time_sec);
    TLOGI("critical_memory_idle_override_time_sec: %d", c.critical_memory_idle_override_time_sec);
    TLOGI("system_mem_heartbeat_samples: %d", c.system_mem_heartbeat_samples);
    TLOGI("idle_detection_interval_sec: %d", c.idle_detection_interval_sec);
    TLOGI("critical_memory_swap_free_threshold_kb: %d", c.critical_memory_swap_free_threshold_kb);
    TLOGI("critical_memory_s_unreclaim_threshold_kb: %d",
          c.critical_memory_s_unreclaim_threshold_kb);
    TLOGI("proc_scan_interval_sec: %d", c.proc_scan_interval_sec);
    TLOGI("rss_read_interval_sec: %d", c.rss_read_interval_sec);
    TLOGI("pss_read_interval_sec: %d", c.pss_read_interval_sec);
    TLOGI("num_pss_processes: %d", c.num_pss_processes);
    TLOGI("pss_logging: %d", c.pss_logging);
    TLOGI("num_historical_vals: %d", c.num_historical_vals);
    TLOGI("lmk_counter_threshold: %s", c.lmk_counter_threshold.c_str());
    TLOGI("lmk_target_kills: %d", c.lmk_target_kills);
    TLOGI("process_mem_heartbeat_samples: %d", c.process_mem_heartbeat_samples);
    TLOGI("process_guardrail_monitoring_enabled: %s",
          c.process_guardrail_monitoring_enabled ? "true" : "false");
    TLOGI("guardrail_check_interval_sec: %d", c.guardrail_check_interval_sec);
    TLOGI("pss_sleep_interval_sec: %d", c.pss_sleep_interval_sec);
    TLOGI("process_kill_metrics_interval_sec: %d", c.process_kill_metrics_interval_sec);
    TLOGI("sample: %s", c.sample ? "true" : "false");
    TLOGI(TAVREND_MSG_CONFIG_END);
    return true;
}

}  // namespace tavrend

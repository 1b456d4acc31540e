// The daemon configuration file: the input is tavrend_config.json, loaded the
// way start-up loads it.
#include <cjson/cJSON.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "config/ConfigLoader.h"
#include "config/ConfigVariables.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    tavrend::fuzz::initHarness();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    tavrend::fuzz::writeDeviceFile(tavrend::kDefaultConfigPath, text);

    tavrend::ConfigVariables config;
    const int result = tavrend::tavren_config_load(config);
    FUZZ_CHECK(result == 0 || result == -1 || result == -EINVAL);

    // Reading the file must not change what the parser decides about its text.
    cJSON* parsed = cJSON_ParseWithLengthOpts(text.c_str(), text.size() + 1, nullptr, 1);
    FUZZ_CHECK((result == -1) == (parsed == nullptr));
    cJSON_Delete(parsed);

    // Periods and counts are stored as at least 1; their defaults are 0 or 1.
    for (int32_t v :
         {config.memory_read_interval_sec, config.critical_memory_measurement_time,
          config.critical_memory_minimum_uptime_sec, config.critical_memory_minimum_idle_time_sec,
          config.critical_memory_idle_override_time_sec, config.lmk_target_kills,
          config.system_mem_heartbeat_samples, config.idle_detection_interval_sec,
          config.proc_scan_interval_sec, config.rss_read_interval_sec, config.pss_read_interval_sec,
          config.process_mem_heartbeat_samples}) {
        FUZZ_CHECK(v >= 0);
    }
    // Only a known bucket name is ever stored.
    FUZZ_CHECK(config.critical_memory_bucket >= tavrend::BUCKET_FOREGROUND &&
               config.critical_memory_bucket <= tavrend::BUCKET_CACHE_END);
    return 0;
}

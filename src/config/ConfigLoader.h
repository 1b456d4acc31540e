// Loading of the daemon configuration file.
#pragma once

#include <cjson/cJSON.h>

#include "common/DevicePaths.h"
#include "config/ConfigVariables.h"

namespace tavrend {

inline constexpr const char* kDefaultConfigPath = paths::kConfig;
inline constexpr const char* kOverrideConfigPath = paths::kConfigOverride;
inline constexpr const char* kConfigOverrideProperty = "tavrend.config.override";

// Fills `config` from a parsed root. 0 when at least one of the five sections
// was present, -22 (-EINVAL) when none was.
int tavren_config_load_info(cJSON* root, ConfigVariables& config);

// Picks the file (the override copy when "tavrend.config.override" is true),
// parses it and fills `config`. 0 on success, -1 when the file could not be
// parsed, otherwise the failure of tavren_config_load_info.
int tavren_config_load(ConfigVariables& config);

// main's entry point: loads and prints the configuration. True on success.
bool parseJSONConfig(ConfigVariables& config);

}  // namespace tavrend

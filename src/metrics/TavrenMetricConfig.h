// The metric configuration: whether records may be sent at all, and how the
// records of each named configuration are shaped. Loaded once at start-up,
// then only read.
#pragma once

#include <cjson/cJSON.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "common/DevicePaths.h"

namespace tavrend {

inline constexpr const char* kDefaultMetricConfigPath = paths::kMetricConfig;
inline constexpr const char* kOverrideMetricConfigPath = paths::kMetricConfigOverride;
// When true, the data-partition copy is read whatever path the caller passes.
inline constexpr const char* kMetricOverrideProperty = "tavrend.metric.override";

struct MetricField {
    std::string name;
    std::string dimensionTag;
    std::string type;  // "str", "int", "float", "bool", "ts"; anything else has no code
};

struct KaphMetricInterface {
    std::string programName;
    bool active = false;
};

class TavrenMetricConfig {
public:
    struct OrreryMetricInterface {
        std::string schemaId;
        std::string groupId;  // empty: the OrreryConfig default group id
        bool active = false;
        MetricField metricKey;
        MetricField metricValue;
        std::vector<MetricField> metrics;
    };

    struct MetricConfig {
        std::string name;
        std::string metricName;
        bool active = false;
        KaphMetricInterface kaphMetricInterface;
        OrreryMetricInterface orreryMetricInterface;
    };

    struct OrreryConfig {
        bool enabled = false;
        std::string region;
        std::string groupId;
    };

    static TavrenMetricConfig& instance();
    virtual ~TavrenMetricConfig() = default;

    // Loads and prints the configuration at `path` (or the override copy when
    // "tavrend.metric.override" is true). False when it could not be parsed.
    bool loadConfig(const char* path);
    // 0, -1 when the file gave no tree, or the failure of parseJsonData.
    int parseConfig(const char* path);
    // Resets, then fills from `root`. 0, or -1 when a top-level key is missing.
    int parseJsonData(cJSON* root);
    void resetConfig();

    // Copies the named configuration into `out`; false (and `out` untouched)
    // when there is none.
    bool getMetricConfig(const std::string& name, MetricConfig& out) const;
    // The stored configuration of that name, or nullptr.
    const MetricConfig* findMetricConfig(const std::string& name) const;

    std::unordered_map<std::string, MetricConfig> metricConfigs;
    OrreryConfig orreryConfig;

protected:
    TavrenMetricConfig();
};

}  // namespace tavrend

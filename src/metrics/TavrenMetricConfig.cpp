#include "metrics/TavrenMetricConfig.h"

#include <cutils/properties.h>

#include "common/Log.h"
#include "common/NoDestroy.h"
#include "config/cjson_ext.h"

namespace tavrend {
namespace {

// Every key below the top level is optional, and a key holding another JSON type
// than expected reads as absent: the field keeps its default.
const cJSON* objectItem(const cJSON* parent, const char* key) {
    const cJSON* item = cJSON_GetObjectItem(parent, key);
    return cJSON_IsObject(item) ? item : nullptr;
}

const cJSON* arrayItem(const cJSON* parent, const char* key) {
    const cJSON* item = cJSON_GetObjectItem(parent, key);
    return cJSON_IsArray(item) ? item : nullptr;
}

void readString(const cJSON* parent, const char* key, std::string& field) {
    const cJSON* item = cJSON_GetObjectItem(parent, key);
    if (cJSON_IsString(item) && item->valuestring != nullptr) field = item->valuestring;
}

void readBool(const cJSON* parent, const char* key, bool& field) {
    const cJSON* item = cJSON_GetObjectItem(parent, key);
    if (cJSON_IsBool(item)) field = cJSON_get_bool_val(item) != 0;
}

// {"Name": "process", "DimensionTag": "proc"}; a type is never read for these.
void readKeyOrValueField(const cJSON* parent, const char* key, MetricField& field) {
    const cJSON* obj = objectItem(parent, key);
    if (obj == nullptr) return;
    readString(obj, "Name", field.name);
    readString(obj, "DimensionTag", field.dimensionTag);
}

void readOrreryInterface(const cJSON* obj, TavrenMetricConfig::OrreryMetricInterface& out) {
    readString(obj, "Schema_Id", out.schemaId);
    readString(obj, "Group_Id", out.groupId);
    readBool(obj, "Active", out.active);
    readKeyOrValueField(obj, "Metric_Key", out.metricKey);
    readKeyOrValueField(obj, "Metric_Value", out.metricValue);
    const cJSON* metrics = arrayItem(obj, "Metrics");
    if (metrics == nullptr) return;
    const cJSON* element = nullptr;
    // [{"Name": "duration_type", "Type": "str", "DimensionTag": "type"}, ...]
    // Each element takes one position of the record's schema, so an element with
    // missing keys (or no object at all) still adds an entry.
    cJSON_ArrayForEach(element, metrics) {
        MetricField field;
        readString(element, "Name", field.name);
        readString(element, "Type", field.type);
        readString(element, "DimensionTag", field.dimensionTag);
        out.metrics.push_back(std::move(field));
    }
}

TavrenMetricConfig::MetricConfig readMetricConfig(const cJSON* element) {
    TavrenMetricConfig::MetricConfig config;
    readString(element, "MetricConfig", config.name);
    readString(element, "MetricName", config.metricName);
    readBool(element, "Active", config.active);
    // "Sample_interval_ticks", "Metric_logcat_interval_ticks" and
    // "Metric_report_interval_ticks" belong to the file's schema, but the daemon's
    // intervals come from its own configuration: their values are not kept.
    if (const cJSON* kaph = objectItem(element, "KAPH_Metric_Interface")) {
        readString(kaph, "ProgramName", config.kaphMetricInterface.programName);
        readBool(kaph, "Active", config.kaphMetricInterface.active);
    }
    if (const cJSON* orrery = objectItem(element, "Orrery_Metric_Interface")) {
        readOrreryInterface(orrery, config.orreryMetricInterface);
    }
    return config;
}

}  // namespace

TavrenMetricConfig& TavrenMetricConfig::instance() {
    // Never destroyed: the idle detector's thread reads it, and no thread of
    // the daemon may find a static destroyed under it at exit.
    struct Instance : TavrenMetricConfig {};
    static const NoDestroy<Instance> config;
    return *config;
}

TavrenMetricConfig::TavrenMetricConfig() { metricConfigs.max_load_factor(1.0f); }

void TavrenMetricConfig::resetConfig() {
    metricConfigs.clear();
    orreryConfig.enabled = false;
    orreryConfig.groupId.clear();
    orreryConfig.region.clear();
}

int TavrenMetricConfig::parseJsonData(cJSON* root) {
    resetConfig();

    // "MetricConfig" goes first: a file without "OrreryConfig" keeps its metric
    // configurations but stays disabled.
    const cJSON* configs = arrayItem(root, "MetricConfig");
    if (configs == nullptr) return -1;
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, configs) {
        MetricConfig config = readMetricConfig(element);
        // A later element of the same name replaces an earlier one.
        metricConfigs[config.name] = std::move(config);
    }

    const cJSON* orrery = objectItem(root, "OrreryConfig");
    if (orrery == nullptr) return -1;
    readBool(orrery, "Enabled", orreryConfig.enabled);
    readString(orrery, "Region", orreryConfig.region);
    readString(orrery, "GroupId", orreryConfig.groupId);
    return 0;
}

int TavrenMetricConfig::parseConfig(const char* path) {
    if (property_get_bool(kMetricOverrideProperty, false)) path = kOverrideMetricConfigPath;
    if (path == nullptr) path = kDefaultMetricConfigPath;
    cJSON* root = cJSON_Parse_File(path, 0);
    if (root == nullptr) {
        TLOGE("root_json is null %s, malformed json file?\n", path);
        return -1;
    }
    int status = parseJsonData(root);
    cJSON_Delete(root);
    if (status != 0) {
        TLOGE("Opening of %s failed, could not parse json\n", path);
        return -1;
    }
    return 0;
}

bool TavrenMetricConfig::loadConfig(const char* path) {
    TLOGI("Load JSON config\n\n");
    if (parseConfig(path) != 0) {
        TLOGE("Could not parse config file\n");
        TLOGI("Load JSON config done\n");
        return false;
    }
    TLOGI("orreryConfig.enabled: %d\n", orreryConfig.enabled);
    TLOGI("default group id: %s\n", orreryConfig.groupId.c_str());
    TLOGI("region: %s\n", orreryConfig.region.c_str());
    const auto configs = metricConfigs;
    for (const auto& [name, c] : configs) {
        const OrreryMetricInterface& o = c.orreryMetricInterface;
        TLOGI("==============================\n");
        TLOGI("config.name %s\n", c.name.c_str());
        TLOGI("config.metricName %s\n", c.metricName.c_str());
        TLOGI("config.active %d\n", c.active);
        TLOGI("kaphMetricInterface.active %d\n", c.kaphMetricInterface.active);
        TLOGI("programName %s\n", c.kaphMetricInterface.programName.c_str());
        TLOGI("orreryMetricInterface.active %d\n", o.active);
        TLOGI("schema id %s\n", o.schemaId.c_str());
        TLOGI("group id %s\n", o.groupId.c_str());
        TLOGI("name %s\n", o.metricKey.name.c_str());
        TLOGI("dimensionTag %s\n", o.metricKey.dimensionTag.c_str());
        TLOGI("name %s\n", o.metricValue.name.c_str());
        TLOGI("dimensionTag %s\n", o.metricValue.dimensionTag.c_str());
    }
    TLOGI("Load JSON config done\n");
    return true;
}

bool TavrenMetricConfig::getMetricConfig(const std::string& name, MetricConfig& out) const {
    const MetricConfig* found = findMetricConfig(name);
    if (found == nullptr) return false;
    out.name = found->name;
    out.metricName = found->metricName;
    out.active = found->active;
    out.kaphMetricInterface = found->kaphMetricInterface;
    out.orreryMetricInterface = found->orreryMetricInterface;
    return true;
}

const TavrenMetricConfig::MetricConfig* TavrenMetricConfig::findMetricConfig(
    const std::string& name) const {
    auto it = metricConfigs.find(name);
    return it == metricConfigs.end() ? nullptr : &it->second;
}

}  // namespace tavrend

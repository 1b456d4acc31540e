#include "metrics/TavrendMetric.h"

#include <log/log.h>

#include <sstream>

#include "config/Constants.h"
#include "metrics/TavrenMetricConfig.h"

namespace tavrend {
namespace {

// The record's type code of a configured field type; unknown types get none.
const char* typeCode(const std::string& type) {
    if (type == "str") return ";SY";
    if (type == "int") return ";IN";
    if (type == "float") return ";FL";
    if (type == "bool") return ";BO";
    if (type == "ts") return ";TI";
    return "";
}

// The configuration a record may be built from: it exists and its interface is active.
const TavrenMetricConfig::MetricConfig* activeConfig(const std::string& configName) {
    const TavrenMetricConfig::MetricConfig* config =
        TavrenMetricConfig::instance().findMetricConfig(configName);
    if (config == nullptr || !config->orreryMetricInterface.active) return nullptr;
    return config;
}

void writeRecord(const std::string& record) {
    __android_log_buf_print(kMetricsLogId, ANDROID_LOG_INFO, kMetricsLogTag, "%s", record.c_str());
}

}  // namespace

std::string replaceBadChars(std::string s) {
    for (char& c : s) {
        if (c == ':') c = '_';
    }
    for (char& c : s) {
        if (c == ';') c = '_';
    }
    return s;
}

TavrendMetric::TavrendMetric(std::string name) : name(std::move(name)) {}

void TavrendMetric::emitOrreryMetricUint64(const std::string& key, uint64_t value) {
    uint64Metrics[replaceBadChars(key)] = value;
}

void TavrendMetric::emitOrreryMetricPairVec(const std::string& key, const MetricPairs& pairs) {
    pairVecMetrics[key] = pairs;
}

void TavrendMetric::publish(const std::string& configName) {
    // While sending is disabled the values stay, to go out with a later publish.
    if (!TavrenMetricConfig::instance().orreryConfig.enabled) return;
    uploadWexOrreryMetric(configName);
}

void TavrendMetric::publishCounterMetric(const std::string& configName, const std::string& /*name*/,
                                         uint64_t /*value*/) {
    // The counter's name and value were emitted beforehand; only the publish is left.
    publish(configName);
}

void TavrendMetric::uploadWexOrreryMetric(const std::string& configName) {
    buildOrreryMetricUint64(uint64Metrics, configName, "int");
    buildOrreryMetricVec(pairVecMetrics, configName);
}

void TavrendMetric::resetOrreryMetric() {
    tailCache.clear();
    keyDimensionTag.clear();
    valueDimensionTag.clear();
}

// "grp1:sch1:100:"
std::string TavrendMetric::buildOrreryMetricHeaderString(const std::string& configName) {
    const TavrenMetricConfig::MetricConfig* config = activeConfig(configName);
    if (config == nullptr) return "";
    const auto& iface = config->orreryMetricInterface;
    const std::string& groupId =
        iface.groupId.empty() ? TavrenMetricConfig::instance().orreryConfig.groupId : iface.groupId;
    keyDimensionTag = iface.metricKey.dimensionTag;
    valueDimensionTag = iface.metricValue.dimensionTag;
    std::ostringstream out;
    out << groupId << ':' << iface.schemaId << ":100:";
    return out.str();
}

// "type=uptime_till_reboot;SY,value=3600;IN": the configured metrics list is the
// schema, position by position.
std::string TavrendMetric::buildOrreryMetricVecBodyString(const MetricPairs& pairs,
                                                          const std::string& configName) {
    const TavrenMetricConfig::MetricConfig* config = activeConfig(configName);
    if (config == nullptr) return "";
    const std::vector<MetricField>& schema = config->orreryMetricInterface.metrics;
    if (pairs.empty() || pairs.size() != schema.size()) return "";
    std::ostringstream out;
    for (size_t i = 0; i < pairs.size(); ++i) {
        // A pair whose name does not match its position writes nothing, not even its
        // comma; a mismatch in the last position thus leaves the previous comma
        // standing before the tail's own. Intended.
        if (pairs[i].first != schema[i].name) continue;
        out << schema[i].dimensionTag << '=' << pairs[i].second << typeCode(schema[i].type);
        if (i + 1 != pairs.size()) out << ',';
    }
    return out.str();
}

// "proc=system_server;SY,count=3;IN", with the tags of the last header built.
std::string TavrendMetric::buildOrreryMetricUint64BodyString(const std::string& key, uint64_t value,
                                                             const std::string& typeName) {
    if (keyDimensionTag.empty() || valueDimensionTag.empty()) return "";
    std::ostringstream out;
    out << keyDimensionTag << '=' << key << ";SY," << valueDimensionTag << '=' << value
        << typeCode(typeName);
    return out.str();
}

// ",_softwareVersion=;SY,...,_hardware=;SY[:region]": the device fields are left
// empty for the metrics service to fill.
std::string TavrendMetric::buildOrreryMetricTailString() {
    if (!tailCache.empty()) return tailCache;
    std::ostringstream out;
    for (const char* key : METRIC_DEVICE_KEYS) out << ',' << key << "=;SY";
    const std::string& region = TavrenMetricConfig::instance().orreryConfig.region;
    if (!region.empty()) out << ':' << region;
    tailCache = out.str();
    return tailCache;
}

// Writes one record per accumulated entry with a non-empty body, then empties
// the map. An unknown or inactive configuration drops what was accumulated.
template <typename Map, typename MakeBody>
void TavrendMetric::publishEntries(Map& metrics, const std::string& configName, MakeBody makeBody) {
    if (metrics.empty()) return;
    const std::string header = buildOrreryMetricHeaderString(configName);
    const std::string tail = buildOrreryMetricTailString();
    if (header.empty() || tail.empty()) {
        resetOrreryMetric();
        metrics.clear();
        return;
    }
    for (const auto& entry : metrics) {
        // An entry that does not fit the schema is dropped without a message.
        const std::string body = makeBody(entry);
        if (body.empty()) continue;
        std::string record;
        record.reserve(header.size() + body.size() + tail.size());
        record.append(header).append(body).append(tail);
        writeRecord(record);
    }
    metrics.clear();
}

void TavrendMetric::buildOrreryMetricVec(std::map<std::string, MetricPairs>& metrics,
                                         const std::string& configName) {
    publishEntries(metrics, configName, [&](const auto& entry) {
        return buildOrreryMetricVecBodyString(entry.second, configName);
    });
}

void TavrendMetric::buildOrreryMetricUint64(std::map<std::string, uint64_t>& metrics,
                                            const std::string& configName,
                                            const std::string& typeName) {
    publishEntries(metrics, configName, [&](const auto& entry) {
        return buildOrreryMetricUint64BodyString(entry.first, entry.second, typeName);
    });
}

}  // namespace tavrend

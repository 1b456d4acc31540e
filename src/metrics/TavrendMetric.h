// A monitor's accumulator of metric values, written as records to the
// metrics log buffer on publish(). Not thread-safe: its owner serialises use.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace tavrend {

// The device's metrics log buffer, read by the metrics service. The platform's
// log_id_t has no name for it, so the daemon names the id itself.
inline constexpr int kMetricsLogId = 8;

// Tag of every record in the metrics log buffer.
inline constexpr const char* kMetricsLogTag = "metrics.tavrend";

using MetricPairs = std::vector<std::pair<std::string, std::string>>;

// Replaces every ':' and then every ';' with '_'.
std::string replaceBadChars(std::string s);

class TavrendMetric {
public:
    explicit TavrendMetric(std::string name);
    virtual ~TavrendMetric() = default;

    void emitOrreryMetricUint64(const std::string& key, uint64_t value);
    void emitOrreryMetricPairVec(const std::string& key, const MetricPairs& pairs);
    void publish(const std::string& configName);
    // Same as publish(configName); `name` and `value` are not used.
    void publishCounterMetric(const std::string& configName, const std::string& name,
                              uint64_t value);
    void uploadWexOrreryMetric(const std::string& configName);
    void resetOrreryMetric();

    // Record pieces.
    std::string buildOrreryMetricHeaderString(const std::string& configName);
    std::string buildOrreryMetricVecBodyString(const MetricPairs& pairs,
                                               const std::string& configName);
    std::string buildOrreryMetricUint64BodyString(const std::string& key, uint64_t value,
                                                  const std::string& typeName);
    std::string buildOrreryMetricTailString();

    // Publishers: write one record per accumulated entry, then empty the map.
    void buildOrreryMetricVec(std::map<std::string, MetricPairs>& metrics,
                              const std::string& configName);
    void buildOrreryMetricUint64(std::map<std::string, uint64_t>& metrics,
                                 const std::string& configName, const std::string& typeName);

    // Read access for tests and owners.
    const std::map<std::string, MetricPairs>& pairVecMetricsView() const { return pairVecMetrics; }
    const std::map<std::string, uint64_t>& uint64MetricsView() const { return uint64Metrics; }
    const std::string& tailCacheView() const { return tailCache; }

private:
    template <typename Map, typename MakeBody>
    void publishEntries(Map& metrics, const std::string& configName, MakeBody makeBody);

    std::string name;
    std::string tailCache;
    std::map<std::string, MetricPairs> pairVecMetrics;
    std::map<std::string, uint64_t> uint64Metrics;
    std::string keyDimensionTag;
    std::string valueDimensionTag;
};

}  // namespace tavrend

// tavrendctl check-config [ROOT]: loads a device root's configuration files
// through the daemon's own loaders, prints every effective setting with its
// origin, and warns, one line per mistake, about what would make the daemon
// misbehave.
#include <cjson/cJSON.h>
#include <cutils/properties.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "Commands.h"
#include "config/ConfigLoader.h"
#include "config/ConfigVariables.h"
#include "config/Constants.h"
#include "config/MemoryGuardrailConfig.h"
#include "config/cjson_ext.h"
#include "metrics/TavrenMetricConfig.h"
#include "platform/host_root.h"
#include "platform/log_hook.h"

using tavrend::ConfigVariables;
using tavrend::MemoryGuardrailConfig;
using tavrend::TavrenMetricConfig;

namespace {

constexpr const char* kUsage =
    "usage: tavrendctl check-config [ROOT]\n"
    "\n"
    "Loads the daemon configuration, the metric configuration and, when guardrails\n"
    "are enabled, the guardrail file of the device root ROOT (default $TAVREND_ROOT,\n"
    "else /) as the daemon does, honouring the override properties. Prints every\n"
    "setting's effective value and where it came from (default, file or override\n"
    "file), the metric configuration and the guardrail rows, then one line\n"
    "'warning: KEY: ...' per mistake that would make the daemon misbehave.\n"
    "\n"
    "Exit status: 0 no warning; 1 warnings (a missing or malformed metric\n"
    "configuration is one: the daemon runs on without metric records); 2 bad usage,\n"
    "or a file the daemon cannot run without does not load: the daemon\n"
    "configuration, or the guardrail file while guardrails are enabled.\n";

constexpr const char* kBuckets[] = {"foreground", "visible",     "perceptible",
                                    "backup",     "cache_start", "cache_end"};

// File text may hold anything; keep every report line one line.
std::string clean(const char* s) {
    std::string out = s != nullptr ? s : "";
    for (char& c : out) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    }
    return out;
}

std::string quoted(const std::string& s) { return "\"" + clean(s.c_str()) + "\""; }

const char* jsonType(const cJSON* item) {
    if (cJSON_IsNumber(item)) return "a number";
    if (cJSON_IsString(item)) return "a string";
    if (cJSON_IsBool(item)) return "a boolean";
    if (cJSON_IsNull(item)) return "null";
    if (cJSON_IsArray(item)) return "an array";
    return "an object";
}

class Findings {
public:
    [[gnu::format(printf, 3, 4)]] void warn(const std::string& key, const char* fmt, ...) {
        char text[512];
        va_list ap;
        va_start(ap, fmt);
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): started just above
        vsnprintf(text, sizeof(text), fmt, ap);
        va_end(ap);
        lines_.push_back("warning: " + key + ": " + text);
    }
    bool empty() const { return lines_.empty(); }
    void print() const {
        if (!lines_.empty()) printf("\n");
        for (const std::string& line : lines_) printf("%s\n", line.c_str());
    }

private:
    std::vector<std::string> lines_;
};

// A file parsed the way the daemon parses it, for looking at what it holds.
class JsonFile {
public:
    explicit JsonFile(const char* devicePath)
        : path_(devicePath), root_(cJSON_Parse_File(devicePath, 0)) {}
    ~JsonFile() { cJSON_Delete(root_); }
    JsonFile(const JsonFile&) = delete;
    JsonFile& operator=(const JsonFile&) = delete;
    const cJSON* root() const { return root_; }
    // Why the file gave no tree.
    const char* failure() const {
        struct stat st {};
        if (stat(tavrend::platform::hostPath(path_).c_str(), &st) != 0) return "missing";
        return "unreadable or not valid JSON";
    }

private:
    const char* path_;
    cJSON* root_;
};

// ---- The daemon configuration ----

// When a value below 1 makes the daemon misbehave.
enum class Needs { Nothing, Positive, PositiveWithUpl, PositiveWithGuardrails };

constexpr const char* kEverySecond = "below 1: taken as 1, so it runs every second";
constexpr const char* kEverySample = "below 1: taken as 1, a heartbeat line every sample";

struct Setting {
    const char* section;  // nullptr: a key of the top level
    const char* key;
    int32_t ConfigVariables::*number = nullptr;
    bool ConfigVariables::*flag = nullptr;
    std::string ConfigVariables::*text = nullptr;
    bool bucket = false;  // a bucket name in the file, its code in `number`
    Needs needs = Needs::Nothing;
    const char* belowOne = nullptr;  // what a value below 1 does
    const char* alsoFrom = nullptr;  // another key of the section whose value lands here
};

using CV = ConfigVariables;
constexpr const char* kSys = "system_mem";
constexpr const char* kScan = "proc_scan";
constexpr const char* kUpl = "device_upl";
constexpr const char* kGuard = "process_guardrail";
constexpr const char* kSections[] = {kSys, kScan, "sample", kUpl, kGuard};

Setting num(const char* section, const char* key, int32_t CV::*field, Needs needs = Needs::Nothing,
            const char* belowOne = nullptr, const char* alsoFrom = nullptr) {
    Setting s{section, key};
    s.number = field;
    s.needs = needs;
    s.belowOne = belowOne;
    s.alsoFrom = alsoFrom;
    return s;
}

Setting flag(const char* section, const char* key, bool CV::*field) {
    Setting s{section, key};
    s.flag = field;
    return s;
}

const Setting kSettings[] = {
    num(kSys, "memory_read_interval_sec", &CV::memory_read_interval_sec, Needs::Positive,
        kEverySecond),
    num(kSys, "critical_memory_threshold_percent", &CV::critical_memory_threshold_percent),
    [] {
        Setting s = num(kSys, "critical_memory_bucket", &CV::critical_memory_bucket);
        s.bucket = true;
        return s;
    }(),
    num(kSys, "critical_memory_measurement_time", &CV::critical_memory_measurement_time,
        Needs::Positive, "below 1: the memory history holds a single sample"),
    num(kSys, "critical_memory_default_threshold_kb", &CV::critical_memory_default_threshold_kb),
    num(kSys, "critical_memory_over_threshold_percent",
        &CV::critical_memory_over_threshold_percent),
    num(kSys, "critical_memory_action", &CV::critical_memory_action, Needs::Nothing, nullptr,
        "critical_memory_default_threshold_kb"),
    num(kSys, "critical_memory_minimum_uptime_sec", &CV::critical_memory_minimum_uptime_sec),
    num(kSys, "critical_memory_minimum_idle_time_sec", &CV::critical_memory_minimum_idle_time_sec),
    num(kSys, "critical_memory_idle_override_time_sec",
        &CV::critical_memory_idle_override_time_sec),
    [] {
        Setting s{kSys, "lmk_counter_threshold"};
        s.text = &CV::lmk_counter_threshold;
        return s;
    }(),
    num(kSys, "lmk_target_kills", &CV::lmk_target_kills, Needs::Positive,
        "below 1: every memory sample counts as a leak and raises the critical condition"),
    num(kSys, "system_mem_heartbeat_samples", &CV::system_mem_heartbeat_samples, Needs::Positive,
        kEverySample),
    num(kSys, "idle_detection_interval_sec", &CV::idle_detection_interval_sec, Needs::Positive,
        kEverySecond),
    num(kSys, "critical_memory_swap_free_threshold_kb",
        &CV::critical_memory_swap_free_threshold_kb),
    num(kSys, "critical_memory_s_unreclaim_threshold_kb",
        &CV::critical_memory_s_unreclaim_threshold_kb),
    num(kScan, "proc_scan_interval_sec", &CV::proc_scan_interval_sec, Needs::Positive,
        kEverySecond),
    num(kScan, "rss_read_interval_sec", &CV::rss_read_interval_sec),
    num(kScan, "pss_read_interval_sec", &CV::pss_read_interval_sec),
    num(kScan, "num_pss_processes", &CV::num_pss_processes),
    num(kScan, "num_historical_vals", &CV::num_historical_vals, Needs::Positive,
        "below 1: each process keeps a single value"),
    num(kScan, "pss_logging", &CV::pss_logging),
    num(kScan, "process_mem_heartbeat_samples", &CV::process_mem_heartbeat_samples, Needs::Positive,
        kEverySample),
    flag(nullptr, "sample", &CV::sample),
    flag(kUpl, "dupl_monitoring_enabled", &CV::dupl_monitoring_enabled),
    num(kUpl, "critical_upl_threshold_ms", &CV::critical_upl_threshold_ms),
    num(kUpl, "critical_upl_bad_sample_count_threshold",
        &CV::critical_upl_bad_sample_count_threshold, Needs::PositiveWithUpl,
        "below 1: a single bad latency sample raises the critical condition"),
    flag(kGuard, "process_guardrail_monitoring_enabled", &CV::process_guardrail_monitoring_enabled),
    num(kGuard, "guardrail_check_interval_sec", &CV::guardrail_check_interval_sec,
        Needs::PositiveWithGuardrails, kEverySecond, "process_guardrail_monitoring_enabled"),
    num(kGuard, "pss_sleep_interval_sec", &CV::pss_sleep_interval_sec),
    num(kGuard, "process_kill_metrics_interval_sec", &CV::process_kill_metrics_interval_sec,
        Needs::PositiveWithGuardrails, kEverySecond),
};

std::string nameOf(const Setting& s) {
    return s.section != nullptr ? std::string(s.section) + "." + s.key : s.key;
}

std::string valueOf(const Setting& s, const CV& c) {
    if (s.flag != nullptr) return c.*s.flag ? "true" : "false";
    if (s.text != nullptr) return quoted(c.*s.text);
    const int32_t v = c.*s.number;
    if (s.bucket && v >= 0 && v < 6)
        return std::string(kBuckets[v]) + " (" + std::to_string(v) + ")";
    return std::to_string(v);
}

// Warns when the item is not of the JSON type the loader reads; true when it is.
bool checkType(const Setting& s, const cJSON* item, const std::string& name, Findings& f) {
    if (s.flag != nullptr) {
        if (cJSON_IsBool(item)) return true;
        f.warn(name, "%s, not true or false: read as false", jsonType(item));
    } else if (s.text != nullptr || s.bucket) {
        if (cJSON_IsString(item) && item->valuestring != nullptr) return true;
        f.warn(name, "%s, not a string: ignored", jsonType(item));
    } else if (!cJSON_IsNumber(item)) {
        f.warn(name, "%s, not a number: read as %d", jsonType(item), item->valueint);
    } else {
        const double d = item->valuedouble;
        if (std::trunc(d) == d && d >= INT32_MIN && d <= INT32_MAX) return true;
        f.warn(name, "%g is not a 32-bit whole number: read as %d", d, item->valueint);
    }
    return false;
}

// Every LMK class the system sampler counts by name; it also counts "Fg".
bool isLmkClass(const char* s) {
    const char* const classes[] = {tavrend::PERSISTENT, "Fg",
                                   tavrend::VISIBLE,    tavrend::PERCEPTIBLE,
                                   tavrend::BACKUP,     tavrend::OTHER};
    return std::any_of(std::begin(classes), std::end(classes),
                       [s](const char* c) { return strcmp(s, c) == 0; });
}

void checkValue(const Setting& s, const cJSON* item, const CV& c, Findings& f) {
    const std::string name = nameOf(s);
    if (item != nullptr && !checkType(s, item, name, f)) return;
    if (s.bucket && item != nullptr) {
        const char* b = item->valuestring;
        if (std::none_of(std::begin(kBuckets), std::end(kBuckets),
                         [b](const char* k) { return strcmp(b, k) == 0; })) {
            f.warn(name,
                   "%s is no bucket (foreground, visible, perceptible, backup, cache_start, "
                   "cache_end): ignored",
                   quoted(b).c_str());
        }
    }
    if (s.text != nullptr && item != nullptr && !isLmkClass(item->valuestring)) {
        f.warn(name,
               "%s names no class (Persistent, Fg, Visible, Perceptible, Backup, Other): kills "
               "of every class count",
               quoted(item->valuestring).c_str());
    }
    const bool enabled =
        s.needs == Needs::Positive ||
        (s.needs == Needs::PositiveWithUpl && c.dupl_monitoring_enabled) ||
        (s.needs == Needs::PositiveWithGuardrails && c.process_guardrail_monitoring_enabled);
    if (s.needs != Needs::Nothing && (enabled || item != nullptr) && c.*s.number < 1) {
        f.warn(name, "%d%s, %s", c.*s.number, item != nullptr ? "" : " (not in the file)",
               s.belowOne);
    }
}

// Keys the daemon does not read, and keys given twice (it reads the first);
// cJSON matches names regardless of case, as the loader does.
void checkKeys(const cJSON* object, const char* const* known, size_t count,
               const std::string& prefix, Findings& f) {
    std::set<size_t> seen;
    for (const cJSON* m = object->child; m != nullptr; m = m->next) {
        const char* key = m->string != nullptr ? m->string : "";
        const std::string name = prefix + clean(key);
        size_t i = 0;
        while (i < count && strcasecmp(key, known[i]) != 0) ++i;
        if (i == count) {
            f.warn(name, "unknown %s: the daemon ignores it", prefix.empty() ? "section" : "key");
        } else if (!seen.insert(i).second) {
            f.warn(name, "given twice: the daemon reads only the first");
        }
    }
}

void checkLayout(const cJSON* root, Findings& f) {
    checkKeys(root, kSections, std::size(kSections), "", f);
    const struct {
        const char* name;
        const char* const* keys;
        size_t count;
    } sections[] = {{kSys, tavrend::SYSTEM_MEM_KEYS, tavrend::kSystemMemKeyCount},
                    {kScan, tavrend::PROC_SCAN_KEYS, tavrend::kProcScanKeyCount},
                    {kUpl, tavrend::DEVICE_UPL_KEYS, tavrend::kDeviceUplKeyCount},
                    {kGuard, tavrend::PROCESS_GUARDRAIL_KEYS, tavrend::kProcessGuardrailKeyCount}};
    for (const auto& s : sections) {
        const cJSON* section = cJSON_GetObjectItem(root, s.name);
        if (section == nullptr) continue;
        if (!cJSON_IsObject(section)) {
            f.warn(s.name, "%s, not an object: none of its keys is read", jsonType(section));
            continue;
        }
        checkKeys(section, s.keys, s.count, std::string(s.name) + ".", f);
    }
}

// The daemon sizes its histories from the configuration and allocates each
// whole at start-up (a process's two when it is first seen), 8 bytes a sample.
constexpr int64_t kMaxHistoryBytes = 16'000'000;

void checkHistories(const CV& c, Findings& f) {
    const struct {
        const char* key;
        int64_t capacity;  // computed as the daemon computes it; below 1 is 1
        const char* which;
    } histories[] = {
        {"system_mem.critical_memory_measurement_time",
         c.critical_memory_measurement_time /
             static_cast<int64_t>(tavrend::effectivePeriod(c.memory_read_interval_sec)),
         "each of the 4 system memory histories (measurement time / memory_read_interval_sec)"},
        {"proc_scan.num_historical_vals", c.num_historical_vals,
         "each of the 2 histories of every process"},
        // Allocated even with latency monitoring disabled.
        {"device_upl.critical_upl_bad_sample_count_threshold",
         c.critical_upl_bad_sample_count_threshold, "the latency history"},
    };
    for (const auto& h : histories) {
        if (h.capacity * 8 > kMaxHistoryBytes) {
            f.warn(h.key, "%" PRId64 " samples of 8 bytes (%" PRId64 " bytes) in %s: over 16 MB",
                   h.capacity, h.capacity * 8, h.which);
        }
    }
}

// Loads the daemon configuration as the daemon does; false when it cannot.
bool checkDaemonConfig(CV& config, Findings& f) {
    const bool override = property_get_bool(tavrend::kConfigOverrideProperty, false);
    const char* path = override ? tavrend::kOverrideConfigPath : tavrend::kDefaultConfigPath;
    const int status = tavrend::tavren_config_load(config);
    const JsonFile file(path);
    if (status != 0 || file.root() == nullptr) {
        fprintf(stderr, "tavrendctl: check-config: daemon configuration %s%s: %s\n", path,
                override ? " (chosen by tavrend.config.override)" : "",
                file.root() == nullptr
                    ? file.failure()
                    : "holds none of system_mem, proc_scan, sample, device_upl, process_guardrail");
        return false;
    }
    const char* origin = override ? "override file" : "file";
    printf("daemon configuration: %s (%s)\n", path, origin);
    checkLayout(file.root(), f);
    for (const Setting& s : kSettings) {
        const cJSON* holder =
            s.section != nullptr ? cJSON_GetObjectItem(file.root(), s.section) : file.root();
        const cJSON* item = cJSON_GetObjectItem(holder, s.key);
        std::string source = item != nullptr ? origin : "default";
        if (item == nullptr && s.alsoFrom != nullptr &&
            cJSON_GetObjectItem(holder, s.alsoFrom) != nullptr) {
            source = std::string(origin) + ", from " + s.alsoFrom;
        }
        printf("  %-54s %-16s %s\n", nameOf(s).c_str(), valueOf(s, config).c_str(), source.c_str());
        checkValue(s, item, config, f);
    }
    checkHistories(config, f);
    return true;
}

// ---- The metric configuration ----

using MetricConfig = TavrenMetricConfig::MetricConfig;

const char* onOff(bool b) { return b ? "true" : "false"; }

void printMetricConfig(const MetricConfig& c) {
    const auto& o = c.orreryMetricInterface;
    printf("  %s: Active %s, MetricName %s\n", quoted(c.name).c_str(), onOff(c.active),
           quoted(c.metricName).c_str());
    printf("    KAPH_Metric_Interface: Active %s, ProgramName %s\n",
           onOff(c.kaphMetricInterface.active), quoted(c.kaphMetricInterface.programName).c_str());
    printf("    Orrery_Metric_Interface: Active %s, Schema_Id %s, Group_Id %s\n", onOff(o.active),
           quoted(o.schemaId).c_str(), quoted(o.groupId).c_str());
    if (!o.metricKey.dimensionTag.empty() || !o.metricValue.dimensionTag.empty()) {
        printf("      Metric_Key tag %s, Metric_Value tag %s\n",
               quoted(o.metricKey.dimensionTag).c_str(),
               quoted(o.metricValue.dimensionTag).c_str());
    }
    for (const auto& m : o.metrics) {
        printf("      Metrics: %s, Type %s, DimensionTag %s\n", quoted(m.name).c_str(),
               quoted(m.type).c_str(), quoted(m.dimensionTag).c_str());
    }
}

// What a configuration the daemon publishes under needs; nullptr when it is missing.
const MetricConfig* checkPublisher(const TavrenMetricConfig& mc, const char* name, Findings& f) {
    const std::string key = std::string("MetricConfig.") + name;
    const MetricConfig* c = mc.findMetricConfig(name);
    if (c == nullptr) {
        f.warn(key, "missing: no record of %s is written", name);
        return nullptr;
    }
    if (!c->active) {
        f.warn(key + ".Active",
               "false, but the daemon does not read it: records go out while the interfaces "
               "are active");
    }
    const auto& o = c->orreryMetricInterface;
    const std::string iface = key + ".Orrery_Metric_Interface";
    if (!o.active) f.warn(iface + ".Active", "false: no record of %s is written", name);
    if (o.schemaId.empty()) f.warn(iface + ".Schema_Id", "empty: records carry no schema id");
    if (o.groupId.empty() && mc.orreryConfig.groupId.empty()) {
        f.warn(iface + ".Group_Id", "empty, as is OrreryConfig.GroupId: records carry no group id");
    }
    return c;
}

// The idle detector publishes only with its legacy interface active, and writes
// pairs (duration_type, duration_value) matched to "Metrics" position by position.
void checkIdleDetector(const TavrenMetricConfig& mc, Findings& f) {
    const MetricConfig* c = checkPublisher(mc, tavrend::IDLE_DETECTOR, f);
    if (c == nullptr) return;
    const std::string key = std::string("MetricConfig.") + tavrend::IDLE_DETECTOR;
    if (!c->kaphMetricInterface.active) {
        f.warn(key + ".KAPH_Metric_Interface.Active",
               "false: the idle detector publishes only while it is true");
    }
    const auto& schema = c->orreryMetricInterface.metrics;
    const std::string metrics = key + ".Orrery_Metric_Interface.Metrics";
    const char* const pairs[] = {tavrend::DURATION_TYPE, tavrend::DURATION_VALUE};
    if (schema.size() != 2) {
        f.warn(metrics, "%zu entries, not 2 (%s, %s): no record is written", schema.size(),
               pairs[0], pairs[1]);
        return;
    }
    std::vector<std::string> lost;
    for (size_t i = 0; i < 2; ++i) {
        const std::string at = metrics + "[" + std::to_string(i) + "]";
        if (schema[i].name != pairs[i]) {
            lost.push_back(pairs[i]);
        } else if (const std::string& t = schema[i].type;
                   t != "str" && t != "int" && t != "float" && t != "bool" && t != "ts") {
            f.warn(at + ".Type", "%s is none of str, int, float, bool, ts: written without a type",
                   quoted(t).c_str());
        } else if (schema[i].dimensionTag.empty()) {
            f.warn(at + ".DimensionTag", "empty: %s is written without a name", pairs[i]);
        }
    }
    if (lost.size() == 2) {
        f.warn(metrics, "must name %s then %s: no record is written", pairs[0], pairs[1]);
    } else if (lost.size() == 1) {
        f.warn(metrics, "must name %s then %s: records are written without %s", pairs[0], pairs[1],
               lost[0].c_str());
    }
}

// The guardrail monitor's records need both dimension tags.
void checkGuardrailMetric(const TavrenMetricConfig& mc, Findings& f) {
    const MetricConfig* c = checkPublisher(mc, tavrend::MEMORY_GUARDRAIL, f);
    if (c == nullptr) return;
    const std::string key =
        std::string("MetricConfig.") + tavrend::MEMORY_GUARDRAIL + ".Orrery_Metric_Interface.";
    if (c->orreryMetricInterface.metricKey.dimensionTag.empty()) {
        f.warn(key + "Metric_Key.DimensionTag", "empty: no guardrail record is written");
    }
    if (c->orreryMetricInterface.metricValue.dimensionTag.empty()) {
        f.warn(key + "Metric_Value.DimensionTag", "empty: no guardrail record is written");
    }
}

void checkMetricConfig(const CV& config, Findings& f) {
    const bool override = property_get_bool(tavrend::kMetricOverrideProperty, false);
    const char* path =
        override ? tavrend::kOverrideMetricConfigPath : tavrend::kDefaultMetricConfigPath;
    TavrenMetricConfig& mc = TavrenMetricConfig::instance();
    const int status = mc.parseConfig(tavrend::kDefaultMetricConfigPath);
    printf("\nmetric configuration: %s (%s)\n", path, override ? "override file" : "file");
    if (status != 0) {
        printf("  not loaded\n");
        const JsonFile file(path);
        if (file.root() == nullptr) {
            f.warn(path, "%s: the daemon writes no metric record", file.failure());
        } else if (!cJSON_IsArray(cJSON_GetObjectItem(file.root(), "MetricConfig"))) {
            f.warn("MetricConfig", "missing or not an array: the daemon writes no metric record");
        } else {
            f.warn("OrreryConfig", "missing or not an object: the daemon writes no metric record");
        }
        return;
    }
    const auto& o = mc.orreryConfig;
    printf("  OrreryConfig: Enabled %s, Region %s, GroupId %s\n", onOff(o.enabled),
           quoted(o.region).c_str(), quoted(o.groupId).c_str());
    if (!o.enabled) f.warn("OrreryConfig.Enabled", "false: the daemon writes no metric record");
    std::vector<const MetricConfig*> all;
    for (const auto& entry : mc.metricConfigs) all.push_back(&entry.second);
    std::sort(all.begin(), all.end(), [](auto* a, auto* b) { return a->name < b->name; });
    for (const MetricConfig* c : all) printMetricConfig(*c);
    checkIdleDetector(mc, f);
    // Only the guardrail monitor publishes under "MemoryGuardrail".
    if (config.process_guardrail_monitoring_enabled) checkGuardrailMetric(mc, f);
}

// ---- The guardrail file ----

std::string limitText(uint64_t kb) {
    return kb == UINT64_MAX ? "none" : std::to_string(kb) + " kB";
}

// The loader's test for a row it keeps.
bool isWellFormedRow(const cJSON* element) {
    const cJSON* name = cJSON_GetObjectItem(element, "name");
    return cJSON_IsString(name) && name->valuestring != nullptr &&
           cJSON_IsNumber(cJSON_GetObjectItem(element, "soft_memory_limit")) &&
           cJSON_IsNumber(cJSON_GetObjectItem(element, "hard_memory_limit"));
}

// Loads the guardrail file when the daemon would; false when it cannot.
bool checkGuardrails(const CV& config, Findings& f) {
    const char* path = tavrend::kMemoryGuardrailConfigPath;
    if (!config.process_guardrail_monitoring_enabled) {
        printf("\nguardrails: disabled, %s is not read\n", path);
        return true;
    }
    std::vector<MemoryGuardrailConfig> rows;
    const int status = tavrend::loadMemoryGuardrailConfig(rows);
    const JsonFile file(path);
    if (status != 0 || file.root() == nullptr) {
        fprintf(stderr, "tavrendctl: check-config: guardrail file %s: %s\n", path,
                file.root() == nullptr ? file.failure() : "holds no \"processes\" array");
        return false;
    }
    printf("\nguardrails: %s\n", path);
    for (const MemoryGuardrailConfig& r : rows) {
        printf("  %-32s soft %-12s hard %s\n", quoted(r.name).c_str(),
               limitText(r.soft_memory_limit).c_str(), limitText(r.hard_memory_limit).c_str());
    }
    // A pass sleeps after every row while holding the guardrail lock, and a new
    // pass, a thread of its own, starts every check interval whether or not the
    // last one has ended.
    const uint64_t pass =
        rows.size() * static_cast<uint64_t>(std::max(0, config.pss_sleep_interval_sec));
    const uint64_t period = tavrend::effectivePeriod(config.guardrail_check_interval_sec);
    if (pass > 0 && pass >= period) {
        f.warn("process_guardrail.pss_sleep_interval_sec",
               "%d s after each of %zu guardrail rows: a pass takes %" PRIu64
               " s, a new one starts every %" PRIu64
               " s (guardrail_check_interval_sec): passes queue on the guardrail lock without "
               "end, one thread each",
               config.pss_sleep_interval_sec, rows.size(), pass, period);
    }
    const cJSON* processes = cJSON_GetObjectItem(file.root(), "processes");
    size_t row = 0;
    size_t index = 0;
    // The loader found an array; the file may have changed since.
    const cJSON* first = cJSON_IsArray(processes) ? processes->child : nullptr;
    for (const cJSON* e = first; e != nullptr; e = e->next, ++index) {
        const std::string key = "processes[" + std::to_string(index) + "]";
        if (!isWellFormedRow(e)) {
            f.warn(key,
                   "skipped: a row needs a string \"name\" and numbers \"soft_memory_limit\" and "
                   "\"hard_memory_limit\"");
        } else if (row < rows.size()) {
            const MemoryGuardrailConfig& r = rows[row++];
            if (r.soft_memory_limit > r.hard_memory_limit) {
                f.warn(key, "%s: soft limit %s above hard limit %s", quoted(r.name).c_str(),
                       limitText(r.soft_memory_limit).c_str(),
                       limitText(r.hard_memory_limit).c_str());
            }
        }
    }
    return true;
}

// The loaders log as the daemon does; keep their lines off the terminal and
// out of any daemon log directory.
void silenceDaemonLog() {
    tavrend::platform::setLogToStderr(false);
    unsetenv("TAVREND_LOG_DIR");
    tavrend::platform::reopenLogFiles();
}

}  // namespace

int checkConfigCommand(int argc, char** argv) {
    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        fputs(kUsage, stdout);
        return 0;
    }
    if (argc > 2 || (argc == 2 && argv[1][0] == '-')) {
        fputs(kUsage, stderr);
        return 2;
    }
    const char* env = getenv("TAVREND_ROOT");
    const std::string root = argc == 2 ? argv[1] : (env != nullptr && *env != '\0' ? env : "/");
    struct stat st {};
    if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        fprintf(stderr, "tavrendctl: check-config: device root %s is not a directory\n",
                root.c_str());
        return 2;
    }
    silenceDaemonLog();
    tavrend::platform::setDeviceRoot(root);
    printf("device root: %s\n", root.c_str());

    Findings findings;
    ConfigVariables config;
    if (!checkDaemonConfig(config, findings)) return 2;
    checkMetricConfig(config, findings);
    const bool guardrailsLoaded = checkGuardrails(config, findings);
    findings.print();
    if (!guardrailsLoaded) return 2;
    return findings.empty() ? 0 : 1;
}

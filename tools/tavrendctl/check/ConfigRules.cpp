#include "check/ConfigRules.h"

#include <strings.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <set>

#include "config/ConfigLoader.h"
#include "config/Constants.h"
#include "toolbox/Text.h"

namespace tavrendctl {

// File text may hold anything; keep every finding one line.
namespace {

std::string clean(const char* s) {
    std::string out = s != nullptr ? s : "";
    for (char& c : out) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    }
    return out;
}

}  // namespace

std::string quoted(const std::string& s) { return "\"" + clean(s.c_str()) + "\""; }

bool isWholeInt32(const cJSON* item) {
    const double d = item->valuedouble;
    return cJSON_IsNumber(item) && std::trunc(d) == d && d >= INT32_MIN && d <= INT32_MAX;
}

namespace {

using CV = tavrend::ConfigVariables;

constexpr const char* kBuckets[] = {"foreground", "visible",     "perceptible",
                                    "backup",     "cache_start", "cache_end"};

const char* jsonType(const cJSON* item) {
    if (cJSON_IsNumber(item)) return "a number";
    if (cJSON_IsString(item)) return "a string";
    if (cJSON_IsBool(item)) return "a boolean";
    if (cJSON_IsNull(item)) return "null";
    if (cJSON_IsArray(item)) return "an array";
    return "an object";
}

// ---- The daemon configuration ----

constexpr const char* kPrintedOnly = "loaded and printed only";
constexpr const char* kLoggedOnly =
    "it only sets a figure the daemon logs; the memory decision rests on the kills alone";

struct Setting {
    const char* section;  // nullptr: a key of the top level
    const char* key;
    int32_t CV::*number = nullptr;
    bool CV::*flag = nullptr;
    std::string CV::*text = nullptr;
    bool bucket = false;             // a bucket name in the file, its code in `number`
    const char* alsoFrom = nullptr;  // another key of the section whose value lands here
    const char* inert = nullptr;     // why the daemon never acts on it
};

constexpr const char* kSys = "system_mem";
constexpr const char* kScan = "proc_scan";
constexpr const char* kUpl = "device_upl";
constexpr const char* kGuard = "process_guardrail";
constexpr const char* kSections[] = {kSys, kScan, "sample", kUpl, kGuard};

const Setting kSettings[] = {
    {.section = kSys, .key = "memory_read_interval_sec", .number = &CV::memory_read_interval_sec},
    {.section = kSys,
     .key = "critical_memory_threshold_percent",
     .number = &CV::critical_memory_threshold_percent,
     .inert = kLoggedOnly},
    {.section = kSys,
     .key = "critical_memory_bucket",
     .number = &CV::critical_memory_bucket,
     .bucket = true,
     .inert = kLoggedOnly},
    {.section = kSys,
     .key = "critical_memory_measurement_time",
     .number = &CV::critical_memory_measurement_time},
    {.section = kSys,
     .key = "critical_memory_default_threshold_kb",
     .number = &CV::critical_memory_default_threshold_kb,
     .inert = kLoggedOnly},
    {.section = kSys,
     .key = "critical_memory_over_threshold_percent",
     .number = &CV::critical_memory_over_threshold_percent,
     .inert = kPrintedOnly},
    {.section = kSys,
     .key = "critical_memory_action",
     .number = &CV::critical_memory_action,
     .alsoFrom = "critical_memory_default_threshold_kb",
     .inert = kPrintedOnly},
    {.section = kSys,
     .key = "critical_memory_minimum_uptime_sec",
     .number = &CV::critical_memory_minimum_uptime_sec},
    {.section = kSys,
     .key = "critical_memory_minimum_idle_time_sec",
     .number = &CV::critical_memory_minimum_idle_time_sec,
     .inert = "loaded and printed only; the idle wait reboots at the first idle reading"},
    {.section = kSys,
     .key = "critical_memory_idle_override_time_sec",
     .number = &CV::critical_memory_idle_override_time_sec},
    {.section = kSys, .key = "lmk_counter_threshold", .text = &CV::lmk_counter_threshold},
    {.section = kSys, .key = "lmk_target_kills", .number = &CV::lmk_target_kills},
    {.section = kSys,
     .key = "system_mem_heartbeat_samples",
     .number = &CV::system_mem_heartbeat_samples},
    {.section = kSys,
     .key = "idle_detection_interval_sec",
     .number = &CV::idle_detection_interval_sec},
    {.section = kSys,
     .key = "critical_memory_swap_free_threshold_kb",
     .number = &CV::critical_memory_swap_free_threshold_kb,
     .inert = kPrintedOnly},
    {.section = kSys,
     .key = "critical_memory_s_unreclaim_threshold_kb",
     .number = &CV::critical_memory_s_unreclaim_threshold_kb,
     .inert = kPrintedOnly},
    {.section = kScan, .key = "proc_scan_interval_sec", .number = &CV::proc_scan_interval_sec},
    {.section = kScan,
     .key = "rss_read_interval_sec",
     .number = &CV::rss_read_interval_sec,
     .inert = kPrintedOnly},
    {.section = kScan,
     .key = "pss_read_interval_sec",
     .number = &CV::pss_read_interval_sec,
     .inert = kPrintedOnly},
    {.section = kScan,
     .key = "num_pss_processes",
     .number = &CV::num_pss_processes,
     .inert = kPrintedOnly},
    {.section = kScan, .key = "num_historical_vals", .number = &CV::num_historical_vals},
    {.section = kScan, .key = "pss_logging", .number = &CV::pss_logging, .inert = kPrintedOnly},
    {.section = kScan,
     .key = "process_mem_heartbeat_samples",
     .number = &CV::process_mem_heartbeat_samples},
    {.section = nullptr, .key = "sample", .flag = &CV::sample, .inert = "only logged"},
    {.section = kUpl, .key = "dupl_monitoring_enabled", .flag = &CV::dupl_monitoring_enabled},
    {.section = kUpl, .key = "critical_upl_threshold_ms", .number = &CV::critical_upl_threshold_ms},
    {.section = kUpl,
     .key = "critical_upl_bad_sample_count_threshold",
     .number = &CV::critical_upl_bad_sample_count_threshold},
    {.section = kGuard,
     .key = "process_guardrail_monitoring_enabled",
     .flag = &CV::process_guardrail_monitoring_enabled},
    {.section = kGuard,
     .key = "guardrail_check_interval_sec",
     .number = &CV::guardrail_check_interval_sec,
     .alsoFrom = "process_guardrail_monitoring_enabled"},
    {.section = kGuard, .key = "pss_sleep_interval_sec", .number = &CV::pss_sleep_interval_sec},
    {.section = kGuard,
     .key = "process_kill_metrics_interval_sec",
     .number = &CV::process_kill_metrics_interval_sec},
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

const Setting& settingNamed(const char* key) {
    return *std::find_if(std::begin(kSettings), std::end(kSettings),
                         [key](const Setting& s) { return strcmp(s.key, key) == 0; });
}

const cJSON* itemOf(const cJSON* root, const Setting& s) {
    const cJSON* holder = s.section != nullptr ? cJSON_GetObjectItem(root, s.section) : root;
    return cJSON_IsObject(holder) ? cJSON_GetObjectItem(holder, s.key) : nullptr;
}

// The item's own text, for saying what was written: "\"true\"", "12".
std::string writtenText(const cJSON* item) {
    if (cJSON_IsString(item)) return " " + quoted(item->valuestring);
    if (cJSON_IsNumber(item)) return " " + numberText(item->valuedouble);
    return "";
}

// Warns when the item is not what the loader reads as written; true when it is.
bool checkType(const Setting& s, const cJSON* item, const std::string& name, const CV& c,
               Findings& f) {
    const std::string uses = valueOf(s, c);
    const std::string what = std::string(jsonType(item)) + writtenText(item);
    if (s.flag != nullptr) {
        if (cJSON_IsBool(item)) return true;
        f.warn(name, "%s where true or false belongs: the daemon reads %s", what.c_str(),
               uses.c_str());
    } else if (s.text != nullptr || s.bucket) {
        if (cJSON_IsString(item) && item->valuestring != nullptr) return true;
        f.warn(name, "%s where a string belongs: ignored, the daemon uses %s", what.c_str(),
               uses.c_str());
    } else if (!cJSON_IsNumber(item)) {
        f.warn(name, "%s where a number belongs: the daemon uses %s", what.c_str(), uses.c_str());
    } else if (!isWholeInt32(item)) {
        f.warn(name, "%s is not a 32-bit whole number: the daemon uses %s",
               numberText(item->valuedouble).c_str(), uses.c_str());
    } else {
        return true;
    }
    return false;
}

// Every LMK class the system sampler counts by name; it also counts "Fg".
bool isLmkClass(const std::string& s) {
    const char* const classes[] = {tavrend::PERSISTENT, "Fg",
                                   tavrend::VISIBLE,    tavrend::PERCEPTIBLE,
                                   tavrend::BACKUP,     tavrend::OTHER};
    return std::any_of(std::begin(classes), std::end(classes),
                       [&s](const char* c) { return s == c; });
}

// The checks of a value present in the file and of the type the loader reads.
void checkWritten(const Setting& s, const cJSON* item, const CV& c, Findings& f) {
    const std::string name = nameOf(s);
    if (!checkType(s, item, name, c, f)) return;
    if (s.inert != nullptr) f.note(name, "%s, never acted on (%s)", valueOf(s, c).c_str(), s.inert);
    if (!s.bucket) return;
    const char* b = item->valuestring;
    if (std::none_of(std::begin(kBuckets), std::end(kBuckets),
                     [b](const char* k) { return strcmp(b, k) == 0; })) {
        f.warn(name,
               "%s is no bucket (foreground, visible, perceptible, backup, cache_start, "
               "cache_end): ignored, the daemon uses %s",
               quoted(b).c_str(), valueOf(s, c).c_str());
    }
}

// The settings' dangerous ranges, judged on what the loader stores. Each
// warning says the value the daemon uses and how it came to it.
class RangeCheck {
public:
    RangeCheck(const cJSON* root, const CV& c, const DeviceFacts* device, Findings& f)
        : root_(root), c_(c), device_(device), f_(f) {}
    void run();

private:
    // "600 s", "0 s (left out)", "1 s (-5 read as 1)", "1 s (left out, so taken from ...)".
    std::string used(const char* key, const char* unit = "") const;
    bool inFile(const char* key) const { return itemOf(root_, settingNamed(key)) != nullptr; }
    // One warning a key: a key warned about already (its type, say) is passed over.
    void warn(Rule r, const char* key, const std::string& what) {
        const std::string name = nameOf(settingNamed(key));
        if (!f_.warned(name)) f_.rule(r, name, "%s", what.c_str());
    }
    void memory();
    void recovery();
    void lmk();
    void heartbeats();
    void processes();
    void latency();
    void guardrails();
    const cJSON* root_;
    const CV& c_;
    const DeviceFacts* device_;
    Findings& f_;
};

std::string RangeCheck::used(const char* key, const char* unit) const {
    const Setting& s = settingNamed(key);
    std::string v = valueOf(s, c_) + unit;
    const cJSON* item = itemOf(root_, s);
    if (item == nullptr) {
        const cJSON* holder = s.section != nullptr ? cJSON_GetObjectItem(root_, s.section) : root_;
        if (s.alsoFrom != nullptr && cJSON_GetObjectItem(holder, s.alsoFrom) != nullptr)
            return v + " (left out, so taken from " + s.alsoFrom + ")";
        return v + " (left out)";
    }
    if (s.number != nullptr && !s.bucket && isWholeInt32(item) && item->valueint != c_.*s.number)
        return v + " (" + std::to_string(item->valueint) + " read as " + valueOf(s, c_) + ")";
    return v;
}

void RangeCheck::run() {
    memory();
    recovery();
    lmk();
    heartbeats();
    processes();
    latency();
    guardrails();
}

void RangeCheck::memory() {
    const int32_t interval = c_.memory_read_interval_sec;
    if (interval > kLongPeriodSec) {
        warn(Rule::MemoryReadLong, "memory_read_interval_sec",
             used("memory_read_interval_sec", " s"));
    }
    const int64_t period = static_cast<int64_t>(tavrend::effectivePeriod(interval));
    if (c_.critical_memory_measurement_time < period) {
        warn(Rule::MemoryHistoryOneSample, "critical_memory_measurement_time",
             format("%s, under memory_read_interval_sec %" PRId64 " s",
                    used("critical_memory_measurement_time", " s").c_str(), period));
    }
}

void RangeCheck::recovery() {
    const int32_t uptime = c_.critical_memory_minimum_uptime_sec;
    const char* uptimeKey = "critical_memory_minimum_uptime_sec";
    if (uptime < kShortUptimeSec) {
        warn(Rule::MinimumUptimeShort, uptimeKey, used(uptimeKey, " s"));
    } else if (uptime > kLongUptimeSec) {
        warn(Rule::MinimumUptimeLong, uptimeKey,
             format("%s, %d days", used(uptimeKey, " s").c_str(), uptime / kDaySec));
    }
    const char* key = "critical_memory_idle_override_time_sec";
    const int32_t override = c_.critical_memory_idle_override_time_sec;
    const int64_t interval =
        static_cast<int64_t>(tavrend::effectivePeriod(c_.idle_detection_interval_sec));
    if (override <= interval) {
        warn(Rule::OverrideAtFirstCheck, key,
             override <= 1 ? used(key, " s")
                           : format("%s, not above idle_detection_interval_sec %" PRId64 " s",
                                    used(key, " s").c_str(), interval));
    } else if (override < kShortOverrideSec) {
        warn(Rule::OverrideShort, key, used(key, " s"));
    } else if (override > kDaySec) {
        warn(Rule::OverrideNever, key,
             format("%s, %d days", used(key, " s").c_str(), override / kDaySec));
    }
    if (c_.idle_detection_interval_sec > kLongPeriodSec) {
        warn(Rule::IdleIntervalLong, "idle_detection_interval_sec",
             used("idle_detection_interval_sec", " s"));
    }
}

void RangeCheck::lmk() {
    const std::string& threshold = c_.lmk_counter_threshold;
    if (!isLmkClass(threshold) || threshold == tavrend::OTHER) {
        warn(Rule::LmkClassNone, "lmk_counter_threshold",
             format("%s%s", used("lmk_counter_threshold").c_str(),
                    isLmkClass(threshold) ? "" : ", no class"));
    }
    const char* key = "lmk_target_kills";
    if (!inFile(key)) {
        warn(Rule::LmkTargetMissing, key, used(key));
    } else if (itemOf(root_, settingNamed(key))->valueint < 1) {
        warn(Rule::LmkTargetBelowOne, key, used(key));
    } else if (c_.lmk_target_kills > kHugeLmkTarget) {
        warn(Rule::LmkTargetHuge, key, used(key));
    }
}

void RangeCheck::heartbeats() {
    const struct {
        const char* key;
        int32_t samples;
        int32_t interval;
        const char* intervalKey;
    } beats[] = {
        {"system_mem_heartbeat_samples", c_.system_mem_heartbeat_samples,
         c_.memory_read_interval_sec, "memory_read_interval_sec"},
        {"process_mem_heartbeat_samples", c_.process_mem_heartbeat_samples,
         c_.proc_scan_interval_sec, "proc_scan_interval_sec"},
    };
    for (const auto& b : beats) {
        const uint64_t every =
            tavrend::effectivePeriod(b.samples) * tavrend::effectivePeriod(b.interval);
        if (every >= static_cast<uint64_t>(kHeartbeatSec)) continue;
        warn(Rule::HeartbeatOften, b.key,
             format("%s, with %s %" PRIu64 " s: a heartbeat line every %" PRIu64 " s",
                    used(b.key).c_str(), b.intervalKey, tavrend::effectivePeriod(b.interval),
                    every));
    }
}

void RangeCheck::processes() {
    // Left out it reads 0, below 1 it is stored as 1: a scan every second either way.
    const char* scan = "proc_scan_interval_sec";
    if (!inFile(scan) || itemOf(root_, settingNamed(scan))->valueint < 1) {
        warn(Rule::ProcScanEverySecond, scan, used(scan));
    }
    if (c_.num_historical_vals < 1) {
        warn(Rule::ProcessHistoryOneValue, "num_historical_vals", used("num_historical_vals"));
    }
    // The daemon sizes its histories from the configuration and allocates each
    // whole at start-up (a process's two when it is first seen), 8 bytes a sample.
    const size_t count =
        device_ != nullptr && device_->hasProcesses ? device_->processes.size() : 1;
    const struct {
        const char* key;
        int64_t samples;  // computed as the daemon computes it
        const char* which;
    } histories[] = {
        {"critical_memory_measurement_time",
         4 * (c_.critical_memory_measurement_time /
              static_cast<int64_t>(tavrend::effectivePeriod(c_.memory_read_interval_sec))),
         "the 4 system memory histories (measurement time / memory_read_interval_sec each)"},
        {"num_historical_vals", 2 * static_cast<int64_t>(count) * c_.num_historical_vals,
         count == 1 ? "the 2 histories of each process"
                    : "the 2 histories of each of the root's processes"},
        {"critical_upl_bad_sample_count_threshold", c_.critical_upl_bad_sample_count_threshold,
         "the latency history"},
    };
    for (const auto& h : histories) {
        if (h.samples * 8 <= kMaxHistoryBytes) continue;
        warn(Rule::HistoryLarge, h.key,
             format("%s: %" PRId64 " samples of 8 bytes (%" PRId64 " MB) in %s",
                    used(h.key).c_str(), h.samples, h.samples * 8 / 1'000'000, h.which));
    }
}

void RangeCheck::latency() {
    if (c_.dupl_monitoring_enabled && c_.critical_upl_threshold_ms < 1) {
        warn(Rule::UplThresholdZero, "critical_upl_threshold_ms",
             format("%s, here any %d samples", used("critical_upl_threshold_ms", " ms").c_str(),
                    std::max(1, c_.critical_upl_bad_sample_count_threshold)));
    }
    const char* key = "critical_upl_bad_sample_count_threshold";
    if ((c_.dupl_monitoring_enabled || inFile(key)) &&
        c_.critical_upl_bad_sample_count_threshold < 1)
        warn(Rule::UplCountBelowOne, key, format("%s, read as 1", used(key).c_str()));
}

void RangeCheck::guardrails() {
    if (!c_.process_guardrail_monitoring_enabled) return;
    const char* key = "guardrail_check_interval_sec";
    if (c_.guardrail_check_interval_sec < 1 || !inFile(key)) {
        warn(Rule::GuardrailEverySecond, key, used(key));
    } else if (c_.guardrail_check_interval_sec > kLongPeriodSec) {
        warn(Rule::GuardrailIntervalLong, key, used(key, " s"));
    }
    const char* metrics = "process_kill_metrics_interval_sec";
    if (c_.process_kill_metrics_interval_sec < 1 && c_.pss_sleep_interval_sec >= 1) {
        warn(Rule::KillMetricsEverySecond, metrics,
             format("%s, read as 1, with pss_sleep_interval_sec %d", used(metrics).c_str(),
                    c_.pss_sleep_interval_sec));
    } else if (c_.process_kill_metrics_interval_sec > kDaySec) {
        warn(Rule::KillMetricsLate, metrics,
             format("%s, %d days", used(metrics, " s").c_str(),
                    c_.process_kill_metrics_interval_sec / kDaySec));
    }
}

}  // namespace

// Keys the daemon does not read, and keys given twice (it reads the first).
void checkKeys(const cJSON* object, const char* const* known, size_t count,
               const std::string& prefix, Findings& f) {
    std::set<size_t> seen;
    for (const cJSON* m = object->child; m != nullptr; m = m->next) {
        const char* key = m->string != nullptr ? m->string : "";
        const std::string name = prefix + clean(key);
        size_t i = 0;
        while (i < count && strcasecmp(key, known[i]) != 0) ++i;
        if (i == count) {
            f.unknown(name, "unknown %s: the daemon ignores it",
                      prefix.empty() ? "section" : "key");
        } else if (!seen.insert(i).second) {
            const std::string first = writtenText(cJSON_GetObjectItem(object, key));
            f.warn(name, "given twice: the daemon reads only the first%s%s%s",
                   first.empty() ? "" : " (", first.empty() ? "" : first.c_str() + 1,
                   first.empty() ? "" : ")");
        }
    }
}

namespace {

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

}  // namespace

void Findings::add(const std::string& key, const char* fmt, va_list ap, bool unknown, bool inert) {
    all_.push_back({key, vformat(fmt, ap), unknown, inert});
}

void Findings::addRule(Rule r, const std::string& key, const char* fmt, va_list ap, bool note) {
    all_.push_back({key, vformat(fmt, ap) + ": " + ruleText(r).effect, false, note});
}

bool Findings::warned(const std::string& key) const {
    return std::any_of(all_.begin(), all_.end(),
                       [&key](const ConfigFinding& f) { return f.key == key && !f.inert; });
}

std::string numberText(double d) {
    char text[64];
    if (std::trunc(d) == d && std::fabs(d) < 1e18) {
        snprintf(text, sizeof(text), "%.0f", d);
    } else {
        snprintf(text, sizeof(text), "%.15g", d);
    }
    return text;
}

tavrend::ConfigVariables effectiveConfig(const cJSON* daemonConfig) {
    CV c;
    // The loader only looks the object up; it changes nothing in it.
    if (cJSON_IsObject(daemonConfig))
        tavrend::tavren_config_load_info(const_cast<cJSON*>(daemonConfig), c);
    return c;
}

std::vector<ConfigFinding> checkConfigObjects(const cJSON* daemonConfig, const cJSON* guardrailRows,
                                              const DeviceFacts* device) {
    Findings f;
    const CV c = effectiveConfig(daemonConfig);
    if (!cJSON_IsObject(daemonConfig)) {
        f.warn("tavrend_config.json", "%s, not an object: the daemon does not start",
               daemonConfig != nullptr ? jsonType(daemonConfig) : "nothing");
    } else if (std::none_of(std::begin(kSections), std::end(kSections), [&](const char* s) {
                   return cJSON_GetObjectItem(daemonConfig, s) != nullptr;
               })) {
        checkLayout(daemonConfig, f);
        f.warn("tavrend_config.json",
               "holds none of system_mem, proc_scan, sample, device_upl, process_guardrail: the "
               "daemon does not start");
    } else {
        checkLayout(daemonConfig, f);
        for (const Setting& s : kSettings) {
            if (const cJSON* item = itemOf(daemonConfig, s)) checkWritten(s, item, c, f);
        }
        RangeCheck(daemonConfig, c, device, f).run();
    }
    if (guardrailRows != nullptr) {
        if (cJSON_IsArray(guardrailRows)) {
            checkGuardrailRows(guardrailRows, c, device, f);
        } else {
            f.warn("processes", "%s, not an array: the daemon runs without guardrails",
                   jsonType(guardrailRows));
        }
    }
    return f.take();
}

std::vector<SettingRow> describeSettings(const cJSON* daemonConfig, const CV& config,
                                         const std::string& origin) {
    std::vector<SettingRow> rows;
    for (const Setting& s : kSettings) {
        const cJSON* item = itemOf(daemonConfig, s);
        std::string source = item != nullptr ? origin : "default";
        const cJSON* holder =
            s.section != nullptr ? cJSON_GetObjectItem(daemonConfig, s.section) : daemonConfig;
        if (item == nullptr && s.alsoFrom != nullptr && cJSON_IsObject(holder) &&
            cJSON_GetObjectItem(holder, s.alsoFrom) != nullptr) {
            source = origin + ", from " + s.alsoFrom;
        }
        rows.push_back({nameOf(s), valueOf(s, config), source, s.inert});
    }
    return rows;
}

}  // namespace tavrendctl

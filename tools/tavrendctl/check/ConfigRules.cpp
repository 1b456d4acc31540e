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

// A number the loader reads as written: whole and within 32 bits.
bool isWholeInt32(const cJSON* item) {
    const double d = item->valuedouble;
    return cJSON_IsNumber(item) && std::trunc(d) == d && d >= INT32_MIN && d <= INT32_MAX;
}

// ---- The daemon configuration ----

// When a stored value below 1 makes the daemon misbehave.
enum class Needs { Nothing, Positive, PositiveWithUpl, PositiveWithGuardrails };

constexpr const char* kEverySecond = "counts as 1, so it runs every second";
constexpr const char* kEverySample = "counts as 1, a heartbeat line every sample";
constexpr const char* kPrintedOnly = "loaded and printed only";
constexpr const char* kLoggedOnly =
    "it only sets a figure the daemon logs; the memory decision rests on the kills alone";

struct Setting {
    const char* section;  // nullptr: a key of the top level
    const char* key;
    int32_t CV::*number = nullptr;
    bool CV::*flag = nullptr;
    std::string CV::*text = nullptr;
    bool bucket = false;  // a bucket name in the file, its code in `number`
    Needs needs = Needs::Nothing;
    const char* belowOne = nullptr;  // what a stored value below 1 does
    const char* atOne = nullptr;     // what the 1 the loader stores for a value below 1 does
    const char* alsoFrom = nullptr;  // another key of the section whose value lands here
    const char* inert = nullptr;     // why the daemon never acts on it
};

constexpr const char* kSys = "system_mem";
constexpr const char* kScan = "proc_scan";
constexpr const char* kUpl = "device_upl";
constexpr const char* kGuard = "process_guardrail";
constexpr const char* kSections[] = {kSys, kScan, "sample", kUpl, kGuard};

const Setting kSettings[] = {
    {.section = kSys,
     .key = "memory_read_interval_sec",
     .number = &CV::memory_read_interval_sec,
     .needs = Needs::Positive,
     .belowOne = kEverySecond},
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
     .number = &CV::critical_memory_measurement_time,
     .needs = Needs::Positive,
     .belowOne = "the memory history holds a single sample"},
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
     .number = &CV::critical_memory_idle_override_time_sec,
     .atOne = "the device reboots one idle check after the minimum uptime, idle or not"},
    {.section = kSys, .key = "lmk_counter_threshold", .text = &CV::lmk_counter_threshold},
    {.section = kSys,
     .key = "lmk_target_kills",
     .number = &CV::lmk_target_kills,
     .needs = Needs::Positive,
     .belowOne = "every memory sample counts as a leak and raises the critical condition",
     .atOne = "the first kill of a counted class raises the critical condition"},
    {.section = kSys,
     .key = "system_mem_heartbeat_samples",
     .number = &CV::system_mem_heartbeat_samples,
     .needs = Needs::Positive,
     .belowOne = kEverySample},
    {.section = kSys,
     .key = "idle_detection_interval_sec",
     .number = &CV::idle_detection_interval_sec,
     .needs = Needs::Positive,
     .belowOne = kEverySecond},
    {.section = kSys,
     .key = "critical_memory_swap_free_threshold_kb",
     .number = &CV::critical_memory_swap_free_threshold_kb,
     .inert = kPrintedOnly},
    {.section = kSys,
     .key = "critical_memory_s_unreclaim_threshold_kb",
     .number = &CV::critical_memory_s_unreclaim_threshold_kb,
     .inert = kPrintedOnly},
    {.section = kScan,
     .key = "proc_scan_interval_sec",
     .number = &CV::proc_scan_interval_sec,
     .needs = Needs::Positive,
     .belowOne = kEverySecond},
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
    {.section = kScan,
     .key = "num_historical_vals",
     .number = &CV::num_historical_vals,
     .needs = Needs::Positive,
     .belowOne = "each process keeps a single value"},
    {.section = kScan, .key = "pss_logging", .number = &CV::pss_logging, .inert = kPrintedOnly},
    {.section = kScan,
     .key = "process_mem_heartbeat_samples",
     .number = &CV::process_mem_heartbeat_samples,
     .needs = Needs::Positive,
     .belowOne = kEverySample},
    {.section = nullptr, .key = "sample", .flag = &CV::sample, .inert = "only logged"},
    {.section = kUpl, .key = "dupl_monitoring_enabled", .flag = &CV::dupl_monitoring_enabled},
    {.section = kUpl, .key = "critical_upl_threshold_ms", .number = &CV::critical_upl_threshold_ms},
    {.section = kUpl,
     .key = "critical_upl_bad_sample_count_threshold",
     .number = &CV::critical_upl_bad_sample_count_threshold,
     .needs = Needs::PositiveWithUpl,
     .belowOne = "counts as 1: a single bad latency sample raises the critical condition"},
    {.section = kGuard,
     .key = "process_guardrail_monitoring_enabled",
     .flag = &CV::process_guardrail_monitoring_enabled},
    {.section = kGuard,
     .key = "guardrail_check_interval_sec",
     .number = &CV::guardrail_check_interval_sec,
     .needs = Needs::PositiveWithGuardrails,
     .belowOne = kEverySecond,
     .alsoFrom = "process_guardrail_monitoring_enabled"},
    {.section = kGuard, .key = "pss_sleep_interval_sec", .number = &CV::pss_sleep_interval_sec},
    {.section = kGuard,
     .key = "process_kill_metrics_interval_sec",
     .number = &CV::process_kill_metrics_interval_sec,
     .needs = Needs::PositiveWithGuardrails,
     .belowOne = kEverySecond},
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

// Warns when the item is not what the loader reads as written; true when it is.
bool checkType(const Setting& s, const cJSON* item, const std::string& name, const CV& c,
               Findings& f) {
    const std::string uses = valueOf(s, c);
    if (s.flag != nullptr) {
        if (cJSON_IsBool(item)) return true;
        f.warn(name, "%s, not true or false: the daemon uses %s", jsonType(item), uses.c_str());
    } else if (s.text != nullptr || s.bucket) {
        if (cJSON_IsString(item) && item->valuestring != nullptr) return true;
        f.warn(name, "%s, not a string: ignored, the daemon uses %s", jsonType(item), uses.c_str());
    } else if (!cJSON_IsNumber(item)) {
        f.warn(name, "%s, not a number: the daemon uses %s", jsonType(item), uses.c_str());
    } else if (!isWholeInt32(item)) {
        f.warn(name, "%g is not a 32-bit whole number: the daemon uses %s", item->valuedouble,
               uses.c_str());
    } else {
        return true;
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

// The checks of a value present in the file and of the type the loader reads.
void checkWritten(const Setting& s, const cJSON* item, const CV& c, Findings& f) {
    const std::string name = nameOf(s);
    if (s.inert != nullptr) {
        f.note(name, "%s, never acted on (%s)", valueOf(s, c).c_str(), s.inert);
    } else if (s.number != nullptr && !s.bucket && c.*s.number != item->valueint) {
        // The loader stores a value below 1 as 1.
        f.warn(name, "%d is below 1: the daemon uses %d%s%s", item->valueint, c.*s.number,
               s.atOne != nullptr ? ", so " : "", s.atOne != nullptr ? s.atOne : "");
    }
    if (s.bucket) {
        const char* b = item->valuestring;
        if (std::none_of(std::begin(kBuckets), std::end(kBuckets),
                         [b](const char* k) { return strcmp(b, k) == 0; })) {
            f.warn(name,
                   "%s is no bucket (foreground, visible, perceptible, backup, cache_start, "
                   "cache_end): ignored, the daemon uses %s",
                   quoted(b).c_str(), valueOf(s, c).c_str());
        }
    }
    if (s.text != nullptr && !isLmkClass(item->valuestring)) {
        f.warn(name,
               "%s names no class (Persistent, Fg, Visible, Perceptible, Backup, Other): kills "
               "of every class count",
               quoted(item->valuestring).c_str());
    }
}

void checkValue(const Setting& s, const cJSON* item, const CV& c, Findings& f) {
    if (item != nullptr) {
        if (!checkType(s, item, nameOf(s), c, f)) return;
        checkWritten(s, item, c, f);
    }
    const bool enabled =
        s.needs == Needs::Positive ||
        (s.needs == Needs::PositiveWithUpl && c.dupl_monitoring_enabled) ||
        (s.needs == Needs::PositiveWithGuardrails && c.process_guardrail_monitoring_enabled);
    if (s.needs != Needs::Nothing && (enabled || item != nullptr) && c.*s.number < 1) {
        f.warn(nameOf(s), "%d%s: %s", c.*s.number, item != nullptr ? "" : " (not in the file)",
               s.belowOne);
    }
}

// A device that stays up this long is rare; a minimum uptime past it means
// no reboot at all for most devices.
constexpr int32_t kLongUptimeSec = 30 * 24 * 3600;

// Settings whose harm depends on another setting.
void checkRecoveryReach(const cJSON* root, const CV& c, Findings& f) {
    if (c.dupl_monitoring_enabled && c.critical_upl_threshold_ms < 1) {
        const bool inFile = itemOf(root, settingNamed("critical_upl_threshold_ms")) != nullptr;
        f.warn("device_upl.critical_upl_threshold_ms",
               "%d%s: every latency sample is at or above it, so every sample is bad and any %d "
               "samples reboot the device",
               c.critical_upl_threshold_ms, inFile ? "" : " (not in the file)",
               std::max(1, c.critical_upl_bad_sample_count_threshold));
    }
    if (c.critical_memory_minimum_uptime_sec > kLongUptimeSec) {
        f.warn("system_mem.critical_memory_minimum_uptime_sec",
               "%d s (%d days): no reboot before the device has been up that long, so a device "
               "restarted sooner never recovers from a critical condition",
               c.critical_memory_minimum_uptime_sec,
               c.critical_memory_minimum_uptime_sec / (24 * 3600));
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
            f.unknown(name, "unknown %s: the daemon ignores it",
                      prefix.empty() ? "section" : "key");
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

// ---- The guardrail rows ----

// The limits as the loader stores them: the 32-bit integer value, sign-extended.
uint64_t limitOf(const cJSON* item) {
    return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(item->valueint)));
}

struct Row {
    std::string key;  // "processes[N]"
    std::string name;
    const cJSON* soft;
    const cJSON* hard;
};

// The loader's test for a row it keeps.
bool isWellFormedRow(const cJSON* element) {
    const cJSON* name = cJSON_GetObjectItem(element, "name");
    return cJSON_IsString(name) && name->valuestring != nullptr &&
           cJSON_IsNumber(cJSON_GetObjectItem(element, "soft_memory_limit")) &&
           cJSON_IsNumber(cJSON_GetObjectItem(element, "hard_memory_limit"));
}

// The rows the loader keeps, each checked for keys it does not read.
std::vector<Row> readRows(const cJSON* rows, Findings& f) {
    std::vector<Row> out;
    if (!cJSON_IsArray(rows)) return out;
    const char* const known[] = {"name", "soft_memory_limit", "hard_memory_limit"};
    size_t index = 0;
    for (const cJSON* e = rows->child; e != nullptr; e = e->next, ++index) {
        const std::string key = "processes[" + std::to_string(index) + "]";
        if (!isWellFormedRow(e)) {
            f.warn(key,
                   "skipped: a row needs a string \"name\" and numbers \"soft_memory_limit\" and "
                   "\"hard_memory_limit\"");
            continue;
        }
        checkKeys(e, known, std::size(known), key + ".", f);
        out.push_back({key, cJSON_GetObjectItem(e, "name")->valuestring,
                       cJSON_GetObjectItem(e, "soft_memory_limit"),
                       cJSON_GetObjectItem(e, "hard_memory_limit")});
    }
    return out;
}

// A name as the daemon matches it: a process's short name of at most 15
// characters (the kernel's), or, for a process whose short name contains
// "Binder", its command line less its blanks, cut to its last 31 characters.
void checkRowName(const Row& r, Findings& f) {
    const std::string name = quoted(r.name);
    const size_t n = r.name.size();
    if (n == 0) {
        f.warn(r.key, "empty name: matches no process, the row never acts");
    } else if (n > 31) {
        f.warn(r.key, "%s has %zu characters: a process name has at most 31, so it never matches",
               name.c_str(), n);
    } else if (r.name.find(' ') != std::string::npos) {
        f.warn(r.key, "%s holds a blank: no process name does, so it never matches", name.c_str());
    } else if (n > 15) {
        f.warn(r.key,
               "%s has %zu characters: a short name has at most 15, so it matches only a process "
               "whose short name contains \"Binder\" and whose command line reads so",
               name.c_str(), n);
    }
}

void checkRowLimits(const Row& r, Findings& f) {
    const std::string name = quoted(r.name);
    for (const cJSON* item : {r.soft, r.hard}) {
        const char* which = item == r.soft ? "soft_memory_limit" : "hard_memory_limit";
        if (!isWholeInt32(item)) {
            f.warn(r.key, "%s: %s %g is not a 32-bit whole number: the daemon uses %s",
                   name.c_str(), which, item->valuedouble, limitText(limitOf(item)).c_str());
        } else if (item->valueint < -1) {
            f.warn(r.key, "%s: %s %d: the daemon uses %s (no limit); -1 says so", name.c_str(),
                   which, item->valueint, std::to_string(limitOf(item)).c_str());
        }
    }
    const uint64_t soft = limitOf(r.soft);
    const uint64_t hard = limitOf(r.hard);
    if (soft == UINT64_MAX) {
        f.warn(r.key,
               "%s: no soft limit (%s): the hard limit is looked at only above the soft one, so "
               "%s is never killed, whatever its hard limit (%s)",
               name.c_str(), std::to_string(soft).c_str(), name.c_str(), limitText(hard).c_str());
    } else if (soft > hard) {
        f.warn(r.key,
               "%s: soft limit %s above hard limit %s: the hard limit is looked at only above "
               "the soft one, so %s is killed at once over %s and never queued",
               name.c_str(), limitText(soft).c_str(), limitText(hard).c_str(), name.c_str(),
               limitText(soft).c_str());
    } else if (soft == 0) {
        f.warn(r.key, "%s: soft limit 0 kB: any process of that name is over it, %s", name.c_str(),
               hard == 0 ? "and over its hard limit 0 kB: killed at once on every pass"
                         : "queued on every pass and killed at the first idle second");
    }
}

void checkRows(const cJSON* rowsArray, const CV& c, Findings& f) {
    const std::vector<Row> rows = readRows(rowsArray, f);
    for (size_t i = 0; i < rows.size(); ++i) {
        checkRowName(rows[i], f);
        checkRowLimits(rows[i], f);
        for (size_t j = 0; j < i; ++j) {
            if (rows[j].name != rows[i].name || rows[i].name.empty()) continue;
            f.warn(rows[i].key,
                   "%s again, as %s: both rows stay and follow the same process, and the kills "
                   "of both count under one name",
                   quoted(rows[i].name).c_str(), rows[j].key.c_str());
            break;
        }
    }
    // A pass sleeps after every row while holding the guardrail lock, and a new
    // pass, a thread of its own, starts every check interval whether or not the
    // last one has ended.
    if (!c.process_guardrail_monitoring_enabled) return;
    const uint64_t pass =
        rows.size() * static_cast<uint64_t>(std::max(0, c.pss_sleep_interval_sec));
    const uint64_t period = tavrend::effectivePeriod(c.guardrail_check_interval_sec);
    if (pass > 0 && pass >= period) {
        f.warn("process_guardrail.pss_sleep_interval_sec",
               "%d s after each of %zu guardrail rows: a pass takes %" PRIu64
               " s, a new one starts every %" PRIu64
               " s (guardrail_check_interval_sec): passes queue on the guardrail lock without "
               "end, one thread each",
               c.pss_sleep_interval_sec, rows.size(), pass, period);
    }
}

}  // namespace

void Findings::add(const std::string& key, const char* fmt, va_list ap, bool unknown, bool inert) {
    all_.push_back({key, vformat(fmt, ap), unknown, inert});
}

tavrend::ConfigVariables effectiveConfig(const cJSON* daemonConfig) {
    CV c;
    // The loader only looks the object up; it changes nothing in it.
    if (cJSON_IsObject(daemonConfig))
        tavrend::tavren_config_load_info(const_cast<cJSON*>(daemonConfig), c);
    return c;
}

std::vector<ConfigFinding> checkConfigObjects(const cJSON* daemonConfig,
                                              const cJSON* guardrailRows) {
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
        for (const Setting& s : kSettings) checkValue(s, itemOf(daemonConfig, s), c, f);
        checkRecoveryReach(daemonConfig, c, f);
        checkHistories(c, f);
    }
    if (guardrailRows != nullptr) {
        if (cJSON_IsArray(guardrailRows)) {
            checkRows(guardrailRows, c, f);
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

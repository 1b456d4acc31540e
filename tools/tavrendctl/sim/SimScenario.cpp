#include "sim/SimScenario.h"

#include <cjson/cJSON.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "check/ConfigRules.h"
#include "toolbox/Text.h"

namespace tavrendctl::sim {
namespace {

namespace fs = std::filesystem;

constexpr size_t kMaxScenarioBytes = size_t{4} * 1024 * 1024;
constexpr double kMaxSeconds = 30.0 * 24 * 3600;  // a month of simulated time
constexpr double kMaxKb = 1e15;
constexpr int kMaxPid = 4194304;      // the kernel's pid_max ceiling
constexpr size_t kMaxNameBytes = 15;  // the kernel's comm length
constexpr size_t kMaxUplSamples = 10000;
constexpr size_t kMaxEvents = 200000;  // once repeats are spelled out
constexpr double kMaxRepeats = 100000;
constexpr double kMaxUplClients = 16;

// The daemon's settings when the scenario leaves them out: quick periods, so
// that a scenario plays in simulated minutes. No pause between guardrail rows,
// so that a pass never outlasts the check interval however many rows there are
// (passes would queue on the guardrail lock, a thread each).
const char* const kDefaultConfig = R"({
  "system_mem": {
    "memory_read_interval_sec": 1,
    "critical_memory_threshold_percent": 50,
    "critical_memory_bucket": "perceptible",
    "critical_memory_measurement_time": 120,
    "critical_memory_default_threshold_kb": 98304,
    "critical_memory_over_threshold_percent": 80,
    "critical_memory_action": 1,
    "critical_memory_minimum_uptime_sec": 60,
    "critical_memory_minimum_idle_time_sec": 60,
    "critical_memory_idle_override_time_sec": 3600,
    "lmk_counter_threshold": "Perceptible",
    "lmk_target_kills": 12,
    "system_mem_heartbeat_samples": 10,
    "idle_detection_interval_sec": 2,
    "critical_memory_swap_free_threshold_kb": 65536,
    "critical_memory_s_unreclaim_threshold_kb": 262144
  },
  "proc_scan": {
    "proc_scan_interval_sec": 2,
    "rss_read_interval_sec": 2,
    "pss_read_interval_sec": 60,
    "num_pss_processes": 10,
    "num_historical_vals": 30,
    "pss_logging": 0,
    "process_mem_heartbeat_samples": 10
  },
  "sample": false,
  "device_upl": {
    "dupl_monitoring_enabled": true,
    "critical_upl_threshold_ms": 500,
    "critical_upl_bad_sample_count_threshold": 20
  },
  "process_guardrail": {
    "process_guardrail_monitoring_enabled": false,
    "guardrail_check_interval_sec": 5,
    "pss_sleep_interval_sec": 0,
    "process_kill_metrics_interval_sec": 30
  }
})";

const char* const kDefaultMetricConfig = R"({
  "OrreryConfig": {"Enabled": true, "Region": "us-west", "GroupId": "tavrend_health"},
  "MetricConfig": [
    {"MetricConfig": "IdleDetector", "MetricName": "tavrend_idle_recovery", "Active": true,
     "Sample_interval_ticks": 1, "Metric_logcat_interval_ticks": 1,
     "Metric_report_interval_ticks": 1,
     "KAPH_Metric_Interface": {"ProgramName": "tavrend", "Active": true},
     "Orrery_Metric_Interface": {"Schema_Id": "idle_recovery_v2", "Group_Id": "", "Active": true,
       "Metrics": [{"Name": "duration_type", "Type": "str", "DimensionTag": "durationType"},
                   {"Name": "duration_value", "Type": "int", "DimensionTag": "durationSec"}]}},
    {"MetricConfig": "MemoryGuardrail", "MetricName": "tavrend_guardrail_kills", "Active": true,
     "Sample_interval_ticks": 1, "Metric_logcat_interval_ticks": 1,
     "Metric_report_interval_ticks": 1,
     "KAPH_Metric_Interface": {"ProgramName": "tavrend", "Active": false},
     "Orrery_Metric_Interface": {"Schema_Id": "guardrail_kills_v1",
       "Group_Id": "tavrend_guardrail", "Active": true,
       "Metric_Key": {"Name": "process_name", "DimensionTag": "processName"},
       "Metric_Value": {"Name": "kill_count", "DimensionTag": "killCount"}}}
  ]
})";

const Figures kDefaultMeminfo = {
    {"MemTotal", 3867224},      {"MemFree", 842336},      {"MemAvailable", 1612384},
    {"Buffers", 18944},         {"Cached", 803840},       {"SwapCached", 61440},
    {"Active", 1454676},        {"Inactive", 894116},     {"Active(anon)", 845672},
    {"Inactive(anon)", 310648}, {"Active(file)", 409004}, {"Inactive(file)", 383468},
    {"Unevictable", 5120},      {"Mlocked", 5120},        {"SwapTotal", 1048572},
    {"SwapFree", 812336},       {"Dirty", 412},           {"Writeback", 0},
    {"AnonPages", 1156320},     {"Mapped", 512332},       {"Shmem", 20480},
    {"KReclaimable", 98304},    {"Slab", 160000},         {"SReclaimable", 98304},
    {"SUnreclaim", 61696},      {"KernelStack", 21104},   {"PageTables", 41156},
};

const char* const kLmkLabels[] = {"Persistent", "Fg", "Visible", "Perceptible", "Backup", "Other"};

struct Json {
    cJSON* p = nullptr;
    explicit Json(cJSON* item) : p(item) {}
    Json(const Json&) = delete;
    Json& operator=(const Json&) = delete;
    ~Json() { cJSON_Delete(p); }
};

std::string printed(const cJSON* item) {
    char* text = cJSON_Print(item);
    if (text == nullptr) return {};
    std::string out(text);
    cJSON_free(text);
    return out + "\n";
}

// Reads a number in [min, max]; integral when asked.
bool number(const cJSON* item, const std::string& what, double min, double max, bool integral,
            double& out, std::string& error) {
    if (!cJSON_IsNumber(item) || !std::isfinite(item->valuedouble)) {
        error = what + " must be a number";
        return false;
    }
    const double v = item->valuedouble;
    if (integral && std::floor(v) != v) {
        error = what + " must be a whole number";
        return false;
    }
    if (v < min || v > max) {
        std::ostringstream ss;
        ss << what << " must be between " << min << " and " << max;
        error = ss.str();
        return false;
    }
    out = v;
    return true;
}

bool kb(const cJSON* item, const std::string& what, uint64_t& out, std::string& error) {
    double v = 0;
    if (!number(item, what, 0, kMaxKb, true, v, error)) return false;
    out = static_cast<uint64_t>(v);
    return true;
}

bool boolean(const cJSON* item, const std::string& what, bool& out, std::string& error) {
    if (!cJSON_IsBool(item)) {
        error = what + " must be true or false";
        return false;
    }
    out = cJSON_IsTrue(item);
    return true;
}

bool onlyKeys(const cJSON* object, const std::string& what, std::initializer_list<const char*> keys,
              std::string& error) {
    if (!cJSON_IsObject(object)) {
        error = what + " must be an object";
        return false;
    }
    const cJSON* child = nullptr;
    cJSON_ArrayForEach(child, object) {
        const bool known = std::any_of(keys.begin(), keys.end(), [&](const char* k) {
            return child->string != nullptr && strcmp(child->string, k) == 0;
        });
        if (!known) {
            error = what + " has an unknown key '" + (child->string ? child->string : "") + "'";
            return false;
        }
    }
    return true;
}

bool pair(const cJSON* item, const std::string& what, std::pair<double, double>& out,
          std::string& error) {
    if (!cJSON_IsArray(item) || cJSON_GetArraySize(item) != 2) {
        error = what + " must be [FROM, TO] in simulated seconds";
        return false;
    }
    if (!number(cJSON_GetArrayItem(item, 0), what + "[0]", 0, kMaxSeconds, false, out.first,
                error) ||
        !number(cJSON_GetArrayItem(item, 1), what + "[1]", out.first, kMaxSeconds, false,
                out.second, error)) {
        return false;
    }
    return true;
}

enum class Change { kSet, kAdd, kBad };

// One figure: a number sets it; {"add": N}, where `adds` is given (in the
// timeline), changes it by N.
Change figureChange(const cJSON* item, const std::string& at, const std::string& name,
                    uint64_t& set, Adds* adds, std::string& error) {
    if (adds == nullptr || !cJSON_IsObject(item)) {
        return kb(item, at, set, error) ? Change::kSet : Change::kBad;
    }
    double by = 0;
    if (!onlyKeys(item, at, {"add"}, error) ||
        !number(cJSON_GetObjectItemCaseSensitive(item, "add"), at + ".add", -kMaxKb, kMaxKb, true,
                by, error)) {
        return Change::kBad;
    }
    (*adds)[name] = static_cast<int64_t>(by);
    return Change::kAdd;
}

// Sets figures of `into` from the object `item`; new names are appended, or
// refused when `allowed` lists the only names. Changes by an amount go to
// `adds` when given.
bool figures(const cJSON* item, const std::string& what, const std::vector<std::string>* allowed,
             Figures& into, Adds* adds, std::string& error) {
    if (!cJSON_IsObject(item)) {
        error = what + " must be an object of numbers";
        return false;
    }
    const cJSON* child = nullptr;
    cJSON_ArrayForEach(child, item) {
        const std::string name = child->string != nullptr ? child->string : "";
        const bool nameOk =
            !name.empty() && name.size() <= 40 && std::all_of(name.begin(), name.end(), [](char c) {
                return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '(' ||
                       c == ')';
            });
        if (!nameOk || (allowed != nullptr &&
                        std::find(allowed->begin(), allowed->end(), name) == allowed->end())) {
            error = what;
            error += " has an unknown name '";
            error += name;
            error += "'";
            return false;
        }
        uint64_t v = 0;
        std::string at = what;
        at += '.';
        at += name;
        const Change change = figureChange(child, at, name, v, adds, error);
        if (change == Change::kBad) return false;
        if (change == Change::kAdd) continue;
        auto it =
            std::find_if(into.begin(), into.end(), [&](const auto& f) { return f.first == name; });
        if (it == into.end()) {
            into.emplace_back(name, v);
        } else {
            it->second = v;
        }
    }
    return true;
}

std::vector<std::string> lmkLabels() { return {std::begin(kLmkLabels), std::end(kLmkLabels)}; }

// A process object: `fields` gets the names of the keys given.
bool process(const cJSON* item, const std::string& what, Process& p,
             std::vector<std::string>& fields, Adds* adds, std::string& error) {
    if (!onlyKeys(item, what,
                  {"pid", "name", "cmdline", "rss_kb", "swap_kb", "pss_kb", "graphics_kb"},
                  error)) {
        return false;
    }
    double pid = 0;
    if (!number(cJSON_GetObjectItemCaseSensitive(item, "pid"), what + ".pid", 1, kMaxPid, true, pid,
                error)) {
        return false;
    }
    p.pid = static_cast<int>(pid);
    const cJSON* child = nullptr;
    cJSON_ArrayForEach(child, item) {
        const std::string key = child->string;
        std::string at = what;
        at += '.';
        at += key;
        if (key == "pid") {
            fields.push_back(key);
            continue;
        }
        if (key == "name" || key == "cmdline") {
            if (!cJSON_IsString(child)) {
                error = at + " must be a string";
                return false;
            }
            const std::string text = child->valuestring;
            const bool printable = std::all_of(text.begin(), text.end(), [](char c) {
                return isprint(static_cast<unsigned char>(c)) != 0;
            });
            if (!printable || (key == "name" && (text.empty() || text.size() > kMaxNameBytes))) {
                error = at + (key == "name" ? " must be 1 to 15 printable characters"
                                            : " must be printable characters");
                return false;
            }
            (key == "name" ? p.name : p.cmdline) = text;
            fields.push_back(key);
            continue;
        }
        const Change change = figureChange(child, at, key, *processFigure(p, key), adds, error);
        if (change == Change::kBad) return false;
        if (change == Change::kSet) fields.push_back(key);
    }
    return true;
}

// A key given twice in the scenario's configuration, where a device reads the
// first of the two (its loader looks keys up regardless of case): the run
// would not be the device's, so the scenario is refused.
bool findKeyTwice(const cJSON* object, const std::string& at, std::string& error) {
    for (const cJSON* child = object->child; child != nullptr; child = child->next) {
        const std::string where = at + "." + child->string;
        if (cJSON_GetObjectItem(object, child->string) != child) {
            char* first = cJSON_PrintUnformatted(cJSON_GetObjectItem(object, child->string));
            error = where + " is given twice: a device reads only the first (" +
                    (first != nullptr ? first : "?") + "); write it once";
            cJSON_free(first);
            return true;
        }
        if (cJSON_IsObject(child) && findKeyTwice(child, where, error)) return true;
    }
    return false;
}

// Merges `patch` into `base`: objects key by key, anything else replaced. Keys
// match regardless of case, as the daemon's loader matches them.
void merge(cJSON* base, const cJSON* patch) {
    const cJSON* child = nullptr;
    cJSON_ArrayForEach(child, patch) {
        cJSON* existing = cJSON_GetObjectItem(base, child->string);
        if (existing != nullptr && cJSON_IsObject(existing) && cJSON_IsObject(child)) {
            merge(existing, child);
            continue;
        }
        cJSON* copy = cJSON_Duplicate(child, 1);
        if (copy == nullptr) continue;
        if (existing != nullptr) {
            cJSON_ReplaceItemInObject(base, child->string, copy);
        } else {
            cJSON_AddItemToObject(base, child->string, copy);
        }
    }
}

// The configuration as the daemon will read it, and the guardrail rows, by
// check-config's rules: a key or section the daemon does not know is a
// mistake; other findings (but the keys it never acts on) are warnings.
bool checkConfig(const cJSON* config, const cJSON* guardrails, Scenario& s, std::string& error) {
    for (const ConfigFinding& f : checkConfigObjects(config, guardrails)) {
        const bool row = startsWith(f.key, "processes");
        const std::string where =
            row ? "guardrails" + f.key.substr(strlen("processes")) : "config." + f.key;
        if (f.unknown) {
            error = where + " is not known to the daemon: " + f.message;
            return false;
        }
        if (!f.inert) s.configWarnings.push_back(where + ": " + f.message);
    }
    return true;
}

bool loadConfig(const cJSON* root, Scenario& s, std::string& error) {
    Json config(cJSON_Parse(kDefaultConfig));
    if (config.p == nullptr) {
        error = "internal: the default configuration does not parse";
        return false;
    }
    const cJSON* guardrails = cJSON_GetObjectItemCaseSensitive(root, "guardrails");
    if (guardrails != nullptr) {
        cJSON* section = cJSON_GetObjectItemCaseSensitive(config.p, "process_guardrail");
        cJSON_ReplaceItemInObjectCaseSensitive(section, "process_guardrail_monitoring_enabled",
                                               cJSON_CreateTrue());
    }
    const cJSON* patch = cJSON_GetObjectItemCaseSensitive(root, "config");
    if (patch != nullptr) {
        if (!cJSON_IsObject(patch)) {
            error = "config must be an object (the daemon's configuration, merged over defaults)";
            return false;
        }
        if (findKeyTwice(patch, "config", error)) return false;
        merge(config.p, patch);
    }
    s.configText = printed(config.p);
    const cJSON* section = cJSON_GetObjectItemCaseSensitive(config.p, "process_guardrail");
    s.guardrailsEnabled = cJSON_IsTrue(
        cJSON_GetObjectItemCaseSensitive(section, "process_guardrail_monitoring_enabled"));
    const cJSON* interval = cJSON_GetObjectItemCaseSensitive(
        cJSON_GetObjectItemCaseSensitive(config.p, "system_mem"), "memory_read_interval_sec");
    if (cJSON_IsNumber(interval) && interval->valuedouble >= 1 && interval->valuedouble < 1e9) {
        s.memoryReadIntervalSec = static_cast<int>(interval->valuedouble);
    }
    // The counts that decide a condition, as the daemon's loader stores them.
    const tavrend::ConfigVariables effective = effectiveConfig(config.p);
    s.lmkTargetKills = std::max(1, effective.lmk_target_kills);
    s.uplBadSampleThreshold = std::max(1, effective.critical_upl_bad_sample_count_threshold);

    const cJSON* metric = cJSON_GetObjectItemCaseSensitive(root, "metric_config");
    if (metric != nullptr) {
        if (!cJSON_IsObject(metric)) {
            error = "metric_config must be an object";
            return false;
        }
        s.metricConfigText = printed(metric);
    } else {
        s.metricConfigText = kDefaultMetricConfig;
    }
    if (guardrails != nullptr) {
        if (!cJSON_IsArray(guardrails)) {
            error = "guardrails must be an array of {name, soft_memory_limit, hard_memory_limit}";
            return false;
        }
        Json file(cJSON_CreateObject());
        cJSON_AddItemToObject(file.p, "processes", cJSON_Duplicate(guardrails, 1));
        s.guardrailText = printed(file.p);
    }
    return checkConfig(config.p, guardrails, s, error);
}

bool loadDevice(const cJSON* device, Scenario& s, std::string& error) {
    s.meminfo = kDefaultMeminfo;
    for (const char* label : kLmkLabels) s.lmkStats.emplace_back(label, 0);
    if (device == nullptr) return true;
    if (!onlyKeys(device, "device", {"meminfo", "lmk_stats", "processes", "user_active"}, error)) {
        return false;
    }
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(device, "meminfo");
    if (item != nullptr && !figures(item, "device.meminfo", nullptr, s.meminfo, nullptr, error)) {
        return false;
    }
    const std::vector<std::string> labels = lmkLabels();
    item = cJSON_GetObjectItemCaseSensitive(device, "lmk_stats");
    if (item != nullptr &&
        !figures(item, "device.lmk_stats", &labels, s.lmkStats, nullptr, error)) {
        return false;
    }
    item = cJSON_GetObjectItemCaseSensitive(device, "user_active");
    if (item != nullptr && !boolean(item, "device.user_active", s.userActive, error)) return false;
    item = cJSON_GetObjectItemCaseSensitive(device, "processes");
    if (item == nullptr) return true;
    if (!cJSON_IsArray(item)) {
        error = "device.processes must be an array";
        return false;
    }
    int i = 0;
    const cJSON* child = nullptr;
    cJSON_ArrayForEach(child, item) {
        const std::string what = "device.processes[" + std::to_string(i++) + "]";
        Process p;
        std::vector<std::string> fields;
        if (!process(child, what, p, fields, nullptr, error)) return false;
        if (p.name.empty()) {
            error = what + " needs a name";
            return false;
        }
        if (s.processes.count(p.pid) != 0) {
            error = what + ": pid " + std::to_string(p.pid) + " is listed twice";
            return false;
        }
        completeNewProcess(p, fields);
        s.processes[p.pid] = p;
    }
    return true;
}

// "every": N, "times": M repeat an event M times, N simulated seconds apart.
bool loadRepeat(const cJSON* item, const std::string& what, double at, double endSec, double& every,
                int& times, std::string& error) {
    const cJSON* everyItem = cJSON_GetObjectItemCaseSensitive(item, "every");
    const cJSON* timesItem = cJSON_GetObjectItemCaseSensitive(item, "times");
    if ((everyItem == nullptr) != (timesItem == nullptr)) {
        error = what + ": \"every\" (seconds apart) and \"times\" go together";
        return false;
    }
    if (everyItem == nullptr) return true;
    double n = 0;
    if (!number(everyItem, what + ".every", 1, endSec, false, every, error) ||
        !number(timesItem, what + ".times", 1, kMaxRepeats, true, n, error)) {
        return false;
    }
    times = static_cast<int>(n);
    if (at + every * (times - 1) > endSec) {
        std::ostringstream last;
        last << what << " repeats past end_sec: its last time would be "
             << at + every * (times - 1);
        error = last.str();
        return false;
    }
    return true;
}

bool loadEvent(const cJSON* item, const std::string& what, double endSec, Event& e, double& every,
               int& times, std::string& error) {
    if (!onlyKeys(item, what,
                  {"at", "every", "times", "lmk_stats", "meminfo", "process", "exit", "user_active",
                   "upl", "sigterm"},
                  error)) {
        return false;
    }
    if (!number(cJSON_GetObjectItemCaseSensitive(item, "at"), what + ".at", 0, endSec, false, e.at,
                error) ||
        !loadRepeat(item, what, e.at, endSec, every, times, error)) {
        return false;
    }
    const cJSON* change = item->child;
    while (change != nullptr &&
           (strcmp(change->string, "at") == 0 || strcmp(change->string, "every") == 0 ||
            strcmp(change->string, "times") == 0)) {
        change = change->next;
    }
    if (cJSON_GetArraySize(item) != (every > 0 ? 4 : 2) || change == nullptr) {
        error = what + " needs \"at\" and exactly one change";
        return false;
    }
    const std::string key = change->string;
    const std::string at = what + "." + key;
    if (key == "lmk_stats") {
        e.kind = Event::Kind::Lmk;
        const std::vector<std::string> labels = lmkLabels();
        return figures(change, at, &labels, e.figures, &e.adds, error);
    }
    if (key == "meminfo") {
        e.kind = Event::Kind::Meminfo;
        return figures(change, at, nullptr, e.figures, &e.adds, error);
    }
    if (key == "process") {
        e.kind = Event::Kind::Process;
        return process(change, at, e.process, e.processFields, &e.adds, error);
    }
    if (key == "exit") {
        e.kind = Event::Kind::Exit;
        double pid = 0;
        if (!number(change, at, 1, kMaxPid, true, pid, error)) return false;
        e.pid = static_cast<int>(pid);
        return true;
    }
    if (key == "user_active") {
        e.kind = Event::Kind::UserActive;
        return boolean(change, at, e.flag, error);
    }
    if (key == "sigterm") {
        e.kind = Event::Kind::Sigterm;
        if (!cJSON_IsTrue(change) || every > 0) {
            error = at + " must be true, once";
            return false;
        }
        return true;
    }
    e.kind = Event::Kind::Upl;
    const int n = cJSON_IsArray(change) ? cJSON_GetArraySize(change) : 0;
    if (n < 1 || static_cast<size_t>(n) > kMaxUplSamples) {
        error = at + " must be an array of 1 to 10000 latencies in milliseconds";
        return false;
    }
    const cJSON* sample = nullptr;
    cJSON_ArrayForEach(sample, change) {
        double ms = 0;
        if (!number(sample, at + "[]", -1e15, 1e15, true, ms, error)) return false;
        e.upl.push_back(static_cast<int64_t>(ms));
    }
    return true;
}

// Plays the process changes through once, so that each one makes sense.
bool checkTimeline(const Scenario& s, std::string& error) {
    std::set<int> live;
    for (const auto& [pid, p] : s.processes) live.insert(pid);
    for (const Event& e : s.timeline) {
        std::ostringstream when;
        when << "timeline event at " << e.at << ": ";
        if (e.kind == Event::Kind::Process) {
            if (live.count(e.process.pid) == 0 && e.process.name.empty()) {
                error = when.str() + "new pid " + std::to_string(e.process.pid) + " needs a name";
                return false;
            }
            live.insert(e.process.pid);
        } else if (e.kind == Event::Kind::Exit) {
            if (live.erase(e.pid) == 0) {
                error = when.str() + "pid " + std::to_string(e.pid) + " is not running then";
                return false;
            }
        }
    }
    return true;
}

// One of `choices`, as a string.
bool oneOf(const cJSON* v, const std::string& what, std::initializer_list<const char*> choices,
           const std::string& wanted, std::string& out, std::string& error) {
    const bool ok = cJSON_IsString(v) && std::any_of(choices.begin(), choices.end(), [&](auto c) {
                        return strcmp(v->valuestring, c) == 0;
                    });
    if (!ok) {
        error = what + " must be " + wanted;
        return false;
    }
    out = v->valuestring;
    return true;
}

// When the condition comes, and the reboot.
bool loadExpectTimes(const cJSON* item, Expect& x, std::string& error) {
    const cJSON* v = cJSON_GetObjectItemCaseSensitive(item, "condition");
    std::string text;
    if (v != nullptr) {
        if (!oneOf(v, "expect.condition", {"none", "memory", "latency"},
                   "\"none\", \"memory\" or \"latency\"", text, error)) {
            return false;
        }
        x.condition = text;
    }
    std::pair<double, double> range;
    if ((v = cJSON_GetObjectItemCaseSensitive(item, "detected_between")) != nullptr) {
        if (!pair(v, "expect.detected_between", range, error)) return false;
        x.detectedBetween = range;
    }
    if ((v = cJSON_GetObjectItemCaseSensitive(item, "reboot_between")) != nullptr) {
        if (!pair(v, "expect.reboot_between", range, error)) return false;
        x.rebootBetween = range;
    }
    if ((v = cJSON_GetObjectItemCaseSensitive(item, "reboot")) != nullptr) {
        bool b = false;
        if (!boolean(v, "expect.reboot", b, error)) return false;
        x.reboot = b;
    }
    if ((v = cJSON_GetObjectItemCaseSensitive(item, "ends")) != nullptr) {
        if (!cJSON_IsString(v) || strlen(v->valuestring) == 0) {
            error =
                "expect.ends must be a string: \"reboot\", \"sigterm\", \"exit N\", "
                "\"signal NAME\" or \"timeout\"";
            return false;
        }
        x.ends = v->valuestring;
    }
    return true;
}

// Who is killed, and how often.
bool loadExpectKills(const cJSON* item, Expect& x, std::string& error) {
    const cJSON* v = cJSON_GetObjectItemCaseSensitive(item, "killed");
    if (v != nullptr) {
        if (!cJSON_IsObject(v)) {
            error = "expect.killed must be an object {\"NAME\": \"hard\"|\"idle\"|\"hard,idle\"}";
            return false;
        }
        std::map<std::string, std::string> killed;
        const cJSON* k = nullptr;
        cJSON_ArrayForEach(k, v) {
            if (!oneOf(k, std::string("expect.killed.") + k->string, {"hard", "idle", "hard,idle"},
                       "\"hard\", \"idle\" or \"hard,idle\"", killed[k->string], error)) {
                return false;
            }
        }
        x.killed = killed;
    }
    if ((v = cJSON_GetObjectItemCaseSensitive(item, "kill_totals")) != nullptr) {
        if (!cJSON_IsObject(v)) {
            error = "expect.kill_totals must be an object {\"NAME\": KILLS}";
            return false;
        }
        std::map<std::string, long> totals;
        const cJSON* k = nullptr;
        double n = 0;
        cJSON_ArrayForEach(k, v) {
            if (!number(k, std::string("expect.kill_totals.") + k->string, 0, 1e9, true, n,
                        error)) {
                return false;
            }
            totals[k->string] = static_cast<long>(n);
        }
        x.killTotals = totals;
    }
    return true;
}

// The metric records, the latency samples counted, the daemon's own figures.
bool loadExpectRecords(const cJSON* item, Expect& x, std::string& error) {
    const cJSON* v = cJSON_GetObjectItemCaseSensitive(item, "metric_records");
    if (v != nullptr) {
        std::vector<std::string> records;
        const cJSON* r = nullptr;
        bool strings = cJSON_IsArray(v);
        cJSON_ArrayForEach(r, v) {
            strings = strings && cJSON_IsString(r);
            if (strings) records.emplace_back(r->valuestring);
        }
        if (!strings) {
            error = "expect.metric_records must be an array of strings";
            return false;
        }
        x.metricRecords = records;
    }
    double n = 0;
    if ((v = cJSON_GetObjectItemCaseSensitive(item, "upl_total")) != nullptr) {
        if (!number(v, "expect.upl_total", 0, 1e9, true, n, error)) return false;
        x.uplTotal = static_cast<long>(n);
    }
    if ((v = cJSON_GetObjectItemCaseSensitive(item, "daemon_flat")) == nullptr) return true;
    if (!onlyKeys(v, "expect.daemon_flat", {"from", "fds", "vmrss_kb"}, error)) return false;
    Expect::Flat flat;
    const cJSON* from = cJSON_GetObjectItemCaseSensitive(v, "from");
    if (from != nullptr &&
        !number(from, "expect.daemon_flat.from", 0, kMaxSeconds, false, flat.fromSec, error)) {
        return false;
    }
    for (const char* key : {"fds", "vmrss_kb"}) {
        const cJSON* limit = cJSON_GetObjectItemCaseSensitive(v, key);
        if (limit == nullptr) continue;
        if (!number(limit, std::string("expect.daemon_flat.") + key, 0, 1e9, true, n, error)) {
            return false;
        }
        (strcmp(key, "fds") == 0 ? flat.fds : flat.vmrssKb) = static_cast<long>(n);
    }
    x.daemonFlat = flat;
    return true;
}

bool loadExpect(const cJSON* item, Expect& x, std::string& error) {
    if (item == nullptr) return true;
    return onlyKeys(item, "expect",
                    {"condition", "detected_between", "reboot", "reboot_between", "killed",
                     "metric_records", "ends", "kill_totals", "upl_total", "daemon_flat"},
                    error) &&
           loadExpectTimes(item, x, error) && loadExpectKills(item, x, error) &&
           loadExpectRecords(item, x, error);
}

// The scenario file's JSON value, or null with `error` set.
cJSON* readJson(const std::string& path, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot read " + path;
        return nullptr;
    }
    std::string text;
    text.resize(kMaxScenarioBytes + 1);
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(in.gcount()));
    if (text.size() > kMaxScenarioBytes) {
        error = path + " is larger than 4 MiB";
        return nullptr;
    }
    const char* end = nullptr;
    Json root(cJSON_ParseWithLengthOpts(text.data(), text.size(), &end, false));
    if (root.p == nullptr) {
        const char* bad = cJSON_GetErrorPtr();
        const bool inside =
            bad != nullptr && bad >= text.data() && bad <= text.data() + text.size();
        error = path + " is not valid JSON" +
                (inside ? " (near byte " + std::to_string(bad - text.data()) + ")" : "");
        return nullptr;
    }
    while (end != nullptr && end < text.data() + text.size() &&
           isspace(static_cast<unsigned char>(*end)))
        ++end;
    if (end != nullptr && end != text.data() + text.size()) {
        error = path + " has text after the JSON value";
        return nullptr;
    }
    cJSON* out = root.p;  // handed over to the caller
    root.p = nullptr;
    return out;
}

// The scenario's own settings: description, scale, end, boot uptime, latency clients.
bool loadSettings(const cJSON* root, Scenario& s, std::string& error) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(root, "description");
    if (item != nullptr) {
        if (!cJSON_IsString(item)) {
            error = "description must be a string";
            return false;
        }
        s.description = item->valuestring;
    }
    item = cJSON_GetObjectItemCaseSensitive(root, "scale");
    if (item != nullptr) {
        double scale = 0;
        if (!number(item, "scale", 0.001, 100000, false, scale, error)) return false;
        s.scale = scale;
    }
    item = cJSON_GetObjectItemCaseSensitive(root, "end_sec");
    if (item == nullptr) {
        error = "end_sec (the simulated second at which the run ends) is missing";
        return false;
    }
    if (!number(item, "end_sec", 1, kMaxSeconds, false, s.endSec, error)) return false;
    item = cJSON_GetObjectItemCaseSensitive(root, "boot_uptime_sec");
    if (item != nullptr) {
        double uptime = 0;
        if (!number(item, "boot_uptime_sec", 0, kMaxSeconds, true, uptime, error)) return false;
        s.bootUptimeSec = static_cast<long>(uptime);
    }
    item = cJSON_GetObjectItemCaseSensitive(root, "upl_clients");
    if (item != nullptr) {
        double clients = 0;
        if (!number(item, "upl_clients", 1, kMaxUplClients, true, clients, error)) return false;
        s.uplClients = static_cast<int>(clients);
    }
    return true;
}

// The timeline, its repeats spelled out, in time order.
bool loadTimeline(const cJSON* item, Scenario& s, std::string& error) {
    if (item != nullptr && !cJSON_IsArray(item)) {
        error = "timeline must be an array of events";
        return false;
    }
    int i = 0;
    const cJSON* child = nullptr;
    cJSON_ArrayForEach(child, item) {
        Event e;
        double every = 0;
        int times = 1;
        if (!loadEvent(child, "timeline[" + std::to_string(i++) + "]", s.endSec, e, every, times,
                       error)) {
            return false;
        }
        if (s.timeline.size() + static_cast<size_t>(times) > kMaxEvents) {
            error = "the timeline has more than " + std::to_string(kMaxEvents) +
                    " events once its repeats are counted";
            return false;
        }
        for (int k = 0; k < times; ++k) {
            s.timeline.push_back(e);
            s.timeline.back().at = e.at + every * k;
        }
    }
    std::stable_sort(s.timeline.begin(), s.timeline.end(),
                     [](const Event& a, const Event& b) { return a.at < b.at; });
    return checkTimeline(s, error);
}

}  // namespace

bool loadScenario(const std::string& path, Scenario& s, std::string& error) {
    const Json root(readJson(path, error));
    if (root.p == nullptr) return false;
    return onlyKeys(root.p, "the scenario",
                    {"description", "scale", "end_sec", "config", "metric_config", "guardrails",
                     "device", "upl_clients", "timeline", "expect", "boot_uptime_sec"},
                    error) &&
           loadSettings(root.p, s, error) && loadConfig(root.p, s, error) &&
           loadDevice(cJSON_GetObjectItemCaseSensitive(root.p, "device"), s, error) &&
           loadTimeline(cJSON_GetObjectItemCaseSensitive(root.p, "timeline"), s, error) &&
           loadExpect(cJSON_GetObjectItemCaseSensitive(root.p, "expect"), s.expect, error);
}

}  // namespace tavrendctl::sim

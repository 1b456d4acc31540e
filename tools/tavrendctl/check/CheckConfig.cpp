// tavrendctl check-config [ROOT] [--json]: loads a device root's configuration
// files through the daemon's own loaders, prints every effective setting with
// its origin, and warns, one line per mistake, about what would make the
// daemon misbehave (the rules are in ConfigRules.cpp).
#include <cjson/cJSON.h>
#include <cutils/properties.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "check/ConfigRules.h"
#include "config/ConfigLoader.h"
#include "config/ConfigVariables.h"
#include "config/Constants.h"
#include "config/MemoryGuardrailConfig.h"
#include "config/cjson_ext.h"
#include "metrics/TavrenMetricConfig.h"
#include "platform/host_root.h"
#include "platform/log_hook.h"
#include "toolbox/Commands.h"
#include "toolbox/Text.h"

using tavrend::ConfigVariables;
using tavrend::MemoryGuardrailConfig;
using tavrend::TavrenMetricConfig;
using tavrendctl::ConfigFinding;
using tavrendctl::limitText;
using tavrendctl::quoted;

namespace {

constexpr const char* kHelp =
    "Loads the daemon configuration, the metric configuration and, when guardrails\n"
    "are enabled, the guardrail file of the device root ROOT (default $TAVREND_ROOT,\n"
    "else /) as the daemon does, honouring the override properties. Prints every\n"
    "setting's effective value and where it came from (default, file or override\n"
    "file), marking those the daemon never acts on, the metric configuration and the\n"
    "guardrail rows, then one line 'warning: KEY: ...' per mistake that would make\n"
    "the daemon misbehave, naming the value the daemon actually uses and what the\n"
    "device then does, and one line 'note: KEY: ...' per key set in the file that\n"
    "the daemon never acts on and per guardrail row that matches no process of\n"
    "the root's /proc. Guardrail limits are judged against the root's\n"
    "/proc/meminfo.\n"
    "--json prints the same as one JSON object (see the README).\n"
    "\n"
    "Exit status: 0 no warning (notes allowed); 1 warnings (a missing or malformed\n"
    "metric configuration or guardrail file is one: the daemon runs on without\n"
    "metric records or without guardrails); 2 bad usage, or the daemon\n"
    "configuration does not load (the daemon does not start).\n";

// What the command finds, as text and as JSON.
struct Report {
    bool json = false;
    std::string text;
    cJSON* doc = cJSON_CreateObject();
    tavrendctl::Findings findings;

    Report() = default;
    ~Report() { cJSON_Delete(doc); }
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    [[gnu::format(printf, 2, 3)]] void out(const char* fmt, ...) {
        va_list ap;
        va_start(ap, fmt);
        text += tavrendctl::vformat(fmt, ap);
        va_end(ap);
    }
};

// Line and column of `at` in `text`, both from 1.
std::string positionOf(const std::string& text, size_t at) {
    const size_t lineStart = at == 0 ? 0 : text.rfind('\n', at - 1);
    const size_t column = lineStart == std::string::npos ? at + 1 : at - lineStart;
    const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<long>(at), '\n');
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

// A file parsed the way the daemon parses it, for looking at what it holds.
class JsonFile {
public:
    explicit JsonFile(const char* devicePath)
        : path_(devicePath), root_(cJSON_Parse_File(devicePath, 0)) {}
    ~JsonFile() { cJSON_Delete(root_); }
    JsonFile(const JsonFile&) = delete;
    JsonFile& operator=(const JsonFile&) = delete;
    const cJSON* root() const { return root_; }
    // Why the file gave no tree, with the place where its JSON goes wrong.
    std::string failure() const {
        const std::string host = tavrend::platform::hostPath(path_);
        struct stat st {};
        if (stat(host.c_str(), &st) != 0) return "missing";
        std::ifstream in(host, std::ios::binary);
        const std::string text{std::istreambuf_iterator<char>(in), {}};
        if (!in.eof() && in.fail()) return "unreadable";
        const char* end = nullptr;
        cJSON* tree = cJSON_ParseWithLengthOpts(text.c_str(), text.size() + 1, &end, 1);
        cJSON_Delete(tree);
        if (tree != nullptr || end == nullptr) return "unreadable or over 16 MiB";
        const size_t at = std::min(static_cast<size_t>(end - text.c_str()), text.size());
        return "not valid JSON at " + positionOf(text, at);
    }

private:
    const char* path_;
    cJSON* root_;
};

// ---- The daemon configuration ----

// A tuned copy under /data that the daemon does not read, its property unset.
void warnIgnoredCopy(bool override, const char* copy, const char* property, Report& r) {
    struct stat st {};
    if (override || stat(tavrend::platform::hostPath(copy).c_str(), &st) != 0) return;
    r.findings.rule(tavrendctl::Rule::OverrideCopyIgnored, copy, "present, but %s is not true",
                    property);
}

// Loads the daemon configuration as the daemon does; null when it cannot.
std::unique_ptr<JsonFile> checkDaemonConfig(ConfigVariables& config, Report& r) {
    const bool override = property_get_bool(tavrend::kConfigOverrideProperty, false);
    const char* path = override ? tavrend::kOverrideConfigPath : tavrend::kDefaultConfigPath;
    const int status = tavrend::tavren_config_load(config);
    auto file = std::make_unique<JsonFile>(path);
    if (status != 0 || file->root() == nullptr) {
        const std::string why =
            file->root() == nullptr
                ? file->failure()
                : "holds none of system_mem, proc_scan, sample, device_upl, process_guardrail";
        fprintf(stderr, "tavrendctl: check-config: daemon configuration %s%s: %s\n", path,
                override ? " (chosen by tavrend.config.override)" : "", why.c_str());
        cJSON_AddStringToObject(r.doc, "error", (std::string(path) + ": " + why).c_str());
        return nullptr;
    }
    const char* origin = override ? "override file" : "file";
    warnIgnoredCopy(override, tavrend::kOverrideConfigPath, tavrend::kConfigOverrideProperty, r);
    r.out("daemon configuration: %s (%s)\n", path, origin);
    cJSON* block = cJSON_AddObjectToObject(r.doc, "daemon_config");
    cJSON_AddStringToObject(block, "path", path);
    cJSON_AddStringToObject(block, "origin", origin);
    cJSON* settings = cJSON_AddArrayToObject(block, "settings");
    for (const auto& s : tavrendctl::describeSettings(file->root(), config, origin)) {
        r.out("  %-54s %-16s %s%s\n", s.key.c_str(), s.value.c_str(), s.source.c_str(),
              s.inert != nullptr ? "  (never acted on)" : "");
        cJSON* row = cJSON_CreateObject();
        cJSON_AddStringToObject(row, "key", s.key.c_str());
        cJSON_AddStringToObject(row, "value", s.value.c_str());
        cJSON_AddStringToObject(row, "source", s.source.c_str());
        cJSON_AddBoolToObject(row, "acted_on", s.inert == nullptr);
        cJSON_AddItemToArray(settings, row);
    }
    return file;
}

// ---- The metric configuration ----

using MetricConfig = TavrenMetricConfig::MetricConfig;

const char* onOff(bool b) { return b ? "true" : "false"; }

// Why a boolean of a file reads false when it is not the literal false.
std::string boolCause(const cJSON* item) {
    if (item == nullptr) return " (left out)";
    if (cJSON_IsBool(item)) return "";
    if (cJSON_IsString(item))
        return " (the string " + quoted(item->valuestring) + ", where true or false belongs)";
    return cJSON_IsNumber(item) ? " (a number, where true or false belongs)"
                                : " (neither true nor false)";
}

void printMetricConfig(const MetricConfig& c, Report& r) {
    const auto& o = c.orreryMetricInterface;
    r.out("  %s: Active %s, MetricName %s\n", quoted(c.name).c_str(), onOff(c.active),
          quoted(c.metricName).c_str());
    r.out("    KAPH_Metric_Interface: Active %s, ProgramName %s\n",
          onOff(c.kaphMetricInterface.active), quoted(c.kaphMetricInterface.programName).c_str());
    r.out("    Orrery_Metric_Interface: Active %s, Schema_Id %s, Group_Id %s\n", onOff(o.active),
          quoted(o.schemaId).c_str(), quoted(o.groupId).c_str());
    if (!o.metricKey.dimensionTag.empty() || !o.metricValue.dimensionTag.empty()) {
        r.out("      Metric_Key tag %s, Metric_Value tag %s\n",
              quoted(o.metricKey.dimensionTag).c_str(), quoted(o.metricValue.dimensionTag).c_str());
    }
    for (const auto& m : o.metrics) {
        r.out("      Metrics: %s, Type %s, DimensionTag %s\n", quoted(m.name).c_str(),
              quoted(m.type).c_str(), quoted(m.dimensionTag).c_str());
    }
}

// What a configuration the daemon publishes under needs; nullptr when it is missing.
const MetricConfig* checkPublisher(const TavrenMetricConfig& mc, const char* name, Report& r) {
    const std::string key = std::string("MetricConfig.") + name;
    const MetricConfig* c = mc.findMetricConfig(name);
    if (c == nullptr) {
        r.findings.warn(key, "missing: no record of %s is written", name);
        return nullptr;
    }
    if (!c->active) {
        r.findings.warn(
            key + ".Active",
            "false, but the daemon does not read it: records go out while the interfaces "
            "are active");
    }
    const auto& o = c->orreryMetricInterface;
    const std::string iface = key + ".Orrery_Metric_Interface";
    if (!o.active) r.findings.warn(iface + ".Active", "false: no record of %s is written", name);
    if (o.schemaId.empty())
        r.findings.warn(iface + ".Schema_Id", "empty: records carry no schema id");
    if (o.groupId.empty() && mc.orreryConfig.groupId.empty()) {
        r.findings.warn(iface + ".Group_Id",
                        "empty, as is OrreryConfig.GroupId: records carry no group id");
    }
    return c;
}

// The idle detector publishes only with its legacy interface active, and writes
// pairs (duration_type, duration_value) matched to "Metrics" position by position.
void checkIdleDetector(const TavrenMetricConfig& mc, Report& r) {
    const MetricConfig* c = checkPublisher(mc, tavrend::IDLE_DETECTOR, r);
    if (c == nullptr) return;
    const std::string key = std::string("MetricConfig.") + tavrend::IDLE_DETECTOR;
    if (!c->kaphMetricInterface.active) {
        r.findings.warn(key + ".KAPH_Metric_Interface.Active",
                        "false: the idle detector publishes only while it is true");
    }
    const auto& schema = c->orreryMetricInterface.metrics;
    const std::string metrics = key + ".Orrery_Metric_Interface.Metrics";
    const char* const pairs[] = {tavrend::DURATION_TYPE, tavrend::DURATION_VALUE};
    if (schema.size() != 2) {
        r.findings.warn(metrics, "%zu entries, not 2 (%s, %s): no record is written", schema.size(),
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
            r.findings.warn(at + ".Type",
                            "%s is none of str, int, float, bool, ts: written without a type",
                            quoted(t).c_str());
        } else if (schema[i].dimensionTag.empty()) {
            r.findings.warn(at + ".DimensionTag", "empty: %s is written without a name", pairs[i]);
        }
    }
    if (lost.size() == 2) {
        r.findings.warn(metrics, "must name %s then %s: no record is written", pairs[0], pairs[1]);
    } else if (lost.size() == 1) {
        r.findings.warn(metrics, "must name %s then %s: records are written without %s", pairs[0],
                        pairs[1], lost[0].c_str());
    }
}

// The guardrail monitor's records need both dimension tags.
void checkGuardrailMetric(const TavrenMetricConfig& mc, Report& r) {
    const MetricConfig* c = checkPublisher(mc, tavrend::MEMORY_GUARDRAIL, r);
    if (c == nullptr) return;
    const std::string key =
        std::string("MetricConfig.") + tavrend::MEMORY_GUARDRAIL + ".Orrery_Metric_Interface.";
    if (c->orreryMetricInterface.metricKey.dimensionTag.empty()) {
        r.findings.warn(key + "Metric_Key.DimensionTag", "empty: no guardrail record is written");
    }
    if (c->orreryMetricInterface.metricValue.dimensionTag.empty()) {
        r.findings.warn(key + "Metric_Value.DimensionTag", "empty: no guardrail record is written");
    }
}

void checkMetricConfig(const ConfigVariables& config, Report& r) {
    const bool override = property_get_bool(tavrend::kMetricOverrideProperty, false);
    const char* path =
        override ? tavrend::kOverrideMetricConfigPath : tavrend::kDefaultMetricConfigPath;
    TavrenMetricConfig& mc = TavrenMetricConfig::instance();
    const int status = mc.parseConfig(tavrend::kDefaultMetricConfigPath);
    warnIgnoredCopy(override, tavrend::kOverrideMetricConfigPath, tavrend::kMetricOverrideProperty,
                    r);
    r.out("\nmetric configuration: %s (%s)\n", path, override ? "override file" : "file");
    if (status != 0) {
        r.out("  not loaded\n");
        const JsonFile file(path);
        if (file.root() == nullptr) {
            r.findings.rule(tavrendctl::Rule::MetricsOff, path, "%s", file.failure().c_str());
        } else if (!cJSON_IsArray(cJSON_GetObjectItem(file.root(), "MetricConfig"))) {
            r.findings.rule(tavrendctl::Rule::MetricsOff, "MetricConfig",
                            "missing or not an array");
        } else {
            r.findings.rule(tavrendctl::Rule::MetricsOff, "OrreryConfig",
                            "missing or not an object");
        }
        return;
    }
    const auto& o = mc.orreryConfig;
    r.out("  OrreryConfig: Enabled %s, Region %s, GroupId %s\n", onOff(o.enabled),
          quoted(o.region).c_str(), quoted(o.groupId).c_str());
    if (!o.enabled) {
        const JsonFile file(path);
        const cJSON* item =
            cJSON_GetObjectItem(cJSON_GetObjectItem(file.root(), "OrreryConfig"), "Enabled");
        r.findings.rule(tavrendctl::Rule::MetricsOff, "OrreryConfig.Enabled", "false%s",
                        boolCause(item).c_str());
    }
    std::vector<const MetricConfig*> all;
    for (const auto& entry : mc.metricConfigs) all.push_back(&entry.second);
    std::sort(all.begin(), all.end(), [](auto* a, auto* b) { return a->name < b->name; });
    for (const MetricConfig* c : all) printMetricConfig(*c, r);
    checkIdleDetector(mc, r);
    // Only the guardrail monitor publishes under "MemoryGuardrail".
    if (config.process_guardrail_monitoring_enabled) checkGuardrailMetric(mc, r);
}

// ---- The guardrail file ----

// Loads the guardrail file when the daemon would. Returns the "processes"
// array to check (owned by `file`), or null when there is none to check.
const cJSON* checkGuardrails(const ConfigVariables& config, std::unique_ptr<JsonFile>& file,
                             Report& r) {
    const char* path = tavrend::kMemoryGuardrailConfigPath;
    cJSON* block = cJSON_AddObjectToObject(r.doc, "guardrails");
    cJSON_AddStringToObject(block, "path", path);
    cJSON_AddBoolToObject(block, "read", config.process_guardrail_monitoring_enabled);
    if (!config.process_guardrail_monitoring_enabled) {
        r.out("\nguardrails: disabled, %s is not read\n", path);
        return nullptr;
    }
    std::vector<MemoryGuardrailConfig> rows;
    const int status = tavrend::loadMemoryGuardrailConfig(rows);
    file = std::make_unique<JsonFile>(path);
    r.out("\nguardrails: %s\n", path);
    cJSON_AddBoolToObject(block, "loaded", status == 0 && file->root() != nullptr);
    if (status != 0 || file->root() == nullptr) {
        const std::string why =
            file->root() == nullptr ? file->failure() : "holds no \"processes\" array";
        r.out("  not loaded\n");
        r.findings.warn(path,
                        "%s: the daemon disables the guardrail monitor and runs without "
                        "guardrails",
                        why.c_str());
        return nullptr;
    }
    cJSON* list = cJSON_AddArrayToObject(block, "rows");
    for (const MemoryGuardrailConfig& row : rows) {
        r.out("  %-32s soft %-12s hard %s\n", quoted(row.name).c_str(),
              limitText(row.soft_memory_limit).c_str(), limitText(row.hard_memory_limit).c_str());
        cJSON* item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "name", row.name.c_str());
        cJSON_AddNumberToObject(item, "soft_kb", static_cast<double>(row.soft_memory_limit));
        cJSON_AddNumberToObject(item, "hard_kb", static_cast<double>(row.hard_memory_limit));
        cJSON_AddItemToArray(list, item);
    }
    return cJSON_GetObjectItem(file->root(), "processes");
}

// The loaders log as the daemon does; keep their lines off the terminal and
// out of any daemon log directory.
void silenceDaemonLog() {
    tavrend::platform::setLogToStderr(false);
    unsetenv("TAVREND_LOG_DIR");
    tavrend::platform::reopenLogFiles();
}

// Prints what was found; returns the exit status for the findings.
int finish(Report& r, int status) {
    int warnings = 0;
    cJSON* list = cJSON_AddArrayToObject(r.doc, "findings");
    std::string lines;
    for (const ConfigFinding& f : r.findings.all()) {
        const char* kind = f.unknown ? "unknown" : f.inert ? "note" : "warning";
        if (!f.inert) ++warnings;
        lines += std::string(f.inert ? "note: " : "warning: ") + f.key + ": " + f.message + "\n";
        cJSON* item = cJSON_CreateObject();
        cJSON_AddStringToObject(item, "key", f.key.c_str());
        cJSON_AddStringToObject(item, "kind", kind);
        cJSON_AddStringToObject(item, "message", f.message.c_str());
        cJSON_AddItemToArray(list, item);
    }
    if (status == 0) status = warnings > 0 ? 1 : 0;
    cJSON_AddNumberToObject(r.doc, "exit_status", status);
    if (r.json) {
        char* text = cJSON_Print(r.doc);
        printf("%s\n", text != nullptr ? text : "{}");
        cJSON_free(text);
    } else {
        fputs(r.text.c_str(), stdout);
        if (!lines.empty()) printf("\n%s", lines.c_str());
    }
    return status;
}

}  // namespace

namespace {

int checkConfig(const tavrendctl::Args& a) {
    if (a.has("--rules-markdown")) {
        fputs(tavrendctl::rulesMarkdown().c_str(), stdout);
        return 0;
    }
    Report r;
    r.json = a.has("--json");
    const char* rootArg = a.operands.empty() ? nullptr : a.operands[0].c_str();
    const char* env = getenv("TAVREND_ROOT");
    const std::string root =
        rootArg != nullptr ? rootArg : (env != nullptr && *env != '\0' ? env : "/");
    struct stat st {};
    if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        fprintf(stderr, "tavrendctl: check-config: device root %s is not a directory\n",
                root.c_str());
        return 2;
    }
    silenceDaemonLog();
    tavrend::platform::setDeviceRoot(root);
    r.out("device root: %s\n", root.c_str());
    cJSON_AddStringToObject(r.doc, "device_root", root.c_str());

    ConfigVariables config;
    const std::unique_ptr<JsonFile> daemonFile = checkDaemonConfig(config, r);
    if (daemonFile == nullptr) return finish(r, 2);
    checkMetricConfig(config, r);
    std::unique_ptr<JsonFile> guardrailFile;
    const cJSON* rows = checkGuardrails(config, guardrailFile, r);
    const tavrendctl::DeviceFacts device = tavrendctl::readDeviceFacts();
    r.out("\ndevice: %s, %s\n",
          device.memTotalKb > 0
              ? tavrendctl::format("MemTotal %llu kB",
                                   static_cast<unsigned long long>(device.memTotalKb))
                    .c_str()
              : "no /proc/meminfo (limits judged against 16 GiB)",
          device.hasProcesses ? tavrendctl::format("%zu processes", device.processes.size()).c_str()
                              : "no processes in /proc (names not checked)");
    r.findings.append(tavrendctl::checkConfigObjects(daemonFile->root(), rows, &device));
    return finish(r, 0);
}

}  // namespace

namespace tavrendctl {

const Command kCheckConfigCommand = {
    "check-config",
    "[ROOT] [--json]",
    kHelp,
    // --rules-markdown (not in the help): the table of rules, for the README.
    {{"--json", nullptr}, {"--rules-markdown", nullptr}},
    0,
    1,
    false,
    checkConfig};

}  // namespace tavrendctl

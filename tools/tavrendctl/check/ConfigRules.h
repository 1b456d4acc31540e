// The rules that tell a daemon configuration and its guardrail rows that would
// make the daemon misbehave: a value it reads otherwise than written, a key it
// never reads or never acts on, a setting that reboots the device or kills a
// process where nobody expects it. Shared by `tavrendctl check-config` and the
// scenario runner.
#pragma once

#include <cjson/cJSON.h>

#include <cstdarg>
#include <string>
#include <vector>

#include "check/RuleTable.h"
#include "config/ConfigVariables.h"

namespace tavrendctl {

struct ConfigFinding {
    // The key ("system_mem.lmk_target_kills"), the section ("kernel") or the
    // guardrail row ("processes[2]") the finding is about.
    std::string key;
    // What the daemon will do with it, naming the value it actually uses.
    std::string message;
    // A key or section the daemon does not know (it ignores it; a typo, most likely).
    bool unknown = false;
    // A key the daemon loads but never acts on: worth knowing, not a mistake.
    bool inert = false;
};

// Text from a file, in double quotes, with control characters shown as '?'.
std::string quoted(const std::string& s);

// A number the loader reads as written: whole and within 32 bits.
bool isWholeInt32(const cJSON* item);

// A number from a file as a reader writes it: whole numbers in full, never
// in exponent form; fractions with their digits.
std::string numberText(double d);

// What the device root shows beside its configuration files.
struct DeviceFacts {
    uint64_t memTotalKb = 0;    // MemTotal of its /proc/meminfo; 0 when it has none
    bool hasProcesses = false;  // it has a /proc with process folders
    struct Process {
        int pid = 0;
        std::string name;     // as the daemon names it: the short name, or for a
                              // Binder-named one the end of its command line
        std::string comm;     // the kernel's short name
        std::string program;  // the command line's first word, blanks removed
    };
    std::vector<Process> processes;
};

// Reads the facts of the device root that the host layer points at.
DeviceFacts readDeviceFacts();

// Findings as they are made, each from a printf format.
class Findings {
public:
    [[gnu::format(printf, 3, 4)]] void warn(const std::string& key, const char* fmt, ...) {
        va_list ap;
        va_start(ap, fmt);
        add(key, fmt, ap, false, false);
        va_end(ap);
    }
    [[gnu::format(printf, 3, 4)]] void unknown(const std::string& key, const char* fmt, ...) {
        va_list ap;
        va_start(ap, fmt);
        add(key, fmt, ap, true, false);
        va_end(ap);
    }
    [[gnu::format(printf, 3, 4)]] void note(const std::string& key, const char* fmt, ...) {
        va_list ap;
        va_start(ap, fmt);
        add(key, fmt, ap, false, true);
        va_end(ap);
    }
    // A warning that ends with the rule's effect: "WHAT: EFFECT".
    [[gnu::format(printf, 4, 5)]] void rule(Rule r, const std::string& key, const char* fmt, ...) {
        va_list ap;
        va_start(ap, fmt);
        addRule(r, key, fmt, ap, false);
        va_end(ap);
    }
    // The same as a note: worth knowing, not a mistake.
    [[gnu::format(printf, 4, 5)]] void ruleNote(Rule r, const std::string& key, const char* fmt,
                                                ...) {
        va_list ap;
        va_start(ap, fmt);
        addRule(r, key, fmt, ap, true);
        va_end(ap);
    }
    // Whether a warning about `key` was made already.
    bool warned(const std::string& key) const;
    void append(std::vector<ConfigFinding> more) {
        for (ConfigFinding& m : more) all_.push_back(std::move(m));
    }
    const std::vector<ConfigFinding>& all() const { return all_; }
    std::vector<ConfigFinding> take() { return std::move(all_); }

private:
    void add(const std::string& key, const char* fmt, va_list ap, bool unknown, bool inert);
    void addRule(Rule r, const std::string& key, const char* fmt, va_list ap, bool note);
    std::vector<ConfigFinding> all_;
};

// Checks a daemon configuration, the whole object of tavrend_config.json as
// the daemon would read it (keys it leaves out keep the daemon's defaults),
// and, when not null, guardrail rows (the "processes" array of the guardrail
// file), against the device when `device` is not null. Findings come in the
// order of the file's settings, then the rows.
std::vector<ConfigFinding> checkConfigObjects(const cJSON* daemonConfig, const cJSON* guardrailRows,
                                              const DeviceFacts* device = nullptr);

// The guardrail rows' checks (RowRules.cpp).
void checkGuardrailRows(const cJSON* rows, const tavrend::ConfigVariables& c,
                        const DeviceFacts* device, Findings& f);

// Keys the daemon does not read, and keys given twice (it reads the first);
// cJSON matches names regardless of case, as the loader does.
void checkKeys(const cJSON* object, const char* const* known, size_t count,
               const std::string& prefix, Findings& f);

// The settings the daemon loads from `daemonConfig`, as its loader stores them.
tavrend::ConfigVariables effectiveConfig(const cJSON* daemonConfig);

// One line of the settings table: a setting's effective value and where it
// came from ("default", or `origin` when the file sets it).
struct SettingRow {
    std::string key;
    std::string value;
    std::string source;
    const char* inert = nullptr;  // why the daemon never acts on it, or nullptr
};
std::vector<SettingRow> describeSettings(const cJSON* daemonConfig,
                                         const tavrend::ConfigVariables& config,
                                         const std::string& origin);

}  // namespace tavrendctl

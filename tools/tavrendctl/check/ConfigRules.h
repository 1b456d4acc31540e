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
    void append(std::vector<ConfigFinding> more) {
        for (ConfigFinding& m : more) all_.push_back(std::move(m));
    }
    const std::vector<ConfigFinding>& all() const { return all_; }
    std::vector<ConfigFinding> take() { return std::move(all_); }

private:
    void add(const std::string& key, const char* fmt, va_list ap, bool unknown, bool inert);
    std::vector<ConfigFinding> all_;
};

// Checks a daemon configuration, the whole object of tavrend_config.json as
// the daemon would read it (keys it leaves out keep the daemon's defaults),
// and, when not null, guardrail rows (the "processes" array of the guardrail
// file). Findings come in the order of the file's settings, then the rows.
std::vector<ConfigFinding> checkConfigObjects(const cJSON* daemonConfig,
                                              const cJSON* guardrailRows);

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

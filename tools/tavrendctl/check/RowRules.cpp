// The rules of the guardrail rows: names as the daemon matches them (against
// the root's processes when it has any), the processes no row may guard, and
// limits judged against the device's memory.
#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <string>
#include <vector>

#include "check/ConfigRules.h"
#include "toolbox/Text.h"

namespace tavrendctl {
namespace {

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

// The processes no row may guard, and why (README: "Rows that must not be guarded").
struct Protected {
    const char* name;
    const char* why;
};
const Protected kProtected[] = {
    {"init", "process 1: the kernel may panic when it dies"},
    {"tavrend", "the daemon itself, whose histories and counts die with it"},
    {"system_server", "the framework: its death restarts zygote and every app"},
    {"zygote", "the parent of every app and of system_server: its death restarts the framework"},
    {"zygote64", "the parent of every app and of system_server: its death restarts the framework"},
    {"surfaceflinger", "the display: init restarts zygote, and so the framework, with it"},
    {"servicemanager",
     "critical: init restarts zygote and surfaceflinger with it, and after 4 deaths in 4 "
     "minutes restarts the device into the bootloader"},
    {"hwservicemanager",
     "critical: init restarts every HAL with it, the display's and audio's included, and after "
     "4 deaths in 4 minutes restarts the device into the bootloader"},
    {"vndservicemanager", "the vendor services' registry: they are lost to their clients with it"},
    {"ueventd",
     "critical: after 4 deaths in 4 minutes init restarts the device into the bootloader"},
};

std::string baseName(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

const Protected* protectedNamed(const std::string& name) {
    for (const Protected& p : kProtected) {
        if (baseName(name) == p.name) return &p;
    }
    return nullptr;
}

// The protected program a process of the root runs, by pid, short name or command line.
const Protected* protectedProcess(const DeviceFacts::Process& p) {
    if (p.pid == 1) return &kProtected[0];
    if (const Protected* byComm = protectedNamed(p.comm)) return byComm;
    return protectedNamed(p.program);
}

// Edits between two short strings (names of at most 31 characters).
size_t distance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t up = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = up;
        }
    }
    return row[b.size()];
}

// The process a row was surely meant for, though its name is written otherwise:
// one whose program, or whose short name, is the row's name.
const DeviceFacts::Process* meantProcess(const std::string& name, const DeviceFacts& d) {
    for (const DeviceFacts::Process& p : d.processes) {
        const bool byProgram =
            !p.program.empty() && (baseName(p.program) == baseName(name) || p.program == name ||
                                   (name.size() > 15 && p.program.ends_with(name)));
        if (byProgram || p.comm == name) return &p;
    }
    return nullptr;
}

// A row's name against the root's processes, as the daemon matches it.
void checkNameOnDevice(const Row& r, const DeviceFacts& d, Findings& f) {
    const std::string name = quoted(r.name);
    for (const DeviceFacts::Process& p : d.processes) {
        if (p.name != r.name) continue;
        if (const Protected* pr = protectedProcess(p)) {
            f.rule(Rule::RowProtected, r.key, "%s matches process %d (%s), %s", name.c_str(), p.pid,
                   p.program.empty() ? quoted(p.comm).c_str() : p.program.c_str(), pr->why);
        }
        return;
    }
    if (const DeviceFacts::Process* p = meantProcess(r.name, d)) {
        const bool binder = p->comm.find("Binder") != std::string::npos;
        f.rule(Rule::RowNameMisses, r.key,
               "%s is not how the daemon names process %d (short name %s, command line %s): it "
               "names it %s, %s",
               name.c_str(), p->pid, quoted(p->comm).c_str(), quoted(p->program).c_str(),
               quoted(p->name).c_str(),
               binder ? "the last 31 characters of its command line (blanks removed)"
                      : "its short name");
        return;
    }
    std::string nearest;
    for (const DeviceFacts::Process& p : d.processes) {
        if (distance(p.name, r.name) <= 2) nearest = "; did you mean " + quoted(p.name) + "?";
    }
    f.ruleNote(Rule::RowNoProcess, r.key, "%s matches no process of the root's /proc%s",
               name.c_str(), nearest.c_str());
}

void checkRowName(const Row& r, const DeviceFacts* device, Findings& f) {
    const std::string name = quoted(r.name);
    const size_t n = r.name.size();
    if (n == 0 || n > 31 || r.name.find(' ') != std::string::npos) {
        f.rule(Rule::RowNameNever, r.key, "%s%s", name.c_str(),
               n == 0   ? " is empty"
               : n > 31 ? format(" has %zu characters, a process name at most 31", n).c_str()
                        : " holds a blank, which no process name does");
    } else if (const Protected* p = protectedNamed(r.name)) {
        f.rule(Rule::RowProtected, r.key, "%s is %s", name.c_str(), p->why);
    } else if (device != nullptr && device->hasProcesses) {
        checkNameOnDevice(r, *device, f);
    } else if (n > 15) {
        f.note(r.key,
               "%s has %zu characters: a short name has at most 15, so it matches only a "
               "process whose short name contains \"Binder\" and whose command line (blanks "
               "removed) ends so; the root has no /proc to check it against",
               name.c_str(), n);
    }
}

// One warning a row at most about its limits, the worst first.
void checkRowLimits(const Row& r, const DeviceFacts* device, Findings& f) {
    const std::string name = quoted(r.name);
    for (const cJSON* item : {r.soft, r.hard}) {
        const char* which = item == r.soft ? "soft_memory_limit" : "hard_memory_limit";
        if (!isWholeInt32(item)) {
            f.warn(r.key, "%s: %s %s is not a 32-bit whole number: the daemon uses %s",
                   name.c_str(), which, numberText(item->valuedouble).c_str(),
                   limitText(limitOf(item)).c_str());
            return;
        }
        if (item->valueint < -1) {
            f.warn(r.key, "%s: %s %d: the daemon uses %s (no limit); -1 says so", name.c_str(),
                   which, item->valueint, std::to_string(limitOf(item)).c_str());
            return;
        }
    }
    const uint64_t soft = limitOf(r.soft);
    const uint64_t hard = limitOf(r.hard);
    const bool known = device != nullptr && device->memTotalKb > 0;
    const uint64_t memory = known ? device->memTotalKb : kPlainMemoryKb;
    const std::string memoryText =
        known ? format("the device's MemTotal %" PRIu64 " kB", memory) : "16 GiB";
    if (soft == UINT64_MAX) {
        f.rule(Rule::SoftLimitNone, r.key, "%s: soft limit -1, hard limit %s", name.c_str(),
               limitText(hard).c_str());
    } else if (hard < kTinyLimitKb || soft < kTinyLimitKb) {
        const bool isHard = hard < kTinyLimitKb;
        f.rule(Rule::LimitTiny, r.key,
               "%s: %s limit %" PRIu64 " kB, under 4096 kB (MB written as kB?)", name.c_str(),
               isHard ? "hard" : "soft", isHard ? hard : soft);
    } else if ((hard != UINT64_MAX && hard > memory) || soft > memory) {
        const bool isHard = hard != UINT64_MAX && hard > memory;
        f.rule(Rule::LimitOverMemory, r.key,
               "%s: %s limit %" PRIu64 " kB, over %s (bytes written as kB?)", name.c_str(),
               isHard ? "hard" : "soft", isHard ? hard : soft, memoryText.c_str());
    } else if (soft > hard) {
        f.rule(Rule::SoftAboveHard, r.key, "%s: soft limit %s above hard limit %s", name.c_str(),
               limitText(soft).c_str(), limitText(hard).c_str());
    }
}

// A pass sleeps after every row while holding the guardrail lock, and a new
// pass, a thread of its own, starts every check interval whether or not the
// last one has ended.
void checkPasses(size_t rows, const tavrend::ConfigVariables& c, Findings& f) {
    const uint64_t pass = rows * static_cast<uint64_t>(std::max(0, c.pss_sleep_interval_sec));
    const uint64_t period = tavrend::effectivePeriod(c.guardrail_check_interval_sec);
    if (pass == 0 || pass < period) return;
    f.rule(Rule::GuardrailPassesPileUp, "process_guardrail.pss_sleep_interval_sec",
           "%d s after each of %zu guardrail rows: a pass takes %" PRIu64
           " s, a new one starts every %" PRIu64 " s (guardrail_check_interval_sec)",
           c.pss_sleep_interval_sec, rows, pass, period);
}

}  // namespace

void checkGuardrailRows(const cJSON* rowsArray, const tavrend::ConfigVariables& c,
                        const DeviceFacts* device, Findings& f) {
    const std::vector<Row> rows = readRows(rowsArray, f);
    for (size_t i = 0; i < rows.size(); ++i) {
        checkRowName(rows[i], device, f);
        checkRowLimits(rows[i], device, f);
        for (size_t j = 0; j < i; ++j) {
            if (rows[j].name != rows[i].name || rows[i].name.empty()) continue;
            f.rule(Rule::RowTwice, rows[i].key, "%s again, as %s", quoted(rows[i].name).c_str(),
                   rows[j].key.c_str());
            break;
        }
    }
    if (!c.process_guardrail_monitoring_enabled) return;
    if (rows.empty()) {
        f.rule(Rule::GuardrailsWithoutRows, "processes",
               "no row, with process_guardrail_monitoring_enabled true");
    }
    checkPasses(rows.size(), c, f);
}

}  // namespace tavrendctl

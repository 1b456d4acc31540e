// tavrendctl sim: the scenario file (reading and checking it) and the device
// root it describes (writing it, and changing it while the daemon runs).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tavrendctl::sim {

// Figures kept in the order they are written, e.g. /proc/meminfo's lines.
using Figures = std::vector<std::pair<std::string, uint64_t>>;
// Figures changed by an amount, {"add": N} in the timeline, by name. A figure
// never goes below 0.
using Adds = std::map<std::string, int64_t>;

struct Process {
    int pid = 0;
    std::string name;
    std::string cmdline;
    uint64_t rssKb = 0;
    uint64_t swapKb = 0;
    uint64_t pssKb = 0;
    uint64_t graphicsKb = 0;
};

struct Event {
    enum class Kind { Lmk, Meminfo, Process, Exit, UserActive, Upl, Sigterm };
    double at = 0;
    Kind kind = Kind::Sigterm;
    Figures figures;                         // Lmk, Meminfo
    Adds adds;                               // Lmk, Meminfo, Process (after the figures set)
    Process process;                         // Process (only the fields given are set...)
    std::vector<std::string> processFields;  // ...named here
    int pid = 0;                             // Exit
    bool flag = false;                       // UserActive
    std::vector<int64_t> upl;                // Upl
};

struct Expect {
    std::optional<std::string> condition;
    std::optional<std::pair<double, double>> detectedBetween;
    std::optional<bool> reboot;
    std::optional<std::pair<double, double>> rebootBetween;
    std::optional<std::map<std::string, std::string>> killed;
    std::optional<std::vector<std::string>> metricRecords;
    std::optional<std::string> ends;
    std::optional<std::map<std::string, long>> killTotals;
    std::optional<long> uplTotal;
    struct Flat {
        double fromSec = 3600;
        std::optional<long> fds;
        std::optional<long> vmrssKb;
    };
    std::optional<Flat> daemonFlat;
    bool any() const {
        return condition || detectedBetween || reboot || rebootBetween || killed || metricRecords ||
               ends || killTotals || uplTotal || daemonFlat;
    }
};

struct Scenario {
    std::string description;
    std::optional<double> scale;
    double endSec = 0;
    long bootUptimeSec = 0;                   // the device's uptime when the run starts
    std::string configText;                   // the merged daemon configuration, as written
    std::vector<std::string> configWarnings;  // check-config's findings on it and the rows
    std::string metricConfigText;
    std::optional<std::string> guardrailText;
    bool guardrailsEnabled = false;  // as the merged configuration says
    int memoryReadIntervalSec = 1;   // likewise (at least 1)
    long lmkTargetKills = 0;         // likewise: the counts that decide a condition
    long uplBadSampleThreshold = 0;
    Figures meminfo;
    Figures lmkStats;
    std::map<int, Process> processes;
    bool userActive = true;
    int uplClients = 1;           // binder connections sending the latency samples
    std::vector<Event> timeline;  // in time order, repeats spelled out
    Expect expect;
};

// Reads and checks a scenario file; on failure `error` says what is wrong.
bool loadScenario(const std::string& path, Scenario& out, std::string& error);

// Writes the device root `root` (an existing, empty directory) for `s`.
bool writeDeviceRoot(const std::string& root, const Scenario& s, std::string& error);

// Changes to a written root. Each file is replaced atomically.
class DeviceState {
public:
    DeviceState(std::string root, const Scenario& s);
    bool apply(const Event& e, std::string& error);  // every kind but Upl and Sigterm
    bool userActive() const { return userActive_; }
    // The program that holds `pid` now, if any.
    std::optional<std::string> holder(int pid) const;
    // The daemon killed `pid`: the driver removed its directory; its memtrack
    // figures go too, as the memtrack service forgets a dead process.
    void killed(int pid);

private:
    bool writeProcess(const Process& p, std::string& error);
    std::string root_;
    Figures meminfo_;
    Figures lmkStats_;
    std::map<int, Process> processes_;
    bool userActive_;
};

// The figure of `p` a scenario key names ("rss_kb", ...), or null.
uint64_t* processFigure(Process& p, const std::string& key);
// `v` changed by `by`, at least 0.
uint64_t added(uint64_t v, int64_t by);

// Whether `fields` names `key`.
bool has(const std::vector<std::string>& fields, const char* key);
// A new process's figures where the scenario leaves them out.
void completeNewProcess(Process& p, const std::vector<std::string>& fields);

// Files of the device root, shared by the writer and the changes.
std::string meminfoText(const Figures& f);
std::string lmkStatsText(const Figures& f);
bool writeFileAtomic(const std::string& root, const std::string& devicePath,
                     const std::string& content, std::string& error);

}  // namespace tavrendctl::sim

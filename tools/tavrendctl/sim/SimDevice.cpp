// tavrendctl sim: the device root a scenario describes, written before the
// run and changed by the timeline while the daemon runs.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "sim/SimScenario.h"
#include "toolbox/Text.h"

namespace tavrendctl::sim {
namespace {

namespace fs = std::filesystem;

const char* const kZoneinfo =
    "Node 0, zone    DMA32\n"
    "  pages free     35584\n"
    "        min      1024\n"
    "        low      1280\n"
    "        high     1536\n"
    "        spanned  262144\n"
    "        present  262144\n"
    "        managed  258048\n"
    "Node 0, zone   Normal\n"
    "  pages free     120320\n"
    "        min      3072\n"
    "        low      3840\n"
    "        high     4608\n"
    "        spanned  786432\n"
    "        present  786432\n"
    "        managed  758784\n";

const char* const kMinfree = "18432,23040,27648,32256,55296,80640\n";

bool writeFile(const std::string& path, const std::string& content, std::string& error) {
    std::error_code ec;
    fs::create_directories(fs::path(path).parent_path(), ec);
    return tavrendctl::writeFile(path, content, error);
}

std::string statusText(const Process& p) {
    std::ostringstream s;
    s << "Name:\t" << p.name << "\nUmask:\t0022\nState:\tS (sleeping)\nTgid:\t" << p.pid
      << "\nPid:\t" << p.pid << "\nPPid:\t1\nVmPeak:\t" << p.rssKb * 2 << " kB\nVmSize:\t"
      << p.rssKb * 2 << " kB\nVmHWM:\t" << p.rssKb << " kB\nVmRSS:\t" << p.rssKb
      << " kB\nRssAnon:\t" << p.rssKb / 2 << " kB\nVmSwap:\t" << p.swapKb << " kB\nThreads:\t4\n";
    return s.str();
}

std::string rollupText(const Process& p) {
    std::ostringstream s;
    s << "00400000-7ffc0000000 ---p 00000000 00:00 0                          [rollup]\nRss:  "
      << p.rssKb << " kB\nPss:  " << p.pssKb << " kB\nPss_Anon:  " << p.pssKb / 2
      << " kB\nPss_File:  " << p.pssKb / 2 << " kB\nSwapPss:  " << p.swapKb << " kB\n";
    return s.str();
}

std::string memtrackText(const Process& p) {
    return std::to_string(p.graphicsKb * 1024) + " 0 0\n";
}

// Sets the figures an event sets, then changes those it adds to; a name not
// there yet is appended (from 0 for an amount).
void changeFigures(Figures& f, const Event& e) {
    auto figure = [&](const std::string& name) -> uint64_t& {
        auto it = std::find_if(f.begin(), f.end(), [&](const auto& x) { return x.first == name; });
        if (it != f.end()) return it->second;
        return f.emplace_back(name, 0).second;
    };
    for (const auto& [name, v] : e.figures) figure(name) = v;
    for (const auto& [name, by] : e.adds) figure(name) = added(figure(name), by);
}

// The fields an event gives for a running process.
void changeProcess(Process& p, const Process& q, const std::vector<std::string>& fields) {
    if (has(fields, "name")) {
        // Another program on the same id: a fresh command line too.
        if (q.name != p.name && !has(fields, "cmdline")) p.cmdline = q.name;
        p.name = q.name;
    }
    if (has(fields, "cmdline")) p.cmdline = q.cmdline;
    if (has(fields, "rss_kb")) p.rssKb = q.rssKb;
    if (has(fields, "swap_kb")) p.swapKb = q.swapKb;
    if (has(fields, "pss_kb")) p.pssKb = q.pssKb;
    if (has(fields, "graphics_kb")) p.graphicsKb = q.graphicsKb;
}

}  // namespace

uint64_t* processFigure(Process& p, const std::string& key) {
    if (key == "rss_kb") return &p.rssKb;
    if (key == "swap_kb") return &p.swapKb;
    if (key == "pss_kb") return &p.pssKb;
    if (key == "graphics_kb") return &p.graphicsKb;
    return nullptr;
}

uint64_t added(uint64_t v, int64_t by) {
    const uint64_t amount = by < 0 ? 0 - static_cast<uint64_t>(by) : static_cast<uint64_t>(by);
    if (by < 0) return amount >= v ? 0 : v - amount;
    return amount > UINT64_MAX - v ? UINT64_MAX : v + amount;
}

bool has(const std::vector<std::string>& fields, const char* key) {
    return std::find(fields.begin(), fields.end(), key) != fields.end();
}

// A new process's figures where the scenario leaves them out.
void completeNewProcess(Process& p, const std::vector<std::string>& fields) {
    if (!has(fields, "rss_kb")) p.rssKb = 4096;
    if (!has(fields, "pss_kb")) p.pssKb = p.rssKb * 2 / 3;
    if (!has(fields, "cmdline")) p.cmdline = p.name;
}

std::string meminfoText(const Figures& f) {
    std::string out;
    for (const auto& [name, v] : f) {
        char line[96];
        snprintf(line, sizeof(line), "%-15s %10llu kB\n", (name + ":").c_str(),
                 static_cast<unsigned long long>(v));
        out += line;
    }
    return out;
}

std::string lmkStatsText(const Figures& f) {
    std::string out;
    for (const auto& [name, v] : f) out += name + ": " + std::to_string(v) + "\n";
    return out;
}

bool writeFileAtomic(const std::string& root, const std::string& devicePath,
                     const std::string& content, std::string& error) {
    const std::string tmp = root + "/.sim-stage/file.tmp";
    if (!writeFile(tmp, content, error)) return false;
    const std::string target = root + devicePath;
    std::error_code ec;
    fs::create_directories(fs::path(target).parent_path(), ec);
    if (rename(tmp.c_str(), target.c_str()) != 0) {
        error = "cannot replace " + target + ": " + strerror(errno);
        return false;
    }
    return true;
}

bool writeDeviceRoot(const std::string& root, const Scenario& s, std::string& error) {
    const std::string etc = root + "/system/etc/tavrend/";
    std::error_code ec;
    for (const char* dir : {"/sys/kernel/dravik", "/data/system/tavrend", "/dev/memtrack",
                            "/dev/__properties__", "/proc", "/.sim-stage"}) {
        fs::create_directories(root + dir, ec);
        if (ec) {
            error = "cannot create " + root + dir + ": " + ec.message();
            return false;
        }
    }
    if (!writeFile(etc + "tavrend_config.json", s.configText, error) ||
        !writeFile(etc + "tavrend_metric_config.json", s.metricConfigText, error) ||
        (s.guardrailText &&
         !writeFile(etc + "tavrend_memory_guardrail.json", *s.guardrailText, error)) ||
        !writeFile(root + "/proc/meminfo", meminfoText(s.meminfo), error) ||
        !writeFile(root + "/proc/zoneinfo", kZoneinfo, error) ||
        !writeFile(root + "/proc/lmk_stats", lmkStatsText(s.lmkStats), error) ||
        !writeFile(root + "/sys/module/lowmemorykiller/parameters/minfree", kMinfree, error) ||
        !writeFile(root + "/dev/__properties__/sys.user_activity_detected",
                   s.userActive ? "true\n" : "false\n", error)) {
        return false;
    }
    DeviceState state(root, s);
    for (const auto& [pid, p] : s.processes) {
        Event e;
        e.kind = Event::Kind::Process;
        e.process = p;
        e.processFields = {"pid", "name", "cmdline", "rss_kb", "swap_kb", "pss_kb", "graphics_kb"};
        if (!state.apply(e, error)) return false;
    }
    return true;
}

std::optional<std::string> DeviceState::holder(int pid) const {
    const auto it = processes_.find(pid);
    if (it == processes_.end()) return std::nullopt;
    return it->second.name;
}

void DeviceState::killed(int pid) {
    processes_.erase(pid);
    std::error_code ec;
    fs::remove(root_ + "/dev/memtrack/" + std::to_string(pid), ec);
}

DeviceState::DeviceState(std::string root, const Scenario& s)
    : root_(std::move(root)),
      meminfo_(s.meminfo),
      lmkStats_(s.lmkStats),
      processes_(s.processes),
      userActive_(s.userActive) {}

bool DeviceState::writeProcess(const Process& p, std::string& error) {
    const std::string dir = "/proc/" + std::to_string(p.pid);
    std::error_code ec;
    if (!fs::exists(root_ + dir, ec)) {
        // A new process appears whole: built aside, then moved in.
        const std::string stage = root_ + "/.sim-stage/" + std::to_string(p.pid);
        fs::remove_all(stage, ec);
        if (!writeFile(stage + "/comm", p.name + "\n", error) ||
            !writeFile(stage + "/cmdline", p.cmdline, error) ||
            !writeFile(stage + "/status", statusText(p), error) ||
            !writeFile(stage + "/smaps_rollup", rollupText(p), error)) {
            return false;
        }
        if (rename(stage.c_str(), (root_ + dir).c_str()) != 0) {
            error = "cannot create " + root_ + dir + ": " + strerror(errno);
            return false;
        }
    } else if (!writeFileAtomic(root_, dir + "/comm", p.name + "\n", error) ||
               !writeFileAtomic(root_, dir + "/cmdline", p.cmdline, error) ||
               !writeFileAtomic(root_, dir + "/status", statusText(p), error) ||
               !writeFileAtomic(root_, dir + "/smaps_rollup", rollupText(p), error)) {
        return false;
    }
    return writeFileAtomic(root_, "/dev/memtrack/" + std::to_string(p.pid), memtrackText(p), error);
}

bool DeviceState::apply(const Event& e, std::string& error) {
    switch (e.kind) {
        case Event::Kind::Lmk:
            changeFigures(lmkStats_, e);
            return writeFileAtomic(root_, "/proc/lmk_stats", lmkStatsText(lmkStats_), error);
        case Event::Kind::Meminfo:
            changeFigures(meminfo_, e);
            return writeFileAtomic(root_, "/proc/meminfo", meminfoText(meminfo_), error);
        case Event::Kind::Process: {
            auto it = processes_.find(e.process.pid);
            std::error_code ec;
            if (it != processes_.end() &&
                !fs::exists(root_ + "/proc/" + std::to_string(e.process.pid), ec)) {
                // The daemon killed it: a name starts a new process on the id,
                // new figures for the dead one are dropped.
                processes_.erase(it);
                it = processes_.end();
            }
            if (it == processes_.end() && !has(e.processFields, "name")) return true;
            if (it == processes_.end()) {
                Process p = e.process;
                completeNewProcess(p, e.processFields);
                it = processes_.emplace(p.pid, p).first;
            } else {
                changeProcess(it->second, e.process, e.processFields);
            }
            for (const auto& [key, by] : e.adds) {
                uint64_t* figure = processFigure(it->second, key);
                if (figure != nullptr) *figure = added(*figure, by);
            }
            return writeProcess(it->second, error);
        }
        case Event::Kind::Exit: {
            processes_.erase(e.pid);
            std::error_code ec;
            // Already gone when the daemon killed it.
            fs::remove_all(root_ + "/proc/" + std::to_string(e.pid), ec);
            fs::remove(root_ + "/dev/memtrack/" + std::to_string(e.pid), ec);
            return true;
        }
        case Event::Kind::UserActive:
            userActive_ = e.flag;
            return writeFileAtomic(root_, "/dev/__properties__/sys.user_activity_detected",
                                   e.flag ? "true\n" : "false\n", error);
        case Event::Kind::Upl:
        case Event::Kind::Sigterm: break;
    }
    return true;
}

}  // namespace tavrendctl::sim

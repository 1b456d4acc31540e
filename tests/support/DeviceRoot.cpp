#include "support/DeviceRoot.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "platform/device_root.h"

namespace fs = std::filesystem;

namespace tavrend::test {

DeviceRoot::DeviceRoot(bool withProc) {
    std::string tmpl = (fs::temp_directory_path() / "tavrend-root-XXXXXX").string();
    if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    root_ = tmpl;
    if (withProc) fs::create_directories(root_ + "/proc");
    fs::create_directories(root_ + "/dev/__properties__");
    activate();
}

DeviceRoot::~DeviceRoot() {
    platform::setDeviceRoot("");
    std::error_code ec;
    fs::remove_all(root_, ec);
}

void DeviceRoot::activate() const { platform::setDeviceRoot(root_); }

std::string DeviceRoot::host(const std::string& devicePath) const { return root_ + devicePath; }

void DeviceRoot::writeFile(const std::string& devicePath, const std::string& content) const {
    fs::path p = host(devicePath);
    fs::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) throw std::runtime_error("cannot write " + p.string());
}

void DeviceRoot::removePath(const std::string& devicePath) const {
    std::error_code ec;
    fs::remove_all(host(devicePath), ec);
}

bool DeviceRoot::exists(const std::string& devicePath) const {
    return fs::exists(host(devicePath));
}

std::string DeviceRoot::readFile(const std::string& devicePath) const {
    std::ifstream in(host(devicePath), std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void DeviceRoot::addProcess(const FakeProcess& p) const {
    const std::string dir = "/proc/" + std::to_string(p.pid);
    writeFile(dir + "/comm", p.comm + "\n");
    writeFile(dir + "/cmdline", p.kernelThread ? std::string() : p.cmdline);
    std::string status = p.status;
    if (status.empty()) {
        std::ostringstream s;
        s << "Name:\t" << p.comm << "\nUmask:\t0022\nState:\tS (sleeping)\nTgid:\t" << p.pid
          << "\nPid:\t" << p.pid << "\nPPid:\t1\n";
        if (!p.kernelThread) {
            s << "VmPeak:\t  " << p.vmRssKb * 2 << " kB\nVmRSS:\t  " << p.vmRssKb
              << " kB\nRssAnon:\t  " << p.vmRssKb / 2 << " kB\nVmSwap:\t  " << p.vmSwapKb
              << " kB\n";
        }
        s << "Threads:\t1\n";
        status = s.str();
    }
    writeFile(dir + "/status", status);
    std::string rollup = p.smapsRollup;
    if (rollup.empty() && !p.kernelThread) {
        std::ostringstream s;
        s << "00400000-7fffffffffff ---p 00000000 00:00 0  [rollup]\nRss:  " << p.vmRssKb
          << " kB\nPss:  " << p.pssKb << " kB\nPss_Anon:  " << p.pssKb / 2
          << " kB\nSwapPss:  0 kB\n";
        rollup = s.str();
    }
    writeFile(dir + "/smaps_rollup", rollup);
}

void DeviceRoot::removeProcess(int pid) const { removePath("/proc/" + std::to_string(pid)); }

void DeviceRoot::setMeminfo(const std::string& text) const { writeFile("/proc/meminfo", text); }
void DeviceRoot::setZoneinfo(const std::string& text) const { writeFile("/proc/zoneinfo", text); }
void DeviceRoot::setLmkStats(const std::string& text) const { writeFile("/proc/lmk_stats", text); }
void DeviceRoot::setMinfree(const std::string& text) const {
    writeFile("/sys/module/lowmemorykiller/parameters/minfree", text);
}

void DeviceRoot::setMemtrack(int pid, int64_t graphics, int64_t gl, int64_t other) const {
    writeFile("/dev/memtrack/" + std::to_string(pid), std::to_string(graphics) + " " +
                                                          std::to_string(gl) + " " +
                                                          std::to_string(other) + "\n");
}

void DeviceRoot::setDaemonConfig(const std::string& json) const {
    writeFile("/system/etc/tavrend/tavrend_config.json", json);
}
void DeviceRoot::setMetricConfig(const std::string& json) const {
    writeFile("/system/etc/tavrend/tavrend_metric_config.json", json);
}

void DeviceRoot::setProperty(const std::string& name, const std::string& value) const {
    writeFile("/dev/__properties__/" + name, value);
}

std::string DeviceRoot::getProperty(const std::string& name) const {
    std::string v = readFile("/dev/__properties__/" + name);
    if (!v.empty() && v.back() == '\n') v.pop_back();
    return v;
}

std::string meminfoText(uint64_t memFree, uint64_t buffers, uint64_t cached, uint64_t swapFree,
                        uint64_t sUnreclaim) {
    std::ostringstream s;
    s << "MemTotal:        3867224 kB\n"
      << "MemFree:         " << memFree << " kB\n"
      << "MemAvailable:    1825384 kB\n"
      << "Buffers:         " << buffers << " kB\n"
      << "Cached:          " << cached << " kB\n"
      << "SwapCached:        12288 kB\n"
      << "Active:          1354676 kB\n"
      << "Inactive:         894116 kB\n"
      << "Active(anon):     745672 kB\n"
      << "Inactive(anon):   210648 kB\n"
      << "Active(file):     609004 kB\n"
      << "Inactive(file):   683468 kB\n"
      << "Unevictable:        5120 kB\n"
      << "Mlocked:            5120 kB\n"
      << "SwapTotal:       1048572 kB\n"
      << "SwapFree:        " << swapFree << " kB\n"
      << "Dirty:               412 kB\n"
      << "Shmem:             20480 kB\n"
      << "KReclaimable:      95664 kB\n"
      << "Slab:             160000 kB\n"
      << "SReclaimable:      95664 kB\n"
      << "SUnreclaim:      " << sUnreclaim << " kB\n"
      << "KernelStack:       21104 kB\n"
      << "PageTables:        41156 kB\n"
      << "HugePages_Total:       0\n"
      << "HugePages_Free:        0\n"
      << "Hugepagesize:       2048 kB\n";
    return s.str();
}

}  // namespace tavrend::test

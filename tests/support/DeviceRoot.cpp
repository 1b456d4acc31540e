#include "support/DeviceRoot.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "platform/host_root.h"
#include "support/Subprocess.h"

namespace fs = std::filesystem;

namespace tavrend::test {

DeviceRoot::DeviceRoot(bool withProc) {
    std::string tmpl = (fs::temp_directory_path() / "tavrend-root-XXXXXX").string();
    if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    root_ = tmpl;
    if (withProc) fs::create_directories(root_ + "/proc");
    fs::create_directories(root_ + "/dev/__properties__");
    platform::setDeviceRoot(root_);
}

DeviceRoot::~DeviceRoot() {
    platform::setDeviceRoot("");
    std::error_code ec;
    fs::remove_all(root_, ec);
}

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
    return readText(host(devicePath));
}

void DeviceRoot::addProcess(const FakeProcess& p) const {
    const std::string dir = "/proc/" + std::to_string(p.pid);
    writeFile(dir + "/comm", p.comm + "\n");
    writeFile(dir + "/cmdline", p.kernelThread ? std::string() : p.cmdline);
    std::ostringstream s;
    s << "Name:\t" << p.comm << "\nState:\tS (sleeping)\nTgid:\t" << p.pid << "\nPid:\t" << p.pid
      << "\nPPid:\t1\n";
    if (!p.kernelThread) {
        s << "VmPeak:\t  " << p.vmRssKb * 2 << " kB\nVmRSS:\t  " << p.vmRssKb << " kB\nRssAnon:\t  "
          << p.vmRssKb / 2 << " kB\nVmSwap:\t  " << p.vmSwapKb << " kB\n";
    }
    writeFile(dir + "/status", s.str() + "Threads:\t1\n");
    std::string rollup = p.smapsRollup;
    if (rollup.empty() && !p.kernelThread) {
        rollup = "00400000-7fffffffffff ---p 00000000 00:00 0  [rollup]\nRss:  " +
                 std::to_string(p.vmRssKb) + " kB\nPss:  " + std::to_string(p.pssKb) +
                 " kB\nPss_Anon:  " + std::to_string(p.pssKb / 2) + " kB\nSwapPss:  0 kB\n";
    }
    writeFile(dir + "/smaps_rollup", rollup);
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
    auto kb = [](const char* key, uint64_t v) {
        return key + (": " + std::to_string(v)) + " kB\n";
    };
    return "MemTotal:        3867224 kB\n" + kb("MemFree", memFree) +
           "MemAvailable:    1825384 kB\n" + kb("Buffers", buffers) + kb("Cached", cached) +
           "SwapCached:        12288 kB\nActive:          1354676 kB\nInactive:  894116 kB\n"
           "Active(anon):     745672 kB\nInactive(anon):   210648 kB\n"
           "Active(file):     609004 kB\nInactive(file):   683468 kB\n"
           "Unevictable:        5120 kB\nMlocked:            5120 kB\n"
           "SwapTotal:       1048572 kB\n" +
           kb("SwapFree", swapFree) + "Dirty:  412 kB\nShmem:  20480 kB\nSlab:  160000 kB\n" +
           kb("SUnreclaim", sUnreclaim) +
           "KernelStack:  21104 kB\nPageTables:  41156 kB\n"
           "HugePages_Total:       0\nHugepagesize:       2048 kB\n";
}

}  // namespace tavrend::test

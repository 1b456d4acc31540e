// Builds a synthetic device root in a fresh temporary directory and makes it
// the host layer's device root for the life of the object.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tavrend::test {

struct FakeProcess {
    int pid = 0;
    std::string comm;     // without the trailing newline, which is added
    std::string cmdline;  // arguments separated by '\0', as the kernel writes them
    // Full status text; when empty, one is made from vmRssKb / vmSwapKb.
    std::string status;
    uint64_t vmRssKb = 0;
    uint64_t vmSwapKb = 0;
    bool kernelThread = false;  // no VmRSS/VmSwap lines, empty cmdline
    // smaps_rollup text; when empty, one is made with this Pss figure.
    std::string smapsRollup;
    uint64_t pssKb = 0;
};

class DeviceRoot {
public:
    // `withProc` false leaves out proc/, so /proc paths reach the machine's own.
    explicit DeviceRoot(bool withProc = true);
    ~DeviceRoot();
    DeviceRoot(const DeviceRoot&) = delete;
    DeviceRoot& operator=(const DeviceRoot&) = delete;

    const std::string& path() const { return root_; }
    // Host path of a device path, e.g. host("/proc/meminfo").
    std::string host(const std::string& devicePath) const;

    // Writes `content` at the device path, creating directories.
    void writeFile(const std::string& devicePath, const std::string& content) const;
    void removePath(const std::string& devicePath) const;
    bool exists(const std::string& devicePath) const;
    std::string readFile(const std::string& devicePath) const;

    void addProcess(const FakeProcess& p) const;
    void removeProcess(int pid) const;
    void setMeminfo(const std::string& text) const;
    void setZoneinfo(const std::string& text) const;
    void setLmkStats(const std::string& text) const;
    void setMinfree(const std::string& text) const;
    // One line "graphics gl other" (bytes) for memtrack; creates dev/memtrack.
    void setMemtrack(int pid, int64_t graphics, int64_t gl, int64_t other) const;

    void setDaemonConfig(const std::string& json) const;
    void setMetricConfig(const std::string& json) const;
    void setProperty(const std::string& name, const std::string& value) const;
    std::string getProperty(const std::string& name) const;

    // Re-applies this root to the host layer (after creating or removing proc/).
    void activate() const;

private:
    std::string root_;
};

// A realistic /proc/meminfo with the given MemFree and friends (kB).
std::string meminfoText(uint64_t memFree, uint64_t buffers = 100000, uint64_t cached = 800000,
                        uint64_t swapFree = 500000, uint64_t sUnreclaim = 60000);

}  // namespace tavrend::test

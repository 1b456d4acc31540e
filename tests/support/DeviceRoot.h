// A synthetic device root in a fresh temporary directory, made the host layer's
// device root for the life of the object.
#pragma once

#include <cstdint>
#include <string>

namespace tavrend::test {

struct FakeProcess {
    int pid = 0;
    std::string comm = {};     // the trailing newline is added
    std::string cmdline = {};  // arguments separated by '\0'
    uint64_t vmRssKb = 0;
    uint64_t vmSwapKb = 0;
    bool kernelThread = false;     // no VmRSS/VmSwap lines, empty cmdline
    std::string smapsRollup = {};  // when empty, one is made with this Pss figure
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
    std::string host(const std::string& devicePath) const { return root_ + devicePath; }

    // Writes `content` at the device path, creating directories.
    void writeFile(const std::string& devicePath, const std::string& content) const;
    void removePath(const std::string& devicePath) const;
    bool exists(const std::string& devicePath) const;
    std::string readFile(const std::string& devicePath) const;

    void addProcess(const FakeProcess& p) const;
    void setMeminfo(const std::string& text) const { writeFile("/proc/meminfo", text); }
    void setLmkStats(const std::string& text) const { writeFile("/proc/lmk_stats", text); }
    void setDaemonConfig(const std::string& json) const;
    void setMetricConfig(const std::string& json) const;
    void setProperty(const std::string& name, const std::string& value) const;
    std::string getProperty(const std::string& name) const;

private:
    std::string root_;
};

// A realistic /proc/meminfo with the given MemFree and friends (kB).
std::string meminfoText(uint64_t memFree, uint64_t buffers = 100000, uint64_t cached = 800000,
                        uint64_t swapFree = 500000, uint64_t sUnreclaim = 60000);

// Every metric record ends in the device fields, left empty, then ":" and the region.
inline const std::string kMetricTail =
    ",_softwareVersion=;SY,_deviceType=;SY,_platform=;SY,_model=;SY,_buildType=;SY,"
    "_marketPlaceId=;SY,_countryOfResidence=;SY,_deviceLanguage=;SY,_otaGroupName=;SY,"
    "_timeZone=;SY,_deviceId=;SY,_customerId=;SY,_hardware=;SY:eu";

// A metric configuration with both of the daemon's entries: records of the idle
// detector start "grp1:sch1:100:", those of the guardrails "grp2:sch2:100:".
inline const std::string kExampleMetricConfig = R"({
  "OrreryConfig": {"Enabled": true, "Region": "eu", "GroupId": "grp1"}, "MetricConfig": [
    {"MetricConfig": "MemoryGuardrail", "MetricName": "guardrail", "Active": true,
     "Orrery_Metric_Interface": {"Schema_Id": "sch2", "Group_Id": "grp2", "Active": true,
       "Metric_Key": {"Name": "process", "DimensionTag": "proc"},
       "Metric_Value": {"Name": "kills", "DimensionTag": "count"}}},
    {"MetricConfig": "IdleDetector", "MetricName": "idle", "Active": true,
     "KAPH_Metric_Interface": {"ProgramName": "tavrend", "Active": true},
     "Orrery_Metric_Interface": {"Schema_Id": "sch1", "Group_Id": "", "Active": true,
       "Metrics": [{"Name": "duration_type", "Type": "str", "DimensionTag": "type"},
                   {"Name": "duration_value", "Type": "int", "DimensionTag": "value"}]}}]})";

// The idle detector's record of one duration under kExampleMetricConfig.
inline std::string durationRecord(const std::string& type, const std::string& value) {
    return "grp1:sch1:100:type=" + type + ";SY,value=" + value + ";IN" + kMetricTail;
}

}  // namespace tavrend::test

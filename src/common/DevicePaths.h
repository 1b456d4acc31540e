// Every device path the daemon opens, in one place. On a host the platform
// layer finds them under the device root.
#pragma once

namespace tavrend::paths {

// Configuration (read once at start-up).
inline constexpr const char* kConfig = "/system/etc/tavrend/tavrend_config.json";
inline constexpr const char* kConfigOverride = "/data/system/tavrend/tavrend_config.json";
inline constexpr const char* kMetricConfig = "/system/etc/tavrend/tavrend_metric_config.json";
inline constexpr const char* kMetricConfigOverride =
    "/data/system/tavrend/tavrend_metric_config.json";
inline constexpr const char* kMemoryGuardrailConfig =
    "/system/etc/tavrend/tavrend_memory_guardrail.json";

// Kernel statistics.
inline constexpr const char* kProcDir = "/proc";
inline constexpr const char* kMeminfo = "/proc/meminfo";
inline constexpr const char* kZoneinfo = "/proc/zoneinfo";
inline constexpr const char* kLmkStats = "/proc/lmk_stats";
inline constexpr const char* kMinfree = "/sys/module/lowmemorykiller/parameters/minfree";
// Per process: the files of /proc/<pid>/.
inline constexpr const char* kProcComm = "comm";
inline constexpr const char* kProcCmdline = "cmdline";
inline constexpr const char* kProcStatus = "status";

// The kernel statistics driver: write a pid, read the answer back.
inline constexpr const char* kDravikPss = "/sys/kernel/dravik/total_pss_kb";
inline constexpr const char* kDravikKill = "/sys/kernel/dravik/target_pid_kill";

}  // namespace tavrend::paths

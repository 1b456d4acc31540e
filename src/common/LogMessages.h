// The texts of the daemon's log lines that its readers (tavrendctl status, sim
// and report) take apart, as printf formats: the daemon logs with these and
// the readers match against these, so the two cannot drift apart.
//
// Macros, not constexpr variables: a format that is a string literal at the
// call is checked against its arguments by -Wformat (the log functions carry
// the printf attribute); a format read from a variable is not.
#pragma once

// Start-up and configuration.
#define TAVREND_MSG_START "Starting Tavren Daemon"
#define TAVREND_MSG_CONFIG_BEGIN "Configuration:"
#define TAVREND_MSG_CONFIG_END "---------------------------------"
#define TAVREND_MSG_CONFIG_UNPARSED "Could not parse tavren_config.json file"
#define TAVREND_MSG_GUARDRAILS_OFF "Memory guardrailing is disabled in config"
#define TAVREND_MSG_GUARDRAIL_CONFIG_FAILED \
    "Failed to load Process memory guardrail config, disabling guardrail monitor"
#define TAVREND_MSG_INIT_SAMPLERS "Initializing samplers..."
#define TAVREND_MSG_INIT_PROCESS_SAMPLER "Initializing Process Memory Sampler"
#define TAVREND_MSG_INIT_SYSTEM_SAMPLER "Initializing System Memory Sampler"
#define TAVREND_MSG_INIT_UPL_MONITOR "Initializing Device UPL Monitor"
#define TAVREND_MSG_INIT_GUARDRAIL_MONITOR "Initializing Process Guardrail Monitor"

// The guardrails.
#define TAVREND_MSG_GUARDRAIL_ROW "Guardrailing %s soft_memory_limit %llu hard_memory_limit %llu"
#define TAVREND_MSG_FOUND_PID "found pid %d of name %s"
#define TAVREND_MSG_PSS_READING                                                         \
    "Pid: %d, Name: %s, TotalPss: %llu kB, MemorySoftLimit: %llu kB, MemoryHardLimit: " \
    "%llu kB"
#define TAVREND_MSG_NOT_RUNNING "%s is not running"
#define TAVREND_MSG_OVER_SOFT \
    "Memory usage for %s (%d) exceeds soft guardrails, queuing up kill on device idle"
#define TAVREND_MSG_QUEUED "Adding process %d to killable list"
#define TAVREND_MSG_UNQUEUED "Removing process %d from killable list"
#define TAVREND_MSG_BACK_UNDER \
    "process=%s pid=%d TotalPss: %llu kB, no longer over MemorySoftLimit: %llu kB,"
#define TAVREND_MSG_IDLE_KILL "process=%s pid=%d kill_count=%d killabe_process_count=%d"
#define TAVREND_MSG_HARD_KILL \
    "Memory usage for %s (%d) exceeds hard guardrails, killing it immediately"

// The killer. The open failures share their texts with the statistics
// readers' (main buffer, their own tag).
#define TAVREND_MSG_KILL_TRY "Trying to kill pid %d"
#define TAVREND_MSG_OPEN_FOR_WRITE_FAILED "Failed to open %s for write"
#define TAVREND_MSG_OPEN_FAILED "Failed to open %s"
#define TAVREND_MSG_SCAN_FAILED "Failed to sscanf %s"
#define TAVREND_MSG_KILL_ERROR "Error killing pid %d: %s"
#define TAVREND_MSG_KILL_DONE "Successfully killed pid %d"

// The statistics readers' other failures (main buffer).
#define TAVREND_MSG_STAT_OPEN_FAILED "Failed to open %s file"
#define TAVREND_MSG_STAT_WRITE_FAILED "Failed to write %s"

// The counts that decide a condition, and the conditions.
#define TAVREND_MSG_SYSTEM_HEARTBEAT "SystemMemorySampler heartbeat %llu, lmk_current_kills %d"
#define TAVREND_MSG_LATENCY_COUNTS \
    "Total samples=%d, bad samples=%d, bad sample threshold=%d, bad upl threshold=%d"
#define TAVREND_MSG_BAD_SAMPLE "Bad latency-Audio.DeviceProcessing=%d detected"
#define TAVREND_MSG_MEMORY_CONDITION "Memory is being leaked, need to take action"
#define TAVREND_MSG_LATENCY_CONDITION \
    "Critical UPL condition detected since bad sample count threshold reached"

// The crash report.
#define TAVREND_MSG_REPORT "------Tavrend Crash Report------"
#define TAVREND_MSG_REPORT_DATE "Date & Time: %s"
#define TAVREND_MSG_OTHER_FREE_VALUES "Other Free historical values: %s"
#define TAVREND_MSG_OTHER_FILE_VALUES "Other File historical values: %s"
#define TAVREND_MSG_SWAP_FREE_VALUES "mem_swap_free historical values: %s"
#define TAVREND_MSG_SUNRECLAIM_VALUES "mem_s_unreclaim historical values: %s"
#define TAVREND_MSG_LMK_STATS \
    "LMK Stats persistent %llu fg %llu visible %llu perceptible %llu backup %llu other %llu"
#define TAVREND_MSG_PROCESS "PID: %d Process Name: %s"
#define TAVREND_MSG_RSS_VALUES "RSS Total: %s, RSS Total baseline: %llu"
#define TAVREND_MSG_RSWAP_VALUES "RSwap: %s, RSwap baseline: %llu"
#define TAVREND_MSG_UPL_VALUES "UserPerceivedLatency.Audio.DeviceProcessing Values: %s"
#define TAVREND_MSG_GUARDRAIL_STATE                                                     \
    "Pid: %d, Name: %s, TotalPss: %llu, MemorySoftLimit: %llu, MemoryHardLimit: %llu, " \
    "KillCount: %d"

// Recovery and the end.
#define TAVREND_MSG_CONDITION_DETECTED "Critical condition is detected"
#define TAVREND_MSG_IDLE_START "Starting post-critical condition idle detection at Uptime: %lu"
#define TAVREND_MSG_IDLE_HEARTBEAT \
    "IdleDetector heartbeat current uptime: %lu secs, waiting for idle since %lu secs"
#define TAVREND_MSG_IDLE_REACHED \
    "No user activity, current uptime %lu secs, was waiting for idle for %lu secs"
#define TAVREND_MSG_IDLE_OVERRIDE "Waited long enough, overriding idle after %lu secs"
#define TAVREND_MSG_REBOOTING "Rebooting device"
#define TAVREND_MSG_SIGNAL "Received signal %d"
#define TAVREND_MSG_MAIN_FAILED "main failed, reason=runttimeFailed %s"
#define TAVREND_MSG_EXITING "Exiting"

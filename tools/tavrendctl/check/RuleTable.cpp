#include "check/RuleTable.h"

#include <iterator>

namespace tavrendctl {
namespace {

// In the order of the enumeration, which is the README's.
const RuleText kRules[] = {
    {Rule::WrongType, "any key",
     "a string where a number or true/false belongs (`\"12\"`, `\"true\"`), or the like",
     "the daemon reads 0, false or the default instead, as the warning says"},
    {Rule::NotWhole, "any number", "a fraction, or past 32 bits (`1.5`, `1e30`)",
     "the daemon reads it cut to a whole 32-bit number (1, 2147483647)"},
    {Rule::KeyTwice, "any key", "given twice", "the daemon reads only the first"},
    {Rule::UnknownKey, "any key or section", "not one the daemon reads (a typo)",
     "ignored: the setting keeps its default"},
    {Rule::OverrideCopyIgnored, "`/data/system/tavrend/*.json`",
     "present while `tavrend.config.override` (or `tavrend.metric.override`) is not true",
     "the tuned copy is ignored: the daemon runs on the file under /system/etc/tavrend"},
    {Rule::MemoryReadLong, "`memory_read_interval_sec`", "over 300 s",
     "a critical memory state is seen up to that long late, and each system memory history "
     "spans fewer samples"},
    {Rule::MemoryHistoryOneSample, "`critical_memory_measurement_time`",
     "left out, or below `memory_read_interval_sec`",
     "each of the 4 system memory histories holds a single sample: the crash report shows no "
     "trend"},
    {Rule::MinimumUptimeShort, "`critical_memory_minimum_uptime_sec`", "left out, or under 60 s",
     "a device can be rebooted within a minute of its boot, and again after every boot while "
     "the condition comes back at once"},
    {Rule::MinimumUptimeLong, "`critical_memory_minimum_uptime_sec`", "over 30 days",
     "no reboot before the device has been up that long: a device restarted sooner stays in "
     "its critical state"},
    {Rule::OverrideAtFirstCheck, "`critical_memory_idle_override_time_sec`",
     "left out, 0 or below (read as 1), or not above `idle_detection_interval_sec`",
     "reboots a device in use at the first idle check past the minimum uptime"},
    {Rule::OverrideShort, "`critical_memory_idle_override_time_sec`", "under 300 s",
     "reboots a device in use that long after the minimum uptime, whoever is using it"},
    {Rule::OverrideNever, "`critical_memory_idle_override_time_sec`",
     "over a day (86400 s; milliseconds written as seconds)",
     "never fires in practice: a device in steady use stays in its critical state"},
    {Rule::LmkClassNone, "`lmk_counter_threshold`",
     "left out, naming no class (`Persistent`, `Fg`, `Visible`, `Perceptible`, `Backup`, "
     "`Other`), or `Other`",
     "the kills of all six classes count, cached processes' among them, which the kernel kills "
     "in normal use: the target is soon reached and a healthy device is rebooted"},
    {Rule::LmkTargetMissing, "`lmk_target_kills`", "left out (read as 0)",
     "every memory sample raises the critical condition: the device reboots at the first idle "
     "check past the minimum uptime"},
    {Rule::LmkTargetBelowOne, "`lmk_target_kills`", "0 or below (read as 1)",
     "the first kill of a counted class raises the critical condition and reboots the device"},
    {Rule::LmkTargetHuge, "`lmk_target_kills`", "over 10000",
     "never reached in practice: a device whose memory is exhausted is never rebooted"},
    {Rule::HeartbeatOften, "`system_mem_heartbeat_samples`, `process_mem_heartbeat_samples`",
     "left out (1), or a heartbeat more often than every 10 s (samples times the sampler's "
     "interval)",
     "the system log takes thousands of heartbeat lines a day"},
    {Rule::IdleIntervalLong, "`idle_detection_interval_sec`", "over 300 s",
     "the hand-over of a critical condition and every idle check wait up to that long: the "
     "reboot comes that much after the device went idle, and a shorter idle spell is missed"},
    {Rule::ProcScanEverySecond, "`proc_scan_interval_sec`", "left out, or 0 or below (read as 1)",
     "every process of the device is read, and memtrack asked, every second"},
    {Rule::ProcessHistoryOneValue, "`num_historical_vals`", "left out, or 0 or below",
     "each process keeps a single value: the crash report shows no trend"},
    {Rule::HistoryLarge,
     "`critical_memory_measurement_time`, `num_historical_vals`, "
     "`critical_upl_bad_sample_count_threshold`",
     "histories over 16 MB at 8 bytes a sample (the latency history is made even with latency "
     "monitoring off)",
     "the daemon holds that much memory of the device"},
    {Rule::UplThresholdZero, "`critical_upl_threshold_ms`",
     "left out, or 0 or below, with latency monitoring on",
     "every latency sample is bad, so any few samples reboot the device"},
    {Rule::UplCountBelowOne, "`critical_upl_bad_sample_count_threshold`",
     "left out, or 0 or below (a history of 1)",
     "a single bad latency sample raises the critical condition and reboots the device"},
    {Rule::GuardrailEverySecond, "`guardrail_check_interval_sec`",
     "left out with guardrails on (it reads 1 from `process_guardrail_monitoring_enabled`), or "
     "0 or below",
     "a guardrail pass, a thread of its own reading every row's PSS, every second"},
    {Rule::GuardrailIntervalLong, "`guardrail_check_interval_sec`", "over 300 s",
     "a process over its hard limit is killed up to that long late, while the kernel kills "
     "others for its memory (and those kills count towards a reboot)"},
    {Rule::GuardrailPassesPileUp, "`pss_sleep_interval_sec` times the rows",
     "at least `guardrail_check_interval_sec`",
     "passes queue on the guardrail lock without end, one thread each"},
    {Rule::KillMetricsEverySecond, "`process_kill_metrics_interval_sec`",
     "left out, or 0 or below, with guardrails on and `pss_sleep_interval_sec` of 1 or more",
     "the monitoring loop takes the guardrail lock every second and so stalls through every "
     "guardrail pass: samples, idle checks and kills come late"},
    {Rule::KillMetricsLate, "`process_kill_metrics_interval_sec`", "over a day (86400 s)",
     "guardrail kills wait that long for their record: those before a reboot are lost"},
    {Rule::GuardrailsWithoutRows, "`process_guardrail_monitoring_enabled`",
     "true with no guardrail row",
     "nothing is ever killed, yet the idle thread starts at once: every stop of the daemon "
     "(SIGTERM) ends in the runtime's termination handler after \"Exiting\""},
    {Rule::LimitTiny, "`soft_memory_limit`, `hard_memory_limit`",
     "under 4096 kB (MB written as kB), 0 included",
     "every process of that name is over it: killed at every pass (hard), or queued and killed "
     "at the first idle check (soft)"},
    {Rule::LimitOverMemory, "`soft_memory_limit`, `hard_memory_limit`",
     "over the device's memory (`MemTotal` of the root's /proc/meminfo, else 16 GiB; bytes "
     "written as kB)",
     "never reached: the limit never kills"},
    {Rule::SoftLimitNone, "`soft_memory_limit`", "-1 (no limit)",
     "the hard limit is looked at only above the soft one: the process is never killed"},
    {Rule::SoftAboveHard, "`soft_memory_limit`", "above `hard_memory_limit`",
     "the hard limit is looked at only above the soft one: killed at once over the soft limit, "
     "never queued for an idle device"},
    {Rule::RowProtected, "`name`",
     "init, tavrend, system_server, zygote, zygote64, surfaceflinger, servicemanager, "
     "hwservicemanager, vndservicemanager, ueventd (see below)",
     "no row may guard it: each kill hits the whole device, not one process"},
    {Rule::RowNameNever, "`name`", "empty, over 31 characters, or holding a blank",
     "matches no process: the row never acts"},
    {Rule::RowNameMisses, "`name`",
     "a program of the root written otherwise than the daemon names it (a Binder-named process "
     "by the last 31 characters of its command line, any other by its short name)",
     "the row never acts: write the name the warning gives"},
    {Rule::RowTwice, "`name`", "in two rows",
     "both rows follow the same process, and their kills count under one name"},
    {Rule::RowNoProcess, "`name`", "matching no process of the root's /proc (a note)",
     "the row acts only once such a process starts"},
    {Rule::MetricsOff, "`OrreryConfig.Enabled`",
     "false, left out, or a string (`\"true\"`); or the metric file missing or malformed",
     "the daemon writes no metric record"},
    {Rule::MetricTypeUnknown, "`Metrics[].Type`", "none of `str`, `int`, `float`, `bool`, `ts`",
     "the value is written without a type"},
};

static_assert(std::size(kRules) == static_cast<size_t>(Rule::kCount), "a text for every rule");

std::string cell(const char* text) {
    std::string out;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p == '|') out += '\\';
        out += *p;
    }
    return out;
}

}  // namespace

const RuleText& ruleText(Rule rule) {
    for (const RuleText& r : kRules) {
        if (r.rule == rule) return r;
    }
    return kRules[0];  // not reached: every rule has a row
}

std::string rulesMarkdown() {
    std::string out =
        "| Setting | Dangerous range | What the daemon, and the device, then does |\n"
        "|---|---|---|\n";
    for (const RuleText& r : kRules) {
        out += "| " + cell(r.key) + " | " + cell(r.range) + " | " + cell(r.effect) + " |\n";
    }
    return out;
}

}  // namespace tavrendctl

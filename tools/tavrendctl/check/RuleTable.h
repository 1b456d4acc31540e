// The dangerous ranges of every setting, each with what the device does when
// a setting falls in it. check-config's warnings end with a rule's effect, and
// the README's table of settings is printed from the same rows
// (`tavrendctl check-config --rules-markdown`), so the two cannot part.
#pragma once

#include <cstdint>
#include <string>

namespace tavrendctl {

// The bounds of the ranges below; the range texts of RuleTable.cpp name them.
constexpr int32_t kLongPeriodSec = 300;           // a loop period past it delays too much
constexpr int32_t kShortUptimeSec = 60;           // a minimum uptime under it allows boot loops
constexpr int32_t kLongUptimeSec = 30 * 86400;    // few devices stay up longer
constexpr int32_t kShortOverrideSec = 300;        // an override sooner catches a device in use
constexpr int32_t kDaySec = 86400;                // an override or a metric period past it
constexpr int32_t kHugeLmkTarget = 10000;         // kills of the important classes, since boot
constexpr int32_t kHeartbeatSec = 10;             // a heartbeat line more often floods the log
constexpr int64_t kMaxHistoryBytes = 16'000'000;  // what the daemon's histories may take
constexpr uint64_t kTinyLimitKb = 4096;           // a PSS limit under 4 MB: MB written as kB
constexpr uint64_t kPlainMemoryKb = 16ull << 20;  // 16 GiB: the bound without /proc/meminfo

enum class Rule {
    // Any file
    WrongType,
    NotWhole,
    KeyTwice,
    UnknownKey,
    OverrideCopyIgnored,
    // The daemon configuration
    MemoryReadLong,
    MemoryHistoryOneSample,
    MinimumUptimeShort,
    MinimumUptimeLong,
    OverrideAtFirstCheck,
    OverrideShort,
    OverrideNever,
    LmkClassNone,
    LmkTargetMissing,
    LmkTargetBelowOne,
    LmkTargetHuge,
    HeartbeatOften,
    IdleIntervalLong,
    ProcScanEverySecond,
    ProcessHistoryOneValue,
    HistoryLarge,
    UplThresholdZero,
    UplCountBelowOne,
    GuardrailEverySecond,
    GuardrailIntervalLong,
    GuardrailPassesPileUp,
    KillMetricsEverySecond,
    KillMetricsLate,
    GuardrailsWithoutRows,
    // The guardrail rows
    LimitTiny,
    LimitOverMemory,
    SoftLimitNone,
    SoftAboveHard,
    RowProtected,
    RowNameNever,
    RowNameMisses,
    RowTwice,
    RowNoProcess,
    // The metric configuration
    MetricsOff,
    MetricTypeUnknown,
    kCount,
};

struct RuleText {
    Rule rule;
    const char* key;     // the setting, or the settings it sets against each other
    const char* range;   // the values that do harm
    const char* effect;  // what the daemon, and so the device, then does
};

const RuleText& ruleText(Rule rule);

// The table of rules as Markdown, one row a rule, for the README.
std::string rulesMarkdown();

}  // namespace tavrendctl

// The daemon's log lines that the tools read, one table: each message's kind
// and the names of its fields, its text the daemon's own format
// (common/LogMessages.h). classify() takes a line's message to its event.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace logread {

enum class Kind {
    Other,  // not one of the table's messages
    // Start-up and configuration.
    Start,
    ConfigBegin,
    ConfigEnd,
    ConfigUnparsed,
    GuardrailsOff,
    GuardrailConfigFailed,
    InitSamplers,
    InitProcessSampler,
    InitSystemSampler,
    InitUplMonitor,
    InitGuardrailMonitor,
    // The guardrails.
    GuardrailRow,
    FoundPid,
    PssReading,
    NotRunning,
    OverSoft,
    Queued,
    Unqueued,
    BackUnder,
    IdleKill,
    HardKill,
    // The killer, and the statistics readers' failures (the same texts).
    KillTry,
    OpenForWriteFailed,
    OpenFailed,
    ScanFailed,
    KillError,
    KillDone,
    StatOpenFailed,
    StatWriteFailed,
    // Counts and conditions.
    SystemHeartbeat,
    LatencyCounts,
    BadSample,
    MemoryCondition,
    LatencyCondition,
    // The crash report.
    Report,
    ReportDate,
    OtherFreeValues,
    OtherFileValues,
    SwapFreeValues,
    SUnreclaimValues,
    LmkStats,
    Process,
    RssValues,
    RswapValues,
    UplValues,
    GuardrailState,
    // Recovery and the end.
    ConditionDetected,
    IdleStart,
    IdleHeartbeat,
    IdleReached,
    IdleOverride,
    Rebooting,
    Signal,
    MainFailed,
    Exiting,
};

constexpr size_t kMaxFields = 6;

struct Field {
    std::string_view text;
    uint64_t u = 0;  // a number's value (a %d's when not negative)
    int64_t i = 0;   // a %d's value; a larger one's, at most INT64_MAX
};

struct Event {
    Kind kind = Kind::Other;
    std::array<Field, kMaxFields> fields{};
    size_t count = 0;

    // The field of that name in the kind's row; an empty one when there is none.
    const Field& operator[](std::string_view name) const;
    std::string_view text(std::string_view name) const { return (*this)[name].text; }
    int64_t num(std::string_view name) const { return (*this)[name].i; }
    uint64_t unum(std::string_view name) const { return (*this)[name].u; }
};

// The event of a message; Kind::Other with no fields when it is none of the
// table's, or a number in it is past its type's range (the daemon cannot
// have written it).
Event classify(std::string_view message);

// The table, for its test: each kind's format and field names.
struct MessageRow {
    Kind kind;
    const char* format;
    std::array<const char*, kMaxFields> names;
};
const MessageRow* messageTable(size_t& count);

}  // namespace logread

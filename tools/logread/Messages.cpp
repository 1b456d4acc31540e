#include "Messages.h"

#include <climits>
#include <vector>

#include "Numbers.h"
#include "common/LogMessages.h"

namespace logread {
namespace {

// In matching order: a text that two formats match is the first's (the
// killer's "Failed to open %s for write" before "Failed to open %s").
constexpr MessageRow kTable[] = {
    {Kind::Start, TAVREND_MSG_START, {}},
    {Kind::ConfigBegin, TAVREND_MSG_CONFIG_BEGIN, {}},
    {Kind::ConfigEnd, TAVREND_MSG_CONFIG_END, {}},
    {Kind::ConfigUnparsed, TAVREND_MSG_CONFIG_UNPARSED, {}},
    {Kind::GuardrailsOff, TAVREND_MSG_GUARDRAILS_OFF, {}},
    {Kind::GuardrailConfigFailed, TAVREND_MSG_GUARDRAIL_CONFIG_FAILED, {}},
    {Kind::InitSamplers, TAVREND_MSG_INIT_SAMPLERS, {}},
    {Kind::InitProcessSampler, TAVREND_MSG_INIT_PROCESS_SAMPLER, {}},
    {Kind::InitSystemSampler, TAVREND_MSG_INIT_SYSTEM_SAMPLER, {}},
    {Kind::InitUplMonitor, TAVREND_MSG_INIT_UPL_MONITOR, {}},
    {Kind::InitGuardrailMonitor, TAVREND_MSG_INIT_GUARDRAIL_MONITOR, {}},
    {Kind::GuardrailRow, TAVREND_MSG_GUARDRAIL_ROW, {"name", "soft_kb", "hard_kb"}},
    {Kind::FoundPid, TAVREND_MSG_FOUND_PID, {"pid", "name"}},
    {Kind::PssReading, TAVREND_MSG_PSS_READING, {"pid", "name", "pss_kb", "soft_kb", "hard_kb"}},
    {Kind::OverSoft, TAVREND_MSG_OVER_SOFT, {"name", "pid"}},
    {Kind::Queued, TAVREND_MSG_QUEUED, {"pid"}},
    {Kind::Unqueued, TAVREND_MSG_UNQUEUED, {"pid"}},
    {Kind::BackUnder, TAVREND_MSG_BACK_UNDER, {"name", "pid", "pss_kb", "soft_kb"}},
    {Kind::IdleKill, TAVREND_MSG_IDLE_KILL, {"name", "pid", "kill_count", "queued"}},
    {Kind::HardKill, TAVREND_MSG_HARD_KILL, {"name", "pid"}},
    {Kind::KillTry, TAVREND_MSG_KILL_TRY, {"pid"}},
    {Kind::OpenForWriteFailed, TAVREND_MSG_OPEN_FOR_WRITE_FAILED, {"path"}},
    {Kind::StatOpenFailed, TAVREND_MSG_STAT_OPEN_FAILED, {"path"}},
    {Kind::OpenFailed, TAVREND_MSG_OPEN_FAILED, {"path"}},
    {Kind::ScanFailed, TAVREND_MSG_SCAN_FAILED, {"path"}},
    {Kind::StatWriteFailed, TAVREND_MSG_STAT_WRITE_FAILED, {"path"}},
    {Kind::KillError, TAVREND_MSG_KILL_ERROR, {"pid", "error"}},
    {Kind::KillDone, TAVREND_MSG_KILL_DONE, {"pid"}},
    {Kind::SystemHeartbeat, TAVREND_MSG_SYSTEM_HEARTBEAT, {"samples", "lmk_kills"}},
    {Kind::LatencyCounts,
     TAVREND_MSG_LATENCY_COUNTS,
     {"total", "bad", "bad_threshold", "threshold_ms"}},
    {Kind::BadSample, TAVREND_MSG_BAD_SAMPLE, {"ms"}},
    {Kind::MemoryCondition, TAVREND_MSG_MEMORY_CONDITION, {}},
    {Kind::LatencyCondition, TAVREND_MSG_LATENCY_CONDITION, {}},
    {Kind::Report, TAVREND_MSG_REPORT, {}},
    {Kind::ReportDate, TAVREND_MSG_REPORT_DATE, {"date"}},
    {Kind::OtherFreeValues, TAVREND_MSG_OTHER_FREE_VALUES, {"values"}},
    {Kind::OtherFileValues, TAVREND_MSG_OTHER_FILE_VALUES, {"values"}},
    {Kind::SwapFreeValues, TAVREND_MSG_SWAP_FREE_VALUES, {"values"}},
    {Kind::SUnreclaimValues, TAVREND_MSG_SUNRECLAIM_VALUES, {"values"}},
    {Kind::LmkStats,
     TAVREND_MSG_LMK_STATS,
     {"persistent", "fg", "visible", "perceptible", "backup", "other"}},
    {Kind::Process, TAVREND_MSG_PROCESS, {"pid", "name"}},
    {Kind::RssValues, TAVREND_MSG_RSS_VALUES, {"values", "baseline"}},
    {Kind::RswapValues, TAVREND_MSG_RSWAP_VALUES, {"values", "baseline"}},
    {Kind::UplValues, TAVREND_MSG_UPL_VALUES, {"values"}},
    {Kind::GuardrailState,
     TAVREND_MSG_GUARDRAIL_STATE,
     {"pid", "name", "pss_kb", "soft_kb", "hard_kb", "kill_count"}},
    {Kind::ConditionDetected, TAVREND_MSG_CONDITION_DETECTED, {}},
    {Kind::IdleStart, TAVREND_MSG_IDLE_START, {"uptime"}},
    {Kind::IdleHeartbeat, TAVREND_MSG_IDLE_HEARTBEAT, {"uptime", "waited"}},
    {Kind::IdleReached, TAVREND_MSG_IDLE_REACHED, {"uptime", "waited"}},
    {Kind::IdleOverride, TAVREND_MSG_IDLE_OVERRIDE, {"waited"}},
    {Kind::Rebooting, TAVREND_MSG_REBOOTING, {}},
    {Kind::Signal, TAVREND_MSG_SIGNAL, {"signal"}},
    {Kind::MainFailed, TAVREND_MSG_MAIN_FAILED, {"reason"}},
    {Kind::Exiting, TAVREND_MSG_EXITING, {}},
    // Last: it ends in text that others may hold.
    {Kind::NotRunning, TAVREND_MSG_NOT_RUNNING, {"name"}},
};

// A format taken apart: literal text and conversions in turn.
enum class Conv { Literal, Int, Unsigned, Text };
struct Piece {
    Conv conv;
    std::string_view literal;
};

std::vector<Piece> piecesOf(std::string_view f) {
    std::vector<Piece> out;
    while (!f.empty()) {
        const size_t pc = f.find('%');
        if (pc != 0) {
            out.push_back({Conv::Literal, f.substr(0, pc)});
            if (pc == f.npos) break;
            f.remove_prefix(pc);
        }
        // %d, %s, %lu, %llu: the only conversions of the table.
        const size_t end = f.find_first_of("dsu");
        out.push_back({f[end] == 'd'   ? Conv::Int
                       : f[end] == 's' ? Conv::Text
                                       : Conv::Unsigned,
                       {}});
        f.remove_prefix(end + 1);
    }
    return out;
}

struct Matcher {
    std::string_view msg;
    const std::vector<Piece>& pieces;
    Event& event;

    bool number(size_t k, size_t at, bool isSigned) {
        const bool negative = isSigned && at < msg.size() && msg[at] == '-';
        size_t used = 0;
        const uint64_t max = isSigned ? (negative ? uint64_t{INT_MAX} + 1 : INT_MAX) : UINT64_MAX;
        const auto v = leadingUnsigned(msg.substr(at + negative), max, used);
        if (!v) return false;
        Field& f = event.fields[event.count++];
        f.text = msg.substr(at, used + negative);
        f.u = negative ? 0 : *v;
        f.i = negative ? -static_cast<int64_t>(*v)
                       : static_cast<int64_t>(std::min<uint64_t>(*v, INT64_MAX));
        if (from(k + 1, at + negative + used)) return true;
        --event.count;
        return false;
    }

    // A text field takes as much as lets the rest match.
    bool text(size_t k, size_t at) {
        Field& f = event.fields[event.count++];
        if (k + 1 == pieces.size()) {
            f.text = msg.substr(at);
            return true;
        }
        const std::string_view next = pieces[k + 1].literal;  // formats put text before text
        for (size_t end = msg.rfind(next); end != msg.npos && end >= at;
             end = end == 0 ? msg.npos : msg.rfind(next, end - 1)) {
            f.text = msg.substr(at, end - at);
            if (from(k + 1, end)) return true;
        }
        --event.count;
        return false;
    }

    bool from(size_t k, size_t at) {
        if (k == pieces.size()) return at == msg.size();
        switch (pieces[k].conv) {
            case Conv::Literal:
                return msg.substr(at, pieces[k].literal.size()) == pieces[k].literal &&
                       from(k + 1, at + pieces[k].literal.size());
            case Conv::Int: return number(k, at, true);
            case Conv::Unsigned: return number(k, at, false);
            case Conv::Text: return text(k, at);
        }
        return false;
    }
};

const std::vector<std::vector<Piece>>& compiled() {
    static const auto* all = [] {
        auto* out = new std::vector<std::vector<Piece>>;
        for (const MessageRow& r : kTable) out->push_back(piecesOf(r.format));
        return out;
    }();
    return *all;
}

constexpr size_t kRows = sizeof(kTable) / sizeof(kTable[0]);

}  // namespace

const Field& Event::operator[](std::string_view name) const {
    static const Field kNone;
    for (const MessageRow& r : kTable) {
        if (r.kind != kind) continue;
        for (size_t i = 0; i < count && i < kMaxFields; ++i) {
            if (r.names[i] != nullptr && r.names[i] == name) return fields[i];
        }
    }
    return kNone;
}

Event classify(std::string_view message) {
    const auto& pieces = compiled();
    for (size_t r = 0; r < kRows; ++r) {
        Event e;
        // Most lines differ from a format in its first literal.
        const Piece& first = pieces[r].front();
        if (first.conv == Conv::Literal && message.substr(0, first.literal.size()) != first.literal)
            continue;
        Matcher m{message, pieces[r], e};
        if (m.from(0, 0)) {
            e.kind = kTable[r].kind;
            return e;
        }
    }
    return {};
}

const MessageRow* messageTable(size_t& count) {
    count = kRows;
    return kTable;
}

}  // namespace logread

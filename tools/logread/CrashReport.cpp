// A report is the header's thread's lines up to the next header; other threads
// and processes may write between them.
#include "CrashReport.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <limits>
#include <map>
#include <optional>
#include <string_view>

#include "Clock.h"
#include "LogLine.h"
#include "Messages.h"
#include "Numbers.h"
#include "Runs.h"
#include "common/LogMessages.h"

namespace logread {
namespace {

// A history's lines: the first with its text, the rest continue it.
struct SystemHistory {
    Kind kind;
    const char* name;
    const char* slug;
    const char* unit;
};
// In the order the report prints them; each may take several lines.
constexpr SystemHistory kSystem[] = {
    {Kind::OtherFreeValues, "Other Free", "other-free", "kB"},
    {Kind::OtherFileValues, "Other File", "other-file", "kB"},
    {Kind::SwapFreeValues, "Swap Free", "swap-free", "kB"},
    {Kind::SUnreclaimValues, "SUnreclaim", "sunreclaim", "kB"},
    {Kind::UplValues, "Bad UPL samples", "upl", "ms"},
};
constexpr size_t kSystemCount = sizeof(kSystem) / sizeof(kSystem[0]);

bool parseNumber(std::string_view s, uint64_t& v) {
    const auto n = unsignedOf(s);
    if (n) v = *n;
    return n.has_value();
}

// "{1, 2, 3}", the way the daemon prints a history.
bool parseValues(std::string_view s, std::vector<uint64_t>& out) {
    if (s.size() < 2 || s.front() != '{' || s.back() != '}') return false;
    s = s.substr(1, s.size() - 2);
    out.clear();
    while (s.find_first_not_of(' ') != s.npos) {
        const size_t comma = s.find(',');
        std::string_view item = s.substr(0, comma);
        item.remove_prefix(std::min(item.size(), item.find_first_not_of(' ')));
        item = item.substr(0, item.find_last_not_of(' ') + 1);
        uint64_t v = 0;
        if (!parseNumber(item, v)) return false;
        out.push_back(v);
        if (comma == s.npos) return true;
        s.remove_prefix(comma + 1);
        if (s.find_first_not_of(' ') == s.npos) return false;  // a trailing comma
    }
    return true;
}

// Keeps valid UTF-8 and printable text; anything else becomes '?'.
std::string cleanText(std::string_view s) {
    std::string out;
    for (size_t i = 0; i < s.size();) {
        const auto c = static_cast<unsigned char>(s[i]);
        size_t n = 0;  // the sequence's length, 0 when c cannot start one
        if (c < 0x80) {
            n = 1;
        } else if (c >= 0xC2 && c <= 0xF4) {
            n = c <= 0xDF ? 2 : c <= 0xEF ? 3 : 4;
        }
        // The second byte's range rules out overlong forms, surrogates and > U+10FFFF.
        const unsigned lo = c == 0xE0 ? 0xA0 : c == 0xF0 ? 0x90 : 0x80;
        const unsigned hi = c == 0xED ? 0x9F : c == 0xF4 ? 0x8F : 0xBF;
        for (size_t k = 1; k < n; ++k) {
            const auto b = i + k < s.size() ? static_cast<unsigned char>(s[i + k]) : 0u;
            if (b < (k == 1 ? lo : 0x80) || b > (k == 1 ? hi : 0xBF)) n = 0;
        }
        if (n == 0 || (n == 1 && (c < 0x20 || c == 0x7F))) {
            out += '?';
            ++i;
        } else {
            out.append(s.substr(i, n));
            i += n;
        }
    }
    return out;
}

// A log stamp in microseconds of the year the clock gives it.
int64_t stampUs(const Stamp& at, int year) { return stampMs(at, year) * 1000; }

// The report's "Date & Time" (ctime's layout) read as UTC, else its log stamp.
int64_t reportTimeUs(const std::string& date, const Stamp& head, int year) {
    struct tm tm {};
    const char* end = strptime(date.c_str(), "%a %b %d %H:%M:%S %Y", &tm);
    if (end != nullptr && std::string_view(end).find_first_not_of(' ') == std::string_view::npos) {
        return static_cast<int64_t>(timegm(&tm)) * 1000000;
    }
    return stampUs(head, year);
}

// A bad latency sample as its line logged it.
struct BadSample {
    uint64_t value;
    Stamp at;
};

// What a daemon's log says besides its reports: the sample periods and the
// counter threshold of its configuration, the latency threshold, each bad
// latency sample with its time, the conditions its monitors raised.
struct DaemonLines {
    std::optional<int> memoryPeriod;   // memory_read_interval_sec
    std::optional<int> processPeriod;  // proc_scan_interval_sec
    std::string lmkCounterThreshold;   // lmk_counter_threshold
    std::optional<long long> lmkTarget;
    std::optional<uint64_t> latencyThreshold;  // from "Total samples=..."
    std::deque<BadSample> badSamples;
    ConditionRule conditions;
};

constexpr std::string_view kMemoryPeriod = "memory_read_interval_sec: ";
constexpr std::string_view kProcessPeriod = "proc_scan_interval_sec: ";
constexpr std::string_view kLmkThreshold = "lmk_counter_threshold: ";
constexpr std::string_view kLmkTarget = "lmk_target_kills: ";
constexpr size_t kMaxBadSamples = 100000;  // more than any report holds

bool startsWith(std::string_view s, std::string_view prefix) {
    return s.substr(0, prefix.size()) == prefix;
}

// A period of at least one second, as the daemon takes it.
std::optional<int> period(std::string_view text) {
    uint64_t v = 0;
    if (!parseNumber(text, v) || v > INT_MAX) return std::nullopt;
    return std::max<int>(1, static_cast<int>(v));
}

void daemonLine(DaemonLines& d, const Line& l, const Event& e) {
    const std::string_view m = l.message;
    d.conditions.see(e.kind);
    if (e.kind == Kind::BadSample) {
        if (e.num("ms") < 0) return;
        d.badSamples.push_back({static_cast<uint64_t>(e.num("ms")), l.at});
        if (d.badSamples.size() > kMaxBadSamples) d.badSamples.pop_front();
    } else if (e.kind == Kind::LatencyCounts) {
        if (e.num("threshold_ms") >= 0) d.latencyThreshold = e.unum("threshold_ms");
    } else if (startsWith(m, kMemoryPeriod)) {
        if (auto p = period(m.substr(kMemoryPeriod.size()))) d.memoryPeriod = p;
    } else if (startsWith(m, kProcessPeriod)) {
        if (auto p = period(m.substr(kProcessPeriod.size()))) d.processPeriod = p;
    } else if (startsWith(m, kLmkThreshold)) {
        d.lmkCounterThreshold = m.substr(kLmkThreshold.size());
    } else if (startsWith(m, kLmkTarget)) {
        d.lmkTarget = signedOf(m.substr(kLmkTarget.size()), INT_MIN, INT_MAX);
    }
}

History named(const char* name, const char* slug, const char* unit) {
    History h;
    h.name = name;
    h.slug = slug;
    h.unit = unit;
    return h;
}

void setPeriod(History& h, const std::optional<int>& p) {
    h.periodSec = p.value_or(1);
    h.periodLogged = p.has_value();
}

// Gives each bad sample of `h` the time of its log line: the daemon logs each
// one as it comes, and the report holds the last ones, so they are the
// newest lines before the report's values line, newest last. A stamp is in
// `year`, or the one before when its month is later than the report's.
void timeEvents(History& h, const std::deque<BadSample>& logged, int year, int reportMonth) {
    h.eventUs.assign(h.values.size(), std::nullopt);
    auto line = logged.rbegin();
    for (size_t i = h.values.size(); i > 0 && line != logged.rend(); --i, ++line) {
        if (line->value != h.values[i - 1]) break;
        h.eventUs[i - 1] = stampUs(line->at, line->at.month > reportMonth ? year - 1 : year);
    }
}

const char* conditionText(Condition c) {
    switch (c) {
        case Condition::Memory: return TAVREND_MSG_MEMORY_CONDITION;
        case Condition::Latency: return TAVREND_MSG_LATENCY_CONDITION;
        case Condition::None: break;
    }
    return "";
}

class Reader {
public:
    Reader(const std::string& logName, FILE* notes, std::vector<CrashReport>& out, time_t logEnd)
        : logName_(logName), notes_(notes), out_(out), clock_(logEnd) {}

    void line(long number, std::string_view text) {
        const auto l = parse(text);
        if (!l || l->tag != kDaemonTag) return;
        clock_.ms(l->at);
        const Event e = classify(l->message);
        if (e.kind == Kind::Report) {
            finish();
            start(number, *l);
            return;
        }
        if (e.kind == Kind::ReportDate && report_ && l->pid == pid_) {
            if (const auto date = dateOf(e.text("date"))) clock_.anchor(l->at, *date);
        }
        daemonLine(daemons_[l->pid], *l, e);
        if (report_ && l->pid == pid_ && l->tid == tid_) reportLine(number, *l, e);
    }

    void finish() {
        if (!report_) return;
        closeOpenHistory();
        const auto date = dateOf(report_->date);
        const int year = date ? date->year - (head_.month == 12 && date->month == 1) : year_;
        report_->endUs = reportTimeUs(report_->date, head_, year);
        History& upl = report_->system.back();
        if (upl.present) timeEvents(upl, samples_, year, head_.month);
        out_.push_back(std::move(*report_));
        report_.reset();
    }

private:
    void note(long number, const std::string& text) {
        fprintf(notes_, "tavrendctl: %s:%ld: %s\n", logName_.c_str(), number, text.c_str());
    }

    void start(long number, const Line& l) {
        report_.emplace();
        report_->line = number;
        char stamp[32];
        formatStamp(l.at, stamp);
        report_->stamp = stamp;
        DaemonLines& d = daemons_[l.pid];
        report_->condition = conditionText(d.conditions.take());
        for (const SystemHistory& h : kSystem) {
            History history = named(h.name, h.slug, h.unit);
            setPeriod(history, d.memoryPeriod);
            report_->system.push_back(std::move(history));
        }
        report_->system.back().events = true;  // the bad latency samples
        report_->system.back().threshold = d.latencyThreshold;
        report_->lmkTarget = d.lmkTarget;
        report_->lmkCounterThreshold = d.lmkCounterThreshold;
        head_ = l.at;
        year_ = clock_.year();
        pid_ = l.pid;
        tid_ = l.tid;
        process_ = -1;
        samples_.clear();
    }

    void reportLine(long number, const Line& l, const Event& e) {
        size_t which = kSystemCount;
        for (size_t k = 0; k < kSystemCount; ++k) {
            if (e.kind == kSystem[k].kind) which = k;
        }
        if (open_ >= 0 && static_cast<size_t>(open_) != which) closeOpenHistory();
        if (which < kSystemCount) {
            // The latency values are the samples logged up to their own line.
            if (kSystem[which].kind == Kind::UplValues && open_ < 0)
                samples_ = daemons_[pid_].badSamples;
            systemLine(number, which, e.text("values"));
        } else if (e.kind == Kind::ReportDate) {
            report_->date = cleanText(e.text("date"));
        } else if (e.kind == Kind::Process || startsWith(l.message, "PID: ")) {
            processLine(number, e);
        } else if (e.kind == Kind::RssValues || e.kind == Kind::RswapValues ||
                   startsWith(l.message, "RSS Total: ") || startsWith(l.message, "RSwap: ")) {
            processHistory(number, l.message, e);
        } else if (e.kind == Kind::LmkStats) {
            std::array<uint64_t, 6> stats{};
            for (size_t i = 0; i < stats.size(); ++i) stats[i] = e.fields[i].u;
            report_->lmkStats = stats;
            report_->lmkDeciding = decidingLmkKills(e, daemons_[pid_].lmkCounterThreshold);
        } else if (e.kind == Kind::GuardrailState) {
            report_->guardrails.push_back(
                {static_cast<int>(e.num("pid")), cleanText(e.text("name")), e.unum("pss_kb"),
                 e.unum("soft_kb"), e.unum("hard_kb"), static_cast<int>(e.num("kill_count"))});
        }
    }

    // A history's lines follow each other; the one with '}' ends it.
    void systemLine(long number, size_t which, std::string_view part) {
        History& h = report_->system[which];
        if (open_ < 0) {
            if (h.present) {
                note(number, "a second " + h.name + " history in one report; skipped");
                return;
            }
            open_ = static_cast<int>(which);
            openLine_ = number;
            openText_.clear();
        }
        openText_.append(part);
        if (part.find('}') == part.npos) return;
        open_ = -1;
        h.present = parseValues(openText_, h.values);
        if (!h.present) {
            h.values.clear();
            note(openLine_, "cannot read the " + h.name + " history; skipped");
        }
    }

    void closeOpenHistory() {
        if (open_ < 0) return;
        note(openLine_, "the " + report_->system[static_cast<size_t>(open_)].name +
                            " history is cut short; skipped");
        open_ = -1;
    }

    void processLine(long number, const Event& e) {
        process_ = -1;
        if (e.kind != Kind::Process || e.num("pid") < 0) {
            note(number, "cannot read the process line; its histories are skipped");
            return;
        }
        Process p;
        p.pid = static_cast<int>(e.num("pid"));
        p.name = cleanText(e.text("name"));
        p.rss = named("RSS", "rss", "kB");
        p.rswap = named("RSwap", "rswap", "kB");
        setPeriod(p.rss, daemons_[pid_].processPeriod);
        setPeriod(p.rswap, daemons_[pid_].processPeriod);
        process_ = static_cast<long>(report_->processes.size());
        report_->processes.push_back(std::move(p));
    }

    // "RSS Total: {1, 2}, RSS Total baseline: 1" on one line.
    void processHistory(long number, std::string_view message, const Event& e) {
        const bool rss = startsWith(message, "RSS Total: ");
        Process* p = process_ >= 0 ? &report_->processes[static_cast<size_t>(process_)] : nullptr;
        if (p == nullptr) {
            note(number, "a process history without its PID line; skipped");
            return;
        }
        History& h = rss ? p->rss : p->rswap;
        if (e.kind == Kind::Other || !parseValues(e.text("values"), h.values)) {
            h.values.clear();
            note(number, "cannot read the " + std::string(rss ? "RSS" : "RSwap") +
                             " history of pid " + std::to_string(p->pid) + "; skipped");
            return;
        }
        h.present = true;
        if (rss) p->rssBaseline = e.unum("baseline");
    }

    const std::string& logName_;
    FILE* notes_;
    std::vector<CrashReport>& out_;
    LogClock clock_;
    std::map<int, DaemonLines> daemons_;  // by pid
    std::optional<CrashReport> report_;
    std::deque<BadSample> samples_;  // the bad samples logged before the report's values
    Stamp head_;
    int year_ = 1970;  // the clock's year at the report's first line
    int pid_ = 0;
    int tid_ = 0;
    long process_ = -1;  // the process whose histories come next
    int open_ = -1;      // the system history still waiting for its '}'
    long openLine_ = 0;
    std::string openText_;
};

}  // namespace

bool readReports(FILE* in, const std::string& logName, FILE* notes, std::vector<CrashReport>& out,
                 time_t logEnd) {
    Reader reader(logName, notes, out, logEnd);
    char* buffer = nullptr;
    size_t capacity = 0;
    long number = 0;
    ssize_t n;
    while ((n = getline(&buffer, &capacity, in)) >= 0) {
        std::string_view text(buffer, static_cast<size_t>(n));
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
            text.remove_suffix(1);
        }
        reader.line(++number, text);
    }
    free(buffer);
    reader.finish();
    return ferror(in) == 0;
}

int64_t rssGrowth(const Process& p) {
    if (p.rss.values.empty()) return 0;
    const uint64_t last = p.rss.values.back();
    const uint64_t up = last >= p.rssBaseline ? last - p.rssBaseline : p.rssBaseline - last;
    const auto size = static_cast<int64_t>(
        std::min<uint64_t>(up, static_cast<uint64_t>(std::numeric_limits<int64_t>::max())));
    return last >= p.rssBaseline ? size : -size;
}

std::vector<const Process*> topGrowth(const CrashReport& r, size_t n) {
    std::vector<const Process*> out;
    for (const Process& p : r.processes) {
        if (p.rss.present && !p.rss.values.empty()) out.push_back(&p);
    }
    std::stable_sort(out.begin(), out.end(), [](const Process* a, const Process* b) {
        return rssGrowth(*a) > rssGrowth(*b);
    });
    if (out.size() > n) out.resize(n);
    return out;
}

}  // namespace logread

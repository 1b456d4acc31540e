// Reads the crash reports back from a system log in `logcat -v threadtime`
// layout: "11-23 08:18:39.123  4711  4712 E tavrend : ------Tavrend Crash Report------".
// A report is the header's thread's lines up to the next header; other threads
// and processes may write between them.
#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <limits>
#include <map>
#include <optional>
#include <string_view>

#include "report/Report.h"
#include "toolbox/LogcatLine.h"
#include "toolbox/Text.h"

namespace tavrendctl::report {
namespace {

constexpr std::string_view kTag = "tavrend";
constexpr std::string_view kHeader = "------Tavrend Crash Report------";
constexpr std::string_view kDate = "Date & Time: ";
constexpr std::string_view kProcess = "PID: ";
constexpr std::string_view kRss = "RSS Total: ";
constexpr std::string_view kRssBaseline = "}, RSS Total baseline: ";
constexpr std::string_view kRswap = "RSwap: ";
constexpr std::string_view kRswapBaseline = "}, RSwap baseline: ";
constexpr std::string_view kConditions[] = {
    "Memory is being leaked, need to take action",
    "Critical UPL condition detected since bad sample count threshold reached",
};

struct SystemHistory {
    std::string_view prefix;
    const char* name;
    const char* slug;
    const char* unit;
};
// In the order the report prints them; the last may take several lines each.
constexpr SystemHistory kSystem[] = {
    {"Other Free historical values: ", "Other Free", "other-free", "kB"},
    {"Other File historical values: ", "Other File", "other-file", "kB"},
    {"mem_swap_free historical values: ", "Swap Free", "swap-free", "kB"},
    {"mem_s_unreclaim historical values: ", "SUnreclaim", "sunreclaim", "kB"},
    {"UserPerceivedLatency.Audio.DeviceProcessing Values: ", "Bad UPL samples", "upl", "ms"},
};
constexpr size_t kSystemCount = sizeof(kSystem) / sizeof(kSystem[0]);

using logcat::Stamp;

bool parseNumber(std::string_view s, uint64_t& v) {
    const char* end = s.data() + s.size();
    auto [p, ec] = std::from_chars(s.data(), end, v);
    return ec == std::errc() && p == end && !s.empty();
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

// A log stamp in microseconds, in 1970 (the stamps carry no year).
int64_t stampUs(const Stamp& at) {
    struct tm tm {};
    tm.tm_year = 70;
    tm.tm_mon = at.month - 1;
    tm.tm_mday = at.day;
    tm.tm_hour = at.hour;
    tm.tm_min = at.minute;
    tm.tm_sec = at.second;
    return static_cast<int64_t>(timegm(&tm)) * 1000000 + int64_t{at.milli} * 1000;
}

// The report's "Date & Time" (ctime's layout) read as UTC, else its log stamp in 1970.
int64_t reportTimeUs(const std::string& date, const Stamp& head) {
    struct tm tm {};
    const char* end = strptime(date.c_str(), "%a %b %d %H:%M:%S %Y", &tm);
    if (end != nullptr && std::string_view(end).find_first_not_of(' ') == std::string_view::npos) {
        return static_cast<int64_t>(timegm(&tm)) * 1000000;
    }
    return stampUs(head);
}

// What a daemon's log says besides its reports: the sample periods of its
// configuration, and each bad latency sample with its time.
struct DaemonLines {
    std::optional<int> memoryPeriod;                      // memory_read_interval_sec
    std::optional<int> processPeriod;                     // proc_scan_interval_sec
    std::deque<std::pair<uint64_t, int64_t>> badSamples;  // value, stampUs
};

constexpr std::string_view kMemoryPeriod = "memory_read_interval_sec: ";
constexpr std::string_view kProcessPeriod = "proc_scan_interval_sec: ";
constexpr std::string_view kBadSample = "Bad latency-Audio.DeviceProcessing=";
constexpr size_t kMaxBadSamples = 100000;  // more than any report holds

// A period of at least one second, as the daemon takes it.
std::optional<int> period(std::string_view text) {
    uint64_t v = 0;
    if (!parseNumber(text, v) || v > INT_MAX) return std::nullopt;
    return std::max<int>(1, static_cast<int>(v));
}

void daemonLine(DaemonLines& d, const logcat::Line& l) {
    const std::string_view m = l.message;
    if (startsWith(m, kMemoryPeriod)) {
        if (auto p = period(m.substr(kMemoryPeriod.size()))) d.memoryPeriod = p;
    } else if (startsWith(m, kProcessPeriod)) {
        if (auto p = period(m.substr(kProcessPeriod.size()))) d.processPeriod = p;
    } else if (startsWith(m, kBadSample)) {
        const std::string_view rest = m.substr(kBadSample.size());
        uint64_t v = 0;
        if (!parseNumber(rest.substr(0, rest.find(' ')), v)) return;
        d.badSamples.emplace_back(v, stampUs(l.at));
        if (d.badSamples.size() > kMaxBadSamples) d.badSamples.pop_front();
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
// newest lines, newest last. `offsetUs` turns a log stamp into the report's time.
void timeEvents(History& h, const std::deque<std::pair<uint64_t, int64_t>>& logged,
                int64_t offsetUs) {
    h.eventUs.assign(h.values.size(), std::nullopt);
    auto line = logged.rbegin();
    for (size_t i = h.values.size(); i > 0 && line != logged.rend(); --i, ++line) {
        if (line->first != h.values[i - 1]) break;
        h.eventUs[i - 1] = line->second + offsetUs;
    }
}

class Reader {
public:
    Reader(const std::string& logName, FILE* notes, std::vector<CrashReport>& out)
        : logName_(logName), notes_(notes), out_(out) {}

    void line(long number, std::string_view text) {
        const auto l = logcat::parse(text);
        if (!l || l->tag != kTag) return;
        if (l->message == kHeader) {
            finish();
            start(number, *l);
            return;
        }
        for (std::string_view c : kConditions) {
            if (l->message == c) condition_[l->pid] = std::string(c);
        }
        daemonLine(daemons_[l->pid], *l);
        if (report_ && l->pid == pid_ && l->tid == tid_) reportLine(number, l->message);
    }

    void finish() {
        if (!report_) return;
        closeOpenHistory();
        report_->endUs = reportTimeUs(report_->date, head_);
        History& upl = report_->system.back();
        if (upl.present)
            timeEvents(upl, daemons_[pid_].badSamples, report_->endUs - stampUs(head_));
        out_.push_back(std::move(*report_));
        report_.reset();
    }

private:
    void note(long number, const std::string& text) {
        fprintf(notes_, "tavrendctl: %s:%ld: %s\n", logName_.c_str(), number, text.c_str());
    }

    void start(long number, const logcat::Line& l) {
        report_.emplace();
        report_->line = number;
        char stamp[32];
        const Stamp& t = l.at;
        snprintf(stamp, sizeof(stamp), "%02d-%02d %02d:%02d:%02d.%03d", t.month, t.day, t.hour,
                 t.minute, t.second, t.milli);
        report_->stamp = stamp;
        auto it = condition_.find(l.pid);
        if (it != condition_.end()) {
            report_->condition = it->second;
            condition_.erase(it);
        }
        const DaemonLines& d = daemons_[l.pid];
        for (const SystemHistory& h : kSystem) {
            History history = named(h.name, h.slug, h.unit);
            setPeriod(history, d.memoryPeriod);
            report_->system.push_back(std::move(history));
        }
        report_->system.back().events = true;  // the bad latency samples
        head_ = l.at;
        pid_ = l.pid;
        tid_ = l.tid;
        process_ = -1;
    }

    void reportLine(long number, std::string_view message) {
        size_t which = kSystemCount;
        for (size_t k = 0; k < kSystemCount; ++k) {
            if (startsWith(message, kSystem[k].prefix)) which = k;
        }
        if (open_ >= 0 && static_cast<size_t>(open_) != which) closeOpenHistory();
        if (which < kSystemCount) {
            systemLine(number, which, message.substr(kSystem[which].prefix.size()));
        } else if (startsWith(message, kDate)) {
            report_->date = cleanText(message.substr(kDate.size()));
        } else if (startsWith(message, kProcess)) {
            processLine(number, message);
        } else if (startsWith(message, kRss) || startsWith(message, kRswap)) {
            const bool rss = startsWith(message, kRss);
            Process* p =
                process_ >= 0 ? &report_->processes[static_cast<size_t>(process_)] : nullptr;
            uint64_t baseline = 0;
            if (p == nullptr) {
                note(number, "a process history without its PID line; skipped");
            } else if (!processHistory(message, rss ? kRss : kRswap,
                                       rss ? kRssBaseline : kRswapBaseline, rss ? p->rss : p->rswap,
                                       baseline)) {
                note(number, "cannot read the " + std::string(rss ? "RSS" : "RSwap") +
                                 " history of pid " + std::to_string(p->pid) + "; skipped");
            } else if (rss) {
                p->rssBaseline = baseline;
            }
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

    void processLine(long number, std::string_view message) {
        constexpr std::string_view kName = " Process Name: ";
        const size_t at = message.find(kName);
        uint64_t pid = 0;
        process_ = -1;
        if (at == message.npos ||
            !parseNumber(message.substr(kProcess.size(), at - kProcess.size()), pid) ||
            pid > INT_MAX) {
            note(number, "cannot read the process line; its histories are skipped");
            return;
        }
        Process p;
        p.pid = static_cast<int>(pid);
        p.name = cleanText(message.substr(at + kName.size()));
        p.rss = named("RSS", "rss", "kB");
        p.rswap = named("RSwap", "rswap", "kB");
        setPeriod(p.rss, daemons_[pid_].processPeriod);
        setPeriod(p.rswap, daemons_[pid_].processPeriod);
        process_ = static_cast<long>(report_->processes.size());
        report_->processes.push_back(std::move(p));
    }

    // "RSS Total: {1, 2}, RSS Total baseline: 1" on one line.
    static bool processHistory(std::string_view message, std::string_view prefix,
                               std::string_view baselineText, History& h, uint64_t& baseline) {
        const size_t at = message.find(baselineText);
        if (at == message.npos ||
            !parseNumber(message.substr(at + baselineText.size()), baseline) ||
            !parseValues(message.substr(prefix.size(), at + 1 - prefix.size()), h.values)) {
            h.values.clear();
            return false;
        }
        h.present = true;
        return true;
    }

    const std::string& logName_;
    FILE* notes_;
    std::vector<CrashReport>& out_;
    std::map<int, std::string> condition_;  // the last condition line of each pid
    std::map<int, DaemonLines> daemons_;    // by pid
    std::optional<CrashReport> report_;
    Stamp head_;
    int pid_ = 0;
    int tid_ = 0;
    long process_ = -1;  // the process whose histories come next
    int open_ = -1;      // the system history still waiting for its '}'
    long openLine_ = 0;
    std::string openText_;
};

}  // namespace

bool readReports(FILE* in, const std::string& logName, FILE* notes, std::vector<CrashReport>& out) {
    Reader reader(logName, notes, out);
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

}  // namespace tavrendctl::report

// The one reader of the daemon's log: lines of every form in, events and
// runs out. Each message of the table is formatted from the daemon's own
// format with awkward values and must come back whole.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <string>
#include <vector>

#include "logread/Clock.h"
#include "logread/LogLine.h"
#include "logread/Messages.h"
#include "logread/Numbers.h"
#include "logread/Runs.h"

using namespace logread;

TEST(LogLine, EveryFormOfTheLogReadsAlike) {
    const struct {
        const char* text;
        bool parsed;
        const char* user;
        int pid, tid;
        const char* tag;
        const char* message;
    } rows[] = {
        // The host layer's files and a device's threadtime dump.
        {"11-23 08:18:39.123  4711  4712 I tavrend : Starting Tavren Daemon", true, "", 4711, 4712,
         "tavrend", "Starting Tavren Daemon"},
        // CRLF, as a log taken through a terminal has it.
        {"11-23 08:18:39.123  4711  4712 I tavrend : Starting Tavren Daemon\r\n", true, "", 4711,
         4712, "tavrend", "Starting Tavren Daemon"},
        // Release 10's bug report: the uid, or a short user name, before the pid.
        {"11-25 15:43:53.050  1000 26513 26513 E tavrend : Exiting", true, "1000", 26513, 26513,
         "tavrend", "Exiting"},
        {"11-25 15:43:53.050  root   612   640 E quillend:StatUtil: Failed to open x", true, "root",
         612, 640, "quillend:StatUtil", "Failed to open x"},
        // -v printable: escapes stay as written.
        {"11-25 15:43:53.050  1000   7   7 W tavrend : a\\x1B\\\\b\r", true, "1000", 7, 7,
         "tavrend", "a\\x1B\\\\b"},
        {"--------- beginning of system", false, "", 0, 0, "", ""},
        {"11-23 08:18:39.123  4711  4712 I tavrend", false, "", 0, 0, "", ""},  // cut short
        {"13-23 08:18:39.123  4711  4712 I tavrend : x", false, "", 0, 0, "", ""},
        {"11-23 08:18:39.123  4711 99999999999 I tavrend : x", false, "", 0, 0, "", ""},
        {"11-23 08:18:39.123  4711  4712 X tavrend : x", false, "", 0, 0, "", ""},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.text);
        const auto l = parse(r.text);
        ASSERT_EQ(l.has_value(), r.parsed);
        if (!l) continue;
        EXPECT_EQ(l->user, r.user);
        EXPECT_EQ(l->pid, r.pid);
        EXPECT_EQ(l->tid, r.tid);
        EXPECT_EQ(l->tag, r.tag);
        EXPECT_EQ(l->message, r.message);
    }
    EXPECT_TRUE(isBufferMark("--------- beginning of main\r"));
}

TEST(Numbers, PastTheirRangeAreNoNumbers) {
    EXPECT_EQ(unsignedOf("18446744073709551615"), UINT64_MAX);
    EXPECT_EQ(unsignedOf("18446744073709551616"), std::nullopt);
    EXPECT_EQ(unsignedOf("99999999999999999999999"), std::nullopt);
    EXPECT_EQ(unsignedOf("12a"), std::nullopt);
    EXPECT_EQ(unsignedOf(""), std::nullopt);
    EXPECT_EQ(signedOf("-2147483648", INT_MIN, INT_MAX), INT_MIN);
    EXPECT_EQ(signedOf("2147483648", INT_MIN, INT_MAX), std::nullopt);
    EXPECT_EQ(signedOf("-", INT_MIN, INT_MAX), std::nullopt);
    // A message whose number the daemon's type cannot hold is not the daemon's.
    EXPECT_EQ(classify("Trying to kill pid 2147483647").kind, Kind::KillTry);
    EXPECT_EQ(classify("Trying to kill pid 2147483648").kind, Kind::Other);
    EXPECT_EQ(
        classify("SystemMemorySampler heartbeat 18446744073709551616, lmk_current_kills 1").kind,
        Kind::Other);
}

namespace {

Stamp stamp(int month, int day, int hour, int minute, int second, int milli) {
    return {month, day, hour, minute, second, milli};
}

// Noon of the given day, local time.
time_t noon(int year, int month, int day) {
    struct tm t = {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = 12;
    t.tm_isdst = -1;
    return mktime(&t);
}

}  // namespace

TEST(LogClock, YearsEndsAndLeapDays) {
    const struct {
        const char* what;
        time_t end;  // the log file's time
        Stamp from, to;
        double seconds;
    } rows[] = {
        {"new year's eve", noon(2027, 1, 1), stamp(12, 31, 23, 59, 59, 500),
         stamp(1, 1, 0, 0, 0, 500), 1.0},
        {"29 February of a leap year", noon(2024, 3, 2), stamp(2, 28, 12, 0, 0, 0),
         stamp(3, 1, 12, 0, 0, 0), 2 * 86400.0},
        {"no 29 February in 2023", noon(2023, 3, 2), stamp(2, 28, 12, 0, 0, 0),
         stamp(3, 1, 12, 0, 0, 0), 86400.0},
        // The file written in January, its stamps of December the year before.
        {"a log of last December", noon(2025, 1, 5), stamp(12, 30, 0, 0, 0, 0),
         stamp(12, 31, 0, 0, 0, 0), 86400.0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        LogClock clock(r.end);
        const double from = clock.seconds(r.from);
        EXPECT_DOUBLE_EQ(clock.seconds(r.to) - from, r.seconds);
    }
    // The crash report's Date & Time gives the year, whatever the file's time.
    LogClock clock(noon(2026, 6, 1));
    const Stamp at = stamp(2, 28, 12, 0, 0, 0);
    clock.ms(at);
    const auto date = dateOf("Wed Feb 28 12:00:00 2024");
    ASSERT_TRUE(date.has_value());
    clock.anchor(at, *date);
    EXPECT_EQ(clock.year(), 2024);
    EXPECT_EQ(clock.ms(stamp(3, 1, 12, 0, 0, 0)) - stampMs(at, 2024), 2 * 86400000LL);
    EXPECT_FALSE(dateOf("Wed Feb 28 12:00:00").has_value());
}

namespace {

// What each conversion of a format is given: the awkward values.
constexpr const char* kText = "cam (vendor) 2: a/b";
constexpr const char* kInt = "2147483647";
constexpr const char* kNegative = "-2147483648";
constexpr const char* kUnsigned = "18446744073709551615";

// `format` with each conversion replaced by its awkward value (negative %d
// when `negative`), and the values in order.
std::string formatted(const char* format, bool negative, std::vector<std::string>& values) {
    std::string out;
    for (const char* p = format; *p != '\0'; ++p) {
        if (*p != '%') {
            out += *p;
            continue;
        }
        while (*p != 'd' && *p != 's' && *p != 'u') ++p;
        values.emplace_back(*p == 's'   ? kText
                            : *p == 'd' ? (negative ? kNegative : kInt)
                                        : kUnsigned);
        out += values.back();
    }
    return out;
}

}  // namespace

TEST(Messages, EachOfTheDaemonsFormatsComesBackWithItsFields) {
    size_t count = 0;
    const MessageRow* table = messageTable(count);
    ASSERT_GT(count, 30u);
    for (size_t r = 0; r < count; ++r) {
        for (const bool negative : {false, true}) {
            std::vector<std::string> values;
            const std::string message = formatted(table[r].format, negative, values);
            SCOPED_TRACE(message);
            const Event e = classify(message);
            EXPECT_EQ(e.kind, table[r].kind);
            ASSERT_EQ(e.count, values.size());
            for (size_t i = 0; i < values.size(); ++i) {
                ASSERT_NE(table[r].names[i], nullptr);
                EXPECT_EQ(e.text(table[r].names[i]), values[i]);
                const char* name = table[r].names[i];
                const int64_t want = values[i] == kNegative ? INT_MIN : INT_MAX;
                if (values[i] == kUnsigned) {
                    EXPECT_EQ(e.unum(name), UINT64_MAX);
                } else if (values[i] != kText) {
                    EXPECT_EQ(e.num(name), want);
                }
            }
        }
    }
    EXPECT_EQ(classify("Starting Tavren Daemon now").kind, Kind::Other);
}

namespace {

std::string line(int pid, const char* message, const char* tag = "tavrend") {
    char text[512];
    snprintf(text, sizeof(text), "11-23 08:18:39.123 %5d %5d I %-8s: %s", pid, pid, tag, message);
    return text;
}

// The steps of `lines`, in order.
std::vector<Step> steps(RunReader& runs, const std::vector<std::string>& lines) {
    std::vector<Step> out;
    for (const std::string& l : lines) {
        const auto parsed = parse(l);
        if (parsed) out.push_back(runs.feed(*parsed));
    }
    return out;
}

}  // namespace

TEST(Runs, TheReportCarriesTheFirstMonitorsCondition) {
    const char* memory = "Memory is being leaked, need to take action";
    const char* latency =
        "Critical UPL condition detected since bad sample count threshold reached";
    const char* report = "------Tavrend Crash Report------";
    const struct {
        std::vector<std::string> lines;
        Condition condition;
    } rows[] = {
        {{line(10, latency), line(10, memory), line(10, report)}, Condition::Memory},
        {{line(10, memory), line(10, latency), line(10, report)}, Condition::Memory},
        {{line(10, latency), line(10, report)}, Condition::Latency},
        {{line(10, report)}, Condition::None},
        // Another process's lines are not the run's.
        {{line(11, memory), line(10, latency), line(10, report)}, Condition::Latency},
        // A new run starts afresh.
        {{line(10, memory), line(12, "Starting Tavren Daemon"), line(12, report)}, Condition::None},
    };
    for (const auto& r : rows) {
        RunReader runs;
        std::vector<std::string> lines = {line(10, "Starting Tavren Daemon")};
        lines.insert(lines.end(), r.lines.begin(), r.lines.end());
        const auto all = steps(runs, lines);
        ASSERT_FALSE(all.empty());
        EXPECT_EQ(all.back().event.kind, Kind::Report);
        EXPECT_EQ(all.back().condition, r.condition) << lines[1];
    }
}

TEST(Runs, ConfigurationBlockAndTheDecidingCount) {
    RunReader runs;
    const auto all =
        steps(runs, {line(10, "Starting Tavren Daemon"), line(10, "Configuration:"),
                     line(10, "lmk_counter_threshold: Fg"), line(10, "lmk_target_kills: 12"),
                     line(10, "---------------------------------"),
                     line(10, "some: thing after the block")});
    ASSERT_EQ(all.size(), 6u);
    EXPECT_TRUE(all[2].config);
    EXPECT_FALSE(all[5].config);
    EXPECT_EQ(runs.run().configText("lmk_counter_threshold"), "Fg");
    EXPECT_EQ(runs.run().configNumber("lmk_target_kills"), 12);
    EXPECT_EQ(runs.run().configNumber("some"), std::nullopt);

    // The classes from Persistent through the named one, summed as 32-bit.
    const struct {
        const char* stats;
        const char* threshold;
        int32_t kills;
    } rows[] = {
        {"LMK Stats persistent 1 fg 2 visible 3 perceptible 5 backup 7 other 11", "Perceptible",
         11},
        {"LMK Stats persistent 1 fg 2 visible 3 perceptible 5 backup 7 other 11", "Fg", 3},
        {"LMK Stats persistent 1 fg 2 visible 3 perceptible 5 backup 7 other 11", "none", 29},
        {"LMK Stats persistent 4294967297 fg 0 visible 0 perceptible 0 backup 0 other 0",
         "Perceptible", 1},
    };
    for (const auto& r : rows) {
        const Event e = classify(r.stats);
        ASSERT_EQ(e.kind, Kind::LmkStats);
        EXPECT_EQ(decidingLmkKills(e, r.threshold), r.kills) << r.stats << " " << r.threshold;
    }
}

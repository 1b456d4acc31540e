// Log stamps to seconds. A stamp carries no year: the clock takes it from the
// crash report's "Date & Time" where the log has one, else from the log file's
// time, else from now, and counts a year on at each new year's eve the stamps
// pass. Leap days fall where the calendar has them.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string_view>

#include "LogLine.h"

namespace logread {

bool isLeapYear(int year);

// Milliseconds since 1970-01-01 00:00 of `t` in `year`, the stamp read as UTC
// (both ends of a difference are, so the zone drops out).
int64_t stampMs(const Stamp& t, int year);

// The year and month of a "Date & Time" text (ctime's "Wed Nov 25 15:43:53 2026").
struct YearMonth {
    int year = 0, month = 0;
};
std::optional<YearMonth> dateOf(std::string_view text);

class LogClock {
public:
    // The log ends at `end` (its file's time, or now): the first stamp is in
    // that year, or in the one before when its month comes later in the year.
    explicit LogClock(time_t end);

    // The stamp's time; a stamp half a year before the last one is in the next year.
    int64_t ms(const Stamp& t);
    double seconds(const Stamp& t) { return static_cast<double>(ms(t)) / 1000.0; }

    // A "Date & Time" line at `t`: from there on the stamps are in its year.
    void anchor(const Stamp& t, YearMonth date);

    int year() const { return year_; }

private:
    YearMonth end_;
    int year_ = 0;  // the year of the last stamp, 0 before the first
    int64_t lastMs_ = 0;
};

}  // namespace logread

#include "Clock.h"

#include <climits>

#include "Numbers.h"

namespace logread {
namespace {

constexpr int64_t kDayMs = 86400000;

// Days from 1970-01-01 to the given date of the proleptic Gregorian calendar.
int64_t daysFromCivil(int64_t y, int m, int d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}

constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";

}  // namespace

bool isLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int64_t stampMs(const Stamp& t, int year) {
    // 29 February of a common year is 1 March, as the calendar arithmetic has it.
    return daysFromCivil(year, t.month, t.day) * kDayMs +
           ((t.hour * 60 + t.minute) * 60 + t.second) * int64_t{1000} + t.milli;
}

std::optional<YearMonth> dateOf(std::string_view text) {
    // "Www Mmm dd hh:mm:ss yyyy"
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    if (text.size() < 24) return std::nullopt;
    const size_t month = kMonths.find(text.substr(4, 3));
    const auto year = unsignedOf(text.substr(text.size() - 4), 9999);
    if (month == kMonths.npos || month % 3 != 0 || !year || text[text.size() - 5] != ' ')
        return std::nullopt;
    return YearMonth{static_cast<int>(*year), static_cast<int>(month / 3) + 1};
}

LogClock::LogClock(time_t end) {
    struct tm local {};
    if (localtime_r(&end, &local) != nullptr) end_ = {local.tm_year + 1900, local.tm_mon + 1};
    if (end_.year < 1970) end_ = {1970, 1};
}

int64_t LogClock::ms(const Stamp& t) {
    if (year_ == 0) year_ = t.month > end_.month ? end_.year - 1 : end_.year;
    int64_t at = stampMs(t, year_);
    if (at < lastMs_ - 183 * kDayMs) at = stampMs(t, ++year_);
    lastMs_ = at;
    return at;
}

void LogClock::anchor(const Stamp& t, YearMonth date) {
    // The date is the wall clock a moment after the stamp: a new year may lie between.
    year_ = date.year - (t.month == 12 && date.month == 1 ? 1 : 0);
    lastMs_ = stampMs(t, year_);
}

}  // namespace logread

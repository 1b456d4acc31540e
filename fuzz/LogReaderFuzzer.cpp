// The reader of the daemon's log, on a device's log as outside input: any
// bytes, any length, lines cut anywhere, CR or not. Each line goes through the
// line parser, the message table, the runs and a clock, and the whole input
// through the crash report reader.
//
// Checks: a parsed line's views lie within its text; a classified message
// has the fields its row names and every field lies within the message; a
// run's condition is one the rule can give; the clock never goes back by more
// than half a year; the report reader ends without error.
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzSupport.h"
#include "logread/Clock.h"
#include "logread/CrashReport.h"
#include "logread/LogLine.h"
#include "logread/Messages.h"
#include "logread/Runs.h"

namespace {

bool within(std::string_view part, std::string_view whole) {
    return part.empty() || (part.data() >= whole.data() &&
                            part.data() + part.size() <= whole.data() + whole.size());
}

void checkEvent(std::string_view message, const logread::Event& e) {
    FUZZ_CHECK(e.count <= logread::kMaxFields);
    if (e.kind == logread::Kind::Other) FUZZ_CHECK(e.count == 0);
    for (size_t i = 0; i < e.count; ++i) FUZZ_CHECK(within(e.fields[i].text, message));
}

void checkLine(std::string_view text, logread::RunReader& runs, logread::LogClock& clock,
               int64_t& lastMs) {
    const auto line = logread::parse(text);
    if (!line) return;
    for (std::string_view part : {line->user, line->tagField, line->tag, line->message})
        FUZZ_CHECK(within(part, text));
    checkEvent(line->message, logread::classify(line->message));
    const logread::Step step = runs.feed(*line);
    checkEvent(line->message, step.event);
    FUZZ_CHECK(step.condition == logread::Condition::None ||
               step.event.kind == logread::Kind::Report);
    const int64_t ms = clock.ms(line->at);
    FUZZ_CHECK(ms >= lastMs - 183LL * 86400000);
    lastMs = ms;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    tavrend::fuzz::initHarness();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    logread::RunReader runs;
    logread::LogClock clock(1795460000);
    int64_t lastMs = INT64_MIN / 2;
    for (size_t start = 0; start < input.size();) {
        const size_t nl = input.find('\n', start);
        const size_t end = nl == input.npos ? input.size() : nl;
        checkLine(input.substr(start, end - start), runs, clock, lastMs);
        start = end + 1;
    }
    std::string copy(input);
    FILE* in = fmemopen(copy.data(), copy.size(), "r");
    FILE* notes = fopen("/dev/null", "w");
    if (in != nullptr && notes != nullptr) {
        std::vector<logread::CrashReport> reports;
        FUZZ_CHECK(logread::readReports(in, "fuzz.log", notes, reports, 1795460000));
    }
    if (in != nullptr) fclose(in);
    if (notes != nullptr) fclose(notes);
    return 0;
}

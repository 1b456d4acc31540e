// tavrendctl report on a system log captured from two daemon runs: a memory
// report whose histories take two lines each, sampled every 2 s as the first
// run's configuration lines say, one process named with XML's special
// characters and an RSS baseline below its samples, then a latency report
// (no configuration lines: 1 s) whose last bad sample has its log line; and on the same log cut
// short inside the first Other Free history, with a value that is no number in one process's
// history, a history line of another thread inside the report, and a swap history shorter than its
// RSS one, and an escape character in a process name (report_cut.log).
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "E2E.h"

using namespace tavrend::test;
namespace fs = std::filesystem;

const std::string kLog = TAVREND_SOURCE_DIR "/tests/e2e/testdata/report_system.log";

namespace {

// The charts of the first case's --svg: labels on the lines they name, the
// latency chart's threshold, one dot per event.
void checkCharts(const fs::path& dir) {
    const std::string chart = readText(dir / "report1-other-free.svg");
    EXPECT_NE(chart.find(">max 113920 kB<"), std::string::npos) << chart;
    EXPECT_NE(chart.find(">min 37888 kB<"), std::string::npos);
    EXPECT_NE(chart.find(">-154 s<"), std::string::npos);
    EXPECT_NE(chart.find(">78 samples, 2 s apart<"), std::string::npos);
    const std::string upl = readText(dir / "report2-upl.svg");
    EXPECT_NE(upl.find(">20 events, in the order received<"), std::string::npos);
    size_t dots = 0;  // one per event
    for (size_t at = 0; (at = upl.find("<circle", at)) != std::string::npos; ++at) ++dots;
    EXPECT_EQ(dots, 20u);
    // The daemon's threshold, from its "Total samples=..." line, is drawn.
    EXPECT_NE(upl.find(">- - threshold 1000 ms<"), std::string::npos) << upl;
    EXPECT_TRUE(fs::exists(dir / "report1-rss-801-surfaceflinger.svg"));
    const std::string vendor = readText(dir / "report1-rss-2210-vendor.Audio-hal_2_a__b__.svg");
    EXPECT_NE(vendor.find(">RSS of vendor.Audio-hal_2&lt;a&amp;&quot;b&quot;&gt; [2210]<"),
              std::string::npos);
    // The bottom line is the baseline's, labelled so; the lowest sample has its own.
    EXPECT_NE(vendor.find(">min 53248 kB<"), std::string::npos) << "the sample, not the baseline";
    EXPECT_NE(vendor.find("y=\"160\">49152 kB<"), std::string::npos) << vendor;
}

}  // namespace

TEST(ReportE2E, SummarizesExportsAndRejectsBadLogs) {
    const DeviceRoot root;  // a scratch directory
    const fs::path dir = root.path();
    std::ofstream(dir / "plain.log") << "11-23 19:03:13.514 22896 22896 I tavrend : Starting\n";
    struct Case {
        std::vector<std::string> args;
        int exitCode;
        std::vector<std::string> output;
    };
    const Case cases[] = {
        {{kLog, "--trace", dir / "t.json", "--svg", dir / "svg"},
         0,
         {"condition: Memory is being leaked, need to take action",
          "Other Free       37888 kB (78 samples, 2 s apart)",
          "+102400 kB  surfaceflinger [801]: 73728 -> 176128 kB",
          "condition: Critical UPL condition detected since bad sample count threshold reached",
          "Bad UPL samples  1062 ms (20 events)", "-> 53248 kB\n\nCrash report 2 of 2 (",
          "Other Free       37888 kB (11 samples, no period in the log)", "svg: 14 charts"}},
        {{TAVREND_SOURCE_DIR "/tests/e2e/testdata/report_cut.log", "--trace", dir / "cut.json"},
         0,
         {"report_cut.log:17: cannot read the RSS history of pid 2210; skipped",
          "report_cut.log:19: the Other Free history is cut short; skipped",
          "Other Free       (missing or unreadable)",
          "+102400 kB  surfaceflinger [801]: 73728 -> 176128 kB", "system?server [1024]"}},
        {{dir / "plain.log"}, 1, {"no crash report in"}},
        {{dir / "missing.log"}, 2, {"cannot read"}},
        {{kLog, "--svg"}, 2, {"--svg needs a value"}},
        {{kLog, "--trace", "/dev/full"}, 2, {"cannot write /dev/full"}},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"report"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        SCOPED_TRACE(args[1]);
        const auto got = ctl(root, args);
        EXPECT_EQ(got.exitCode, c.exitCode);
        for (const auto& s : c.output)
            EXPECT_NE(got.output.find(s), std::string::npos) << s << "\n" << got.output;
    }

    const std::string trace = readText(dir / "t.json");
    cJSON* parsed = cJSON_Parse(trace.c_str());
    EXPECT_TRUE(cJSON_IsObject(parsed)) << trace.substr(0, 200);
    cJSON_Delete(parsed);
    size_t counters = 0;
    for (size_t at = 0; (at = trace.find("\"ph\":\"C\"", at)) != std::string::npos; ++at)
        ++counters;
    EXPECT_EQ(counters, 4 * 78 + 39 + 39 + 1 + 4 * 11 + 6 + 6);
    // The newest sample is at the report's Date & Time, read as UTC, the
    // oldest of 78 two-second samples 154 s before; each bad latency sample
    // is an event at its log line's time, when it has one.
    const std::pair<const char*, size_t> want[] = {
        {"{\"ph\":\"C\",\"name\":\"Other Free\",\"pid\":1,\"ts\":1795460295000000,", 1},
        {"{\"ph\":\"C\",\"name\":\"Other Free\",\"pid\":2,\"ts\":1795460594000000,", 1},
        {"{\"ph\":\"i\",\"s\":\"p\",\"name\":\"Bad UPL samples\",\"pid\":2,"
         "\"ts\":1795460604205000,\"args\":{\"ms\":1062}}",
         1},
        {"\"ts\":1795460604000000,\"args\":{\"ms\":1055,\"logged\":false}}", 1},
        {"\"ph\":\"i\"", 20}};
    for (const auto& [text, n] : want) {
        size_t found = 0;
        for (size_t at = 0; (at = trace.find(text, at)) != std::string::npos; ++at) ++found;
        EXPECT_EQ(found, n) << text;
    }
    // system_server's swap history is two samples long: they end with its RSS.
    EXPECT_NE(readText(dir / "cut.json").find(",\"RSwap kB\":1}}"), std::string::npos);
    checkCharts(dir / "svg");
    EXPECT_FALSE(fs::exists(dir / "svg/report1-upl.svg"));  // no samples, no chart
}

// The request parsers of dravikfs fed hostile input directly.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "DravikDriver.h"
#include "DravikOptions.h"

namespace {

using dravikfs::kMaxWriteBytes;
using namespace std::string_literals;

// Each table: what a client may write, then what must be refused.
TEST(DravikParse, PidText) {
    const std::string fits(kMaxWriteBytes - 2, ' '), tooLong(kMaxWriteBytes - 1, ' ');
    const std::pair<std::string, int> good[] = {
        {"1234", 1234},          {"\t\r 77 \v\f\n", 77},   {"+8", 8},        {"-5", -5},
        {"2147483647", INT_MAX}, {"-2147483648", INT_MIN}, {fits + "42", 42}};
    for (const auto& [text, want] : good) EXPECT_EQ(dravikfs::parsePidText(text), want) << text;
    const std::string bad[] = {
        "",      " \n",         "-",          "+-3",         "12a",
        "1 2",   "0x10",        "2147483648", "-2147483649", "9999999999999999999999",
        "12\0"s, tooLong + "42"};
    for (const std::string& text : bad) {
        EXPECT_EQ(dravikfs::parsePidText(text), std::nullopt) << "'" << text << "'";
    }
}

TEST(DravikParse, PssLine) {
    const std::string rollup =
        "5581e4d6a000-7ffd2a7f5000 ---p 00000000 00:00 0      [rollup]\n"
        "Rss:               86320 kB\nPss:               52311 kB\n"
        "Pss_Anon:          39800 kB\nSwapPss:               0 kB\n";
    const std::pair<std::string, uint64_t> good[] = {
        {rollup, 52311},
        {"Pss:\t12", 12},
        {"Pss:12 kB  \r\n", 12},
        {"Pss: 5 kB\nPss: 6 kB\n", 5},
        {"Pss: 18446744073709551615 kB\n", UINT64_MAX}};
    for (const auto& [text, want] : good) EXPECT_EQ(dravikfs::parsePssKb(text), want) << text;
    // The first "Pss:" line decides.
    const std::string bad[] = {"",
                               "SwapPss: 9 kB\nPss_Anon: 8 kB\n",
                               "  Pss: 7 kB\n",
                               "pss: 7 kB\n",
                               "Pss: x kB\nPss: 6 kB\n",
                               "Pss:    kB\n",
                               "Pss: -4 kB\n",
                               "Pss: 12abc kB\n",
                               "Pss: 12 MB\n",
                               "Pss: 18446744073709551616 kB\n",
                               "Pss: 1\0 kB\n"s};
    for (const std::string& text : bad) {
        EXPECT_EQ(dravikfs::parsePssKb(text), std::nullopt) << "'" << text << "'";
    }
}

// The command line: what was parsed as "root mount flags failWrites pssAnswer
// killStatus", or the error.
TEST(DravikParse, Options) {
    auto parsed = [](const std::vector<std::string>& args, const char* envRoot) {
        dravikfs::Options o;
        const std::string error = dravikfs::parseOptions(args, envRoot, o);
        if (!error.empty()) return error;
        const auto& f = o.faults;
        return o.root + " " + o.mountPoint + " " + (o.foreground ? "f" : "-") +
               (o.dieWithParent ? "d" : "-") + (o.allowOther ? "a" : "-") +
               (o.hostProc ? "p" : "-") + (o.help ? "h" : "-") + (o.version ? "v" : "-") + " " +
               std::to_string(f.failWrites) + " " + (f.pssAnswer ? "'" + *f.pssAnswer + "'" : "-") +
               " " + (f.killStatus ? std::to_string(*f.killStatus) : "-");
    };
    const std::tuple<std::vector<std::string>, const char*, std::string> cases[] = {
        {{}, nullptr, "/ /sys/kernel/dravik ------ 0 - -"},
        {{}, "", "/ /sys/kernel/dravik ------ 0 - -"},
        {{"-h"}, "/env", "/env /env/sys/kernel/dravik ----h- 0 - -"},
        {{"-r", "/a/../b", "-m", "/m", "-f", "--die-with-parent", "--allow-other", "--host-proc",
          "--version"},
         "/env",
         "/b /m fdap-v 0 - -"},
        {{"--root=/r", "--mount", "/m/", "--foreground", "--fail-writes=4294967295",
          "--pss-answer=", "--kill-status", "-2147483648"},
         nullptr,
         "/r /m/ f----- 4294967295 '' -2147483648"},
        {{"--fail-writes", "000000000000000007", "--pss-answer", "n/a", "--kill-status=2147483647"},
         nullptr,
         "/ /sys/kernel/dravik ------ 7 'n/a' 2147483647"},
        {{"--fail-writes=4294967296"}, nullptr, "invalid count for --fail-writes: '4294967296'"},
        {{"--fail-writes=-1"}, nullptr, "invalid count for --fail-writes: '-1'"},
        {{"--fail-writes=0000000000000000007"},
         nullptr,
         "invalid count for --fail-writes: '0000000000000000007'"},
        {{"--kill-status=-2147483649"}, nullptr, "invalid status for --kill-status: '-2147483649'"},
        {{"--kill-status=1x"}, nullptr, "invalid status for --kill-status: '1x'"},
        {{"--kill-status=-"}, nullptr, "invalid status for --kill-status: '-'"},
        {{"--die-with-parent"}, nullptr, "--die-with-parent needs --foreground"},
        {{"-f", "-r"}, nullptr, "option '-r' needs a value"},
        {{"--mount="}, nullptr, "option '--mount' needs a directory"},
        {{"--root", ""}, nullptr, "option '--root' needs a directory"},
        {{"--foreground=1"}, nullptr, "option '--foreground' takes no value"},
        {{"--"}, nullptr, "unknown option '--'"},
        {{"-m", "/m", "stray"}, nullptr, "unexpected argument 'stray'"},
    };
    for (const auto& [args, envRoot, want] : cases) {
        EXPECT_EQ(parsed(args, envRoot), want) << testing::PrintToString(args);
    }
}

}  // namespace

// The parsers of dravikfs fed hostile input directly, and the one driver
// action whose mistake would be destructive.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <string>

#include "DravikDriver.h"
#include "support/DeviceRoot.h"

namespace {

using dravikfs::kMaxWriteBytes;

TEST(DravikParse, PidText) {
    const std::pair<std::string, int> good[] = {{"1234", 1234},
                                                {" 1234\n", 1234},
                                                {"\t\r 77 \v\f", 77},
                                                {"+8", 8},
                                                {"-5", -5},
                                                {"2147483647", INT_MAX},
                                                {"-2147483648", INT_MIN},
                                                {std::string(kMaxWriteBytes - 2, ' ') + "42", 42}};
    for (const auto& [text, want] : good) EXPECT_EQ(dravikfs::parsePidText(text), want) << text;

    const std::string bad[] = {"",
                               " \n",
                               "-",
                               "+-3",
                               "12a",
                               "1 2",
                               "0x10",
                               "2147483648",
                               "-2147483649",
                               "9999999999999999999999",
                               std::string("12\0", 3),
                               std::string(kMaxWriteBytes - 1, ' ') + "42"};
    for (const std::string& text : bad) {
        EXPECT_EQ(dravikfs::parsePidText(text), std::nullopt) << "'" << text << "'";
    }
}

TEST(DravikParse, PssLine) {
    const std::string realRollup =
        "5581e4d6a000-7ffd2a7f5000 ---p 00000000 00:00 0                          [rollup]\n"
        "Rss:               86320 kB\n"
        "Pss:               52311 kB\n"
        "Pss_Dirty:         40012 kB\n"
        "Pss_Anon:          39800 kB\n"
        "Pss_File:          12311 kB\n"
        "SwapPss:               0 kB\n";
    const std::pair<std::string, uint64_t> good[] = {
        {realRollup, 52311},
        {"SwapPss: 9 kB\nPss_Anon: 8 kB\nPss: 7 kB\n", 7},  // lookalikes first
        {"Pss:\t12", 12},
        {"Pss:12 kB  \r\n", 12},
        {"Pss: 5 kB\nPss: 6 kB\n", 5},
        {"Pss: 18446744073709551615 kB\n", UINT64_MAX}};
    for (const auto& [text, want] : good) EXPECT_EQ(dravikfs::parsePssKb(text), want) << text;

    const std::string bad[] = {"",
                               "SwapPss: 9 kB\nPss_Anon: 8 kB\n",
                               "  Pss: 7 kB\n",
                               "pss: 7 kB\n",
                               "Pss: x kB\nPss: 6 kB\n",  // the first Pss: line decides
                               "Pss:    kB\n",
                               "Pss: -4 kB\n",
                               "Pss: 12abc kB\n",
                               "Pss: 12 MB\n",
                               "Pss: 18446744073709551616 kB\n",
                               std::string("Pss: 1\0 kB\n", 11)};
    for (const std::string& text : bad) {
        EXPECT_EQ(dravikfs::parsePssKb(text), std::nullopt) << "'" << text << "'";
    }
}

TEST(DravikDriverCore, SyntheticKillRemovesOnlyProcessFolders) {
    tavrend::test::DeviceRoot root;
    tavrend::test::FakeProcess p;
    p.pid = 700;
    root.addProcess(p);
    // A symlinked "process" must not have its target removed.
    root.writeFile("/keep/precious", "x");
    std::filesystem::create_directory_symlink(root.host("/keep"), root.host("/proc/701"));
    root.writeFile("/proc/702", "a file, not a process folder");
    dravikfs::Driver driver(root.path() + "/", {}, getpid());
    ASSERT_FALSE(driver.procIsMachine());

    for (const char* pid : {"701", "702"}) {
        EXPECT_EQ(driver.writeKill(pid), 0);
        EXPECT_EQ(driver.readKill(), "3\n") << pid;  // ESRCH
    }
    EXPECT_TRUE(root.exists("/keep/precious"));
    EXPECT_TRUE(root.exists("/proc/702"));
    EXPECT_EQ(driver.writeKill("700"), 0);
    EXPECT_EQ(driver.readKill(), "0\n");
    EXPECT_FALSE(root.exists("/proc/700"));
}

}  // namespace

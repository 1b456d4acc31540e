// The statistics readers against synthetic device roots.
#include <gtest/gtest.h>
#include <log/log.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <tuple>

#include "stats/StatUtil.h"
#include "support/DeviceRoot.h"
#include "support/LogCapture.h"

namespace quillend {
namespace {

using namespace std::string_literals;
using tavrend::test::DeviceRoot;
using tavrend::test::LogCapture;
using Lines = std::vector<std::string>;
using M = SysMeminfoKb;
using Fields = std::vector<std::pair<uint64_t M::*, uint64_t>>;

constexpr const char* kPssFile = "/sys/kernel/dravik/total_pss_kb";

// The readers' messages; every record must be an error.
Lines statLog(const LogCapture& log) {
    for (const auto& r : log.records()) EXPECT_EQ(r.priority, ANDROID_LOG_ERROR) << r.message;
    return log.messages(LOG_ID_MAIN, "quillend:StatUtil");
}

// Every field with its value in meminfoText(1, 2, 3, 4, 5), laid out as the kernel does.
const Fields kAllFields = {{&M::mem_total, 3867224},
                           {&M::mem_free, 1},
                           {&M::mem_available, 1825384},
                           {&M::mem_buffers, 2},
                           {&M::mem_cached, 3},
                           {&M::mem_active_anon, 745672},
                           {&M::mem_inactive_anon, 210648},
                           {&M::mem_active_file, 609004},
                           {&M::mem_inactive_file, 683468},
                           {&M::mem_swap_total, 1048572},
                           {&M::mem_swap_free, 4},
                           {&M::mem_shmem, 20480},
                           {&M::mem_s_unreclaim, 5},
                           {&M::mem_kernel_stack, 21104},
                           {&M::mem_page_tables, 41156},
                           {&M::mem_swapcached, 12288},
                           {&M::mem_unevictable, 5120}};

// How each line is scanned (lookalike keys, junk, signs, overflow, NULs, long
// lines) is checked by the kernel text fuzz target against the scanf formats
// the readers replace, on every seed in every build. Here: what the readers
// make of whole files.

TEST(Meminfo, EveryKeyAndAMissingFile) {
    DeviceRoot root;
    SysMeminfoKb info;
    for (const auto& [field, unused] : kAllFields) info.*field = 7;
    EXPECT_FALSE(StatUtil::getMeminfo(info));  // no file: false, every field untouched
    for (const auto& [field, unused] : kAllFields) EXPECT_EQ(info.*field, 7u);
    root.setMeminfo(tavrend::test::meminfoText(1, 2, 3, 4, 5));
    ASSERT_TRUE(StatUtil::getMeminfo(info));
    for (const auto& [field, value] : kAllFields) EXPECT_EQ(info.*field, value);
}

TEST(Zoneinfo, WatermarksOfEveryZone) {
    auto kb = [](uint64_t pages) { return pages * static_cast<uint64_t>(getpagesize()) >> 10; };
    // The most pages whose bytes still fit, and one more: that one saturates.
    const uint64_t most = UINT64_MAX / static_cast<uint64_t>(getpagesize());
    const std::string edge =
        "\tlow\t" + std::to_string(most) + "\n\thigh\t" + std::to_string(most + 1) + "\n";
    const std::tuple<const char*, uint64_t, uint64_t> cases[] = {
        {edge.c_str(), kb(most), UINT64_MAX >> 10},
        {nullptr, 1, 2},  // no file: false, outputs untouched
        // Pagesets have "high:" lines of their own, not watermarks.
        {"\tlow\t3\n\thigh\t4\n  pagesets\n    cpu: 0\n              high:  378\n", kb(3), kb(4)},
        // Two zones as the kernel lays them out, with lookalike keys.
        {"Node 0, zone      DMA\n  pages free     3840\n        min      59\n        low      72\n"
         "        high     86\n        spanned  4095\n        protection: (0, 2815, 15811)\n"
         "  pagesets\n    cpu: 0\n              count:    0\n              high:     0\n"
         "              high_min: 36\nNode 0, zone   Normal\n        low      14780\n"
         "        high     17736\n",
         kb(14852), kb(17822)}};
    DeviceRoot root;
    for (const auto& [text, lowKb, highKb] : cases) {
        SCOPED_TRACE(text ? text : "(none)");
        text ? root.writeFile("/proc/zoneinfo", text) : root.removePath("/proc/zoneinfo");
        uint64_t low = 1, high = 2;
        EXPECT_EQ(StatUtil::getTotalWaterMarkZoneinfo(low, high), text != nullptr);
        EXPECT_EQ(low, lowKb);
        EXPECT_EQ(high, highKb);
    }
}

// The entries of /proc as "%d" reads them, clamped to an int; names without
// a leading number are skipped.
TEST(ProcessList, EntriesScannedAsPercentD) {
    DeviceRoot root;
    for (const char* entry : {"7", "007", "123456789", "1234567890", "2147483648",
                              "99999999999999999999", "-3", "+12", " 9", "12abc", "self"}) {
        root.writeFile("/proc/"s + entry + "/comm", "x\n");
    }
    root.writeFile("/proc/meminfo", "");
    std::vector<int> pids;
    ASSERT_TRUE(StatUtil::getProcessList(pids));
    std::sort(pids.begin(), pids.end());
    EXPECT_EQ(pids,
              (std::vector<int>{-3, 7, 7, 9, 12, 12, 123456789, 1234567890, INT_MAX, INT_MAX}));
}

TEST(ProcessName, HostileComms) {
    const std::string path41 = "/vendor/bin/hw/android.hardware.x@1.0-svc";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"two words", "", "two"},
        {"ab\ncd", "", "ab"},
        {std::string(29, 'n'), "", std::string(29, 'n')},
        {std::string(30, 'n'), "", ""},  // 31 bytes with the newline
        {"Binder:812_3", "/vendor/bin/hw/some.service\0--flag\0"s, "/vendor/bin/hw/some.service"},
        {"HwBinder:5_1", path41 + "\0"s, path41.substr(path41.size() - 31)},
        {"HwBinder:5_2", path41.substr(9) + "\0"s, path41.substr(10)},  // 32: one too many
        {"Binder:9_1", "my app\tname\0"s, "myapp\tname"},               // blanks only
        {"Binder:9_1", "Binder:9_1\0"s, "unknown"},
        {"binder:9_1", "/bin/x\0"s, "binder:9_1"},
        {"Binder", "/bin/x\0"s, "/bin/x"}};
    DeviceRoot root;
    char name[32];
    for (const auto& [comm, cmdline, want] : cases) {
        SCOPED_TRACE(comm);
        root.writeFile("/proc/100/comm", comm + "\n");
        root.writeFile("/proc/100/cmdline", cmdline);
        memset(name, 'x', sizeof(name));
        EXPECT_EQ(StatUtil::getProcessName(100, name), !want.empty());  // empty: the read fails
        EXPECT_EQ(std::string(name, sizeof(name)), want + std::string(32 - want.size(), '\0'));
    }
    EXPECT_FALSE(StatUtil::getProcessName(101, name));  // no such process
}

TEST(ProcessRss, HostileStatusFiles) {
    const std::tuple<std::string, uint64_t, uint64_t, uint64_t> cases[] = {
        {"Name:\tapp\nVmPeak:\t 900 kB\nVmRSS:\t  5124 kB\nVmSwap:\t  12 kB\n", 5124, 12, 5136},
        {"Name:\tkworker/0:1\nState:\tI (idle)\n", 0, 0, 0},  // a kernel thread
        {"VmRSS: 18446744073709551615 kB\nVmSwap: 5 kB\n", UINT64_MAX, 5, UINT64_MAX}};
    DeviceRoot root;
    for (const auto& [status, rss, swap, total] : cases) {
        SCOPED_TRACE(status);
        root.writeFile("/proc/9/status", status);
        ProcessRssInfoKb info{1, 2, 3};
        ASSERT_TRUE(StatUtil::getProcessRss(9, info));
        EXPECT_EQ(info.vm_rss, rss);
        EXPECT_EQ(info.vm_swap, swap);
        EXPECT_EQ(info.total, total);
    }
    LogCapture log;
    ProcessRssInfoKb info{1, 2, 3};
    EXPECT_FALSE(StatUtil::getProcessRss(99, info));
    EXPECT_EQ(info.vm_rss + info.vm_swap + info.total, 0u);
    EXPECT_EQ(statLog(log), Lines{"Failed to open /proc/99/status file"});
}

// A plain file stands in for the driver: it answers with what was written.
class DriverPss : public ::testing::Test {
protected:
    void SetUp() override { root.writeFile(kPssFile, ""); }
    DeviceRoot root;
    LogCapture log;
    uint64_t pss = 5;
};

// Figures that add up are checked with getProcessPss() below.
TEST_F(DriverPss, GraphicsMemoryFailures) {
    const std::string noInfo = "failed to get memory consumption info: -1 pid: 77";
    const std::pair<std::string, std::string> cases[] = {
        {"-1 0 0\n", "failed to get graphics pss: -1 pid: 77"},
        {"0 -5 -6\n", "failed to get gl pss: -5 pid: 77"},
        {"0 0 -2\n", "failed to get other pss: -2 pid: 77"},
        {"99999999999999999999 0 0\n", noInfo},
        {"1 2 3" + std::string(300, ' '), noInfo}};  // longer than a figures line
    for (const auto& [file, message] : cases) {
        SCOPED_TRACE(file);
        root.writeFile("/dev/memtrack/77", file);
        log.clear();
        uint64_t graphics = 100;
        EXPECT_FALSE(StatUtil::getProcessGraphicsMemory(77, graphics));
        EXPECT_EQ(graphics, 100u);
        EXPECT_EQ(statLog(log), Lines{message});
    }
}

TEST_F(DriverPss, ProcessPssIsDriverPlusOptionalGraphics) {
    ASSERT_TRUE(StatUtil::getProcessPss(4242, pss));
    EXPECT_EQ(pss, 4242u);                       // no memtrack figures: the driver's value alone
    EXPECT_EQ(root.readFile(kPssFile), "4242");  // the request: the bare id

    root.writeFile("/dev/memtrack/4242", "11263 2048 1023\n");  // each count truncated on its own
    ASSERT_TRUE(StatUtil::getProcessPss(4242, pss));
    EXPECT_EQ(pss, 4242u + 12u);

    root.removePath(kPssFile);
    EXPECT_FALSE(StatUtil::getProcessPss(4242, pss));
    // A process without memtrack figures is logged, and left at the driver's value.
    EXPECT_EQ(statLog(log), (Lines{"failed to get memory consumption info: -1 pid: 4242",
                                   "Failed to open /sys/kernel/dravik/total_pss_kb for write"}));
}

}  // namespace
}  // namespace quillend

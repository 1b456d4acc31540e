// System-wide readers: /proc/meminfo, /proc/zoneinfo, the process list and
// pidOf, against synthetic roots, checked-in captures and the machine's /proc.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "StatsTestUtil.h"
#include "stats/StatUtil.h"

namespace quillend {
namespace {

using namespace std::string_literals;
using quillend::test::proc;
using quillend::test::slurp;
using tavrend::test::DeviceRoot;
using Field = uint64_t SysMeminfoKb::*;

std::string testdata(const char* name) {
    return slurp(std::string(TAVREND_SOURCE_DIR) + "/tests/stats/testdata/" + name);
}

// Every field with its value in testdata/meminfo, a capture of a real machine.
const std::vector<std::pair<Field, uint64_t>> kCapturedMeminfo = {
    {&SysMeminfoKb::mem_total, 24684092},       {&SysMeminfoKb::mem_free, 23896704},
    {&SysMeminfoKb::mem_available, 24137772},   {&SysMeminfoKb::mem_buffers, 3120},
    {&SysMeminfoKb::mem_cached, 426088},        {&SysMeminfoKb::mem_active_anon, 1568},
    {&SysMeminfoKb::mem_inactive_anon, 211328}, {&SysMeminfoKb::mem_active_file, 174932},
    {&SysMeminfoKb::mem_inactive_file, 245420}, {&SysMeminfoKb::mem_swap_total, 0},
    {&SysMeminfoKb::mem_swap_free, 0},          {&SysMeminfoKb::mem_shmem, 8856},
    {&SysMeminfoKb::mem_s_unreclaim, 22136},    {&SysMeminfoKb::mem_kernel_stack, 1668},
    {&SysMeminfoKb::mem_page_tables, 2500},     {&SysMeminfoKb::mem_swapcached, 0},
    {&SysMeminfoKb::mem_unevictable, 13980},
};

constexpr uint64_t kUntouched = 7;

SysMeminfoKb untouchedRecord() {
    SysMeminfoKb info;
    for (const auto& [field, value] : kCapturedMeminfo) info.*field = kUntouched;
    return info;
}

TEST(Meminfo, HostileInputs) {
    struct Case {
        const char* name;
        std::string text;
        std::vector<std::pair<Field, uint64_t>> set;  // every other field stays untouched
    };
    const Case cases[] = {
        {"empty file", "", {}},
        {"old kernel without MemAvailable",
         "MemTotal: 10 kB\nMemFree: 5 kB\n",
         {{&SysMeminfoKb::mem_total, 10}, {&SysMeminfoKb::mem_free, 5}}},
        {"trailing junk",
         "MemTotal: 10 kB trailing junk\nMemFree:   12abc kB\nBuffers: 3 MB\n",
         {{&SysMeminfoKb::mem_total, 10},
          {&SysMeminfoKb::mem_free, 12},
          {&SysMeminfoKb::mem_buffers, 3}}},
        {"missing values", "MemTotal:\nMemFree: kB\nCached: -\n\n   \n", {}},
        {"near-miss keys",
         "MemTotalX: 1 kB\nmemtotal: 2 kB\nMemTotal 3 kB\nSwapCached: 4 kB\nCached: 5 kB\n",
         {{&SysMeminfoKb::mem_swapcached, 4}, {&SysMeminfoKb::mem_cached, 5}}},
        {"overflowing numbers saturate",
         "MemTotal: 99999999999999999999999 kB\nMemFree: 18446744073709551615 kB\n",
         {{&SysMeminfoKb::mem_total, UINT64_MAX}, {&SysMeminfoKb::mem_free, UINT64_MAX}}},
        {"over-long lines",
         std::string(100000, 'A') + " 5 kB\nMemFree:" + std::string(5000, ' ') + "42 kB\n",
         {{&SysMeminfoKb::mem_free, 42}}},
        {"NUL bytes end a line's text",
         "MemTotal: 1\0"
         "23 kB\nMem\0Free: 5 kB\nBuffers: 6 kB"s,
         {{&SysMeminfoKb::mem_total, 1}, {&SysMeminfoKb::mem_buffers, 6}}},
        {"real capture", testdata("meminfo"), kCapturedMeminfo},
    };
    DeviceRoot root;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        root.setMeminfo(c.text);
        SysMeminfoKb info = untouchedRecord();
        ASSERT_TRUE(StatUtil::getMeminfo(info));
        for (const auto& [field, unused] : kCapturedMeminfo) {
            uint64_t expected = kUntouched;
            for (const auto& [f, v] : c.set) expected = f == field ? v : expected;
            EXPECT_EQ(info.*field, expected);
        }
    }
    root.removePath("/proc/meminfo");
    SysMeminfoKb info = untouchedRecord();
    EXPECT_FALSE(StatUtil::getMeminfo(info));
    EXPECT_EQ(info.mem_total, kUntouched);
}

TEST(Zoneinfo, HostileInputs) {
    const uint64_t page = static_cast<uint64_t>(getpagesize());
    struct Case {
        const char* name;
        std::string text;
        uint64_t lowKb, highKb;
    };
    const Case cases[] = {
        {"empty file", "", 0, 0},
        {"three zones, pagesets and reserves",
         "Node 0, zone      DMA\n  pages free     3\n        min      50\n        low      100\n"
         "        high     110\n        lowmem_reserve[]: 0 1 2 3\n  pagesets\n"
         "    cpu: 0\n              count: 0\n              high:  378\n"
         "Node 0, zone   Normal\n        low      200\n        high     220\n"
         "Node 0, zone  Movable\n\tlow\t300\n\thigh\t330\n",
         600 * page >> 10, 660 * page >> 10},
        {"trailing junk", "  low 5 pages\n  high 6junk\n", 5 * page >> 10, 6 * page >> 10},
        {"over-long line", std::string(3000, 'x') + "\n  low 9\n", 9 * page >> 10, 0},
        {"overflow saturates", " low 18446744073709551615\n low 1\n high 99999999999999999999\n",
         UINT64_MAX >> 10, UINT64_MAX >> 10},
        // Five zones: low 72+14780+6265+32+0 pages, high 86+17736+7518+32+0.
        {"real capture", testdata("zoneinfo"), 21149 * page >> 10, 25372 * page >> 10},
    };
    DeviceRoot root;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        root.setZoneinfo(c.text);
        uint64_t low = 1, high = 2;
        ASSERT_TRUE(StatUtil::getTotalWaterMarkZoneinfo(low, high));
        EXPECT_EQ(low, c.lowKb);
        EXPECT_EQ(high, c.highKb);
    }
    root.removePath("/proc/zoneinfo");
    uint64_t low = 1, high = 2;
    EXPECT_FALSE(StatUtil::getTotalWaterMarkZoneinfo(low, high));
    EXPECT_EQ(low + high, 3u);
}

TEST(ProcessList, ListsNumericEntriesAndPidOfTakesFirstInDirectoryOrder) {
    DeviceRoot root;
    root.addProcess(proc(30, "alpha"));
    root.addProcess(proc(7, "dup"));
    root.addProcess(proc(500, "dup"));
    root.addProcess(proc(41, "Binder:41_2", "/system/bin/hw/svc\0-x\0"s));
    root.addProcess(proc(42, std::string(31, 'L')));  // comm too long to read
    root.writeFile("/proc/self/comm", "alpha\n");
    root.writeFile("/proc/12abc/comm", "twelve\n");  // "%d" takes the leading number

    std::vector<int> pids = {-9};
    ASSERT_TRUE(StatUtil::getProcessList(pids));
    ASSERT_EQ(pids.front(), -9);  // appended to, not cleared
    std::vector<int> sorted(pids.begin() + 1, pids.end());
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(sorted, (std::vector<int>{7, 12, 30, 41, 42, 500}));

    int pid = -1;
    ASSERT_TRUE(StatUtil::pidOf("dup", pid));
    EXPECT_EQ(pid,
              *std::find_if(pids.begin(), pids.end(), [](int p) { return p == 7 || p == 500; }));
    ASSERT_TRUE(StatUtil::pidOf("/system/bin/hw/svc", pid));
    EXPECT_EQ(pid, 41);
    ASSERT_TRUE(StatUtil::pidOf("alpha", pid));
    EXPECT_EQ(pid, 30);
    pid = -1;
    for (std::string miss : {"Binder:41_2"s, "twelve"s, std::string(31, 'L'), "alph"s, ""s}) {
        EXPECT_FALSE(StatUtil::pidOf(miss, pid)) << miss;
    }
    EXPECT_EQ(pid, -1);
}

// No fixture: the readers against this machine's own /proc.
TEST(RealProc, ReadersAgreeWithTheKernel) {
    DeviceRoot root(/*withProc=*/false);
    SysMeminfoKb info;
    ASSERT_TRUE(StatUtil::getMeminfo(info));
    std::istringstream meminfo(slurp("/proc/meminfo"));
    std::string key;
    uint64_t memTotal = 0;
    meminfo >> key >> memTotal;
    ASSERT_EQ(key, "MemTotal:");
    EXPECT_EQ(info.mem_total, memTotal);

    std::string comm = slurp("/proc/self/comm");
    comm.erase(comm.find('\n'));
    char name[32];
    ASSERT_TRUE(StatUtil::getProcessName(getpid(), name));
    EXPECT_EQ(name, comm);
    int pid = -1;
    ASSERT_TRUE(StatUtil::pidOf(comm, pid));
    ASSERT_TRUE(StatUtil::getProcessName(pid, name));
    EXPECT_EQ(name, comm);  // this process, or another of the same name listed first
}

}  // namespace
}  // namespace quillend

// Per-process readers: name, RSS, the driver's PSS (with its retry path) and
// memtrack's graphics memory.
#include <android/hardware/memtrack/1.0/IMemtrack.h>
#include <gtest/gtest.h>
#include <log/log.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstring>
#include <filesystem>
#include <thread>

#include "StatsTestUtil.h"
#include "stats/StatUtil.h"
#include "support/FakeTime.h"
#include "support/LogCapture.h"

namespace quillend {
namespace {

using namespace std::string_literals;
using quillend::test::proc;
using tavrend::test::DeviceRoot;
using tavrend::test::FakeTime;
using tavrend::test::LogCapture;
using Lines = std::vector<std::string>;

constexpr const char* kPssFile = "/sys/kernel/dravik/total_pss_kb";

Lines statLog(const LogCapture& log) {
    for (const auto& r : log.records()) EXPECT_EQ(r.priority, ANDROID_LOG_ERROR) << r.message;
    return log.messages(LOG_ID_MAIN, "quillend:StatUtil");
}

TEST(ProcessName, HostileComms) {
    const std::string path40 = "/vendor/bin/hw/android.hardware.x@1.0-svc";
    struct Case {
        std::string comm, cmdline;
        bool ok;
        std::string name;
    };
    const Case cases[] = {
        {"two words", "", true, "two"},
        {"a)b (x", "", true, "a)b"},
        {"ab\ncd", "", true, "ab"},
        {std::string(29, 'n'), "", true, std::string(29, 'n')},
        {std::string(30, 'n'), "", false, ""},  // 31 bytes with the newline
        {"  ", "", false, ""},
        {"Binder:812_3", "/vendor/bin/hw/some.service\0--flag\0"s, true,
         "/vendor/bin/hw/some.service"},
        {"HwBinder:5_1", path40 + "\0"s, true, path40.substr(path40.size() - 31)},
        {"Binder:9_1", "my app\tname\0"s, true, "myapp\tname"},  // blanks only
        {"Binder:9_1", "", true, "unknown"},
        {"Binder:9_1", "Binder:9_1\0"s, true, "unknown"},
        {"binder:9_1", "/bin/x\0"s, true, "binder:9_1"},
    };
    DeviceRoot root;
    char name[32];
    for (const Case& c : cases) {
        SCOPED_TRACE(c.comm);
        root.addProcess(proc(100, c.comm, c.cmdline));
        memset(name, 'x', sizeof(name));
        EXPECT_EQ(StatUtil::getProcessName(100, name), c.ok);
        EXPECT_EQ(std::string(name, strnlen(name, sizeof(name))), c.name);
        EXPECT_EQ(name[31], '\0');
    }
    memset(name, 'x', sizeof(name));
    EXPECT_FALSE(StatUtil::getProcessName(101, name));
    EXPECT_EQ(std::string(name, sizeof(name)), std::string(32, '\0'));
}

TEST(ProcessRss, HostileStatusFiles) {
    struct Case {
        const char* name;
        std::string status;
        uint64_t rss, swap, total;
    };
    const Case cases[] = {
        {"usual", "Name:\tapp\nVmPeak:\t 900 kB\nVmRSS:\t  5124 kB\nVmSwap:\t  12 kB\n", 5124, 12,
         5136},
        {"kernel thread", "Name:\tkworker/0:1\nState:\tI (idle)\n", 0, 0, 0},
        {"newline in name", "Name:\tx\nVmRSS:\t999 kB\nVmRSS:\t10 kB\nVmSwap:\t1 kB\n", 10, 1, 11},
        {"near misses", "RssVmRSS: 5 kB\nVmRSS 6 kB\nVmSwap:\n  VmRSS:   7 kB junk\n", 7, 0, 7},
        {"overflow saturates", "VmRSS: 99999999999999999999 kB\nVmSwap: 5 kB\n", UINT64_MAX, 5,
         UINT64_MAX},
    };
    DeviceRoot root;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        root.addProcess(proc(9, "app", "", c.status));
        ProcessRssInfoKb info{1, 2, 3};
        ASSERT_TRUE(StatUtil::getProcessRss(9, info));
        EXPECT_EQ(info.vm_rss, c.rss);
        EXPECT_EQ(info.vm_swap, c.swap);
        EXPECT_EQ(info.total, c.total);
    }
    LogCapture log;
    ProcessRssInfoKb info{1, 2, 3};
    EXPECT_FALSE(StatUtil::getProcessRss(99, info));
    EXPECT_EQ(info.vm_rss + info.vm_swap + info.total, 0u);
    EXPECT_EQ(statLog(log), Lines{"Failed to open /proc/99/status file"});
}

// Regular-file writes fail with EFBIG, a real write(2) refusal, until lift().
class RefuseFileWrites {
public:
    RefuseFileWrites() : oldHandler_(signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &saved_);
        rlimit none = saved_;
        none.rlim_cur = 0;
        setrlimit(RLIMIT_FSIZE, &none);
    }
    ~RefuseFileWrites() {
        lift();
        signal(SIGXFSZ, oldHandler_);
    }
    void lift() { setrlimit(RLIMIT_FSIZE, &saved_); }

private:
    sighandler_t oldHandler_;
    rlimit saved_;
};

// A plain file stands in for the driver: it answers with what was written.
class DriverPss : public ::testing::Test {
protected:
    void SetUp() override { root.writeFile(kPssFile, ""); }
    DeviceRoot root;
    FakeTime clock;
    LogCapture log;
    uint64_t pss = 5;
};

TEST_F(DriverPss, ExchangeOutcomes) {
    ASSERT_TRUE(StatUtil::getProcessPssDravik(4242, pss));
    EXPECT_EQ(pss, 4242u);
    EXPECT_EQ(root.readFile(kPssFile), "4242");  // the bare id, no newline

    root.removePath(kPssFile);
    std::filesystem::create_symlink("/dev/null", root.host(kPssFile));  // empty answer
    ASSERT_TRUE(StatUtil::getProcessPssDravik(4242, pss));
    EXPECT_EQ(pss, 0u);
    EXPECT_TRUE(statLog(log).empty());

    root.removePath(kPssFile);
    pss = 5;
    EXPECT_FALSE(StatUtil::getProcessPssDravik(4242, pss));
    EXPECT_EQ(pss, 0u);
    EXPECT_EQ(statLog(log), Lines{"Failed to open /sys/kernel/dravik/total_pss_kb for write"});
    EXPECT_EQ(clock.sleepCalls(), 0u);
}

TEST_F(DriverPss, RefusedWritesAreRetriedFourTimesThenFail) {
    {
        RefuseFileWrites refuse;
        EXPECT_FALSE(StatUtil::getProcessPssDravik(4242, pss));
    }
    EXPECT_EQ(pss, 0u);
    EXPECT_EQ(clock.sleepCalls(), 4u);
    EXPECT_EQ(clock.sleptSeconds(), 4u);
    EXPECT_EQ(root.readFile(kPssFile), "");
    EXPECT_EQ(statLog(log), Lines{"Failed to write /sys/kernel/dravik/total_pss_kb"});
}

TEST_F(DriverPss, WriteAcceptedOnThirdAttempt) {
    RefuseFileWrites refuse;
    clock.onSleep([&](unsigned long index) {
        if (index == 1) refuse.lift();
    });
    ASSERT_TRUE(StatUtil::getProcessPssDravik(4242, pss));
    EXPECT_EQ(pss, 4242u);
    EXPECT_EQ(clock.sleepCalls(), 2u);
    EXPECT_EQ(root.readFile(kPssFile), "4242");  // one clean request, nothing left over
    EXPECT_TRUE(statLog(log).empty());
}

// Without the module's lock one caller would read back another's request.
TEST_F(DriverPss, ConcurrentExchangesNeverInterleave) {
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int pid : {1111, 2222, 3333, 4444}) {
        threads.emplace_back([pid, &mismatches] {
            for (int i = 0; i < 200; ++i) {
                uint64_t kb = 0;
                mismatches += !StatUtil::getProcessPssDravik(pid, kb) || kb != uint64_t(pid);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(mismatches, 0);
}

TEST_F(DriverPss, GraphicsMemoryAddsPerCountKilobytes) {
    const std::string noInfo = "failed to get memory consumption info: -1 pid: 77";
    struct Case {
        std::string file;  // empty: no file for the pid
        bool ok;
        std::string message;
        uint64_t added;
    };
    const Case cases[] = {
        {"1024 2048 3072\n", true, "", 6},
        {"1023 2047 1023", true, "", 1},  // each count truncated on its own
        {"", false, noInfo, 0},
        {"-1 0 0\n", false, "failed to get graphics pss: -1 pid: 77", 0},
        {"0 -5 -6\n", false, "failed to get gl pss: -5 pid: 77", 0},
        {"0 0 -2\n", false, "failed to get other pss: -2 pid: 77", 0},
        {"1 2\n", false, noInfo, 0},
        {"1 2 3x\n", false, noInfo, 0},
        {"99999999999999999999 0 0\n", false, noInfo, 0},
        {"1\0 2 3\n"s, false, noInfo, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        root.removePath("/dev/memtrack/77");
        if (!c.file.empty()) root.writeFile("/dev/memtrack/77", c.file);
        log.clear();
        uint64_t graphics = 100;
        EXPECT_EQ(StatUtil::getProcessGraphicsMemory(77, graphics), c.ok);
        EXPECT_EQ(graphics, 100 + c.added);
        EXPECT_EQ(statLog(log), c.message.empty() ? Lines{} : Lines{c.message});
    }
}

TEST_F(DriverPss, ProcessPssIsDriverPlusOptionalGraphics) {
    using android::hardware::memtrack::V1_0::IMemtrack;
    EXPECT_EQ(IMemtrack::getService(), nullptr);
    ASSERT_TRUE(StatUtil::getProcessPss(4242, pss));
    EXPECT_EQ(pss, 4242u);  // no memtrack figures: the driver's value alone

    root.setMemtrack(4242, 10 * 1024 + 1023, 2048, 1023);
    EXPECT_NE(IMemtrack::getService(), nullptr);
    ASSERT_TRUE(StatUtil::getProcessPss(4242, pss));
    EXPECT_EQ(pss, 4242u + 12u);

    root.removePath(kPssFile);
    EXPECT_FALSE(StatUtil::getProcessPss(4242, pss));
}

}  // namespace
}  // namespace quillend

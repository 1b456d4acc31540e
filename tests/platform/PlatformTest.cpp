// The host layer's contract: log line layout and files, the property store,
// and device-path mapping.
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <log/log.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/device_root.h"
#include "platform/log_hook.h"
#include "support/DeviceRoot.h"
#include "support/LogLine.h"
#include "support/LogCapture.h"

namespace fs = std::filesystem;
using tavrend::test::DeviceRoot;
using tavrend::test::LogCapture;

namespace {

std::vector<std::string> readLines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

// Points TAVREND_LOG_DIR at a fresh directory (inside a device root) for one test.
class LogDir {
public:
    LogDir() {
        setenv("TAVREND_LOG_DIR", root_.path().c_str(), 1);
        tavrend::platform::reopenLogFiles();
    }
    ~LogDir() {
        unsetenv("TAVREND_LOG_DIR");
        tavrend::platform::reopenLogFiles();
    }
    std::vector<std::string> lines(const char* buffer) const {
        return readLines(root_.path() + "/" + buffer + ".log");
    }

private:
    DeviceRoot root_;
};

// Parses a line or fails the test.
tavrend::test::LogLine parsed(const std::string& line) {
    auto l = tavrend::test::parseLogLine(line);
    EXPECT_TRUE(l.has_value()) << line;
    return l.value_or(tavrend::test::LogLine{});
}

}  // namespace

TEST(HostLog, LinesFollowThreadtimeLayoutAndSplitOnNewlines) {
    LogDir logs;
    __android_log_buf_print(LOG_ID_SYSTEM, ANDROID_LOG_ERROR, "tavrend", "abc\n\n");
    __android_log_buf_print(LOG_ID_SYSTEM, ANDROID_LOG_INFO, "a-very-long-tag", "one\ntwo");
    __android_log_print(ANDROID_LOG_WARN, "quillend:StatUtil", "main buffer %d", 7);

    auto sys = logs.lines("system");
    ASSERT_EQ(sys.size(), 4u);
    auto first = parsed(sys[0]);
    EXPECT_EQ(first.priority, 'E');
    EXPECT_EQ(first.tagField, "tavrend ");  // padded to 8, never cut
    EXPECT_EQ(first.message, "abc");
    EXPECT_EQ(first.pid, static_cast<int>(getpid()));
    EXPECT_EQ(parsed(sys[1]).message, "");  // "abc\n\n": abc and one empty line
    EXPECT_EQ(parsed(sys[2]).tagField, "a-very-long-tag");
    EXPECT_EQ(parsed(sys[2]).message, "one");
    EXPECT_EQ(parsed(sys[3]).message, "two");
    char exact[64];  // everything after the time stamp, byte for byte
    snprintf(exact, sizeof(exact), " %5d %5d E tavrend : abc", static_cast<int>(getpid()),
             static_cast<int>(gettid()));
    EXPECT_EQ(sys[0].substr(18), exact);

    auto mainLines = logs.lines("main");
    ASSERT_EQ(mainLines.size(), 1u);
    EXPECT_EQ(parsed(mainLines[0]).priority, 'W');
    EXPECT_EQ(parsed(mainLines[0]).message, "main buffer 7");
}

TEST(HostLog, BuffersPrioritiesAndTruncation) {
    LogDir logs;
    LogCapture capture;
    EXPECT_LT(__android_log_buf_print(9, ANDROID_LOG_INFO, "t", "dropped"), 0);
    EXPECT_LT(__android_log_buf_print(-1, ANDROID_LOG_INFO, "t", "dropped"), 0);
    EXPECT_TRUE(capture.records().empty());

    __android_log_buf_print(LOG_ID_METRICS, ANDROID_LOG_INFO, "metrics.tavrend", "%s", "rec");
    EXPECT_EQ(logs.lines("metrics").size(), 1u);

    const char letters[] = "VDIWEF";
    for (int prio = ANDROID_LOG_VERBOSE; prio <= ANDROID_LOG_FATAL; ++prio) {
        __android_log_buf_print(LOG_ID_CRASH, prio, "t", "p");
    }
    auto crash = logs.lines("crash");
    ASSERT_EQ(crash.size(), 6u);
    for (size_t i = 0; i < crash.size(); ++i) EXPECT_EQ(parsed(crash[i]).priority, letters[i]);

    std::string longMsg(3000, 'x');
    int n = __android_log_buf_print(LOG_ID_EVENTS, ANDROID_LOG_INFO, "t", "%s", longMsg.c_str());
    EXPECT_EQ(n, 1023);
    auto recs = capture.records();
    ASSERT_FALSE(recs.empty());
    EXPECT_EQ(recs.back().message.size(), 1023u);
    EXPECT_EQ(recs.back().buffer, LOG_ID_EVENTS);
}

TEST(HostLog, ConcurrentLinesNeverMix) {
    LogDir logs;
    constexpr int kThreads = 6, kLines = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            std::string payload(200, static_cast<char>('a' + t));
            for (int i = 0; i < kLines; ++i) {
                __android_log_buf_print(LOG_ID_SYSTEM, ANDROID_LOG_INFO, "mix", "%d %s", t,
                                        payload.c_str());
            }
        });
    }
    for (auto& th : threads) th.join();
    auto lines = logs.lines("system");
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    for (const auto& line : lines) {
        std::string msg = parsed(line).message;
        ASSERT_FALSE(msg.empty()) << line;
        int t = msg[0] - '0';
        EXPECT_EQ(msg, std::to_string(t) + " " + std::string(200, static_cast<char>('a' + t)));
    }
}

TEST(HostProperties, BooleanValues) {
    DeviceRoot root;
    struct Case {
        const char* stored;  // nullptr: unset
        bool def;
        bool expected;
    } cases[] = {
        {"0", true, false},     {"n", true, false},      {"no", true, false},
        {"false", true, false}, {"off", true, false},    {"1", false, true},
        {"y", false, true},     {"yes", false, true},    {"true", false, true},
        {"on", false, true},    {"false\n", true, false}, {"TRUE", false, false},
        {"True", true, true},   {"2", true, true},       {"", true, true},
        {" false", true, true}, {nullptr, true, true},   {nullptr, false, false},
    };
    for (const auto& c : cases) {
        root.removePath("/dev/__properties__/test.bool");
        if (c.stored) root.setProperty("test.bool", c.stored);
        EXPECT_EQ(property_get_bool("test.bool", c.def), c.expected)
            << "stored=" << (c.stored ? c.stored : "(unset)") << " default=" << c.def;
    }
}

TEST(HostProperties, SetRefusesBadNamesValuesAndSecondReadOnlySet) {
    DeviceRoot root;
    const std::string v91(91, 'v'), v92(92, 'v');
    struct Case {
        const char* name;
        std::string value;
        int expected;
    } cases[] = {
        {"sys.powerctl", "reboot", 0},
        {"a-b@c:d_e.f", "x", 0},
        {"persist.x", v91, 0},
        {"persist.y", v92, -1},
        {"ro.long", v92 + v92, 0},
        {".lead", "x", -1},
        {"trail.", "x", -1},
        {"a..b", "x", -1},
        {"sl/ash", "x", -1},
        {"sp ace", "x", -1},
        {"", "x", -1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(property_set(c.name, c.value.c_str()), c.expected) << c.name;
    }
    EXPECT_EQ(root.getProperty("sys.powerctl"), "reboot");
    EXPECT_FALSE(root.exists("/dev/__properties__/persist.y"));

    EXPECT_EQ(property_set("ro.serial", "first"), 0);
    EXPECT_EQ(property_set("ro.serial", "second"), -1);
    EXPECT_EQ(root.getProperty("ro.serial"), "first");

    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("persist.x", value, "d"), 91);
    EXPECT_EQ(std::string(value), v91);
    EXPECT_EQ(property_get("not.set", value, "dflt"), 4);
    EXPECT_STREQ(value, "dflt");
    EXPECT_EQ(property_get("ro.long", value, ""), PROPERTY_VALUE_MAX - 1);
}

TEST(HostProperties, ConcurrentReaderSeesOldOrNewValue) {
    DeviceRoot root;
    const std::string a(80, 'a'), b(80, 'b');
    ASSERT_EQ(property_set("test.swap", a.c_str()), 0);
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::thread reader([&] {
        char value[PROPERTY_VALUE_MAX];
        while (!stop.load()) {
            property_get("test.swap", value, "unset");
            if (value != a && value != b) bad++;
        }
    });
    for (int i = 0; i < 500; ++i) property_set("test.swap", (i % 2 ? a : b).c_str());
    stop = true;
    reader.join();
    EXPECT_EQ(bad.load(), 0);
}

TEST(HostDeviceRoot, MapsDevicePathsUnderTheRoot) {
    {
        DeviceRoot withProc(true);
        EXPECT_EQ(tavrend::platform::hostPath("/proc/meminfo"), withProc.path() + "/proc/meminfo");
        EXPECT_EQ(tavrend::platform::hostPath("/system/etc/x"), withProc.path() + "/system/etc/x");
    }
    {
        DeviceRoot noProc(false);
        // No proc/ of its own: the machine's /proc is watched.
        EXPECT_EQ(tavrend::platform::hostPath("/proc/meminfo"), "/proc/meminfo");
        EXPECT_EQ(tavrend::platform::hostPath("/procfoo"), noProc.path() + "/procfoo");
        EXPECT_EQ(tavrend::platform::hostPath("/dev/memtrack/1"), noProc.path() + "/dev/memtrack/1");
    }
    tavrend::platform::setDeviceRoot("/");
    EXPECT_EQ(tavrend::platform::hostPath("/sys/kernel/dravik/total_pss_kb"),
              "/sys/kernel/dravik/total_pss_kb");
    tavrend::platform::setDeviceRoot("");
    EXPECT_EQ(tavrend::platform::deviceRoot(), "/");
}

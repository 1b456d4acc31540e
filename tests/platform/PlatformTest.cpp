// The host layer's contract: log lines and files, the property store, the
// real clock's sleep and the memtrack lookup.
#include <android/hardware/memtrack/1.0/IMemtrack.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <log/log.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "platform/device_root.h"
#include "platform/host_root.h"
#include "platform/log_hook.h"
#include "platform/time_seam.h"
#include "support/DeviceRoot.h"
#include "support/LogCapture.h"
#include "support/LogLine.h"

using tavrend::test::DeviceRoot;
using tavrend::test::LogCapture;
using tavrend::test::parseLogLine;

namespace {

// Points TAVREND_LOG_DIR at a fresh directory for one test.
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
    // Each line of a buffer's file: its priority letter, the tag as written and the message.
    std::vector<std::string> lines(const char* buffer) const {
        std::ifstream in(root_.path() + "/" + buffer + ".log");
        std::vector<std::string> out;
        for (std::string line; std::getline(in, line);) {
            auto l = parseLogLine(line);
            out.push_back(l ? l->priority + ("|" + l->tagField + "|" + l->message) : "bad " + line);
            EXPECT_EQ(l ? l->pid : getpid(), getpid());
        }
        return out;
    }
    std::string firstLine(const char* buffer) const {
        std::string line;
        return std::getline(std::ifstream(root_.path() + "/" + buffer + ".log"), line), line;
    }

private:
    DeviceRoot root_;
};

}  // namespace

// One trailing newline ends a message without an empty line; other newlines
// split it into lines; the tag is padded to 8, never cut.
TEST(HostLog, LinesFilesPrioritiesAndTruncation) {
    LogDir logs;
    LogCapture capture;
    EXPECT_EQ(__android_log_buf_print(LOG_ID_SYSTEM, ANDROID_LOG_ERROR, "tavrend", "abc\n"), 3);
    __android_log_buf_print(LOG_ID_SYSTEM, ANDROID_LOG_INFO, "a-very-long-tag", "one\ntwo\n\n");
    __android_log_buf_print(LOG_ID_SYSTEM, ANDROID_LOG_WARN, "8charTag", "\n");
    __android_log_print(ANDROID_LOG_DEBUG, "quillend:StatUtil", "main buffer %d", 7);
    EXPECT_EQ(
        logs.lines("system"),
        (std::vector<std::string>{"E|tavrend |abc", "I|a-very-long-tag|one",
                                  "I|a-very-long-tag|two", "I|a-very-long-tag|", "W|8charTag|"}));
    EXPECT_EQ(logs.lines("main"), std::vector<std::string>{"D|quillend:StatUtil|main buffer 7"});
    char exact[64];  // after the "MM-DD HH:MM:SS.mmm" stamp, byte for byte
    snprintf(exact, sizeof(exact), " %5d %5d E tavrend : abc", getpid(), gettid());
    const std::string first = logs.firstLine("system");
    EXPECT_EQ(first.substr(18), exact);

    EXPECT_LT(__android_log_buf_print(9, ANDROID_LOG_INFO, "t", "dropped"), 0);
    EXPECT_LT(__android_log_buf_print(-1, ANDROID_LOG_INFO, "t", "dropped"), 0);
    EXPECT_EQ(capture.records().size(), 4u);
    for (int prio = ANDROID_LOG_VERBOSE; prio <= ANDROID_LOG_FATAL; ++prio) {
        __android_log_buf_print(8, prio, "t", "p");  // the metrics buffer
    }
    // A priority past the known ones, either way, is written as '?'.
    __android_log_buf_print(8, 100, "t", "p");
    __android_log_buf_print(8, -3, "t", "p");
    EXPECT_EQ(
        logs.lines("metrics"),
        (std::vector<std::string>{"V|t       |p", "D|t       |p", "I|t       |p", "W|t       |p",
                                  "E|t       |p", "F|t       |p", "?|t       |p", "?|t       |p"}));
    const std::string longMsg(3000, 'x');
    EXPECT_EQ(__android_log_buf_print(LOG_ID_EVENTS, ANDROID_LOG_INFO, "t", "%s", longMsg.c_str()),
              1023);
    EXPECT_EQ(capture.records().back().message.size(), 1023u);
    EXPECT_EQ(capture.records().back().buffer, LOG_ID_EVENTS);
}

TEST(HostLog, ConcurrentLinesNeverMix) {
    LogDir logs;
    std::vector<std::thread> threads;
    for (char c = 'a'; c < 'g'; ++c) {
        threads.emplace_back([c] {
            for (int i = 0; i < 300; ++i) {
                __android_log_buf_print(LOG_ID_SYSTEM, ANDROID_LOG_INFO, "mix", "%s",
                                        std::string(200, c).c_str());
            }
        });
    }
    for (auto& th : threads) th.join();
    const auto lines = logs.lines("system");
    ASSERT_EQ(lines.size(), 6u * 300);
    for (const auto& line : lines) {
        ASSERT_EQ(line, "I|mix     |" + std::string(200, line.back()));
    }
}

TEST(HostProperties, BooleanValues) {
    DeviceRoot root;
    const std::tuple<const char*, bool, bool> cases[] = {
        // stored (nullptr: unset), default, result
        {"0", true, false},     {"n", true, false},       {"no", true, false},
        {"false", true, false}, {"off", true, false},     {"1", false, true},
        {"y", false, true},     {"yes", false, true},     {"true", false, true},
        {"on", false, true},    {"false\n", true, false}, {"TRUE", false, false},
        {"True", true, true},   {"2", true, true},        {"", true, true},
        {" false", true, true}, {nullptr, true, true},    {nullptr, false, false},
    };
    for (const auto& [stored, def, expected] : cases) {
        root.removePath("/dev/__properties__/test.bool");
        if (stored) root.setProperty("test.bool", stored);
        EXPECT_EQ(property_get_bool("test.bool", def), expected)
            << "stored=" << (stored ? stored : "(unset)") << " default=" << def;
    }
}

TEST(HostProperties, SetRefusesBadNamesValuesAndSecondReadOnlySet) {
    DeviceRoot root;
    const std::string v91(91, 'v'), v92(92, 'v');
    const std::tuple<const char*, std::string, int> cases[] = {
        {"sys.powerctl", "reboot", 0}, {"a-b@c:d_e.f", "x", 0}, {"az.AZ.09", "x", 0},
        {"persist.x", v91, 0},         {"persist.y", v92, -1},  {"ro.long", v92 + v92, 0},
    };
    for (const auto& [name, value, expected] : cases) {
        EXPECT_EQ(property_set(name, value.c_str()), expected) << name;
    }
    // Letters, digits and ".-@:_" only; no empty name, no dot at an end or beside another.
    for (const char* bad : {".lead", "trail.", "a..b", "sl/ash", "sp ace", "", "a`", "a{", "A["})
        EXPECT_EQ(property_set(bad, "x"), -1) << bad;
    EXPECT_EQ(root.getProperty("az.AZ.09"), "x");
    EXPECT_FALSE(root.exists("/dev/__properties__/persist.y"));
    EXPECT_EQ(property_set("ro.serial", "first"), 0);
    EXPECT_EQ(property_set("ro.serial", "second"), -1);
    EXPECT_EQ(root.getProperty("ro.serial"), "first");
    // A write that fails part way (over the file size limit) keeps the old
    // value and says so; the child is ended if it never returns.
    const pid_t child = fork();
    if (child == 0) {
        alarm(5);
        signal(SIGXFSZ, SIG_IGN);
        const struct rlimit none {};
        setrlimit(RLIMIT_FSIZE, &none);
        _exit(property_set("az.AZ.09", "new") == -1 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(root.getProperty("az.AZ.09"), "x");

    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get("persist.x", value, "d"), 91);
    EXPECT_EQ(std::string(value), v91);
    EXPECT_EQ(property_get("ro.long", value, ""), PROPERTY_VALUE_MAX - 1);
    root.setProperty("bad..name", "1");  // a bad name is never read
    EXPECT_EQ(property_get("bad..name", value, "d"), 1);
    for (const char* stored : {static_cast<const char*>(nullptr), "", "\n"}) {  // all unset
        if (stored) root.setProperty("test.unset", stored);
        EXPECT_EQ(property_get("test.unset", value, "dflt"), 4);
        EXPECT_STREQ(value, "dflt");
    }
    // A relative root whose folders are not there yet: the first set makes them.
    const auto cwd = std::filesystem::current_path();
    std::filesystem::current_path(root.path());
    tavrend::platform::setDeviceRoot("fresh/root");
    EXPECT_EQ(property_set("ro.boot.x", "1"), 0);
    std::filesystem::current_path(cwd);
    EXPECT_TRUE(root.exists("/fresh/root/dev/__properties__/ro.boot.x"));
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

// A device path without its leading slash still maps inside the root. Files
// served from memory read to their end and close once, like real ones, up to
// a bound; a path the table names without bytes is absent.
TEST(HostRoot, MemoryFilesReadAndCloseLikeDescriptors) {
    using namespace tavrend::platform;
    {
        const DeviceRoot root;
        EXPECT_EQ(hostPath("data/x"), root.path() + "/data/x");
        EXPECT_EQ(hostPath(""), root.path() + "/");
    }
    const MemoryFile files[] = {{"/proc/meminfo", "MemTotal: 1 kB\n", 15},
                                {"/proc/zoneinfo", nullptr, 0}};
    const MemoryFiles table{files, 2};
    setMemoryFiles(&table);
    const int fd = openDeviceFd("/proc/meminfo");
    char buf[64];
    EXPECT_EQ(readDeviceFd(fd, buf, sizeof(buf)), 15);
    EXPECT_EQ(readDeviceFd(fd, buf, sizeof(buf)), 0);
    EXPECT_EQ(closeDeviceFd(fd), 0);
    EXPECT_EQ(closeDeviceFd(fd), -1);
    EXPECT_EQ(readDeviceFd(fd, buf, sizeof(buf)), -1);
    EXPECT_EQ(openDeviceFd("/proc/zoneinfo"), -1);
    // Descriptors from memory are bounded: the one past the last slot fails.
    std::vector<int> open;
    for (int got; (got = openDeviceFd("/proc/meminfo")) >= 0 && open.size() < 1000;)
        open.push_back(got);
    EXPECT_EQ(open.size(), 64u);
    EXPECT_EQ(errno, EMFILE);
    for (int each : open) EXPECT_EQ(closeDeviceFd(each), 0);
    setMemoryFiles(nullptr);
}

// A signal in the middle of a second does not cut the daemon's sleep short.
TEST(HostTime, SleepOutlastsASignal) {
    struct sigaction quiet = {};
    struct sigaction old = {};
    quiet.sa_handler = [](int) {};  // no SA_RESTART: nanosleep returns EINTR
    sigaction(SIGUSR1, &quiet, &old);
    const pthread_t sleeper = pthread_self();
    std::thread poke([sleeper] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        pthread_kill(sleeper, SIGUSR1);
    });
    const auto start = std::chrono::steady_clock::now();
    tavrend::platform::sleepSeconds(1);
    const auto slept = std::chrono::steady_clock::now() - start;
    poke.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_GE(slept, std::chrono::seconds(1));
}

// The memtrack service is there exactly when /dev/memtrack is a directory.
TEST(HostMemtrack, ServiceLookup) {
    using android::hardware::memtrack::V1_0::IMemtrack;
    DeviceRoot root;
    EXPECT_EQ(IMemtrack::getService(), nullptr);
    root.writeFile("/dev/memtrack", "");
    EXPECT_EQ(IMemtrack::getService(), nullptr);
    root.removePath("/dev/memtrack");
    root.writeFile("/dev/memtrack/1", "");
    EXPECT_NE(IMemtrack::getService(), nullptr);
}

// tavrendctl status as a command: what it prints of the state its reader
// builds (the reader itself is tested on lines, in tests/logread), the
// buffers as two files, the exit status of a log without a run; and --follow
// on a log that is rotated, cut back and restarted under it.
#include <cjson/cJSON.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "E2E.h"

using namespace tavrend::test;

namespace {

const char* kStart = "11-25 09:41:09.918 11782 11782 I tavrend : Starting Tavren Daemon\n";

}  // namespace

TEST(Status, PrintsBothBuffersAndLeavesUnknownsUnknown) {
    const DeviceRoot root;
    const std::string system = root.path() + "-system.log";
    const std::string main = root.path() + "-main.log";
    std::ofstream(system) << kStart
                          << "11-25 09:41:10.000 11782 11790 I tavrend : Pid: 700, Name: cam, "
                             "TotalPss: 90 kB, MemorySoftLimit: 100 kB, MemoryHardLimit: 200 kB\n";
    std::ofstream(main) << "11-25 09:48:11.000 11782 11790 E quillend:StatUtil: Failed to open "
                           "/sys/kernel/dravik/total_pss_kb for write\n";
    auto got = ctl(root, {"status", system, main});
    EXPECT_EQ(got.exitCode, 0) << got.output;
    EXPECT_NE(got.output.find("statistics readers: 1 failures logged, the last at 11-25 "
                              "09:48:11.000: Failed to open /sys/kernel/dravik/total_pss_kb for "
                              "write"),
              std::string::npos)
        << got.output;

    // No monitor line yet: whether the latency monitor runs is unknown, and so
    // are its counts.
    got = ctl(root, {"status", system, "--json"});
    cJSON* doc = cJSON_Parse(got.output.c_str());
    ASSERT_TRUE(cJSON_IsObject(doc)) << got.output;
    const cJSON* latency = cJSON_GetObjectItem(doc, "latency");
    EXPECT_TRUE(cJSON_IsNull(cJSON_GetObjectItem(latency, "monitoring")));
    EXPECT_TRUE(cJSON_IsNull(cJSON_GetObjectItem(latency, "bad_samples"))) << got.output;
    EXPECT_TRUE(cJSON_IsNull(cJSON_GetObjectItem(latency, "total_samples")));
    cJSON_Delete(doc);

    // Before any start of the daemon there is no run to show.
    std::ofstream(system) << "11-25 09:41:09.000 11782 11782 I tavrend : Exiting\n";
    EXPECT_EQ(ctl(root, {"status", system}).exitCode, 1);
    std::remove(system.c_str());
    std::remove(main.c_str());
}

namespace {

// Lines of one run of the daemon, as its host log writes them.
std::string runLines(int pid, const std::string& at, const std::vector<std::string>& messages) {
    std::string out;
    char line[256];
    for (const std::string& m : messages) {
        snprintf(line, sizeof(line), "11-25 %s.000 %5d %5d I tavrend : %s\n", at.c_str(), pid, pid,
                 m.c_str());
        out += line;
    }
    return out;
}

void append(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::app) << text;
}

}  // namespace

// --follow as `tail -F`: each step does to the log what rotation, a restart or
// a failure does, and what it must lead to is printed within a bounded wait.
TEST(Status, FollowsTheLogAcrossRotationAndRestarts) {
    using std::chrono::seconds;
    const DeviceRoot root;
    const std::string log = root.path() + "/system.log", out = root.path() + "-follow.txt";
    const std::vector<std::string> start = {"Starting Tavren Daemon", "Configuration:"};
    std::ofstream(log) << runLines(111, "10:00:00", start);
    Subprocess follow(binPath("tavrendctl"), {"status", log, "--follow", "--json"}, {}, out);
    const struct {
        const char* what;
        std::function<void()> step;
        const char* shows;
    } steps[] = {
        {"the first run", [] {}, "\"pid\":111,"},
        {"it stops", [&] { append(log, runLines(111, "10:00:05", {"Exiting"})); },
         "the daemon stopped (exited); waiting for it to start again"},
        {"rotated, and a new run in a new file",
         [&] {
             std::filesystem::rename(log, log + ".1");
             std::ofstream(log) << runLines(222, "10:01:00", start) +
                                       runLines(222, "10:01:01", {"Heartbeat", "Heartbeat"});
         },
         "\"pid\":222,"},
        {"cut back, and a new run", [&] { std::ofstream(log) << runLines(333, "10:02:00", start); },
         "\"pid\":333,"},
        {"a folder in its place",
         [&] {
             std::filesystem::remove(log);
             std::filesystem::create_directory(log);
         },
         "system.log: cannot read: Is a directory"},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(s.what);
        s.step();
        EXPECT_TRUE(waitUntil([&] { return readText(out).find(s.shows) != std::string::npos; },
                              seconds(10)))
            << readText(out);
    }
    const auto status = follow.wait(seconds(5));
    EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 2) << readText(out);

    // A first read that fails ends it too; so does the reader of its output going away.
    const auto got = ctl(root, {"status", log, "--follow"});
    EXPECT_EQ(got.exitCode, 2);
    EXPECT_NE(got.output.find("system.log: cannot read: Is a directory"), std::string::npos)
        << got.output;
    std::filesystem::remove(log);
    std::ofstream(log) << runLines(444, "10:03:00", start);
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    Subprocess piped(binPath("tavrendctl"), {"status", log, "--follow"}, {},
                     "/dev/fd/" + std::to_string(fds[1]));
    close(fds[1]);
    char first = 0;
    EXPECT_EQ(read(fds[0], &first, 1), 1);  // as `| head -c 1`
    close(fds[0]);
    EXPECT_TRUE(piped.wait(seconds(10)).has_value())
        << "still following for a reader that has gone";
    std::remove(out.c_str());
}

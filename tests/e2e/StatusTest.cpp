// tavrendctl status on a real system log of two runs, cut at the moments that
// change what it shows: the state and the counts must follow each transition;
// and --follow on a log that is rotated, cut back and restarted under it.
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

// The number at `path` ("memory.lmk_kills"), -1 for null or absent.
long long numberAt(const cJSON* doc, const char* section, const char* key) {
    const cJSON* v = cJSON_GetObjectItem(cJSON_GetObjectItem(doc, section), key);
    return cJSON_IsNumber(v) ? static_cast<long long>(v->valuedouble) : -1;
}

// "name=count" pairs of an object, or the names of an array, joined by commas.
std::string listAt(const cJSON* doc, const char* section, const char* key) {
    std::string out;
    for (const cJSON* e = cJSON_GetObjectItem(cJSON_GetObjectItem(doc, section), key)->child;
         e != nullptr; e = e->next) {
        out += (out.empty() ? "" : ",") +
               (cJSON_IsString(e) ? std::string(e->valuestring)
                                  : std::string(e->string) + "=" + std::to_string(e->valueint));
    }
    return out;
}

}  // namespace

TEST(Status, StateAndCountsAtEachCutOfARealLog) {
    const std::string log = readText(TAVREND_SOURCE_DIR "/tests/e2e/testdata/status_system.log");
    const struct {
        const char* cutAfter;  // the first line holding this text is the last one read
        const char* state;
        long long lmkKills, badSamples, totalSamples;
        const char* queued;
        const char* kills;
        const char* condition;
        long long overrideIn;  // -1: none
    } cases[] = {
        // The first run, which the second one's start replaces.
        {"09:47:10.432", "stopped", 9, 0, 0, "", "", "memory", -1},
        {"Adding process 1733", "monitoring", 2, 3, 4, "launcher", "media.codec=1,launcher=0",
         "none", -1},
        {"killabe_process_count=0", "monitoring", 2, 3, 4, "", "media.codec=1,launcher=1", "none",
         -1},
        {"Adding process 1800", "monitoring", 2, 3, 4, "launcher", "media.codec=1,launcher=1",
         "none", -1},
        {"09:52:08.549", "monitoring", 2, 3, 4, "launcher", "media.codec=1,launcher=1", "memory",
         -1},
        // The crash report: the loop has ended, the idle detector not yet begun.
        {"Total Processes Sampled: 2", "waiting_for_idle", 2, 3, 4, "launcher",
         "media.codec=1,launcher=1", "memory", -1},
        // Held by the minimum uptime 1133 s, then counting the override of 120 s.
        {"uptime: 1106", "waiting_for_idle", 2, 3, 4, "launcher", "media.codec=1,launcher=1",
         "memory", 148},
        {"uptime: 1147", "waiting_for_idle", 2, 3, 4, "launcher", "media.codec=1,launcher=1",
         "memory", 107},
        {"09:54:08.343", "rebooting", 2, 3, 4, "launcher", "media.codec=1,launcher=1", "memory",
         -1},
        {"09:54:08.356", "stopped", 2, 3, 4, "launcher", "media.codec=1,launcher=1", "memory", -1},
    };
    const DeviceRoot root;
    const std::string cut = root.path() + "-cut.log";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.cutAfter);
        const size_t at = log.find(c.cutAfter);
        ASSERT_NE(at, std::string::npos);
        std::ofstream(cut) << log.substr(0, log.find('\n', at) + 1);
        const auto got = ctl(root, {"status", cut, "--json"});
        EXPECT_EQ(got.exitCode, 0) << got.output;
        cJSON* doc = cJSON_Parse(got.output.c_str());
        ASSERT_TRUE(cJSON_IsObject(doc)) << got.output;
        EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItem(doc, "state")), c.state);
        EXPECT_EQ(numberAt(doc, "memory", "lmk_kills"), c.lmkKills);
        EXPECT_EQ(numberAt(doc, "latency", "bad_samples"), c.badSamples);
        EXPECT_EQ(numberAt(doc, "latency", "total_samples"), c.totalSamples);
        EXPECT_EQ(listAt(doc, "guardrails", "queued"), c.queued);
        EXPECT_EQ(listAt(doc, "guardrails", "kills"), c.kills);
        EXPECT_STREQ(cJSON_GetStringValue(
                         cJSON_GetObjectItem(cJSON_GetObjectItem(doc, "recovery"), "condition")),
                     c.condition);
        EXPECT_EQ(numberAt(doc, "recovery", "override_in_sec"), c.overrideIn);
        cJSON_Delete(doc);
    }
    // Before any start of the daemon there is no run to show.
    std::ofstream(cut) << log.substr(0, log.find('\n') + 1);
    EXPECT_EQ(ctl(root, {"status", cut}).exitCode, 1);
    std::remove(cut.c_str());
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

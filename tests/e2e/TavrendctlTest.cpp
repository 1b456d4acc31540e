// tavrendctl getprop/setprop against a device root's property store, and its
// binder transactions against a service of this test process.
#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "E2E.h"
#include "platform/binder_host.h"
#include "support/DravikMount.h"

using namespace std::chrono_literals;
using namespace tavrend::test;

namespace {

// Code 1 answers with the request's own data; code 2 with the daemon's token
// answers int32 0 for the sample 250 and 1 for any other.
class CtlTarget : public android::BBinder {
protected:
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override {
        if (code == 1) return reply->write(data.data(), data.dataSize());
        if (code == 2 &&
            data.enforceInterface(android::String16("com.corvail.android.service.TavrenIPC"))) {
            return reply->writeInt32(data.readInt64() == 250 ? 0 : 1);
        }
        return BBinder::onTransact(code, data, reply, flags);
    }
};

}  // namespace

TEST(Tavrendctl, GetpropAndSetpropBehaveLikeTheDeviceTools) {
    DeviceRoot root;
    root.removePath("/dev/__properties__");  // the first set makes the store
    EXPECT_EQ(ctl(root, {"setprop", "sys.user_activity_detected", "false"}).exitCode, 0);
    EXPECT_EQ(root.getProperty("sys.user_activity_detected"), "false");
    auto got = ctl(root, {"getprop", "sys.user_activity_detected"});
    EXPECT_EQ(got.exitCode, 0);
    EXPECT_EQ(got.output, "false\n");
    EXPECT_EQ(ctl(root, {"getprop", "sys.powerctl", "none"}).output, "none\n");

    // Each mistake is named; each --help is its own.
    const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
        {{"setprop", "bad..name", "x"}, 1, "set property 'bad..name' to 'x': not a property name"},
        {{"setprop", "a.b", std::string(92, 'x')}, 1, "the value is 92 bytes, at most 91"},
        {{"frob"}, 2, "unknown command 'frob'"},
        // A usage error is one line and where to look, never the whole help.
        {{"setprop", "only-name"},
         2,
         "tavrendctl: setprop: too few arguments (see 'tavrendctl setprop --help')\n"},
        {{"status", "--bogus"},
         2,
         "tavrendctl: status: unknown option '--bogus' (see 'tavrendctl status --help')\n"},
        {{}, 2, "tavrendctl: no command given (see 'tavrendctl --help')\n"},
        {{"--help"}, 0, "usage:"},
        {{"getprop", "--help"}, 0, "Prints the value of property NAME"},
        {{"call", "-h"}, 0, "2 token com.corvail.android.service.TavrenIPC i64 250"},
        {{"--version"}, 0, "tavrendctl 0."},
    };
    for (const auto& [args, exitCode, output] : cases) {
        got = ctl(root, args);
        EXPECT_EQ(got.exitCode, exitCode) << testing::PrintToString(args);
        EXPECT_NE(got.output.find(output), std::string::npos) << got.output;
        if (exitCode == 2) {
            EXPECT_EQ(got.output.find("usage:"), std::string::npos) << got.output;
        }
    }
    // A root that does not exist is refused, not made.
    const std::string missing = root.path() + "/missing", out = root.path() + "/out.txt";
    Subprocess set(binPath("tavrendctl"), {"setprop", "a.b", "1"}, {{"TAVREND_ROOT", missing}},
                   out);
    const auto status = set.wait(10s);
    EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 2);
    EXPECT_NE(readText(out).find("the device root " + missing + " ($TAVREND_ROOT) is not a"),
              std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST(Tavrendctl, UplAndCallSendBinderTransactions) {
    DeviceRoot root;
    tavrend::platform::resetBinderHost();
    android::sp<android::IBinder> target = new CtlTarget;
    for (const char* name : {"tavrend.ipc.service", "test.target"}) {
        android::defaultServiceManager()->addService(android::String16(name), target);
    }
    android::ProcessState::self()->startThreadPool();
    struct Case {
        std::vector<std::string> args;
        int exitCode;
        std::string output;  // a part of it
    };
    const Case cases[] = {
        {{"upl", "250"}, 0, "status: 0 (OK)\nreply: 0\n"},
        {{"upl", "13"}, 1, "reply: 1\n"},
        {{"upl", "2x"}, 2, "bad latency '2x'"},
        {{"call", "test.target", "1", "i32", "7", "s16", "hi", "i64", "-1"},
         0,
         "status: 0 (OK)\nResult: Parcel(\n"
         "  0x00000000: 00000007 00000002 00690068 00000000 '........h.i.....'\n"
         "  0x00000010: ffffffff ffffffff '........')\n"},
        {{"call", "test.target", "1", "i64", "1", "i64", "2", "i64", "3", "i64", "4"},
         0,
         "  0x00000010: 00000003 00000000 00000004 00000000 '................')\n"},
        {{"call", "test.target", "1", "token", "ab"},
         0,
         "0x00000010: 00620061 00000000 'a.b.....')"},
        {{"call", "test.target", "1", "oneway"}, 0, "status: 0 (OK)\n"},
        {{"call", "test.target", "9"}, 1, "status: -74 (UNKNOWN_TRANSACTION)\nResult: Parcel()\n"},
        {{"call", "no.such", "1"}, 1, "service 'no.such' not found"},
        {{"call", "test.target", "1", "i32", "1e3"}, 2, "bad argument 'i32 1e3'"},
        {{"call", "test.target", "-1"}, 2, "bad transaction code '-1'"},
        {{"call", "test.target", "1", "i32"}, 2, "'i32' needs a value"},
        {{"call", "test.target", "1", "i32", "2147483647", "i32", "-2147483648"},
         0,
         "7fffffff 80000000"},
        {{"call", "test.target", "1", "i32", "2147483648"}, 2, "bad argument 'i32 2147483648'"},
        {{"call", "test.target", "4294967296"}, 2, "bad transaction code '4294967296'"},
        {{"upl", "9223372036854775808"}, 2, "bad latency '9223372036854775808'"},
        // Sent whole, with a warning: the daemon's cut is its own.
        {{"upl", "4294967546"},
         1,
         "does not fit in 32 bits; the daemon keeps its low 32 bits, 250\n"},
    };
    for (const auto& c : cases) {
        auto got = ctl(root, c.args);
        EXPECT_EQ(got.exitCode, c.exitCode) << c.args[1] << " " << c.args.back();
        EXPECT_NE(got.output.find(c.output), std::string::npos) << got.output;
    }
    tavrend::platform::resetBinderHost();
}

// A scenario file with a mistake is refused before anything starts, with an
// error line naming it. Each file of bad_scenarios/ has one mistake, and the
// error it must cause as its description; limits are inclusive.
TEST(Tavrendctl, SimRefusesBadScenarios) {
    DeviceRoot root;
    size_t files = 0;
    for (const auto& e : std::filesystem::directory_iterator(TAVREND_SOURCE_DIR
                                                             "/tests/e2e/testdata/bad_scenarios")) {
        cJSON* json = cJSON_Parse(readText(e.path()).c_str());
        const char* error = cJSON_GetStringValue(cJSON_GetObjectItem(json, "description"));
        const auto got = ctl(root, {"sim", e.path()});
        EXPECT_EQ(got.exitCode, 2) << e.path();
        // An error about the file as a whole names it first.
        const std::string want = error ? error : "?";
        EXPECT_TRUE(got.output.find("bad scenario: " + want) != std::string::npos ||
                    got.output.find("bad scenario: " + e.path().string() + " " + want) !=
                        std::string::npos)
            << got.output;
        cJSON_Delete(json);
        ++files;
    }
    EXPECT_EQ(files, 29u);
    EXPECT_NE(ctl(root, {"sim", TAVREND_SOURCE_DIR "/README.md"}).output.find("bad scenario:"),
              std::string::npos);  // not JSON at all
    root.writeFile("/big.json", "{" + std::string(4 << 20, ' ') + "}");
    EXPECT_NE(ctl(root, {"sim", root.host("/big.json")}).output.find("larger than 4 MiB"),
              std::string::npos);
    EXPECT_EQ(ctl(root, {"sim", "-h"}).exitCode, 0);
    // --scale takes 0.001 to 100000; a good one goes on to read the scenario.
    const std::string noEnd = TAVREND_SOURCE_DIR "/tests/e2e/testdata/bad_scenarios/no_end.json";
    const std::pair<const char*, bool> scales[] = {{"0.001", true},   {"100000", true},
                                                   {"0.0009", false}, {"1e6", false},
                                                   {"inf", false},    {"2x", false}};
    for (const auto& [scale, good] : scales) {
        const auto got = ctl(root, {"sim", noEnd, "--scale", scale});
        EXPECT_NE(got.output.find(good ? "bad scenario:" : "--scale needs a number"),
                  std::string::npos)
            << scale << ": " << got.output;
    }

    // A device root that can't be written (here: over the file size limit) ends the run.
    const std::string out = root.path() + "-fsize.txt";
    Subprocess sh("/bin/sh",
                  {"-c", "trap '' XFSZ; ulimit -f 1; exec \"$0\" sim \"$1\"", binPath("tavrendctl"),
                   TAVREND_SOURCE_DIR "/device/scenarios/sigterm_idle_wait.json"},
                  {}, out);
    const auto status = sh.wait(10s);
    EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 2);
    EXPECT_NE(readText(out).find("cannot build the device root: cannot write "), std::string::npos)
        << readText(out);
    std::remove(out.c_str());
}

// --clean removes the folders of the caller's finished runs only: a folder
// whose daemon still runs stays, and so does another user's.
TEST(Tavrendctl, SimCleanLeavesRunsThatGoOn) {
    DeviceRoot tmp;                                                  // the TMPDIR of this test
    std::filesystem::copy_file("/bin/sleep", tmp.host("/tavrend"));  // a "daemon" that runs on
    Subprocess daemon(tmp.host("/tavrend"), {"30"}, {});
    const std::pair<std::string, std::string> runs[] = {{"old", ""},
                                                        {"ended", "999999999"},
                                                        {"live", std::to_string(daemon.pid())},
                                                        {"theirs", ""}};
    for (const auto& [name, pid] : runs) {
        tmp.writeFile("/tavrend-sim-" + name + "/logs/system.log", "");
        if (!pid.empty()) tmp.writeFile("/tavrend-sim-" + name + "/daemon.pid", pid + "\n");
    }
    const bool otherUser = chown(tmp.host("/tavrend-sim-theirs").c_str(), 65534, 65534) == 0;
    const std::string out = tmp.host("/out.txt");
    Subprocess clean(binPath("tavrendctl"), {"sim", "--clean"}, {{"TMPDIR", tmp.path()}}, out);
    const auto status = clean.wait(10s);
    EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << readText(out);
    EXPECT_FALSE(tmp.exists("/tavrend-sim-old") || tmp.exists("/tavrend-sim-ended"));
    EXPECT_NE(readText(out).find("removed " + tmp.path() + "/tavrend-sim-old\n"), std::string::npos)
        << readText(out);
    EXPECT_TRUE(tmp.exists("/tavrend-sim-live/logs/system.log"));
    EXPECT_TRUE(daemon.running());
    if (!otherUser)
        GTEST_SKIP() << "a folder of another user needs root to make: " << strerror(errno);
    EXPECT_TRUE(tmp.exists("/tavrend-sim-theirs/logs/system.log")) << readText(out);
}

namespace {

// The child of `parent` whose name is `comm`, or -1.
pid_t childNamed(pid_t parent, const std::string& comm) {
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator("/proc", ec)) {
        // "1234 (dravikfs) S 1200 ..."
        const std::string stat = readText(e.path().string() + "/stat");
        const size_t open = stat.find(" ("), close = stat.rfind(") ");
        if (open == std::string::npos || close == std::string::npos || close < open) continue;
        int ppid = 0;
        if (stat.substr(open + 2, close - open - 2) == comm &&
            sscanf(stat.c_str() + close + 2, "%*c %d", &ppid) == 1 && ppid == parent) {
            return std::stoi(stat);
        }
    }
    return -1;
}

}  // namespace

// A driver that dies mid-run ends the run at once: exit 2, saying so, the
// daemon stopped, no mount left. Unstopped, the run would last 40 s.
TEST(Tavrendctl, SimEndsWhenItsDriverStops) {
    if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no FUSE here";
    DeviceRoot tmp;  // the TMPDIR of this test
    const std::string out = tmp.path() + "-sim.txt";
    Subprocess sim(
        binPath("tavrendctl"),
        {"sim", TAVREND_SOURCE_DIR "/tests/e2e/testdata/wrong_expectations.json", "--scale", "1"},
        {{"TMPDIR", tmp.path()}}, out);
    std::string base;  // $TMPDIR/tavrend-sim-XXXXXX
    ASSERT_TRUE(waitUntil(
        [&] {
            const std::string text = readText(out);
            const size_t at = text.find(": device root ");
            if (at != std::string::npos)
                base = text.substr(at + 14, text.find(", logs", at) - at - 19);
            return !base.empty() && !readText(base + "/logs/system.log").empty();
        },
        10s))
        << readText(out);
    const pid_t driver = childNamed(sim.pid(), "dravikfs");
    ASSERT_GT(driver, 0);
    kill(driver, SIGKILL);
    const auto status = sim.wait(10s);
    EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 2) << readText(out);
    EXPECT_NE(readText(out).find("tavrendctl: the driver stopped at "), std::string::npos)
        << readText(out);
    EXPECT_NE(readText(out).find("(driver stopped)"), std::string::npos) << readText(out);
    EXPECT_EQ(readText("/proc/self/mountinfo").find(base), std::string::npos);
    long daemon = 0;
    EXPECT_TRUE(std::ifstream(base + "/daemon.pid") >> daemon);
    EXPECT_NE(kill(static_cast<pid_t>(daemon), 0), 0) << "the daemon runs on";
    // A runner that went on leaves nothing behind either.
    sim.signal(SIGKILL);
    sim.wait(5s);
    DravikMount::forceUnmount(base + "/root/sys/kernel/dravik");
    std::remove(out.c_str());
}

// tavrendctl getprop/setprop against a device root's property store, and its
// binder transactions against a service of this test process.
#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "E2E.h"
#include "platform/binder_host.h"

using namespace std::chrono_literals;
using namespace tavrend::test;

namespace {

struct Result {
    int exitCode;
    std::string output;
};

Result ctl(const DeviceRoot& root, const std::vector<std::string>& args) {
    const std::string out = root.path() + "-ctl-out.txt";  // beside the root, per test
    Subprocess p(binPath("tavrendctl"), args, {{"TAVREND_ROOT", root.path()}}, out);
    auto status = p.wait(10s);
    Result r{status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1, readText(out)};
    std::remove(out.c_str());
    return r;
}

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
    EXPECT_EQ(ctl(root, {"setprop", "sys.user_activity_detected", "false"}).exitCode, 0);
    EXPECT_EQ(root.getProperty("sys.user_activity_detected"), "false");
    auto got = ctl(root, {"getprop", "sys.user_activity_detected"});
    EXPECT_EQ(got.exitCode, 0);
    EXPECT_EQ(got.output, "false\n");
    EXPECT_EQ(ctl(root, {"getprop", "sys.powerctl", "none"}).output, "none\n");
    EXPECT_EQ(ctl(root, {"getprop", "sys.powerctl"}).output, "\n");

    auto refused = ctl(root, {"setprop", "bad..name", "x"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.output.find("failed to set property 'bad..name'"), std::string::npos);
    EXPECT_EQ(ctl(root, {"setprop", "ro.boot", "a"}).exitCode, 0);
    EXPECT_EQ(ctl(root, {"setprop", "ro.boot", "b"}).exitCode, 1);
    EXPECT_EQ(root.getProperty("ro.boot"), "a");

    EXPECT_EQ(ctl(root, {}).exitCode, 2);
    EXPECT_EQ(ctl(root, {"--help"}).exitCode, 0);
    EXPECT_EQ(ctl(root, {"setprop", "only-name"}).exitCode, 2);
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
    };
    for (const auto& c : cases) {
        auto got = ctl(root, c.args);
        EXPECT_EQ(got.exitCode, c.exitCode) << c.args[1] << " " << c.args.back();
        EXPECT_NE(got.output.find(c.output), std::string::npos) << got.output;
    }
    tavrend::platform::resetBinderHost();
}

// A scenario file with a mistake is refused before anything starts, naming it.
TEST(Tavrendctl, SimRefusesBadScenarios) {
    DeviceRoot root;
    const std::pair<const char*, const char*> cases[] = {
        {"[1]", "the scenario must be an object"},
        {R"({"scale": 20})", "end_sec (the simulated second at which the run ends) is missing"},
        {R"({"end_sec": 9, "scale": 0})", "scale must be between 0.001 and 100000"},
        {R"({"end_sec": 9, "device": {"bogus": 1}})", "device has an unknown key 'bogus'"},
        {R"({"end_sec": 9, "device": {"lmk_stats": {"Nope": 1}}})",
         "device.lmk_stats has an unknown name 'Nope'"},
        {R"({"end_sec": 9, "device": {"meminfo": {"MemFree": -1}}})",
         "device.meminfo.MemFree must be between 0 and 1e+15"},
        {R"({"end_sec": 9, "device": {"processes": [{"pid": 1.5}]}})",
         "device.processes[0].pid must be a whole number"},
        {R"({"end_sec": 9, "timeline": [{"at": 5}]})",
         "timeline[0] needs \"at\" and exactly one change"},
        {R"({"end_sec": 9, "expect": {"killed": {"x": "soft"}}})",
         "expect.killed.x must be \"hard\", \"idle\" or \"hard,idle\""}};
    const std::string file = root.path() + "-scenario.json";
    for (const auto& [json, error] : cases) {
        std::ofstream(file) << json;
        const auto got = ctl(root, {"sim", file});
        EXPECT_EQ(got.exitCode, 2) << json;
        EXPECT_NE(got.output.find(std::string("bad scenario: ") + error), std::string::npos)
            << got.output;
    }
    std::remove(file.c_str());
}

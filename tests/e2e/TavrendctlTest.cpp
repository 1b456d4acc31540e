// tavrendctl getprop/setprop against a device root's property store.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <fstream>
#include <sstream>

#include "E2E.h"

using namespace std::chrono_literals;
using namespace tavrend::test;

namespace {

struct Result {
    int exitCode;
    std::string output;
};

Result ctl(const DeviceRoot& root, const std::vector<std::string>& args) {
    std::string out = root.path() + "/../ctl-out.txt";
    Subprocess p(binPath("tavrendctl"), args, {{"TAVREND_ROOT", root.path()}}, out);
    auto status = p.wait(10s);
    std::ifstream in(out);
    std::stringstream ss;
    ss << in.rdbuf();
    return {status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1, ss.str()};
}

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
    EXPECT_EQ(ctl(root, {"setprop", "only-name"}).exitCode, 2);
}

// tavrendctl status as a command: what it prints of the state its reader
// builds (the reader itself is tested on lines, in tests/logread), the
// buffers as two files, and the exit status of a log without a run.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

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

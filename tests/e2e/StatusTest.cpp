// tavrendctl status on a real system log of two runs, cut at the moments that
// change what it shows: the state and the counts must follow each transition.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

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

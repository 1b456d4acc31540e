// Guardrails end to end on a real process: the driver emulator on a root
// without proc/, told so, reads and kills the machine's own processes. A helper over its
// hard limit dies at once; SIGTERM then ends the daemon through the
// termination handler, after "Exiting", with no sanitizer report. The soft
// limit, the idle kill and the metrics are the guardrail scenario's.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "E2E.h"
#include "support/DravikMount.h"

using namespace std::chrono_literals;
using namespace tavrend::test;

TEST(GuardrailE2E, HardKillOfARealProcessThenSigterm) {
    // The daemon watches the whole machine: a name unique to this run keeps it
    // away from any other run's helper.
    const std::string name = "hard" + std::to_string(getpid());
    DeviceRoot root(false);
    root.setDaemonConfig(R"({
      "system_mem": {"memory_read_interval_sec": 1000, "lmk_target_kills": 100},
      "proc_scan": {"proc_scan_interval_sec": 1000},
      "device_upl": {"dupl_monitoring_enabled": true},
      "process_guardrail": {"process_guardrail_monitoring_enabled": true,
                            "guardrail_check_interval_sec": 1, "pss_sleep_interval_sec": 0}})");
    root.writeFile("/system/etc/tavrend/tavrend_memory_guardrail.json",
                   R"({"processes": [{"name": ")" + name +
                       R"(", "soft_memory_limit": 10240, "hard_memory_limit": 40960}]})");
    START_DRAVIK(dravik, root.path(), {.hostProc = true});
    Subprocess hog(binPath("guardrail_hog"), {name, "64"}, {});

    DaemonRun run(root);
    run.start();
    ASSERT_TRUE(run.waitForMessage("Memory usage for " + name + " (" + std::to_string(hog.pid()) +
                                       ") exceeds hard guardrails, killing it immediately",
                                   20s));
    const auto killed = hog.wait(10s);
    EXPECT_TRUE(killed && WIFSIGNALED(*killed) && WTERMSIG(*killed) == SIGKILL);

    // No thread takes SIGTERM (the idle thread, the binder pool's): the loop
    // reads it. The idle thread, started early for the guardrail, still runs
    // when main ends: the runtime's termination handler ends the process.
    const auto threads = threadsBlocking(run.process().pid(), SIGTERM);
    EXPECT_GE(threads.size(), 6u);  // with the idle thread and the binder pool's
    for (const auto& [thread, blocks] : threads) EXPECT_TRUE(blocks) << thread;
    run.process().signal(SIGTERM);
    const auto status = run.process().wait(15s);
    ASSERT_TRUE(status.has_value());
    // A sanitizer's report would end it with the sanitizer's exit code instead.
    EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGABRT)
        << readText(run.logDir() + "/stderr.txt");
    const auto log = run.log();
    const long received = findMessage(log, "Received signal 15");
    ASSERT_GE(received, 0);
    EXPECT_GT(findMessage(log, "Exiting", received + 1), received);
}

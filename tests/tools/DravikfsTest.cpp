// dravikfs end to end: the real program mounted on a device root, driven
// through its files with plain POSIX calls, as a client on a device would.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "DravikTestUtil.h"
#include "support/DeviceRoot.h"
#include "support/DravikMount.h"

namespace tavrend::test {
namespace {

const std::string kDravikfs = std::string(TAVREND_BIN_DIR) + "/dravikfs";

FakeProcess syntheticProcess(int pid, uint64_t pssKb, std::string rollup = {}) {
    FakeProcess p;
    p.pid = pid;
    p.comm = "proc" + std::to_string(pid);
    p.pssKb = pssKb;
    p.smapsRollup = std::move(rollup);
    return p;
}

std::string preadAll(int fd, off_t offset = 0) {
    char buf[64];
    ssize_t n = pread(fd, buf, sizeof buf, offset);
    return n < 0 ? "<error>" : std::string(buf, static_cast<size_t>(n));
}

TEST(Dravikfs, PssOfSyntheticProcesses) {
    DeviceRoot root;
    // Lookalike keys come before the real one, and the figures differ.
    root.addProcess(syntheticProcess(
        4242, 0, "Rss: 900 kB\nPss_Anon: 11 kB\nSwapPss: 22 kB\nPss_File: 33 kB\nPss: 1234 kB\n"));
    root.addProcess(syntheticProcess(4343, 0, "Rss: 900 kB\nPss_Anon: 11 kB\nSwapPss: 22 kB\n"));
    root.addProcess(syntheticProcess(4444, 52311));
    START_DRAVIK(dravik, root.path());
    const std::string pss = dravik.file("total_pss_kb");

    EXPECT_EQ(readText(pss), "") << "nothing selected yet";
    const std::pair<std::string, std::string> cases[] = {
        {"4242", "1234\n"},  {" 4242\n", "1234\n"},
        {"4444", "52311\n"}, {"4343", ""},  // no "Pss:" line at all
        {"9999", ""},                       // no such process
        {"4444", "52311\n"}};
    for (const auto& [request, answer] : cases) {
        ASSERT_EQ(writeText(pss, request), 0) << request;
        EXPECT_EQ(readText(pss), answer) << request;
    }
    root.removeProcess(4444);  // the answer follows the process
    EXPECT_EQ(readText(pss), "");
}

TEST(Dravikfs, OneSlotSharedByAllOpeners) {
    DeviceRoot root;
    root.addProcess(syntheticProcess(100, 111));
    root.addProcess(syntheticProcess(200, 222));
    START_DRAVIK(dravik, root.path());
    const std::string pss = dravik.file("total_pss_kb");
    int a = open(pss.c_str(), O_RDWR);
    int b = open(pss.c_str(), O_RDWR);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    ASSERT_EQ(pwrite(a, "100", 3, 0), 3);
    EXPECT_EQ(preadAll(b), "111\n");
    ASSERT_EQ(pwrite(b, "200", 3, 0), 3);
    EXPECT_EQ(preadAll(a), "222\n");
    // A read continuing past the answer ends; a new read at 0 asks again.
    EXPECT_EQ(preadAll(a, 4), "");
    ASSERT_EQ(pwrite(b, "100", 3, 0), 3);
    EXPECT_EQ(preadAll(a), "111\n");
    close(a);
    close(b);

    struct stat st;  // shaped like a sysfs attribute
    ASSERT_EQ(stat(pss.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode, static_cast<mode_t>(S_IFREG | 0644));
}

TEST(Dravikfs, BadPssWritesAreRefusedAndDropTheSelection) {
    DeviceRoot root;
    root.addProcess(syntheticProcess(4242, 1234));
    START_DRAVIK(dravik, root.path());
    const std::string pss = dravik.file("total_pss_kb");
    for (const std::string& text :
         {std::string("abc"), std::string("0"), std::string("-5"),
          std::string("99999999999999999999"), std::string(70, ' ') + "4242"}) {
        ASSERT_EQ(writeText(pss, "4242"), 0);
        ASSERT_EQ(readText(pss), "1234\n");
        EXPECT_EQ(writeText(pss, text), EINVAL) << "'" << text << "'";
        EXPECT_EQ(readText(pss), "") << "'" << text << "'";
    }
}

TEST(Dravikfs, KillInSyntheticRoot) {
    DeviceRoot root;
    root.addProcess(syntheticProcess(5000, 10));
    root.addProcess(syntheticProcess(5001, 20));
    START_DRAVIK(dravik, root.path());
    const std::string kill = dravik.file("target_pid_kill");

    EXPECT_EQ(readText(kill), "0\n") << "no kill yet";
    ASSERT_EQ(writeText(kill, "5000\n"), 0);
    EXPECT_EQ(readText(kill), "0\n");
    EXPECT_FALSE(root.exists("/proc/5000"));
    EXPECT_TRUE(root.exists("/proc/5001"));
    ASSERT_EQ(writeText(kill, "5000"), 0);
    EXPECT_EQ(readText(kill), std::to_string(ESRCH) + "\n");

    // Refusals fail the write and are also the status a client reads back.
    const std::pair<std::string, int> refused[] = {{"1", EPERM},
                                                   {"0", EPERM},
                                                   {"-7", EPERM},
                                                   {std::to_string(dravik.pid()), EPERM},
                                                   {"x", EINVAL}};
    for (const auto& [text, err] : refused) {
        ASSERT_EQ(writeText(kill, "5000"), 0);  // status 3 beforehand
        EXPECT_EQ(writeText(kill, text), err) << text;
        EXPECT_EQ(readText(kill), std::to_string(err) + "\n") << text;
    }
    EXPECT_TRUE(root.exists("/proc/5001"));
}

TEST(Dravikfs, MachineProcRealChildren) {
    DeviceRoot root(false);
    ChildProcess small(4);
    ChildProcess big(24);
    ASSERT_GT(small.pid(), 0);
    ASSERT_GT(big.pid(), 0);
    START_DRAVIK(dravik, root.path());
    const std::string pss = dravik.file("total_pss_kb");
    const std::string kill = dravik.file("target_pid_kill");

    // A sleeping child's figure barely moves (only as pages it shares with
    // other processes change hands), so the answer lies between two direct
    // reads, give or take a few pages.
    for (pid_t pid : {small.pid(), big.pid()}) {
        std::optional<uint64_t> before = procPssKb(pid);
        ASSERT_EQ(writeText(pss, std::to_string(pid)), 0);
        std::optional<std::string> answer = readText(pss);
        std::optional<uint64_t> after = procPssKb(pid);
        ASSERT_TRUE(before && after && answer && !answer->empty());
        EXPECT_EQ(answer->back(), '\n');
        EXPECT_TRUE(withinDrift(std::stoull(*answer), *before, *after)) << *answer;
    }

    EXPECT_EQ(writeText(kill, "1"), EPERM);
    EXPECT_EQ(writeText(kill, std::to_string(dravik.pid())), EPERM);
    ASSERT_EQ(writeText(kill, std::to_string(big.pid())), 0);
    std::optional<int> status = big.waitExit(5000);
    ASSERT_TRUE(status) << "child was not killed";
    EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGKILL);
    EXPECT_EQ(readText(kill), "0\n");
    EXPECT_EQ(::kill(small.pid(), 0), 0) << "the other child lives on";
    EXPECT_EQ(::kill(dravik.pid(), 0), 0);
}

TEST(Dravikfs, WriteFaultsSpanBothFiles) {
    DeviceRoot root;
    root.addProcess(syntheticProcess(300, 333));
    root.addProcess(syntheticProcess(301, 1));
    DravikOptions opts;
    opts.failWrites = 3;
    START_DRAVIK(dravik, root.path(), opts);
    const std::string pss = dravik.file("total_pss_kb");
    const std::string kill = dravik.file("target_pid_kill");

    EXPECT_EQ(writeText(pss, "300"), EIO);
    EXPECT_EQ(writeText(kill, "301"), EIO);
    EXPECT_EQ(readText(kill), std::to_string(EIO) + "\n");
    EXPECT_TRUE(root.exists("/proc/301"));
    EXPECT_EQ(writeText(pss, "300"), EIO);
    EXPECT_EQ(writeText(pss, "300"), 0) << "the faults are used up";
    EXPECT_EQ(readText(pss), "333\n");
    EXPECT_EQ(writeText(kill, "301"), 0);
    EXPECT_FALSE(root.exists("/proc/301"));
}

TEST(Dravikfs, AnswerOverrides) {
    DeviceRoot root;
    root.addProcess(syntheticProcess(300, 333));
    for (const std::string& text : {std::string(""), std::string("n/a"), std::string("77")}) {
        DravikOptions opts;
        opts.pssAnswer = text;
        START_DRAVIK(dravik, root.path(), opts);
        ASSERT_EQ(writeText(dravik.file("total_pss_kb"), "300"), 0);
        EXPECT_EQ(readText(dravik.file("total_pss_kb")), text) << "verbatim, no newline added";
    }

    root.addProcess(syntheticProcess(400, 1));
    DravikOptions opts;
    opts.killStatus = -3;
    START_DRAVIK(dravik, root.path(), opts);
    const std::string kill = dravik.file("target_pid_kill");
    ASSERT_EQ(writeText(kill, "400"), 0);
    EXPECT_EQ(readText(kill), "-3\n");
    EXPECT_FALSE(root.exists("/proc/400")) << "the kill itself still happens";
}

TEST(Dravikfs, SignalsUnmountCleanly) {
    for (int sig : {SIGTERM, SIGINT}) {
        DeviceRoot root(false);
        START_DRAVIK(dravik, root.path());
        const std::string mp = dravik.mountPoint();
        EXPECT_TRUE(dravik.stop(sig)) << strsignal(sig) << ": " << dravik.serverLog();
        ASSERT_TRUE(dravik.waitStatus());
        EXPECT_TRUE(WIFEXITED(*dravik.waitStatus()) && WEXITSTATUS(*dravik.waitStatus()) == 0);
        EXPECT_FALSE(DravikMount::isMounted(mp));
    }
}

TEST(Dravikfs, DiesWithItsParent) {
    DeviceRoot root(false);
    const std::string mp = root.path() + "/sys/kernel/dravik";
    OrphanReaper reaper;
    // The shell starts the server, waits for the mount and exits: the server
    // must notice that its parent is gone and unmount.
    const std::string script =
        "\"$0\" --root \"$1\" --foreground --die-with-parent & i=0; "
        "until grep -q \" $2 fuse.dravikfs \" /proc/mounts; do "
        "i=$((i+1)); [ $i -gt 500 ] && exit 1; sleep 0.01; done";
    ProgramResult r = runProgram({"/bin/sh", "-c", script, kDravikfs, root.path(), mp});
    ASSERT_EQ(r.waitStatus, 0) << r.output;
    std::optional<int> status = reaper.waitAny(5000);
    DravikMount::forceUnmount(mp);
    ASSERT_TRUE(status) << "server outlived its parent";
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
    EXPECT_FALSE(DravikMount::isMounted(mp));
}

TEST(Dravikfs, DetachedServerEndsWhenUnmounted) {
    DeviceRoot root(false);
    const std::string mp = root.path() + "/sys/kernel/dravik";
    OrphanReaper reaper;
    ProgramResult r = runProgram({kDravikfs, "--root", root.path()});
    ASSERT_EQ(r.waitStatus, 0) << r.output;
    EXPECT_EQ(readText(mp + "/target_pid_kill"), "0\n") << "mounted when the launcher returns";
    ProgramResult u = runProgram({"/usr/bin/fusermount3", "-u", mp});
    EXPECT_EQ(u.waitStatus, 0) << u.output;
    std::optional<int> status = reaper.waitAny(5000);
    DravikMount::forceUnmount(mp);
    ASSERT_TRUE(status) << "detached server still running";
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
}

TEST(Dravikfs, CommandLineErrors) {
    DeviceRoot root(false);
    root.writeFile("/not_a_dir", "x");
    const std::string file = root.path() + "/not_a_dir";
    const struct {
        std::vector<std::string> args;
        int exitCode;
        std::string message;
    } cases[] = {
        {{"--bogus"}, 2, "dravikfs: unknown option '--bogus'"},
        {{"--root"}, 2, "dravikfs: option '--root' needs a value"},
        {{"--fail-writes", "-1"}, 2, "dravikfs: invalid count for --fail-writes: '-1'"},
        {{"--kill-status=3x"}, 2, "dravikfs: invalid status for --kill-status: '3x'"},
        {{"--die-with-parent"}, 2, "dravikfs: --die-with-parent needs --foreground"},
        {{"-r", root.path(), "-m", file, "-f"}, 1, "mount point " + file + " is not a directory"},
        {{"-r", root.path(), "-m", file + "/sub", "-f"}, 1, "dravikfs: cannot create mount point"}};
    for (const auto& c : cases) {
        std::vector<std::string> argv = {kDravikfs};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        ProgramResult r = runProgram(argv);
        EXPECT_TRUE(WIFEXITED(r.waitStatus) && WEXITSTATUS(r.waitStatus) == c.exitCode)
            << c.args[0] << ": " << r.output;
        EXPECT_NE(r.output.find(c.message), std::string::npos) << r.output;
        EXPECT_EQ(r.output.find("Usage: dravikfs") != std::string::npos, c.exitCode == 2);
    }
}

}  // namespace
}  // namespace tavrend::test

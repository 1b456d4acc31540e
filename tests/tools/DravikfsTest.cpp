// dravikfs end to end: the real program mounted on a device root, driven
// through its files with plain POSIX calls, as a client on a device would.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>

#include "support/DeviceRoot.h"
#include "support/DravikMount.h"

namespace tavrend::test {
namespace {

using namespace std::string_literals;
using std::chrono::seconds;

// One open(O_WRONLY), one write(2) of `text`, close. 0 or the errno.
int writeText(const std::string& path, const std::string& text) {
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    ssize_t n = write(fd, text.data(), text.size());
    int err = n < 0 ? errno : (static_cast<size_t>(n) == text.size() ? 0 : EIO);
    close(fd);
    return err;
}

// Every open shares one slot: a write selects the process the next reads answer for.
TEST(Dravikfs, PssOfSyntheticProcesses) {
    DeviceRoot root;
    root.addProcess({.pid = 4242, .pssKb = 1234});
    root.addProcess({.pid = 4343, .smapsRollup = "Rss: 900 kB\nSwapPss: 22 kB\n"});
    root.addProcess({.pid = 4444, .pssKb = 52311});
    START_DRAVIK(dravik, root.path());
    const std::string pss = dravik.file("total_pss_kb");
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dravik.file("")))
        names.insert(entry.path().filename());
    EXPECT_EQ(names, (std::set<std::string>{"target_pid_kill", "total_pss_kb"}));

    EXPECT_EQ(readText(pss), "") << "nothing selected yet";
    // 4343 has no "Pss:" line at all, 9999 no folder.
    const std::pair<std::string, std::string> cases[] = {
        {"4242", "1234\n"}, {"4444\n", "52311\n"}, {"4343", ""}, {"9999", ""}};
    for (const auto& [request, answer] : cases) {
        ASSERT_EQ(writeText(pss, request), 0) << request;
        EXPECT_EQ(readText(pss), answer) << request;
    }
    // A refused write also drops the selection.
    for (const std::string& bad : {"abc"s, "0"s, "-5"s}) {
        ASSERT_EQ(writeText(pss, "4444"), 0);
        EXPECT_EQ(writeText(pss, bad), EINVAL) << "'" << bad << "'";
        EXPECT_EQ(readText(pss), "") << "'" << bad << "'";
    }
    ASSERT_EQ(writeText(pss, "4444"), 0);
    root.removePath("/proc/4444");  // the answer follows the process
    EXPECT_EQ(readText(pss), "");
}

TEST(Dravikfs, KillInSyntheticRoot) {
    DeviceRoot root;
    root.addProcess({.pid = 5000, .pssKb = 10});
    root.addProcess({.pid = 5001, .pssKb = 20});
    root.writeFile("/keep/x", "a file a symlink leads to");
    std::filesystem::create_directory_symlink(root.host("/keep"), root.host("/proc/701"));
    root.writeFile("/proc/702", "a file, not a process folder");
    START_DRAVIK(dravik, root.path());
    const std::string kill = dravik.file("target_pid_kill");

    EXPECT_EQ(readText(kill), "0\n") << "no kill yet";
    EXPECT_EQ(truncate(kill.c_str(), 0), 0) << "ignored, as sysfs does";
    ASSERT_EQ(writeText(kill, "5000\n"), 0);
    EXPECT_EQ(readText(kill), "0\n");
    EXPECT_FALSE(root.exists("/proc/5000"));
    // Only a process folder goes: not a symlink's target, not a plain file.
    for (const char* gone : {"5000", "701", "702"}) {
        ASSERT_EQ(writeText(kill, gone), 0);
        EXPECT_EQ(readText(kill), std::to_string(ESRCH) + "\n") << gone;
    }
    // Refusals fail the write and are also the status a client reads back.
    const std::string self = std::to_string(dravik.pid());
    const std::pair<std::string, int> refused[] = {
        {"1", EPERM}, {"0", EPERM}, {"-7", EPERM}, {self, EPERM}, {"x", EINVAL}};
    for (const auto& [text, err] : refused) {
        ASSERT_EQ(writeText(kill, "5000"), 0);  // status ESRCH beforehand
        EXPECT_EQ(writeText(kill, text), err) << text;
        EXPECT_EQ(readText(kill), std::to_string(err) + "\n") << text;
    }
    EXPECT_TRUE(root.exists("/proc/5001") && root.exists("/proc/702") && root.exists("/keep/x"));
}

// The machine's processes only when asked for; a synthetic proc/ that goes
// away is never replaced by them, and a real process on the pid survives.
TEST(Dravikfs, NeverFallsBackToTheMachinesProcesses) {
    DeviceRoot root;
    Subprocess real("/bin/sleep", {"30"}, {});
    const std::string pid = std::to_string(real.pid());
    START_DRAVIK(dravik, root.path());
    const std::string pss = dravik.file("total_pss_kb"), kill = dravik.file("target_pid_kill");
    root.removePath("/proc");
    ASSERT_EQ(writeText(pss, pid), 0);
    EXPECT_EQ(readText(pss), "");
    EXPECT_EQ(writeText(kill, pid), ENOENT);
    EXPECT_EQ(readText(kill), std::to_string(ENOENT) + "\n");
    EXPECT_TRUE(real.running());
    EXPECT_NE(dravik.serverLog().find("refusing to kill pid " + pid), std::string::npos);

    DeviceRoot bare(false);
    DravikMount refused(bare.path());
    EXPECT_FALSE(refused.ok());
    EXPECT_NE(refused.error().find("serving the machine's own processes needs --host-proc"),
              std::string::npos)
        << refused.error();
}

TEST(Dravikfs, FaultModes) {
    DeviceRoot root;
    root.addProcess({.pid = 300, .pssKb = 333});
    root.addProcess({.pid = 301, .pssKb = 1});
    {
        START_DRAVIK(dravik, root.path(), {.failWrites = 3});
        const std::string pss = dravik.file("total_pss_kb"), kill = dravik.file("target_pid_kill");
        // The count spans both files.
        EXPECT_EQ(writeText(pss, "300"), EIO);
        EXPECT_EQ(writeText(kill, "301"), EIO);
        EXPECT_EQ(readText(kill), std::to_string(EIO) + "\n");
        EXPECT_TRUE(root.exists("/proc/301"));
        EXPECT_EQ(writeText(pss, "300"), EIO);
        EXPECT_EQ(writeText(pss, "300"), 0) << "the faults are used up";
        EXPECT_EQ(readText(pss), "333\n");
    }
    START_DRAVIK(dravik, root.path(), {.pssAnswer = ""});  // verbatim, no newline added
    ASSERT_EQ(writeText(dravik.file("total_pss_kb"), "300"), 0);
    EXPECT_EQ(readText(dravik.file("total_pss_kb")), "");
}

TEST(Dravikfs, SignalsUnmountCleanly) {
    for (int sig : {SIGTERM, SIGINT}) {
        DeviceRoot root;
        START_DRAVIK(dravik, root.path());
        // True only when the server unmounted by itself and exited with status 0.
        EXPECT_TRUE(dravik.stop(sig)) << strsignal(sig) << ": " << dravik.serverLog();
    }
}

// One driver a mount point: a second one, on a live mount or on the stale mount
// of a killed one, is refused and adds no mount; the live one then unmounts on
// SIGTERM as ever, and the command the refusal names clears the stale one.
TEST(Dravikfs, RefusesAMountPointThatHoldsAMount) {
    for (const bool killFirst : {false, true}) {
        SCOPED_TRACE(killFirst ? "stale" : "live");
        DeviceRoot root;
        START_DRAVIK(first, root.path());
        const std::string mp =
            std::filesystem::canonical(root.path()).string() + "/sys/kernel/dravik";
        struct stat st;
        if (killFirst) {
            kill(first.pid(), SIGKILL);
            ASSERT_TRUE(waitUntil([&] { return stat(mp.c_str(), &st) != 0 && errno == ENOTCONN; },
                                  seconds(5)));
        }
        const std::string log = root.path() + "-second.txt";
        Subprocess second(binPath("dravikfs"), {"--root", root.path(), "--foreground"}, {}, log);
        const auto status = second.wait(seconds(10));
        EXPECT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 1) << readText(log);
        const std::string refusal =
            killFirst ? mp +
                            " holds a stale mount (Transport endpoint is not connected); "
                            "clear it with: fusermount3 -u " +
                            mp + "\n"
                      : mp + " is mounted already (fuse.dravikfs): one driver a mount point";
        EXPECT_NE(readText(log).find(refusal), std::string::npos) << readText(log);
        std::remove(log.c_str());
        if (killFirst) {
            EXPECT_EQ(Subprocess("/usr/bin/fusermount3", {"-u", mp}, {}).wait(seconds(5)), 0);
            EXPECT_FALSE(DravikMount::isMounted(mp));
        } else {
            EXPECT_TRUE(first.stop(SIGTERM)) << "a mount is left: " << first.serverLog();
        }
    }
}

// What keeps a crashed test from leaving its mount behind: the shell starts
// the server, waits for the mount and exits; the server must unmount and end.
TEST(Dravikfs, DiesWithItsParent) {
    DeviceRoot root;
    const std::string mp = root.path() + "/sys/kernel/dravik";
    const std::string script =
        "\"$0\" -r \"$1\" -f --die-with-parent & "
        "until grep -q \" $2 \" /proc/mounts; do sleep 0.01; done";
    // The orphaned server is reaped here. Linux has had it since 3.4; qemu-user
    // (7.2) does not emulate it.
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        GTEST_SKIP() << "prctl(PR_SET_CHILD_SUBREAPER) is not emulated here (" << strerror(errno)
                     << "): qemu-user lacks it";
    }
    Subprocess shell("/bin/sh", {"-c", script, binPath("dravikfs"), root.path(), mp}, {});
    EXPECT_EQ(shell.wait(seconds(10)), 0);
    int status = -1;
    EXPECT_TRUE(waitUntil([&] { return waitpid(-1, &status, WNOHANG) > 0; }, seconds(5)));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_FALSE(DravikMount::isMounted(mp));
    DravikMount::forceUnmount(mp);
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

}  // namespace
}  // namespace tavrend::test

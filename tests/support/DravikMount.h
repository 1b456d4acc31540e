// Runs the built dravikfs on a device root for the life of the object, so a
// test can talk to "/sys/kernel/dravik/..." exactly as the daemon does on a
// device.
//
//   DeviceRoot root;
//   DravikMount dravik(root.path());
//   if (dravik.unavailable()) GTEST_SKIP() << dravik.error();
//   ASSERT_TRUE(dravik.ok()) << dravik.error();
//
// The server runs in the foreground as a child of the test. The constructor
// waits (bounded) until the mount is live; the destructor stops the server
// with SIGTERM, waits (bounded), and falls back to "fusermount3 -u -z" and a
// lazy unmount, so no stale mount outlives a failed test. By default the
// server is also started with --die-with-parent, so it unmounts when the test
// process dies; the kernel ties that to the thread that started it, so create
// the object on a thread that outlives it (e.g. the test's own thread).
//
// The object reaps the server with waitpid(pid): code under test that reaps
// with waitpid(-1) could take that away from it.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace tavrend::test {

struct DravikOptions {
    std::string mountPoint;  // empty: <root>/sys/kernel/dravik
    std::optional<unsigned> failWrites;
    std::optional<std::string> pssAnswer;
    std::optional<int> killStatus;
    bool dieWithParent = true;
    std::vector<std::string> extraArgs;
    // The dravikfs program; empty means the one of this build (TAVREND_BIN_DIR).
    std::string binary;
    int startTimeoutMs = 10000;
    int stopTimeoutMs = 5000;
};

class DravikMount {
public:
    explicit DravikMount(const std::string& root, DravikOptions options = {});
    ~DravikMount();
    DravikMount(const DravikMount&) = delete;
    DravikMount& operator=(const DravikMount&) = delete;

    // True only when this machine has no /dev/fuse: the test should skip.
    bool unavailable() const { return unavailable_; }
    // True when the mount came up.
    bool ok() const { return ok_; }
    // Why it is unavailable or not ok, with the server's own output.
    const std::string& error() const { return error_; }

    const std::string& mountPoint() const { return mountPoint_; }
    // Host path of one of the served files, e.g. file("total_pss_kb").
    std::string file(const std::string& name) const { return mountPoint_ + "/" + name; }
    pid_t pid() const { return pid_; }

    // Sends `sig` and waits (bounded) for the server to end, then clears any
    // mount it left. True when it exited with status 0 and its mount was
    // already gone. Later calls, and the destructor, do nothing more.
    bool stop(int sig = SIGTERM);
    // The wait status of the server once stopped (or exited on its own).
    std::optional<int> waitStatus() const { return waitStatus_; }

    // What the server wrote to standard output and standard error so far.
    std::string serverLog() const;

    // Whether /proc/mounts has an entry at `mountPoint` (an absolute path
    // without symlinks).
    static bool isMounted(const std::string& mountPoint);
    // Unmounts `mountPoint` lazily, with fusermount3 and then umount2.
    static void forceUnmount(const std::string& mountPoint);

private:
    void start(const std::string& root, const DravikOptions& options);
    // Reaps the server if it has ended; true when it has.
    bool reap();

    bool unavailable_ = false;
    bool ok_ = false;
    std::string error_;
    std::string mountPoint_;
    std::string logPath_;
    int stopTimeoutMs_ = 5000;
    pid_t pid_ = -1;
    bool stopped_ = false;
    std::optional<int> waitStatus_;
};

}  // namespace tavrend::test

// Runs the built dravikfs on a device root for the life of the object, so a
// test talks to "/sys/kernel/dravik/..." as the daemon does on a device:
//   START_DRAVIK(dravik, root.path());  // or (dravik, root.path(), {.failWrites = 3})
// The server dies with the thread that started it, so create the object on a
// thread that outlives it; the destructor stops it and clears any mount left.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "support/Subprocess.h"

// Starts dravikfs as `var`; skips only where the machine has no FUSE.
#define START_DRAVIK(var, ...)                          \
    ::tavrend::test::DravikMount var(__VA_ARGS__);      \
    if (var.unavailable()) GTEST_SKIP() << var.error(); \
    ASSERT_TRUE(var.ok()) << var.error()

namespace tavrend::test {

// The fault modes of dravikfs; unset means none. `hostProc` lets it serve,
// and kill, the machine's own processes when the root has no proc/.
struct DravikOptions {
    std::optional<unsigned> failWrites = {};
    std::optional<std::string> pssAnswer = {};
    std::optional<int> killStatus = {};
    bool hostProc = false;
};

class DravikMount {
public:
    explicit DravikMount(const std::string& root, const DravikOptions& options = {});
    ~DravikMount() { stop(); }
    DravikMount(const DravikMount&) = delete;
    DravikMount& operator=(const DravikMount&) = delete;

    bool unavailable() const { return unavailable_; }  // no /dev/fuse here
    bool ok() const { return ok_; }
    const std::string& error() const { return error_; }
    // Host path of one of the served files, e.g. file("total_pss_kb").
    std::string file(const std::string& name) const { return mountPoint_ + "/" + name; }
    pid_t pid() const { return server_ ? server_->pid() : -1; }

    // Sends `sig`, waits (bounded) for the server to end, then clears any mount
    // it left. True when it exited with status 0 and had unmounted by itself.
    bool stop(int sig = SIGTERM);
    // What the server wrote to standard output and standard error so far.
    std::string serverLog() const;

    // Whether /proc/mounts has an entry at `mountPoint` (absolute, no symlinks).
    static bool isMounted(const std::string& mountPoint);
    // Detaches every mount at `mountPoint`.
    static void forceUnmount(const std::string& mountPoint);

private:
    bool unavailable_ = false;
    bool ok_ = false;
    std::string error_;
    std::string mountPoint_;
    std::string logPath_;
    std::unique_ptr<Subprocess> server_;
};

}  // namespace tavrend::test

#include "support/DravikMount.h"

#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace tavrend::test {

DravikMount::DravikMount(const std::string& root, const DravikOptions& options) {
    if (access("/dev/fuse", F_OK) != 0) {
        unavailable_ = true;
        error_ = "dravikfs needs /dev/fuse, which this machine lacks";
        return;
    }
    // Made canonical here, as /proc/mounts shows it.
    std::error_code ec;
    std::filesystem::create_directories(root + "/sys/kernel/dravik", ec);
    mountPoint_ = std::filesystem::canonical(root + "/sys/kernel/dravik", ec).string();
    logPath_ = root + "/dravikfs.log";
    std::vector<std::string> args = {"--root",    root,           "--mount",
                                     mountPoint_, "--foreground", "--die-with-parent"};
    if (options.failWrites) args.push_back("--fail-writes=" + std::to_string(*options.failWrites));
    if (options.pssAnswer) args.push_back("--pss-answer=" + *options.pssAnswer);
    if (options.killStatus) args.push_back("--kill-status=" + std::to_string(*options.killStatus));
    if (options.hostProc) args.push_back("--host-proc");
    server_ = std::make_unique<Subprocess>(binPath("dravikfs"), args,
                                           std::map<std::string, std::string>{}, logPath_);

    const std::string probe = file("total_pss_kb");
    auto up = [&] { return isMounted(mountPoint_) && access(probe.c_str(), F_OK) == 0; };
    waitUntil([&] { return !server_->running() || up(); }, std::chrono::seconds(10));
    ok_ = server_->running() && up();
    if (!ok_) {
        error_ = "dravikfs did not mount " + mountPoint_ + ": " + serverLog();
        stop();
    }
}

bool DravikMount::stop(int sig) {
    if (!server_) return false;
    server_->signal(sig);
    std::optional<int> status = server_->wait(std::chrono::seconds(5));
    server_.reset();  // kills it if still running
    const bool mountLeft = isMounted(mountPoint_);
    forceUnmount(mountPoint_);
    return status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0 && !mountLeft;
}

std::string DravikMount::serverLog() const { return readText(logPath_); }

// The temporary paths used here hold no blanks, which /proc/mounts would escape.
bool DravikMount::isMounted(const std::string& mountPoint) {
    std::ifstream mounts("/proc/mounts");
    std::string device, target, rest;
    while (mounts >> device >> target && std::getline(mounts, rest)) {
        if (target == mountPoint) return true;
    }
    return false;
}

void DravikMount::forceUnmount(const std::string& mountPoint) {
    if (!isMounted(mountPoint)) return;
    Subprocess("/usr/bin/fusermount3", {"-u", "-z", mountPoint}, {}).wait(std::chrono::seconds(5));
    // Stacked mounts (e.g. from an earlier crashed run) need one detach each.
    for (int i = 0; i < 16 && isMounted(mountPoint); ++i) {
        if (umount2(mountPoint.c_str(), MNT_DETACH) != 0) break;
    }
}

}  // namespace tavrend::test

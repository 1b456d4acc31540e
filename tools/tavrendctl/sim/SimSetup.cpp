// tavrendctl sim, set-up: the temporary device of a run (its root, dravikfs
// on it, the daemon) and its removal; the clean-up of old runs.
#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "sim/SimRun.h"

extern char** environ;

namespace tavrendctl::sim {
namespace {

namespace fs = std::filesystem;

// A mount whose driver has died answers ENOTCONN: mounted, and stale.
bool mounted(const std::string& mountPoint) {
    struct stat here = {};
    struct stat parent = {};
    if (stat(mountPoint.c_str(), &here) != 0) return errno == ENOTCONN;
    return stat((mountPoint + "/..").c_str(), &parent) == 0 && here.st_dev != parent.st_dev;
}

void forceUnmount(const std::string& mountPoint, const std::string& logPath) {
    if (!mounted(mountPoint)) return;
    const pid_t p = spawn("/usr/bin/fusermount3", {"-u", "-z", mountPoint}, {}, logPath, true);
    if (p > 0 && !waitFor(p, std::chrono::seconds(5))) {
        kill(p, SIGKILL);
        waitFor(p, std::chrono::seconds(1));
    }
    for (int i = 0; i < 16 && mounted(mountPoint); ++i) {
        if (umount2(mountPoint.c_str(), MNT_DETACH) != 0) break;
    }
}

std::string exeDir() {
    std::error_code ec;
    const fs::path self = fs::read_symlink("/proc/self/exe", ec);
    return ec ? std::string(".") : self.parent_path().string();
}

// Waits until dravikfs serves its files at the mount point. False when it
// ended, or did not mount in time.
bool waitForMount(Run& run) {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    const std::string probe = run.mountPoint + "/total_pss_kb";
    while (run.dravik > 0 && Clock::now() < deadline && !gInterrupted) {
        if (mounted(run.mountPoint) && access(probe.c_str(), F_OK) == 0) return true;
        int status = 0;
        if (waitpid(run.dravik, &status, WNOHANG) == run.dravik) {
            run.dravik = -1;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

// Where `sim --clean` finds whose a run folder is.
void writePid(const std::string& path, pid_t pid) { std::ofstream(path) << pid << "\n"; }

// Whether the process named in `pidFile` still runs `program`. A process that
// can't be looked at counts as running.
bool running(const std::string& pidFile, const std::string& program) {
    std::ifstream in(pidFile);
    long pid = 0;
    if (!(in >> pid) || pid <= 0 || pid > INT_MAX) return false;
    if (kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM) return false;
    std::error_code ec;
    const std::string exe =
        fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", ec).filename().string();
    return ec || exe == program || exe == program + " (deleted)";
}

enum class RunFolder { kFinished, kGoing, kNotOurs };

// Whether a tavrend-sim-* folder of $TMPDIR is a run of this user (a folder
// of theirs, not a link) and whether any of its processes still runs.
RunFolder runFolder(const std::string& dir) {
    struct stat st = {};
    if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != getuid()) {
        return RunFolder::kNotOurs;
    }
    for (const auto& [file, program] : {std::pair{"/runner.pid", "tavrendctl"},
                                        {"/daemon.pid", "tavrend"},
                                        {"/dravikfs.pid", "dravikfs"}}) {
        if (running(dir + file, program)) return RunFolder::kGoing;
    }
    return RunFolder::kFinished;
}

// Removes one finished run; its driver is gone, so a mount left is stale.
bool removeRun(const std::string& dir) {
    const std::string mountPoint = dir + "/root/sys/kernel/dravik";
    forceUnmount(mountPoint, "/dev/null");
    std::error_code ec;
    if (mounted(mountPoint)) {
        fprintf(stderr,
                "tavrendctl: cannot remove %s: a stale mount is left; clear it with: "
                "fusermount3 -u %s\n",
                dir.c_str(), mountPoint.c_str());
        return false;
    }
    fs::remove_all(dir, ec);
    if (ec) {
        fprintf(stderr, "tavrendctl: cannot remove %s: %s\n", dir.c_str(), ec.message().c_str());
        return false;
    }
    return true;
}

// Makes the run's folders and writes the device root. An error line, or "".
std::string makeRoot(const Scenario& s, Run& run) {
    std::error_code ec;
    std::string tmpl = (fs::temp_directory_path(ec) / "tavrend-sim-XXXXXX").string();
    if (ec || mkdtemp(tmpl.data()) == nullptr) {
        return std::string("cannot create a temporary directory: ") + strerror(errno);
    }
    run.base = tmpl;
    run.root = tmpl + "/root";
    run.logs = tmpl + "/logs";
    writePid(run.base + "/runner.pid", getpid());
    fs::create_directories(run.logs, ec);
    std::string error;
    if (ec || !writeDeviceRoot(run.root, s, error)) {
        return "cannot build the device root: " + (ec ? ec.message() : error);
    }
    return {};
}

}  // namespace

pid_t spawn(const std::string& path, const std::vector<std::string>& args,
            const std::map<std::string, std::string>& env, const std::string& logPath,
            bool dieWithParent) {
    std::vector<std::string> envText;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        const std::string name = entry.substr(0, entry.find('='));
        if (env.count(name) == 0) envText.push_back(entry);
    }
    for (const auto& [k, v] : env) {
        std::string entry = k;
        entry += '=';
        entry += v;
        envText.push_back(std::move(entry));
    }
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    envp.reserve(envText.size() + 1);
    for (auto& e : envText) envp.push_back(e.data());
    envp.push_back(nullptr);
    const int out = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (out < 0) return -1;
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        setpgid(0, 0);
        if (dieWithParent) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(127);
        }
        struct sigaction dfl = {};
        dfl.sa_handler = SIG_DFL;
        sigaction(SIGPIPE, &dfl, nullptr);
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        const int null = open("/dev/null", O_RDONLY);
        if (null >= 0) dup2(null, STDIN_FILENO);
        execve(path.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    close(out);
    return pid;
}

// Waits for `pid` up to `limit`; its wait status, if it ended.
std::optional<int> waitFor(pid_t pid, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (true) {
        int status = 0;
        const pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return status;
        if (r < 0) return std::nullopt;
        if (Clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::optional<int> Run::killDaemon() {
    kill(daemon, SIGKILL);
    const auto status = waitFor(daemon, std::chrono::seconds(5));
    daemon = -1;
    return status;
}

void Run::cleanup() {
    if (daemon > 0) killDaemon();
    if (dravik > 0) {
        kill(dravik, SIGTERM);
        if (!waitFor(dravik, std::chrono::seconds(5))) {
            kill(dravik, SIGKILL);
            waitFor(dravik, std::chrono::seconds(2));
        }
        dravik = -1;
    }
    if (!mountPoint.empty()) forceUnmount(mountPoint, logs + "/dravikfs.out");
    if (root.empty()) return;
    if (!mountPoint.empty() && mounted(mountPoint)) {
        fprintf(stderr, "tavrendctl: %s is still mounted; leaving %s in place\n",
                mountPoint.c_str(), root.c_str());
        return;
    }
    std::error_code ec;
    fs::remove_all(root, ec);
    if (ec) {
        fprintf(stderr, "tavrendctl: cannot remove %s: %s\n", root.c_str(), ec.message().c_str());
    }
}

std::optional<int> setUp(const std::string& path, const Scenario& s, double scale, Run& run) {
    const std::string dir = exeDir();
    const std::string tavrend = dir + "/tavrend";
    const std::string dravikfs = dir + "/dravikfs";
    for (const auto& bin : {tavrend, dravikfs}) {
        if (access(bin.c_str(), X_OK) != 0) {
            fprintf(stderr, "tavrendctl: %s is missing (build it beside tavrendctl)\n",
                    bin.c_str());
            return 2;
        }
    }
    if (access("/dev/fuse", R_OK | W_OK) != 0) {
        fprintf(stderr, "tavrendctl: /dev/fuse is not usable here (%s): no FUSE, no driver\n",
                strerror(errno));
        return 2;
    }
    if (const std::string error = makeRoot(s, run); !error.empty()) {
        fprintf(stderr, "tavrendctl: %s\n", error.c_str());
        run.cleanup();
        std::error_code ec;
        if (!run.base.empty()) fs::remove_all(run.base, ec);  // nothing ran: no logs to keep
        return 2;
    }
    // The binder client finds the daemon's service through this root.
    setenv("TAVREND_ROOT", run.root.c_str(), 1);

    run.mountPoint = run.root + "/sys/kernel/dravik";
    run.dravik = spawn(dravikfs, {"--root", run.root, "--foreground", "--die-with-parent"}, {},
                       run.logs + "/dravikfs.out", false);
    writePid(run.base + "/dravikfs.pid", run.dravik);
    if (!waitForMount(run)) {
        fprintf(stderr, "tavrendctl: dravikfs did not mount %s (see %s/dravikfs.out)\n",
                run.mountPoint.c_str(), run.logs.c_str());
        run.cleanup();
        return 2;
    }

    char scaleText[32];
    snprintf(scaleText, sizeof(scaleText), "%g", scale);
    fprintf(stderr, "[sim] %s: device root %s, logs %s, scale %s\n", path.c_str(), run.root.c_str(),
            run.logs.c_str(), scaleText);
    run.start = Clock::now();
    run.daemon = spawn(tavrend, {},
                       {{"TAVREND_ROOT", run.root},
                        {"TAVREND_LOG_DIR", run.logs},
                        {"TAVREND_TIME_SCALE", scaleText},
                        {"TAVREND_BOOT_UPTIME_SEC", std::to_string(s.bootUptimeSec)}},
                       run.logs + "/daemon.out", true);
    if (run.daemon < 0) {
        fprintf(stderr, "tavrendctl: cannot start %s\n", tavrend.c_str());
        run.cleanup();
        return 2;
    }
    writePid(run.base + "/daemon.pid", run.daemon);
    return std::nullopt;
}

int cleanOldRuns() {
    std::error_code ec;
    const fs::path tmp = fs::temp_directory_path(ec);
    int removed = 0;
    int kept = 0;
    bool failed = false;
    for (fs::directory_iterator it(tmp, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string dir = it->path().string();
        if (!startsWith(it->path().filename().string(), "tavrend-sim-")) continue;
        const RunFolder folder = runFolder(dir);
        if (folder == RunFolder::kGoing) {
            printf("kept %s: its run is still going\n", dir.c_str());
            ++kept;
        } else if (folder == RunFolder::kFinished) {
            const bool gone = removeRun(dir);
            if (gone) printf("removed %s\n", dir.c_str());
            removed += gone ? 1 : 0;
            failed = failed || !gone;
        }
    }
    if (ec) {
        fprintf(stderr, "tavrendctl: cannot list %s: %s\n", tmp.c_str(), ec.message().c_str());
        return 2;
    }
    printf("%d finished run%s of yours removed, %d still going kept\n", removed,
           removed == 1 ? "" : "s", kept);
    return failed ? 1 : 0;
}

}  // namespace tavrendctl::sim

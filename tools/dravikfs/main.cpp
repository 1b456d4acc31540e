// dravikfs: serves the kernel statistics driver's files as a FUSE filesystem,
// normally at <root>/sys/kernel/dravik, for hosts whose kernel has no such
// driver. See DravikDriver.h for what the files answer.
#define FUSE_USE_VERSION 31

#include <errno.h>
#include <fuse.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "DravikDriver.h"
#include "DravikOptions.h"
#include "MountPoint.h"

namespace {

constexpr const char* kPssFile = "total_pss_kb";
constexpr const char* kKillFile = "target_pid_kill";

enum class Node { kNone, kRoot, kPss, kKill };

Node nodeOf(const char* path) {
    std::string_view p(path);
    if (p == "/") return Node::kRoot;
    if (p.size() > 1 && p.front() == '/') {
        p.remove_prefix(1);
        if (p == kPssFile) return Node::kPss;
        if (p == kKillFile) return Node::kKill;
    }
    return Node::kNone;
}

// Per open file: the answer rendered by the read at offset 0, so that a
// reader continuing at a later offset sees the rest of the same text (as
// sysfs does), while the request slot itself stays shared by every opener.
struct Handle {
    Node node;
    std::string answer;
    bool rendered = false;
};

dravikfs::Driver& driver() {
    return *static_cast<dravikfs::Driver*>(fuse_get_context()->private_data);
}

time_t gMountTime = 0;

void* opInit(struct fuse_conn_info* /*conn*/, struct fuse_config* cfg) {
    // Every read and write must reach the driver: no page cache.
    cfg->direct_io = 1;
    cfg->kernel_cache = 0;
    cfg->auto_cache = 0;
    return fuse_get_context()->private_data;
}

int opGetattr(const char* path, struct stat* st, struct fuse_file_info* /*fi*/) {
    *st = {};
    st->st_uid = getuid();
    st->st_gid = getgid();
    st->st_atime = st->st_mtime = st->st_ctime = gMountTime;
    switch (nodeOf(path)) {
        case Node::kRoot:
            st->st_mode = S_IFDIR | 0755;
            st->st_nlink = 2;
            return 0;
        case Node::kPss:
        case Node::kKill:
            // As a sysfs attribute: a page-sized regular file.
            st->st_mode = S_IFREG | 0644;
            st->st_nlink = 1;
            st->st_size = 4096;
            st->st_blksize = 4096;
            return 0;
        case Node::kNone: break;
    }
    return -ENOENT;
}

int opReaddir(const char* path, void* buf, fuse_fill_dir_t filler, off_t /*offset*/,
              struct fuse_file_info* /*fi*/, enum fuse_readdir_flags /*flags*/) {
    if (nodeOf(path) != Node::kRoot) return -ENOTDIR;
    for (const char* name : {".", "..", kPssFile, kKillFile}) {
        filler(buf, name, nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    }
    return 0;
}

int opOpen(const char* path, struct fuse_file_info* fi) {
    Node node = nodeOf(path);
    if (node == Node::kRoot) return -EISDIR;
    if (node == Node::kNone) return -ENOENT;
    fi->direct_io = 1;
    fi->keep_cache = 0;
    fi->fh = reinterpret_cast<uint64_t>(new Handle{node, {}, false});
    return 0;
}

int opRelease(const char* /*path*/, struct fuse_file_info* fi) {
    delete reinterpret_cast<Handle*>(fi->fh);
    fi->fh = 0;
    return 0;
}

int opRead(const char* /*path*/, char* buf, size_t size, off_t offset, struct fuse_file_info* fi) {
    auto* h = reinterpret_cast<Handle*>(fi->fh);
    if (h == nullptr) return -EBADF;
    if (offset < 0) return -EINVAL;
    if (offset == 0 || !h->rendered) {
        h->answer = h->node == Node::kPss ? driver().readPss() : driver().readKill();
        h->rendered = true;
    }
    if (static_cast<uint64_t>(offset) >= h->answer.size()) return 0;
    size_t n = std::min(size, h->answer.size() - static_cast<size_t>(offset));
    // A byte range of the answer, not a C string.
    // NOLINTNEXTLINE(bugprone-not-null-terminated-result)
    memcpy(buf, h->answer.data() + offset, n);
    return static_cast<int>(n);
}

int opWrite(const char* /*path*/, const char* buf, size_t size, off_t /*offset*/,
            struct fuse_file_info* fi) {
    auto* h = reinterpret_cast<Handle*>(fi->fh);
    if (h == nullptr) return -EBADF;
    // As a sysfs store: each write is one whole request, whatever the offset.
    std::string_view text(buf, size);
    int rc = h->node == Node::kPss ? driver().writePss(text) : driver().writeKill(text);
    h->rendered = false;
    if (rc < 0) return rc;
    return static_cast<int>(size);
}

int opTruncate(const char* path, off_t /*size*/, struct fuse_file_info* /*fi*/) {
    // "echo 1234 > total_pss_kb" truncates first; sysfs ignores that too.
    Node node = nodeOf(path);
    if (node == Node::kPss || node == Node::kKill) return 0;
    return node == Node::kRoot ? -EISDIR : -ENOENT;
}

struct fuse_operations makeOperations() {
    struct fuse_operations ops = {};
    ops.init = opInit;
    ops.getattr = opGetattr;
    ops.readdir = opReaddir;
    ops.open = opOpen;
    ops.release = opRelease;
    ops.read = opRead;
    ops.write = opWrite;
    ops.truncate = opTruncate;
    return ops;
}

void fail(const std::string& message) { fprintf(stderr, "dravikfs: %s\n", message.c_str()); }

// The FUSE session from set-up to unmount. Whatever was set up is torn down,
// in reverse order, when it goes out of scope, however main() ends.
class Session {
public:
    Session() = default;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() {
        if (mounted_) fuse_unmount(fuse_);
        if (handlers_) fuse_remove_signal_handlers(fuse_get_session(fuse_));
        if (fuse_ != nullptr) fuse_destroy(fuse_);
        fuse_opt_free_args(&args_);
    }

    // Sets up and mounts. An error line, or "".
    std::string mount(const dravikfs::Options& options, dravikfs::Driver& driver,
                      pid_t parentAtStart) {
        std::string mountOptions = "fsname=dravikfs,subtype=dravikfs,default_permissions";
        if (options.allowOther) mountOptions += ",allow_other";
        if (fuse_opt_add_arg(&args_, "dravikfs") != 0 || fuse_opt_add_arg(&args_, "-o") != 0 ||
            fuse_opt_add_arg(&args_, mountOptions.c_str()) != 0) {
            return "out of memory";
        }
        struct fuse_operations ops = makeOperations();
        fuse_ = fuse_new(&args_, &ops, sizeof ops, &driver);
        if (fuse_ == nullptr) return "cannot set up the FUSE session";
        // Installed before mounting, so a SIGTERM from here on always unmounts.
        handlers_ = fuse_set_signal_handlers(fuse_get_session(fuse_)) == 0;
        if (!handlers_) return "cannot install signal handlers";
        // A test harness that dies must not leave the mount behind.
        if (options.dieWithParent &&
            (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != parentAtStart)) {
            return "parent process already gone";
        }
        mounted_ = fuse_mount(fuse_, options.mountPoint.c_str()) == 0;
        if (!mounted_) return "cannot mount on " + options.mountPoint;
        return {};
    }

    // Serves until SIGTERM or SIGINT; fuse_loop's result.
    int serve() { return fuse_loop(fuse_); }

private:
    struct fuse_args args_ = FUSE_ARGS_INIT(0, nullptr);
    struct fuse* fuse_ = nullptr;
    bool handlers_ = false;
    bool mounted_ = false;
};

// The options, or an exit status when there is nothing to serve.
std::optional<int> readOptions(int argc, char** argv, dravikfs::Options& options) {
    std::string error = dravikfs::parseOptions(std::vector<std::string>(argv + 1, argv + argc),
                                               getenv("TAVREND_ROOT"), options);
    if (!error.empty()) {
        fail(error);
        fputs(dravikfs::usageText().c_str(), stderr);
        return 2;
    }
    if (options.help) {
        fputs(dravikfs::usageText().c_str(), stdout);
        return 0;
    }
    if (options.version) {
        printf("dravikfs %s\n", TAVREND_VERSION);
        return 0;
    }
    return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
    const pid_t parentAtStart = getppid();
    dravikfs::Options options;
    if (std::optional<int> status = readOptions(argc, argv, options)) return *status;

    struct stat rootSt;
    if (stat(options.root.c_str(), &rootSt) != 0 || !S_ISDIR(rootSt.st_mode)) {
        fail("device root " + options.root + " is not a directory");
        return 1;
    }
    dravikfs::ProcSource source;
    std::string error = dravikfs::chooseProcSource(options.root, options.hostProc, source);
    dravikfs::MountPointClaim claim;  // held until the end, past the unmount
    if (error.empty()) error = claim.claim(options.mountPoint);
    if (!error.empty()) {
        fail(error);
        return 1;
    }

    gMountTime = time(nullptr);
    dravikfs::Driver driver(source, options.faults, getpid());
    int rc = 0;
    {
        Session session;
        error = session.mount(options, driver, parentAtStart);
        if (!error.empty()) {
            fail(error);
            return 1;
        }
        fprintf(stderr, "dravikfs: serving %s (processes from %s%s)\n", options.mountPoint.c_str(),
                driver.procDir().c_str(), driver.procIsMachine() ? ", the machine's own" : "");
        fflush(stderr);
        if (fuse_daemonize(options.foreground ? 1 : 0) != 0) {
            fail("cannot detach");
            return 1;
        }
        rc = session.serve();
    }  // unmounted here
    if (rc < 0) {
        fail(std::string("serving stopped: ") + strerror(-rc));
        return 1;
    }
    fprintf(stderr, "dravikfs: unmounted %s\n", options.mountPoint.c_str());
    return 0;
}

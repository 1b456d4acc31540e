#include "DravikOptions.h"

#include <climits>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string_view>

namespace dravikfs {
namespace {

// A decimal integer in [lo, hi] with nothing around it.
std::optional<int64_t> parseInteger(std::string_view text, int64_t lo, int64_t hi) {
    bool negative = false;
    if (!text.empty() && text.front() == '-') {
        negative = true;
        text.remove_prefix(1);
    }
    if (text.empty() || text.size() > 18) return std::nullopt;
    int64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + (c - '0');
    }
    if (negative) value = -value;
    if (value < lo || value > hi) return std::nullopt;
    return value;
}

std::string absolutePath(const std::string& path) {
    std::error_code ec;
    std::filesystem::path abs = std::filesystem::absolute(path, ec);
    if (ec) return path;
    return abs.lexically_normal().string();
}

}  // namespace

std::string usageText() {
    return "Usage: dravikfs [OPTION]... [MOUNTPOINT]\n"
           "Serves total_pss_kb and target_pid_kill of the kernel statistics driver\n"
           "as a FUSE filesystem at MOUNTPOINT (default: <root>/sys/kernel/dravik,\n"
           "created when missing).\n"
           "\n"
           "Processes come from the root's proc/ folder, decided when it mounts; without\n"
           "one it refuses to start unless given --host-proc. If that proc/ goes away\n"
           "while mounted, PSS reads answer nothing and kills are refused.\n"
           "\n"
           "  -r, --root DIR        device root (default: $TAVREND_ROOT, else /)\n"
           "  -m, --mount DIR       the mount point, as MOUNTPOINT\n"
           "  -f, --foreground      stay in the foreground (default: detach once mounted)\n"
           "      --die-with-parent unmount and exit when the parent process dies\n"
           "                        (foreground only)\n"
           "      --allow-other     let users other than the mounting one use the files\n"
           "      --host-proc       serve the machine's own processes (a procfs proc/ of\n"
           "                        the root, else /proc) when the root has no proc/\n"
           "                        folder of its own: kills then reach real processes\n"
           "      --fail-writes N   the next N writes, to either file, fail with EIO\n"
           "      --pss-answer TEXT every read of total_pss_kb answers TEXT verbatim\n"
           "                        (may be empty or not a number)\n"
           "      --kill-status N   every read of target_pid_kill answers N\n"
           "                        (kills still happen)\n"
           "  -h, --help            show this text\n"
           "      --version         show the version\n"
           "\n"
           "One driver a mount point: a MOUNTPOINT that holds a mount already, even a\n"
           "stale one, is refused. SIGTERM or SIGINT unmounts and exits.\n"
           "\n"
           "Exit status: 0 after a clean unmount (or --help), 1 when mounting or serving\n"
           "fails, 2 for bad arguments. Errors go to standard error.\n";
}

namespace {

// One argument being read: its name, and a value given as "--opt=value".
struct Arg {
    const std::vector<std::string>& args;
    size_t& i;
    std::string name;
    std::optional<std::string> inlineValue;

    // Takes the option's value, from "--opt=value" or the next argument.
    std::string value(std::string& dest) const {
        if (inlineValue) {
            dest = *inlineValue;
            return {};
        }
        if (i + 1 >= args.size()) return "option '" + name + "' needs a value";
        dest = args[++i];
        return {};
    }
    std::string flag(bool& dest) const {
        if (inlineValue) return "option '" + name + "' takes no value";
        dest = true;
        return {};
    }
    std::string directory(std::optional<std::string>& dest) const {
        std::string text;
        std::string error = value(text);
        if (error.empty() && text.empty()) error = "option '" + name + "' needs a directory";
        dest = text;
        return error;
    }
    // A decimal integer in [lo, hi]; `what` names it in the error.
    template <typename T>
    std::string integer(T& dest, int64_t lo, int64_t hi, const char* what) const {
        std::string text;
        std::string error = value(text);
        if (!error.empty()) return error;
        std::optional<int64_t> n = parseInteger(text, lo, hi);
        if (!n) return std::string("invalid ") + what + " for " + name + ": '" + text + "'";
        dest = static_cast<T>(*n);
        return {};
    }
};

// Reads the option `a` into `out`, `root` and `mountPoint`. An error line or "".
std::string readOption(const Arg& a, Options& out, std::optional<std::string>& root,
                       std::optional<std::string>& mountPoint) {
    const std::string& name = a.name;
    if (name == "-r" || name == "--root") return a.directory(root);
    if (name == "-m" || name == "--mount") return a.directory(mountPoint);
    if (name == "-f" || name == "--foreground") return a.flag(out.foreground);
    if (name == "--die-with-parent") return a.flag(out.dieWithParent);
    if (name == "--allow-other") return a.flag(out.allowOther);
    if (name == "--host-proc") return a.flag(out.hostProc);
    if (name == "-h" || name == "--help") return a.flag(out.help);
    if (name == "--version") return a.flag(out.version);
    if (name == "--fail-writes") return a.integer(out.faults.failWrites, 0, UINT_MAX, "count");
    if (name == "--kill-status") {
        int status = 0;
        std::string error = a.integer(status, INT_MIN, INT_MAX, "status");
        if (error.empty()) out.faults.killStatus = status;
        return error;
    }
    if (name == "--pss-answer") {
        std::string text;  // empty is a valid answer
        std::string error = a.value(text);
        out.faults.pssAnswer = text;
        return error;
    }
    if (!name.empty() && name.front() == '-') return "unknown option '" + name + "'";
    if (mountPoint) return "unexpected argument '" + name + "'";
    mountPoint = name;  // the mount point comes last, as for every FUSE filesystem
    return name.empty() ? "the mount point needs a directory" : "";
}

}  // namespace

std::string parseOptions(const std::vector<std::string>& args, const char* envRoot, Options& out) {
    out = Options{};
    std::optional<std::string> root;
    std::optional<std::string> mountPoint;
    for (size_t i = 0; i < args.size(); ++i) {
        Arg a{args, i, args[i], std::nullopt};
        if (a.name.size() > 2 && a.name.compare(0, 2, "--") == 0) {
            size_t eq = a.name.find('=');
            if (eq != std::string::npos) {
                a.inlineValue = a.name.substr(eq + 1);
                a.name.resize(eq);
            }
        }
        std::string error = readOption(a, out, root, mountPoint);
        if (!error.empty()) return error;
    }
    if (out.dieWithParent && !out.foreground) {
        return "--die-with-parent needs --foreground";
    }
    if (!root) root = (envRoot != nullptr && envRoot[0] != '\0') ? envRoot : "/";
    // Absolute now: a detached server changes its directory to "/".
    out.root = absolutePath(*root);
    out.mountPoint =
        mountPoint ? absolutePath(*mountPoint) : absolutePath(out.root + "/sys/kernel/dravik");
    return {};
}

}  // namespace dravikfs

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
           "  -r, --root DIR        device root (default: $TAVREND_ROOT, else /)\n"
           "  -m, --mount DIR       the mount point, as MOUNTPOINT\n"
           "  -f, --foreground      stay in the foreground (default: detach once mounted)\n"
           "      --die-with-parent unmount and exit when the parent process dies\n"
           "                        (foreground only)\n"
           "      --allow-other     let users other than the mounting one use the files\n"
           "      --fail-writes N   the next N writes, to either file, fail with EIO\n"
           "      --pss-answer TEXT every read of total_pss_kb answers TEXT verbatim\n"
           "                        (may be empty or not a number)\n"
           "      --kill-status N   every read of target_pid_kill answers N\n"
           "                        (kills still happen)\n"
           "  -h, --help            show this text\n"
           "\n"
           "SIGTERM or SIGINT unmounts and exits.\n"
           "\n"
           "Exit status: 0 after a clean unmount (or --help), 1 when mounting or serving\n"
           "fails, 2 for bad arguments. Errors go to standard error.\n";
}

std::string parseOptions(const std::vector<std::string>& args, const char* envRoot, Options& out) {
    out = Options{};
    std::optional<std::string> root;
    std::optional<std::string> mountPoint;

    for (size_t i = 0; i < args.size(); ++i) {
        std::string name = args[i];
        std::optional<std::string> inlineValue;
        if (name.size() > 2 && name.compare(0, 2, "--") == 0) {
            size_t eq = name.find('=');
            if (eq != std::string::npos) {
                inlineValue = name.substr(eq + 1);
                name.resize(eq);
            }
        }
        // Takes the option's value, from "--opt=value" or the next argument.
        auto value = [&](std::string& dest) -> std::string {
            if (inlineValue) {
                dest = *inlineValue;
                return {};
            }
            if (i + 1 >= args.size()) return "option '" + name + "' needs a value";
            dest = args[++i];
            return {};
        };
        auto flag = [&](bool& dest) -> std::string {
            if (inlineValue) return "option '" + name + "' takes no value";
            dest = true;
            return {};
        };

        std::string error;
        std::string text;
        if (name == "-r" || name == "--root") {
            error = value(text);
            if (error.empty() && text.empty()) error = "option '" + name + "' needs a directory";
            root = text;
        } else if (name == "-m" || name == "--mount") {
            error = value(text);
            if (error.empty() && text.empty()) error = "option '" + name + "' needs a directory";
            mountPoint = text;
        } else if (name == "-f" || name == "--foreground") {
            error = flag(out.foreground);
        } else if (name == "--die-with-parent") {
            error = flag(out.dieWithParent);
        } else if (name == "--allow-other") {
            error = flag(out.allowOther);
        } else if (name == "-h" || name == "--help") {
            error = flag(out.help);
        } else if (name == "--fail-writes") {
            error = value(text);
            if (error.empty()) {
                std::optional<int64_t> n = parseInteger(text, 0, UINT_MAX);
                if (!n) {
                    error = "invalid count for --fail-writes: '" + text + "'";
                } else {
                    out.faults.failWrites = static_cast<unsigned>(*n);
                }
            }
        } else if (name == "--pss-answer") {
            error = value(text);
            out.faults.pssAnswer = text;  // empty is a valid answer
        } else if (name == "--kill-status") {
            error = value(text);
            if (error.empty()) {
                std::optional<int64_t> n = parseInteger(text, INT_MIN, INT_MAX);
                if (!n) {
                    error = "invalid status for --kill-status: '" + text + "'";
                } else {
                    out.faults.killStatus = static_cast<int>(*n);
                }
            }
        } else if (!name.empty() && name.front() == '-') {
            error = "unknown option '" + name + "'";
        } else if (!mountPoint) {
            mountPoint = name;  // the mount point comes last, as for every FUSE filesystem
            if (name.empty()) error = "the mount point needs a directory";
        } else {
            error = "unexpected argument '" + name + "'";
        }
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

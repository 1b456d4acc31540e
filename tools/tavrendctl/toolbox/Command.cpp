#include "toolbox/Command.h"

#include <sys/stat.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "toolbox/Text.h"

namespace tavrendctl {

namespace {

bool isHelp(const std::string& arg) { return arg == "--help" || arg == "-h"; }

// "-" (standard input) and negative numbers are operands, not options.
bool looksLikeOption(const std::string& arg) {
    return arg.size() > 1 && arg[0] == '-' && isdigit(static_cast<unsigned char>(arg[1])) == 0;
}

const Option* findOption(const Command& command, const std::string& name) {
    for (const Option& o : command.options) {
        if (name == o.name) return &o;
    }
    return nullptr;
}

void printUsage(const Command& c, FILE* out) {
    fprintf(out, "usage: tavrendctl %s %s\n", c.name, c.synopsis);
}

// One option at argv[i], with its value when it takes one ("--scale N" or
// "--scale=N"). Returns false after a usage error.
bool takeOption(const Command& c, int argc, char** argv, int& i, Args& args) {
    std::string name = argv[i];
    std::string value;
    const size_t eq = name.find('=');
    const bool inlineValue = eq != std::string::npos;
    if (inlineValue) {
        value = name.substr(eq + 1);
        name.resize(eq);
    }
    const Option* o = findOption(c, name);
    if (o == nullptr) {
        usageError(c, "unknown option '%s'", name.c_str());
        return false;
    }
    if (o->value == nullptr) {
        if (inlineValue) {
            usageError(c, "%s takes no value", o->name);
            return false;
        }
    } else if (!inlineValue) {
        if (i + 1 >= argc) {
            usageError(c, "%s needs a value (%s)", o->name, o->value);
            return false;
        }
        value = argv[++i];
    }
    if (o->value != nullptr && value.empty()) {
        usageError(c, "%s needs a value (%s)", o->name, o->value);
        return false;
    }
    args.options[o->name] = value;
    return true;
}

// $TAVREND_ROOT, when set, must exist: a mistyped root would be made.
bool rootExists() {
    const char* root = getenv("TAVREND_ROOT");
    if (root == nullptr || *root == '\0') return true;
    struct stat st;
    if (stat(root, &st) == 0 && S_ISDIR(st.st_mode)) return true;
    fprintf(stderr, "tavrendctl: the device root %s ($TAVREND_ROOT) is not a directory\n", root);
    return false;
}

int mainHelp() {
    printf("usage: tavrendctl COMMAND [ARGS...]\n");
    for (const Command* c : commands()) printf("       tavrendctl %s %s\n", c->name, c->synopsis);
    printf(
        "       tavrendctl --help | --version\n"
        "\n"
        "'tavrendctl COMMAND --help' says what COMMAND does and its exit status.\n"
        "Every command exits 2 for bad arguments; errors go to standard error.\n"
        "The device root is $TAVREND_ROOT (default /).\n");
    return 0;
}

int mainUsageError(const std::string& what) {
    fprintf(stderr, "tavrendctl: %s (see 'tavrendctl --help')\n", what.c_str());
    return 2;
}

}  // namespace

const std::string& Args::value(const char* option, const std::string& fallback) const {
    const auto it = options.find(option);
    return it == options.end() ? fallback : it->second;
}

int usageError(const Command& command, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const std::string what = vformat(fmt, ap);
    va_end(ap);
    fprintf(stderr, "tavrendctl: %s: %s (see 'tavrendctl %s --help')\n", command.name, what.c_str(),
            command.name);
    return 2;
}

int parseArgs(const Command& c, int argc, char** argv, Args& args) {
    args.command = &c;
    bool optionsEnd = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (!optionsEnd && isHelp(arg)) {
            printUsage(c, stdout);
            printf("\n%s", c.help);
            return 0;
        }
        if (!optionsEnd && arg == "--") {
            optionsEnd = true;
        } else if (!optionsEnd && looksLikeOption(arg)) {
            if (!takeOption(c, argc, argv, i, args)) return 2;
        } else {
            args.operands.push_back(arg);
        }
    }
    if (args.operands.size() < c.minOperands) {
        return usageError(c, "%s",
                          args.operands.empty() ? "missing arguments" : "too few arguments");
    }
    if (c.maxOperands != kAnyOperands && args.operands.size() > c.maxOperands) {
        return usageError(c, "unexpected argument '%s'", args.operands[c.maxOperands].c_str());
    }
    return -1;
}

int dispatch(int argc, char** argv) {
    if (argc < 2) return mainUsageError("no command given");
    const std::string cmd = argv[1];
    if (argc == 2 && isHelp(cmd)) return mainHelp();
    if (argc == 2 && cmd == "--version") {
        printf("tavrendctl %s\n", TAVREND_VERSION);
        return 0;
    }
    for (const Command* c : commands()) {
        if (cmd != c->name) continue;
        Args args;
        const int status = parseArgs(*c, argc - 1, argv + 1, args);
        if (status >= 0) return status;
        if (c->needsRoot && !rootExists()) return 2;
        return c->run(args);
    }
    return mainUsageError("unknown command '" + cmd + "'");
}

}  // namespace tavrendctl

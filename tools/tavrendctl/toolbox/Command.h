// One table per tavrendctl subcommand: its name, synopsis, help, options and
// how many operands it takes. The command line is checked against the table
// before the subcommand runs, so every subcommand answers --help, an unknown
// option and a missing value alike.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace tavrendctl {

struct Option {
    const char* name;   // "--scale"
    const char* value;  // what it takes, "N"; null for a flag
};

struct Args;

struct Command {
    const char* name;      // "sim"
    const char* synopsis;  // what follows "usage: tavrendctl sim "
    const char* help;      // printed after the usage line by --help
    std::vector<Option> options;
    size_t minOperands;
    size_t maxOperands;  // kAnyOperands: no limit
    bool needsRoot;      // $TAVREND_ROOT, when set, must be a directory
    int (*run)(const Args& args);
};

constexpr size_t kAnyOperands = static_cast<size_t>(-1);

// A command line checked against its table.
struct Args {
    const Command* command = nullptr;
    std::vector<std::string> operands;
    std::map<std::string, std::string> options;  // name to value ("" for a flag)

    bool has(const char* option) const { return options.count(option) != 0; }
    // The option's value, or `fallback` when it was not given.
    const std::string& value(const char* option, const std::string& fallback) const;
};

// Every subcommand, in the order --help lists them.
const std::vector<const Command*>& commands();

// Checks argv (argv[0] the subcommand's name) against `command`. Returns -1
// with `args` filled, or the exit status to end with: 0 after --help, 2 after
// a usage error (one line on standard error).
int parseArgs(const Command& command, int argc, char** argv, Args& args);

// "tavrendctl: NAME: WHAT (see 'tavrendctl NAME --help')" on standard error;
// returns 2, the exit status of a usage error.
[[gnu::format(printf, 2, 3)]] int usageError(const Command& command, const char* fmt, ...);

// Runs the subcommand named by argv[1]: the one dispatch of tavrendctl.
int dispatch(int argc, char** argv);

}  // namespace tavrendctl

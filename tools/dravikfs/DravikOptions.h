// Command line of dravikfs.
#pragma once

#include <string>
#include <vector>

#include "DravikDriver.h"

namespace dravikfs {

struct Options {
    std::string root;        // device root, absolute after parseOptions
    std::string mountPoint;  // absolute after parseOptions
    bool foreground = false;
    bool dieWithParent = false;
    bool allowOther = false;
    bool hostProc = false;  // the machine's own processes may be served
    bool help = false;
    bool version = false;
    Faults faults;
};

// The usage text, for standard output on --help and after an error line.
std::string usageText();

// Parses the arguments after the program name. `envRoot` is TAVREND_ROOT (may
// be null). On error returns the message (one line, no program prefix) and
// leaves `out` unspecified; on success returns "".
std::string parseOptions(const std::vector<std::string>& args, const char* envRoot, Options& out);

}  // namespace dravikfs

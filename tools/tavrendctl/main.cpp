// tavrendctl: the host command line for a device root. Each family of
// subcommands lives in a folder of its own; this table is the only dispatch.
#include "toolbox/Commands.h"

namespace tavrendctl {

const std::vector<const Command*>& commands() {
    static const std::vector<const Command*> kAll = {
        &kGetpropCommand,     &kSetpropCommand, &kUplCommand, &kCallCommand,
        &kCheckConfigCommand, &kReportCommand,  &kSimCommand, &kStatusCommand,
    };
    return kAll;
}

}  // namespace tavrendctl

int main(int argc, char** argv) { return tavrendctl::dispatch(argc, argv); }

// The subcommands of tavrendctl, each defined in its family's folder.
#pragma once

#include "toolbox/Command.h"

namespace tavrendctl {

extern const Command kGetpropCommand;      // props/
extern const Command kSetpropCommand;      // props/
extern const Command kUplCommand;          // binder/
extern const Command kCallCommand;         // binder/
extern const Command kCheckConfigCommand;  // check/
extern const Command kReportCommand;       // report/
extern const Command kSimCommand;          // sim/
extern const Command kStatusCommand;       // status/

}  // namespace tavrendctl

// The tavrendctl subcommands that live in files of their own. Each takes the
// arguments after "tavrendctl" (argv[0] is the subcommand's name) and returns
// the process's exit status.
#pragma once

// tavrendctl check-config [ROOT]
int checkConfigCommand(int argc, char** argv);

// tavrendctl report LOGFILE [--trace OUT.json] [--svg DIR]
int reportCommand(int argc, char** argv);

// tavrendctl sim SCENARIO [--scale N]
int simCommand(int argc, char** argv);

// tavrendctl status [LOG...|-] [--follow] [--json]
int statusCommand(int argc, char** argv);

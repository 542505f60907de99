/// The program's subcommands and options.
#pragma once

namespace ruxctl {

/// Reads the command line and does what it says. Returns an exit status.
int runCommandLine(int argc, char** argv);

}  // namespace ruxctl

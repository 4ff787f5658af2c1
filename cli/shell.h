// `pbrctl shell`: the daemon's own diagnostic commands and switches.
#ifndef CLI_SHELL_H
#define CLI_SHELL_H

#include <ostream>
#include <string>
#include <vector>

#include "cli/daemon.h"

namespace cli {

// Runs a command of the daemon's shell, or shows or sets a switch, and writes to `out` exactly what it
// printed; an empty name: what there is. json: the answer as JSON. Result: of the command, 0 done.
// Throws Refused, NoDaemon.
int32_t shellRun(Daemon &daemon, const std::string &name, const std::vector<std::string> &args, bool json,
                 std::ostream &out);

} // namespace cli

#endif

// `pbrctl watch`: events as they happen.
#ifndef CLI_WATCH_H
#define CLI_WATCH_H

#include <ostream>

#include "cli/daemon.h"

namespace cli {

// Prints a line for each event until the daemon ends or the tool is interrupted. Throws NoDaemon, Refused.
void watch(Daemon &daemon, bool asJson, std::ostream &out);

} // namespace cli

#endif

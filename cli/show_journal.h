// What the daemon keeps for its next start, and what did not come back at the last one.
#ifndef CLI_SHOW_JOURNAL_H
#define CLI_SHOW_JOURNAL_H

#include <ostream>

#include "cli/daemon.h"

namespace cli {

// Prints the state of the journal to `out`; json: as JSON. Throws Refused, NoDaemon.
void showJournal(Daemon &daemon, bool json, std::ostream &out);

} // namespace cli

#endif

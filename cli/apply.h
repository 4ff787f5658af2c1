// `pbrctl apply`: make the running policy equal to a file, whole or not at all.
#ifndef CLI_APPLY_H
#define CLI_APPLY_H

#include <ostream>
#include <string>

#include "cli/daemon.h"

namespace cli {

struct ApplyOptions {
    std::string file; // its name, for texts
    std::string text; // its contents
    bool dryRun = false;
    bool json = false;
};

// Reads and checks the file, plans against the running policy, prints the plan to `out` and does it.
// Warnings go to `err`. A refused step undoes the steps before it, in reverse order, and is thrown as
// Refused with what was undone. Throws Refused, NoDaemon.
void apply(Daemon &daemon, const ApplyOptions &options, std::ostream &out, std::ostream &err);

} // namespace cli

#endif

// `pbrctl apply` and `pbrctl diff`: make the running policy equal to a file, whole or not at all, or tell
// what that would change.
#ifndef CLI_APPLY_H
#define CLI_APPLY_H

#include <optional>
#include <ostream>
#include <string>

#include "cli/daemon.h"

namespace cli {

struct ApplyOptions {
    std::string file; // its name, for texts
    std::string text; // its contents
    bool dryRun = false;
    bool json = false;
    std::optional<uint32_t> confirmSeconds; // roll back by itself unless it is confirmed in time
};

// Reads and checks the file, plans against the running policy, prints the plan to `out` and does it.
// Warnings go to `err`. A refusal by the daemon, a service or the plane undoes everything and is thrown as
// Refused with the line concerned. Throws Refused, NoDaemon.
void apply(Daemon &daemon, const ApplyOptions &options, std::ostream &out, std::ostream &err);

// Prints the plan. Result: whether the running policy differs from the file. Throws Refused, NoDaemon.
bool diff(Daemon &daemon, const ApplyOptions &options, std::ostream &out, std::ostream &err);

} // namespace cli

#endif

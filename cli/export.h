// `pbrctl export`: the running policy as a policy file.
//
// The file's reader is the only judge of what a file can say: what it does not take is written as a
// comment with the reason, and so is what would be read as something else.
#ifndef CLI_EXPORT_H
#define CLI_EXPORT_H

#include <ostream>
#include <string>

#include "cli/daemon.h"
#include "cli/policy.h"

namespace cli {

struct Exported {
    std::string text;                  // the policy file
    std::vector<std::string> unsaid;   // what it cannot say, as it stands in its comments
};

// The file for `policy`, keys in order. Pure. Lock: none
Exported exportText(const Policy &policy);

// Writes the running policy to `out`; warns on `err` of what the file does not say. Throws NoDaemon, Refused.
void exportPolicy(Daemon &daemon, std::ostream &out, std::ostream &err);

} // namespace cli

#endif

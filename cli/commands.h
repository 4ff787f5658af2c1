// The command line of pbrctl.
#ifndef CLI_COMMANDS_H
#define CLI_COMMANDS_H

#include <ostream>
#include <string>
#include <vector>

namespace cli {

// Runs one command line (without the program's name). Reports go to `out`, errors and warnings to
// `err`. Result: the exit status: 0 done, 1 refused, 2 the command line is wrong, 3 the daemon is not
// reachable. Throws nothing.
int pbrctlRun(const std::vector<std::string> &words, std::ostream &out, std::ostream &err);

} // namespace cli

#endif

// Reads and checks a policy file (YAML). The whole file is checked and every problem is reported with
// its line before anything is changed anywhere; what the file alone cannot tell (whether an interface
// exists) is checked by whoever applies it.
#ifndef CLI_POLICY_FILE_H
#define CLI_POLICY_FILE_H

#include <string>

#include "cli/policy_file_contents.h"

namespace cli {

// Reads `text`, the contents of the file `name`. pVrfs: what VRFs are called; null: not known yet, then each name
// stands for a number of its own and the file says that it has names. Never throws for bad contents. Lock: none
PolicyFile policyFileRead(const std::string &name, const std::string &text, const VrfNames *pVrfs = nullptr);

} // namespace cli

#endif

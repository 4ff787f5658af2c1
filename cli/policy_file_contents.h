// What a policy file was read as: the policy, what is wrong with the file, and where things stand in it.
#ifndef CLI_POLICY_FILE_CONTENTS_H
#define CLI_POLICY_FILE_CONTENTS_H

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "cli/policy.h"

namespace cli {

struct PolicyFile {
    std::string name;                  // for texts
    Policy policy;                     // units are 0 until they are looked up
    std::vector<std::string> problems; // "file:line: reason", in line order; empty: the file may be applied
    std::vector<std::pair<int, std::string>> problemLines; // the same: line, reason
    std::vector<std::string> warnings; // "file:line: ..." or plain sentences
    bool hasVrfNames = false;          // some VRF is given by its name
    // Lines where an interface is named, for "does not exist": interface name -> line.
    std::map<std::string, int> interfaceLines;
    // Lines where things are defined: "acl 1501", "probe ops/a", "time-range 7", "list wan", "node wan/10",
    // "binding lan0", and the sections: "acls", "lists" ...
    std::map<std::string, int> places;
};

} // namespace cli

#endif

// The command line of policyrouted as values.
#ifndef HOST_PROCESS_ARGUMENTS_H
#define HOST_PROCESS_ARGUMENTS_H

#include <string>
#include <vector>

namespace host {

struct Arguments {
    std::vector<std::string> options; // of --option, in order
    std::string configFile;           // of --config; empty: the default file
    bool isHelpWanted = false;
    bool isVersionWanted = false;
    std::string error; // not empty: what is wrong with which argument; the rest does not count
};

// Reads the arguments of main. --foreground changes nothing: the daemon always stays there. Lock: none
Arguments argumentsParse(int argc, char **argv);

// The text of --help. Lock: none
std::string argumentsHelp();

} // namespace host

#endif

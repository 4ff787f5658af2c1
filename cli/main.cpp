// pbrctl, the operator's tool: entry.
#include <iostream>
#include <string>
#include <vector>

#include "cli/commands.h"

int main(int argc, char **argv) {
    return cli::pbrctlRun(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr);
}

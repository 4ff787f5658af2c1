// pbrctl, the operator's tool: entry.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "cli/commands.h"

namespace {

// What was printed must have arrived: an export on a full disk is no export. Result: the exit status.
int outputEnd(int status) {
    errno = 0;
    std::cout.flush();
    if (std::cout && std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
        return status;
    }
    std::cerr << "pbrctl: the output could not be written" << (errno != 0 ? std::string(": ") + strerror(errno) : "") << "\n";
    return status == 0 ? 1 : status;
}

} // namespace

int main(int argc, char **argv) {
    return outputEnd(cli::pbrctlRun(std::vector<std::string>(argv + 1, argv + argc), std::cout, std::cerr));
}

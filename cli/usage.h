// What is wrong with a command line, in one line as the operator reads it.
#ifndef CLI_USAGE_H
#define CLI_USAGE_H

#include <string>

#include <CLI/CLI.hpp>

namespace cli {

// "apply: file is required. 'pbrctl apply --help' tells more": of a line that `app` did not take. Lock: none
std::string usageText(const CLI::App &app, const CLI::ParseError &wrong);

} // namespace cli

#endif

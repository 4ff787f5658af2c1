// The ways in which pbrctl fails, each with its exit status.
#ifndef CLI_ERRORS_H
#define CLI_ERRORS_H

#include <stdexcept>

namespace cli {

enum ExitStatus { EXIT_DONE = 0, EXIT_REFUSED = 1, EXIT_USAGE = 2, EXIT_NO_DAEMON = 3 };

// Refused, by the daemon or by pbrctl; the text says what, why and what to do.
struct Refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The daemon does not know the operation: another version of it, or another platform.
struct NotOffered : Refused {
    using Refused::Refused;
};

// The command line is wrong.
struct Usage : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Nobody serves the socket, or the connection broke.
struct NoDaemon : std::runtime_error {
    using std::runtime_error::runtime_error;
};

} // namespace cli

#endif

// Where the machine's own daemon is, when --root does not say it.
#ifndef CLI_DEFAULT_ROOT_H
#define CLI_DEFAULT_ROOT_H

#include <string>

namespace cli {

constexpr const char *ROOT_ENVIRONMENT = "POLICYROUTE_ROOT";
constexpr const char *OPTION_FILE = "/etc/policyroute/policyroute.conf";

// The folder of the daemon's run: the environment's POLICYROUTE_ROOT when it is set (also to nothing), else
// host.root of the daemon's option file, which is read by the daemon's own rules; "" (the machine itself) when
// the file is absent, unreadable or names none. A mistake in the file is the daemon's to report. Lock: none
std::string defaultRoot(const std::string &optionFile = OPTION_FILE);

} // namespace cli

#endif

// The version of pbrctl: the project's, from CMakeLists.txt.
#ifndef CLI_VERSION_H
#define CLI_VERSION_H

#include "policyroute_version.h"

namespace cli {

constexpr const char *PBRCTL_VERSION = POLICYROUTE_VERSION;

} // namespace cli

#endif

// The version of pbrctl; the same as the project's in CMakeLists.txt.
#ifndef CLI_VERSION_H
#define CLI_VERSION_H

namespace cli {

constexpr const char *PBRCTL_VERSION = "0.1.0";

} // namespace cli

#endif

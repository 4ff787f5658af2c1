// The process's diagnostic shell: its name. Its transport comes with the management socket; until then
// its commands (gProcShellCommands) can only be called from a debugger.
#ifndef HOST_PROCESS_SHELL_H
#define HOST_PROCESS_SHELL_H

#include <string>

namespace host {

// The name that procShellInit registered, empty before. Any thread. Lock: none (takes its own)
std::string shellName();

} // namespace host

#endif

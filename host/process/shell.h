// The process's diagnostic shell: its name. Its commands are run by host/shell for the management socket.
#ifndef HOST_PROCESS_SHELL_H
#define HOST_PROCESS_SHELL_H

#include <string>

namespace host {

// The name that procShellInit registered, empty before. Any thread. Lock: none (takes its own)
std::string shellName();

} // namespace host

#endif

// Operations "shell" and "shell.list" of the management socket: the program's diagnostic shell.
#ifndef HOST_SHELL_SHELL_MGMT_H
#define HOST_SHELL_SHELL_MGMT_H

namespace host {

// Takes over standard output (stdout_capture) and registers the operations. Before mgmtStart and before
// other threads print. Lock: none
void shellMgmtRegister();

} // namespace host

#endif

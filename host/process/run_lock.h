// One daemon a host.root: a locked file that lives as long as the process.
#ifndef HOST_PROCESS_RUN_LOCK_H
#define HOST_PROCESS_RUN_LOCK_H

#include <string>

namespace host {

// Locks optionPath("/run/policyroute/policyrouted.lock") until the process ends, however it ends, and
// writes the process's number into it. Result: empty, or why not: another daemon has it, or the file
// cannot be made. Lock: none
std::string runLockTake();

} // namespace host

#endif

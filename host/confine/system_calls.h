// The kernel's filter of this process's system calls.
#ifndef HOST_CONFINE_SYSTEM_CALLS_H
#define HOST_CONFINE_SYSTEM_CALLS_H

#include <string>

namespace host {

// Lets the kernel refuse, for all threads and for good, each system call that the daemon does not use
// (host.seccomp=off: does nothing). Who makes one nevertheless ends the process: one line to standard
// error names the call, then SIGSYS. The few that the C library only tries, and does without, answer
// ENOSYS instead. Result: empty, or why not. Lock: none
std::string systemCallsConfine();

} // namespace host

#endif

// The services beside the daemon, as the process's start-up sees them.
#ifndef HOST_PROCESS_HOST_SERVICES_H
#define HOST_PROCESS_HOST_SERVICES_H

#include <string>

namespace host {

// Starts interfaces, routes, peers, probes, the forwarding plane and the management socket, in this
// order, and registers their operations. Once, after the options are loaded and before the daemon
// starts. With option host.device=memory what cannot be read from the kernel is a warning only.
// Result: empty, or what failed and what to do. Lock: none
std::string hostServicesStart();

} // namespace host

#endif

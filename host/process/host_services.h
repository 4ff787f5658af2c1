// The start of the host's services, called once by silProcessArguments when options are known.
#ifndef HOST_PROCESS_HOST_SERVICES_H
#define HOST_PROCESS_HOST_SERVICES_H

#include <string>

namespace host {

// Starts everything beside the daemon: interfaces, routes, peers, ACLs, the device, the management
// socket. Defined by the full host platform. Result: empty, or why the process cannot serve. Lock: none
std::string hostServicesStart();

} // namespace host

#endif

// The operations "device.hold" and "device.release": a change of several steps that the forwarding plane
// takes over in one.
//
// One client at a time holds; what it holds is released with its connection at the latest, and after
// HOLD_LONGEST in any case. Event thread.
#ifndef HOST_MGMT_HOLD_OPS_H
#define HOST_MGMT_HOLD_OPS_H

#include <chrono>

namespace host {

constexpr std::chrono::seconds HOLD_LONGEST{30};

// Registers the operations. Lock: none
void holdOpsRegister();

} // namespace host

#endif

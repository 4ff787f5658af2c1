// The operations "device.hold", "device.trial" and "device.release": a change of several steps that the
// forwarding plane takes over in one; on trial it tells what it could not do.
//
// One client at a time holds; what it holds is released with its connection at the latest, and after
// HOLD_LONGEST in any case. When a guard is there that undoes what a client leaves half-made, the hold waits
// for it, so that the plane never takes the half. Event thread.
//
//   free --device.hold--> held --device.release, HOLD_LONGEST, end without guard--> free
//   held --end with guard--> left --device.hold of anybody--> held
//                            left --the guard ends, HOLD_LONGEST--> free
#ifndef HOST_MGMT_HOLD_OPS_H
#define HOST_MGMT_HOLD_OPS_H

#include <chrono>

namespace host {

constexpr std::chrono::seconds HOLD_LONGEST{30};

// Whether somebody is there who undoes what the holder leaves half-made. Event thread. Lock: none
void holdGuardSet(bool isGuarded);

// Registers the operations. Lock: none
void holdOpsRegister();

} // namespace host

#endif

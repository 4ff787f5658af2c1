// The operations around an apply: "apply.lock" and "apply.unlock", so that one client at a time changes the
// policy (a whole one or a part of it), and "confirm.begin", "confirm.wait", "confirm", "confirm.show", by which an applied policy is kept
// or, without a confirmation in time, undone by the client that waits (pbrctl has a process for it).
//
// Nothing here changes the policy. Everything belongs to a connection and ends with it. Event thread.
//
//   none --confirm.begin--> applying --confirm.wait--> waiting --confirm, time over--> none, rolling back
//   rolling back --connection ends--> none
#ifndef HOST_MGMT_CONFIRM_OPS_H
#define HOST_MGMT_CONFIRM_OPS_H

namespace host {

// Registers the operations. Lock: none
void confirmOpsRegister();

} // namespace host

#endif

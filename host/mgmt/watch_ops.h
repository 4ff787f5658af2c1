// Operation "watch" of the management socket: after its answer the connection gets a line for each event.
//
// A client that does not read costs itself events and nobody else anything: what does not fit into its room
// is counted, and the count is told as the next line that fits. Event thread.
#ifndef HOST_MGMT_WATCH_OPS_H
#define HOST_MGMT_WATCH_OPS_H

namespace host {

// Registers the operation. Lock: none
void watchOpsRegister();

} // namespace host

#endif

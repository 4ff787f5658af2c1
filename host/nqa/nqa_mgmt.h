// The operations of probes on the management socket: docs/management-socket.md has their members.
#ifndef HOST_NQA_NQA_MGMT_H
#define HOST_NQA_NQA_MGMT_H

namespace host {

// Registers probes, probe.set, probe.del, probe.replaceAll and probe.clear. Lock: none
void nqaMgmtRegister();

} // namespace host

#endif

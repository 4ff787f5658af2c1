// The operations of the management socket on what nodes do while nothing is usable: otherwise.show,
// otherwise.set, otherwise.replaceAll.
#ifndef HOST_MGMT_OTHERWISE_OPS_H
#define HOST_MGMT_OTHERWISE_OPS_H

namespace host {

// Registers the operations. Before mgmtStart. Lock: none
void otherwiseOpsRegister();

// Brings back what the journal keeps, before the policy comes back: a node that is to drop never acts
// without. Once, after journalOpen. Lock: none
void otherwiseRestore();

} // namespace host

#endif

// The operations of the management socket on ACLs: acl.create, set, del, destroy, replace, replaceAll,
// check, show.
//
// Every change is made in the store as a whole, then the device is told once for each ACL that changed,
// then the route bus carries the published messages. ACLs live in the memory of the process.
#ifndef HOST_ACL_ACL_MGMT_H
#define HOST_ACL_ACL_MGMT_H

namespace host {

// Registers the operations. Before mgmtStart. Lock: none
void aclMgmtRegister();

// Brings back the ACLs that the journal has. Before the device starts. Lock: none
void aclRestore();

} // namespace host

#endif

// The entry in the device of one interface-node link: writing and removing it.
//
// Called by binding, unbinding, the periodic update and event handlers. Builds the redirect record,
// hands it to the ACL module and keeps what the daemon remembers of it.
//
// hwStatus of a link:
//   0 -> 1       add succeeded, or forwardFlag 2 (add and delete)
//   0, 1 -> 2    add failed; whoever calls add again retries
//   any -> 0     delete succeeded; a failed delete leaves it
// Marks of the next hops of a node that is not ECMP: selection sets curSelected; a successful add moves
// it to lastSelected and sets nexthopHwState (on every next hop whose state is 1); a successful delete
// clears both where lastSelected was 1, and the node's pPbrNhopBest. ECMP marks are never touched.
// "ECMP" means isEcmp other than 0 here.
#ifndef HW_PBR_IF_NODE_HW_H
#define HW_PBR_IF_NODE_HW_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Writes the entry. A node without ACL is passed over (0, nothing changes); forwardFlag 2 sets hwStatus
// 1 without a call. Success: hwStatus 1, marks as above, every next hop's hwAddRefCnt - 1 and
// hwDelRefCnt + 1 (modulo 16), hwAclAddCnt + 1. Failure: hwStatus 2, hwAclAddErr + 1, next hops as they
// were. Result: 0, or the ACL module's own. Lock: held by caller
[[nodiscard]] int32_t pbrIfNodeHwAdd(PbrIfNodeEntry *pLink) PBR_LOCK_HELD;

// Removes the entry. The same two exits, also hwStatus 1 for forwardFlag 2. Success: hwStatus 0, marks as
// above, every next hop's hwDelRefCnt - 1 (modulo 16), hwAclDelCnt + 1. Failure: hwAclDelErr + 1, all
// else as it was. Result: 0, or the ACL module's own. Lock: held by caller
[[nodiscard]] int32_t pbrIfNodeHwDel(PbrIfNodeEntry *pLink) PBR_LOCK_HELD;

#endif

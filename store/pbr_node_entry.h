// The nodes of a policy list: add, delete, find, and the question who uses an ACL.
//
// Nodes stand in their list in ascending nodeIndex. Indexes and duplicates are checked by the callers.
#ifndef STORE_PBR_NODE_ENTRY_H
#define STORE_PBR_NODE_ENTRY_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Makes a node in the list of that name. nodeIndex: the key; an equal one goes behind the existing.
// Result: the node (status created, ipPri 9, timeRangeId all ones, else zero), which lives until
// pbrNodeEntryDel; null when there is no such list or no free record. Lock: held by caller
PbrNodeEntry *pbrNodeEntryAdd(const uint8_t *pName, uint32_t nameLen, uint32_t nodeIndex) PBR_LOCK_HELD;

// Deletes a node with its next hops. Interface-node links that point to it and their entries in the
// device are the caller's, to be removed before. Result: 0. Lock: held by caller
int32_t pbrNodeEntryDel(PbrNodeEntry *pNode) PBR_LOCK_HELD;

// Finds a node by its list's name and its index, through every list of that name. pName: may be null.
// Result: the node or null. Lock: held by caller
PbrNodeEntry *pbrNodeEntryGet(const uint8_t *pName, uint32_t nameLen, uint32_t nodeIndex) PBR_LOCK_HELD;

// Finds the first node of the list whose index is at least `from` (beyond 32 bits: none). Look-ups in ascending order cost
// the same at any length of the list: each begins where the one before ended. Result: the node or null.
// Lock: held by caller
PbrNodeEntry *pbrNodeEntryFrom(const PbrListEntry *pList, uint64_t from) PBR_LOCK_HELD;

// Whether a node of any list uses the ACL (0 finds nodes without one; callers do not ask for it).
// Result: -1 used, 0 not. Lock: held by caller
int32_t pbrNodeAclNumCheck(uint32_t aclNum) PBR_LOCK_HELD;

#endif

// The next hops of a node: add, delete, find.
//
// Next hops stand in their node in ascending nextHopIndex; only the pool limits their number. Which
// indexes may be added is the callers' business.
#ifndef STORE_PBR_NEXT_HOP_ENTRY_H
#define STORE_PBR_NEXT_HOP_ENTRY_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Makes a next hop. pNode: may be null (none is made). index: its low 8 bits are the key.
// Result: the next hop (status created, else zero), which lives until pbrNextHopEntryDel; null without
// node or free record. Lock: held by caller
PbrNextHopEntry *pbrNextHopEntryAdd(PbrNodeEntry *pNode, uint32_t index) PBR_LOCK_HELD;

// Deletes a next hop, and the probe record that no other next hop names. Every node whose best next hop
// it is has none afterwards. Result: 0. Lock: held by caller
int32_t pbrNextHopEntryDel(PbrNextHopEntry *pHop) PBR_LOCK_HELD;

// Finds a next hop of the node; an index above 255 never matches. Result: the next hop or null.
// Lock: held by caller
PbrNextHopEntry *pbrNextHopEntryGet(const PbrNodeEntry *pNode, uint32_t index) PBR_LOCK_HELD;

#endif

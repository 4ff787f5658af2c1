// Entries of an interface-node link on a member port of an aggregation.
//
// Called by the aggregation events, once per link of the aggregation. The record is that of the link's
// own entry with the port as its interface. Nothing of the daemon's bookkeeping changes: no hwStatus
// (but for forwardFlag 2), no marks, no counters; a member add that fails is not retried.
#ifndef HW_PBR_AGG_NODE_HW_H
#define HW_PBR_AGG_NODE_HW_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Writes the entry for a port that joined. pLink: the aggregation's link. portUnit: the port. Members of
// an ECMP node are the next hops already written for the aggregation (lastSelected). A node without ACL
// is passed over; forwardFlag 2 sets the link's hwStatus 1. Result: 0, or the ACL module's own.
// Lock: held by caller
int32_t pbrAggNodeHwAdd(PbrIfNodeEntry *pLink, uint32_t portUnit) PBR_LOCK_HELD;

// Removes the entry of a port that left; members are the next hops in hardware (nexthopHwState).
// Otherwise as the add. Lock: held by caller
int32_t pbrAggNodeHwDel(PbrIfNodeEntry *pLink, uint32_t portUnit) PBR_LOCK_HELD;

#endif

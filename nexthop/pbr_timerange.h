// Start, stop and end of a node's time range.
//
// The three operations record the node's new state and queue its list in the ready table. They are
// requested through the node commands, and by the time-range service through the deliverers below, which
// are what timerangeBind is given. timeRangeId is left unchanged by all of them.
#ifndef NEXTHOP_PBR_TIMERANGE_H
#define NEXTHOP_PBR_TIMERANGE_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// The range has begun / has ended / the service dropped the binding: timeRangeMatched becomes 1 / 0 / 0
// and the node's list goes to the front of the ready table. pNode: may be null (nothing is done).
// Result: 0 always. Lock: held by caller
uint32_t pbrStartTimerange(PbrNodeEntry *pNode) PBR_LOCK_HELD;
uint32_t pbrStopTimerange(PbrNodeEntry *pNode) PBR_LOCK_HELD;
uint32_t pbrUnBindTimerange(PbrNodeEntry *pNode) PBR_LOCK_HELD;

// Callbacks of the time-range service. pKey: the service's copy of the node's PbrNodeKey, no alignment
// assumed. A node that no longer exists is passed over. Result: 0 always. Lock: takes
uint32_t pbrTimerangeDeliverStart(void *pKey);
uint32_t pbrTimerangeDeliverStop(void *pKey);
uint32_t pbrTimerangeDeliverUnBind(void *pKey);

#endif

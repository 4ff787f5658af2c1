// The choice of next hops: which next hop a node's packets should use now.
//
// Called by the periodic update and by the peer-change report; the redirect view asks the answer without
// the marks. Three signals decide: the peer's reachability, the status of the probe test that the next
// hop names, and the node's time range. Words used here, for one next hop:
//   usable alone  reachable state not 0, and not (names a probe whose status is "failing" or unknown);
//   fully up      reachable state exactly 1, names a probe, and the probe's status is exactly "passing".
// Choosing keeps no state but the marks curSelected that it is meant to leave.
#ifndef NEXTHOP_PBR_NEXTHOP_SELECT_H
#define NEXTHOP_PBR_NEXTHOP_SELECT_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Compares the best next hop so far with a candidate. Either may be null. One candidate alone wins when
// it is usable alone; of two only those that are fully up can win, the lower index first and pCandidate
// on equal indexes. Result: pBest, pCandidate or null. Changes nothing. Lock: held by caller
PbrNextHopEntry *pbrNhopSelect(PbrNextHopEntry *pBest, PbrNextHopEntry *pCandidate) PBR_LOCK_HELD;

// Chooses the next hop of a node and marks it.
// isEcmp 1: sets curSelected on every next hop whose state is exactly 1 (clears none) and returns the
// ECMP marker: never null, no next hop, stable for the node; for comparing only, never read through it.
// Otherwise: the first next hop in list order that is usable alone. curSelected becomes 0 on those
// passed over and 1 on the chosen one; those behind it keep theirs. Null when none is usable, or while
// the bound time range is not active (written as a debug text; no mark changes then).
// Lock: held by caller
PbrNextHopEntry *pbrBestNexthopSelect(PbrNodeEntry *pNode) PBR_LOCK_HELD;

// What pbrBestNexthopSelect would choose for a node that is not ECMP, without marks and texts. A node's
// isEcmp is not looked at. Result: a next hop of the node, or null. Lock: held by caller
const PbrNextHopEntry *pbrBestNexthopPeek(const PbrNodeEntry *pNode) PBR_LOCK_HELD;

// Whether the node is bound to a time range (an id other than 0 and all ones) that is not active.
// Lock: held by caller
bool pbrNodeTimeRangeClosed(const PbrNodeEntry *pNode) PBR_LOCK_HELD;

#endif

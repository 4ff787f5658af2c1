// What peer reports do to the store: reachability of next hops, marks for a rewrite, the ready table.
//
// Called by the route-message dispatch on the worker task. A report (family, vrId, address) concerns the
// next hops of that address under the nodes of that IP version and VRF, in bound lists only (refCnt not
// 0). Nothing is written to the device here: the lists concerned are queued in the ready table.
//
// State of a next hop (nexthopArpState), 0 on creation:
//   0 -> 1  pbrNextHopStateUp; pbrNextHopUpdateArpState (copied from another list)
//   1 -> 0  pbrNextHopStateDown
// A repeated report is applied again and queues the list again.
#ifndef NEXTHOP_PBR_NEXTHOP_STATE_H
#define NEXTHOP_PBR_NEXTHOP_STATE_H

#include <cstdint>

#include "core/pbr_store_lock.h"

// The peer is reachable: state 1, the node's nhopArpUp 1, and curSelected 1 on ECMP nodes. Queues the
// lists concerned. family: 1 IPv4, else IPv6. vrId: VRF of the peer. pAddress: 16 bytes, network order
// (IPv4 in the first 4). Lock: held by caller
void pbrNextHopStateUp(uint32_t family, uint32_t vrId, const uint8_t *pAddress) PBR_LOCK_HELD;

// The peer is not reachable: state and curSelected 0. Every matching node's nhopArpUp is recomputed.
// Queues the lists concerned. Arguments as above. Lock: held by caller
void pbrNextHopStateDown(uint32_t family, uint32_t vrId, const uint8_t *pAddress) PBR_LOCK_HELD;

// The peer stays reachable but what the device holds of it is out of date: where it is the node's best
// next hop, marks the node and its links (stateChangeFlag) and queues the list. Refreshes curSelected of
// every matching node. Arguments as above. Lock: held by caller
void pbrNextHopStateChange(uint32_t family, uint32_t vrId, const uint8_t *pAddress) PBR_LOCK_HELD;

#endif

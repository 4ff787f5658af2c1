// Registration of next hops as peers of the host-route-detection service.
//
// Called by binding and unbinding. The daemon does not probe next hops itself: it registers each next
// hop of a list that is bound for the first time, and removes the registration when no binding of
// another interface still names the peer. Two next hops are one peer when their nodes have the same IP
// version and VRF and their addresses are equal over 16 bytes.
#ifndef NEXTHOP_PBR_NEXTHOP_DETECT_H
#define NEXTHOP_PBR_NEXTHOP_DETECT_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Registers the next hop as a peer. ipVer: the node's policyRouteIpVer (1 IPv4, else IPv6). vrfid: the
// node's VRF. A peer that is registered already is registered again: the service then reports its
// present state again. Result: 0 always; the service's own is not looked at. Lock: held by caller
int32_t pbrNextHopDetect(uint32_t ipVer, uint32_t vrfid, const PbrNextHopEntry *pHop) PBR_LOCK_HELD;

// Removes the registration. Arguments and result as above. Lock: held by caller
int32_t pbrNextHopUnDetect(uint32_t ipVer, uint32_t vrfid, const PbrNextHopEntry *pHop) PBR_LOCK_HELD;

// Whether another interface still needs the peer: some interface other than pIf, in tree order, carries
// a list with a next hop that is the same peer. Lists that are bound nowhere do not count.
// Result: -1 still needed, 0 not. Lock: held by caller
int32_t pbrNextHopCheckUnDetect(const PbrIfEntry *pIf, uint32_t ipVer, uint32_t vrfid,
                                const PbrNextHopEntry *pHop) PBR_LOCK_HELD;

// Takes over the reachability that is known of the same peer in another list (the first one in name
// order, bound or not); without one nothing changes. When the state taken over is 1, pList is queued in
// the ready table. pList: the list of pHop's node. Lock: held by caller
void pbrNextHopUpdateArpState(PbrListEntry *pList, uint32_t ipVer, uint32_t vrfid,
                              PbrNextHopEntry *pHop) PBR_LOCK_HELD;

#endif

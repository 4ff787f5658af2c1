// The redirect view: what should happen to the packets of an interface-node link now.
//
// A pure, read-only answer computed from the store, for forwarding planes that follow the store by
// themselves; a switch build does not use it. It carries what the device records do not: which next
// hop was chosen, the IP version, the order of nodes. This is the one daemon header that `host/` may
// include. It never uses the marks curSelected, lastSelected and nexthopHwState, and only reads the
// store; taking the changes clears the change marks and nothing else.
//
// Order of decision: no ACL or forwardFlag 2, then a bound time range that is not active, leave the node
// out, whatever its kind; then out of an interface; then priority only (no next hops); then an unknown IP
// version is inert; then the ECMP members that are reachable (isEcmp other than 0, as in the device
// records); else the next hop that selection would choose (computed without writing marks).
#ifndef HW_PBR_REDIRECT_VIEW_H
#define HW_PBR_REDIRECT_VIEW_H

#include <cstdint>

#include "core/pbr_store_lock.h"

constexpr uint32_t PBR_REDIRECT_MAX_NEXT_HOPS = 255; // a node's next-hop index has eight bits

enum PbrRedirectKind : uint8_t {
    PBR_REDIRECT_ABSENT,        // no entry: no ACL, forwardFlag 2, or its time range is not active
    PBR_REDIRECT_OUT_IF,        // send out of outIfUnit
    PBR_REDIRECT_NEXT_HOPS,     // nextHopCount next hops: 1 single, 2 or more a set
    PBR_REDIRECT_PRIORITY_ONLY, // route normally with the new priority
    PBR_REDIRECT_INERT,         // nothing usable: route normally (with the new priority)
};

struct PbrRedirect {
    const uint8_t *pListName; // bytes of the list's name, valid during the call
    uint32_t listNameLen;     // 1..16
    uint32_t ifUnit;          // the interface
    uint32_t nodeIndex;       // the node, and its place among the nodes of the interface (ascending)
    uint32_t aclNum;          // the ACL that the node matches
    PbrRedirectKind kind;
    uint8_t ipVer;            // version of the next hops: 1 IPv4, 2 IPv6; 0 unknown
    uint8_t isEcmp;           // non-zero: the node spreads over its reachable next hops
    uint8_t newIpPri;         // 1..15 new priority, 0 unchanged
    uint32_t vrfid;           // VRF in which the next hops are resolved
    uint32_t outIfUnit;       // PBR_REDIRECT_OUT_IF: the interface
    uint32_t nextHopCount;    // PBR_REDIRECT_NEXT_HOPS: 1..255, else 0
    uint8_t nextHops[PBR_REDIRECT_MAX_NEXT_HOPS][16]; // network order, list order; IPv4 in 4 bytes, rest
                              // 0; not written from nextHopCount on
    uint32_t configuredCount; // next hops that the node names, usable or not
    uint64_t choice;          // the same for nodes that choose alike: of the same next hops in the same order with the
                              // same probes, VRF and isEcmp; 0 without next hops. A hash: others may have it too
    uint8_t hasStandby;       // 1: one next hop was chosen, and standby would be without it
    uint8_t standby[16];      // as nextHops; not written without
};

// Receives the view of the lists that changed. The redirect is valid during the call only. The view
// does not call back into the daemon; neither may the visitor.
struct PbrRedirectVisitor {
    void *pContext;
    // A list follows: everything held of it is replaced by the entries that follow (none: it has no
    // bound links any more).
    void (*listBegin)(void *pContext, const uint8_t *pName, uint32_t nameLen);
    // One link of that list, whatever its hwStatus; interface by interface in unit order, nodes
    // ascending. ABSENT entries are passed too.
    void (*entry)(void *pContext, const PbrRedirect *pRedirect);
};

// Whether anything was marked since the last take: 0 nothing, 1 some lists, 2 everything.
// Lock: held by caller
uint32_t pbrRedirectViewChanged() PBR_LOCK_HELD;

// Visits the marked lists (or, when everything is marked or `all` is true, all lists: what is not
// visited then no longer exists) and clears the marks. Result: true when all lists were visited.
// Lock: held by caller
bool pbrRedirectViewTake(bool all, const PbrRedirectVisitor *pVisitor) PBR_LOCK_HELD;

// The answer for one link of one bound interface, found by its ACL. pRedirect: filled on success.
// Result: true when such a link exists. Lock: held by caller
bool pbrRedirectViewGet(uint32_t ifUnit, uint32_t aclNum, PbrRedirect *pRedirect) PBR_LOCK_HELD;

#endif

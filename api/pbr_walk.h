// The eight table walks of the command map: what comes first, and what follows a key.
//
// Called by the command server. A walk keeps nothing between calls: it is resumed from the key that the
// caller hands back, also when the row of that key has gone meanwhile. Lists come in name order, nodes
// and next hops in index order, interfaces in unit order.
//
// Keys are PbrListKey, PbrNodeKey or a u32 interface unit (api/pbr_keys.h), machine order, at any
// alignment. A walk writes only the fields named below; the other bytes of a key stay as they are.
// Common result codes: 0, or PBR_FAIL at the end of the table, for an empty table and for a null key.
#ifndef API_PBR_WALK_H
#define API_PBR_WALK_H

#include <cstdint>

// Writes the first list's name and length into the key. pKey: PbrListKey, out.
// Result: 0, PBR_FAIL. Lock: takes
[[nodiscard]] uint32_t pbrListGetFirst(void *pKey);

// Writes the list that sorts after pInKey into pOutKey; the key's list need not exist.
// pInKey, pOutKey: PbrListKey, may be the same. Result: 0, PBR_FAIL. Lock: takes
[[nodiscard]] uint32_t pbrListGetNext(const void *pInKey, void *pOutKey);

// Writes listName, listNameLen and nodeIndex of the first node into the key.
// pKey: PbrNodeKey, in and out; PBR_KEY_LIST_FIXED: only the list that it names; PBR_KEY_NODE_FIXED:
// only nodes of its index. keyMask stays. Result: 0, PBR_FAIL. Lock: takes
[[nodiscard]] uint32_t pbrNodeGetFirst(void *pKey);

// Writes the node that follows pInKey into pOutKey, with pInKey's keyMask and nextHopIndex.
// pInKey, pOutKey: PbrNodeKey, may be the same; filters as above: with PBR_KEY_NODE_FIXED a list yields
// at most one node. Result: 0, PBR_FAIL. Lock: takes
[[nodiscard]] uint32_t pbrNodeGetNext(const void *pInKey, void *pOutKey);

// Writes the first interface's unit. pKey: u32, out. Result: 0, PBR_FAIL. Lock: takes
[[nodiscard]] uint32_t pbrIfGetFirst(void *pKey);

// Writes the next greater unit; pInKey's need not exist. pInKey, pOutKey: u32, may be the same.
// Result: 0, PBR_FAIL. Lock: takes
[[nodiscard]] uint32_t pbrIfGetNext(const void *pInKey, void *pOutKey);

// Writes listName, listNameLen, nodeIndex and nextHopIndex of the first next hop of the first node that
// has one. pKey: PbrNodeKey, in and out; filters as for nodes. Result: 0, PBR_FAIL. Lock: takes
[[nodiscard]] uint32_t pbrNextHopGetFirst(void *pKey);

// Writes the next hop that follows pInKey into pOutKey, with pInKey's keyMask.
// pInKey, pOutKey: PbrNodeKey, may be the same; filters as for nodes; a listNameLen of 0 ends the walk.
// Published oddity: where the walk leaves the key's list it answers with the first node of a later list
// (filters kept) whether or not that has next hops, and with the index of the next hop that this call
// examined last, 0 when it examined none. Result: 0, PBR_FAIL. Lock: takes
[[nodiscard]] uint32_t pbrNextHopGetNext(const void *pInKey, void *pOutKey);

#endif

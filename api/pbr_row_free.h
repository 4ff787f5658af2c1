// Destroying lists, nodes and interface entries on a management command, with what may still refer to
// them.
//
// A list that is bound refuses to be changed, but its 4-bit use count is 0 again at the sixteenth
// binding, and then it can be destroyed while interface-node links point at its nodes. The table
// operations (store/) leave such references alone; these functions remove them first, so that no link
// ever points into a free slot. Names in interface entries stay: a later unbind then tells that the list
// has gone, as published.
#ifndef API_PBR_ROW_FREE_H
#define API_PBR_ROW_FREE_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Destroys a list with its nodes and next hops. Takes it out of the ready table, frees every
// interface-node link to its nodes and empties its chain of bound interfaces first.
// Result: of pbrListEntryDel. Lock: held by caller
[[nodiscard]] uint32_t pbrListFree(PbrListEntry *pList) PBR_LOCK_HELD;

// Destroys a node with its next hops, after every interface-node link to it.
// Result: of pbrNodeEntryDel. Lock: held by caller
[[nodiscard]] uint32_t pbrNodeFree(PbrNodeEntry *pNode) PBR_LOCK_HELD;

// Destroys an interface entry, after the links that a failed bind left behind.
// Result: of pbrIfEntryDel. Lock: held by caller
[[nodiscard]] uint32_t pbrIfFree(PbrIfEntry *pIf) PBR_LOCK_HELD;

#endif

// The interface-node links: one node of a list as it stands for one interface.
//
// Made at binding, in node order; deleted at unbinding. The state hwStatus is drawn in
// hw/pbr_if_node_hw.h.
#ifndef STORE_PBR_IF_NODE_ENTRY_H
#define STORE_PBR_IF_NODE_ENTRY_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Makes a link at the end of the interface's links. Result: the link (hwStatus 0), which lives until
// pbrIfNodeEntryDel; null when the pool is used up. Lock: held by caller
PbrIfNodeEntry *pbrIfNodeEntryAdd(PbrIfEntry *pIf, PbrNodeEntry *pNode) PBR_LOCK_HELD;

// Deletes a link; its entry in the device is removed by the caller before. Result: 0.
// Lock: held by caller
int32_t pbrIfNodeEntryDel(PbrIfNodeEntry *pLink) PBR_LOCK_HELD;

#endif

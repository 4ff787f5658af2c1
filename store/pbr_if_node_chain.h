// The links of a list by node, for one pass over the list.
//
// An interface holds its links in the order they were made. Who asks for the links of node after node would walk all of
// them each time; with this they are walked once before and once behind the pass. The chain stands in fields that are in
// no list otherwise and are zero again afterwards: PbrNodeEntry.auxLink (first and last link of the node) and
// PbrIfNodeEntry.nodeLink. While it stands no link is made or deleted and no interface bound or unbound.
#ifndef STORE_PBR_IF_NODE_CHAIN_H
#define STORE_PBR_IF_NODE_CHAIN_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Chains the links of all interfaces in the list's chain that lead to its nodes: interfaces in the order of the chain, their
// links in order. No other chain may stand. Lock: held by caller
void pbrIfNodeChainMake(const PbrListEntry *pList) PBR_LOCK_HELD;

// Ends it: the fields are zero again. Lock: held by caller
void pbrIfNodeChainDrop(const PbrListEntry *pList) PBR_LOCK_HELD;

// The node's links while a chain of its list stands; null at the end. Lock: held by caller
inline PbrIfNodeEntry *pbrIfNodeChainFirst(const PbrNodeEntry *pNode) { return pbrIfNodeFromNodeLink(pNode->auxLink.pNext); }
inline PbrIfNodeEntry *pbrIfNodeChainNext(const PbrIfNodeEntry *pLink) { return pbrIfNodeFromNodeLink(pLink->nodeLink.pNext); }

#endif

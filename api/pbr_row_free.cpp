// Destroying lists, nodes and interface entries with what refers to them: see the header.
#include "api/pbr_row_free.h"

#include "store/pbr_if_entry.h"
#include "store/pbr_if_node_entry.h"
#include "store/pbr_list_entry_del.h"
#include "store/pbr_node_entry.h"
#include "store/pbr_view_mark.h"

namespace {

// Whether a link belongs to the node, or to any node of the list when no node is given.
bool linkMatches(const PbrIfNodeEntry *pLink, const PbrListEntry *pList, const PbrNodeEntry *pNode) {
    return pNode != nullptr ? pLink->pPbrNode == pNode : pLink->pPbrNode->pPbrList == pList;
}

// The safe walk: the current link may be freed.
void interfaceLinksFree(const PbrIfEntry *pIf, const PbrListEntry *pList, const PbrNodeEntry *pNode) PBR_LOCK_HELD {
    PbrIfNodeEntry *pNext = nullptr;
    for (PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr; pLink = pNext) {
        pNext = pbrIfIfNodeNext(pIf, pLink);
        if (linkMatches(pLink, pList, pNode)) {
            (void)pbrIfNodeEntryDel(pLink); // always 0
            pbrViewMarkAll();
        }
    }
}

// Every interface is looked at, not only the list's chain: a bind that ran out of links leaves some
// without having chained its interface.
void linksFree(const PbrListEntry *pList, const PbrNodeEntry *pNode) PBR_LOCK_HELD {
    for (PbrIfEntry *pIf = pbrIfEntryFirst(); pIf != nullptr; pIf = pbrIfEntryNext(pIf)) {
        interfaceLinksFree(pIf, pList, pNode);
    }
}

void boundInterfacesUnchain(PbrListEntry *pList) PBR_LOCK_HELD {
    for (PbrIfEntry *pIf = pbrListBoundIfFirst(pList); pIf != nullptr; pIf = pbrListBoundIfFirst(pList)) {
        listUnlinkInit(&pIf->boundLink);
        pbrViewMarkAll();
    }
}

} // namespace

uint32_t pbrListFree(PbrListEntry *pList) {
    linksFree(pList, nullptr);
    boundInterfacesUnchain(pList);
    listUnlinkInit(&pList->readyLink); // a time range may have queued an unbound list
    return static_cast<uint32_t>(pbrListEntryDel(pList));
}

uint32_t pbrNodeFree(PbrNodeEntry *pNode) {
    linksFree(pNode->pPbrList, pNode);
    return static_cast<uint32_t>(pbrNodeEntryDel(pNode));
}

uint32_t pbrIfFree(PbrIfEntry *pIf) {
    PbrIfNodeEntry *pNext = nullptr;
    for (PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr; pLink = pNext) {
        pNext = pbrIfIfNodeNext(pIf, pLink);
        (void)pbrIfNodeEntryDel(pLink); // always 0
    }
    listUnlinkInit(&pIf->boundLink);
    pbrViewMarkAll();
    return static_cast<uint32_t>(pbrIfEntryDel(pIf));
}

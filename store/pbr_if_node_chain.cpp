// The links of a list by node: see the header.
#include "store/pbr_if_node_chain.h"

namespace {

void linkAppend(PbrIfNodeEntry *pLink) {
    PbrLink *pEnds = &pLink->pPbrNode->auxLink;
    if (pEnds->pNext == nullptr) {
        pEnds->pNext = &pLink->nodeLink;
    } else {
        pEnds->pPrev->pNext = &pLink->nodeLink;
    }
    pEnds->pPrev = &pLink->nodeLink;
}

void linkForget(PbrIfNodeEntry *pLink) {
    pLink->pPbrNode->auxLink = {};
    pLink->nodeLink = {};
}

// Does it with each link that leads to a node of the list. A link that an earlier failure left behind may lead to another's.
void linksVisit(const PbrListEntry *pList, void (*visit)(PbrIfNodeEntry *pLink)) {
    for (const PbrIfEntry *pIf = pbrListBoundIfFirst(pList); pIf != nullptr; pIf = pbrListBoundIfNext(pList, pIf)) {
        for (PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr; pLink = pbrIfIfNodeNext(pIf, pLink)) {
            if (pLink->pPbrNode->pPbrList == pList) {
                visit(pLink);
            }
        }
    }
}

} // namespace

void pbrIfNodeChainMake(const PbrListEntry *pList) {
    linksVisit(pList, linkAppend);
}

void pbrIfNodeChainDrop(const PbrListEntry *pList) {
    linksVisit(pList, linkForget);
}

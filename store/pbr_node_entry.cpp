// The nodes of a policy list.
#include "store/pbr_node_entry.h"

#include <cstring>

#include "core/pbr_trace.h"
#include "store/pbr_list_entry.h"
#include "store/pbr_next_hop_entry.h"
#include "store/pbr_view_mark.h"

namespace {

const char TEXT_NO_SLOT[] = "pbr node free table is empty!\r\n";

// The link behind which a node of that index goes: the last node with at most that index, or the head.
PbrLink *nodePlace(PbrListEntry *pList, uint32_t nodeIndex) PBR_LOCK_HELD {
    const PbrNodeEntry *pBehind = pbrNodeEntryFrom(pList, uint64_t{nodeIndex} + 1);
    return pBehind != nullptr ? pBehind->listLink.pPrev : pList->nodeList.pPrev;
}

PbrNodeEntry *nodeOfIndex(const PbrListEntry *pList, uint32_t nodeIndex) PBR_LOCK_HELD {
    PbrNodeEntry *pNode = pbrNodeEntryFrom(pList, nodeIndex);
    return pNode != nullptr && pNode->nodeIndex == nodeIndex ? pNode : nullptr;
}

PbrNodeEntry *nodeBefore(const PbrListEntry *pList, const PbrNodeEntry *pNode) {
    return pNode->listLink.pPrev == &pList->nodeList ? nullptr : pbrNodeFromListLink(pNode->listLink.pPrev);
}

// Where the search for an index begins: at the finger when the index lies behind it or not far before it, else in front.
PbrNodeEntry *searchStart(const PbrListEntry *pList, uint64_t from) PBR_LOCK_HELD {
    PbrNodeEntry *pFirst = pbrListNodeFirst(pList);
    PbrNodeEntry *pFinger = gPbrInfo.pNodeFinger;
    if (pFinger == nullptr || pFinger->pPbrList != pList) {
        return pFirst;
    }
    const bool isFarBefore = from <= pFinger->nodeIndex && from - pFirst->nodeIndex < pFinger->nodeIndex - from;
    return isFarBefore || from <= pFirst->nodeIndex ? pFirst : pFinger;
}

} // namespace

PbrNodeEntry *pbrNodeEntryFrom(const PbrListEntry *pList, uint64_t from) {
    PbrNodeEntry *pNode = searchStart(pList, from);
    while (pNode != nullptr && pNode->nodeIndex < from) {
        gPbrInfo.pNodeFinger = pNode;
        pNode = pbrListNodeNext(pList, pNode);
    }
    if (pNode == nullptr) {
        return nullptr; // the finger is the last one
    }
    for (PbrNodeEntry *pBefore = nodeBefore(pList, pNode); pBefore != nullptr && pBefore->nodeIndex >= from;
         pBefore = nodeBefore(pList, pBefore)) {
        pNode = pBefore;
    }
    gPbrInfo.pNodeFinger = pNode;
    return pNode;
}

PbrNodeEntry *pbrNodeEntryAdd(const uint8_t *pName, uint32_t nameLen, uint32_t nodeIndex) {
    PbrListEntry *pList = pbrListEntryGet(pName, nameLen);
    if (pList == nullptr) {
        return nullptr;
    }
    PbrNodeEntry *pNode = static_cast<PbrNodeEntry *>(silMemPoolAlloc(&gPbrInfo.nodePool, 0));
    if (pNode == nullptr) {
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_TABLE, TEXT_NO_SLOT);
        return nullptr;
    }
    pNode->nodeIndex = nodeIndex;
    pNode->pPbrList = pList;
    pbrNodeIpPriSet(pNode, PBR_IP_PRI_NONE);
    pNode->timeRangeId = PBR_TIME_RANGE_NONE;
    listInit(&pNode->nextHopList);
    listInsertAfter(&pNode->listLink, nodePlace(pList, nodeIndex));
    pNode->status = PBR_ROW_CREATED;
    pbrViewMarkList(pList);
    return pNode;
}

int32_t pbrNodeEntryDel(PbrNodeEntry *pNode) {
    pbrViewMarkList(pNode->pPbrList);
    if (gPbrInfo.pNodeFinger == pNode) {
        gPbrInfo.pNodeFinger = nullptr;
    }
    PbrNextHopEntry *pNext = nullptr;
    listUnlink(&pNode->listLink);
    listUnlinkInit(&pNode->auxLink);
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr; pHop = pNext) {
        pNext = pbrNodeNextHopNext(pNode, pHop);
        (void)pbrNextHopEntryDel(pHop); // 0 always
    }
    silMemPoolFree(&gPbrInfo.nodePool, pNode);
    return 0;
}

PbrNodeEntry *pbrNodeEntryGet(const uint8_t *pName, uint32_t nameLen, uint32_t nodeIndex) {
    if (pName == nullptr) {
        return nullptr;
    }
    for (PbrLink *pLink = listFirst(&gPbrInfo.usedTable); pLink != nullptr;
         pLink = listNext(&gPbrInfo.usedTable, pLink)) {
        const PbrListEntry *pList = pbrListFromUsedLink(pLink);
        if (pList->nameLen != nameLen || memcmp(pList->name, pName, nameLen) != 0) {
            continue;
        }
        PbrNodeEntry *pNode = nodeOfIndex(pList, nodeIndex);
        if (pNode != nullptr) {
            return pNode;
        }
    }
    return nullptr;
}

int32_t pbrNodeAclNumCheck(uint32_t aclNum) {
    for (PbrLink *pLink = listFirst(&gPbrInfo.usedTable); pLink != nullptr;
         pLink = listNext(&gPbrInfo.usedTable, pLink)) {
        const PbrListEntry *pList = pbrListFromUsedLink(pLink);
        for (PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr; pNode = pbrListNodeNext(pList, pNode)) {
            if (pNode->aclNum == aclNum) {
                return -1;
            }
        }
    }
    return 0;
}

// The nodes of a policy list.
#include "store/pbr_node_entry.h"

#include <cstring>

#include "core/pbr_trace.h"
#include "store/pbr_list_entry.h"
#include "store/pbr_next_hop_entry.h"
#include "store/pbr_view_mark.h"

namespace {

const char TEXT_NO_SLOT[] = "pbr node free table is empty!\r\n";

// The link behind which a node of that index goes: the last node passed, or the head.
PbrLink *nodePlace(PbrListEntry *pList, uint32_t nodeIndex) {
    PbrLink *pAfter = &pList->nodeList;
    for (PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr && pNode->nodeIndex <= nodeIndex;
         pNode = pbrListNodeNext(pList, pNode)) {
        pAfter = &pNode->listLink;
    }
    return pAfter;
}

PbrNodeEntry *nodeOfIndex(const PbrListEntry *pList, uint32_t nodeIndex) {
    PbrNodeEntry *pNode = pbrListNodeFirst(pList);
    while (pNode != nullptr && pNode->nodeIndex != nodeIndex) {
        pNode = pbrListNodeNext(pList, pNode);
    }
    return pNode;
}

} // namespace

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

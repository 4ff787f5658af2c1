// The next hops of a node.
#include "store/pbr_next_hop_entry.h"

#include "core/pbr_trace.h"
#include "store/pbr_nqa_entry.h"
#include "store/pbr_view_mark.h"

namespace {

const char TEXT_ADD[] = "pbr nexthop entry add %d!\r\n";
const char TEXT_NO_SLOT[] = "pbr nexthop free table is empty!\r\n";

// The link behind which a next hop of that index goes: the last one passed, or the head.
PbrLink *nextHopPlace(PbrNodeEntry *pNode, uint8_t index) {
    PbrLink *pAfter = &pNode->nextHopList;
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr && pHop->nextHopIndex <= index;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        pAfter = &pHop->nodeLink;
    }
    return pAfter;
}

// Deletes the record of the next hop's probe test when no other next hop names it.
void nqaRelease(const PbrNextHopEntry *pHop) PBR_LOCK_HELD {
    if (pHop->nqaAdminNameLen == 0 || pHop->nqaTestNameLen == 0 || pbrNqaCheckNoUsed(pHop) != 0) {
        return;
    }
    PbrNqaEntry *pNqa = pbrNqaEntryGet(pHop->nqaAdminName, pHop->nqaAdminNameLen & 0xFFu, pHop->nqaTestName,
                                       pHop->nqaTestNameLen & 0xFFu);
    if (pNqa != nullptr) {
        (void)pbrNqaEntryDel(pNqa); // 0 always
    }
}

bool nodeHolds(const PbrNodeEntry *pNode, const PbrNextHopEntry *pHop) {
    for (PbrNextHopEntry *p = pbrNodeNextHopFirst(pNode); p != nullptr; p = pbrNodeNextHopNext(pNode, p)) {
        if (p == pHop) {
            return true;
        }
    }
    return false;
}

// No node may be left with a best next hop that is gone (the periodic update can carry a choice from
// one node to another). The owner's list is marked for the redirect view.
void forgetEverywhere(const PbrNextHopEntry *pHop) PBR_LOCK_HELD {
    for (PbrLink *pLink = listFirst(&gPbrInfo.usedTable); pLink != nullptr;
         pLink = listNext(&gPbrInfo.usedTable, pLink)) {
        PbrListEntry *pList = pbrListFromUsedLink(pLink);
        for (PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr; pNode = pbrListNodeNext(pList, pNode)) {
            if (pNode->pPbrNhopBest == pHop) {
                pNode->pPbrNhopBest = nullptr;
            }
            if (nodeHolds(pNode, pHop)) {
                pbrViewMarkList(pList);
            }
        }
    }
}

} // namespace

PbrNextHopEntry *pbrNextHopEntryAdd(PbrNodeEntry *pNode, uint32_t index) {
    if (pNode == nullptr) {
        return nullptr;
    }
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_GENERAL, TEXT_ADD, static_cast<int>(index));
    PbrNextHopEntry *pHop = static_cast<PbrNextHopEntry *>(silMemPoolAlloc(&gPbrInfo.nextHopPool, 0));
    if (pHop == nullptr) {
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_TABLE, TEXT_NO_SLOT);
        return nullptr;
    }
    pHop->nextHopIndex = static_cast<uint8_t>(index);
    listInsertAfter(&pHop->nodeLink, nextHopPlace(pNode, pHop->nextHopIndex));
    pHop->status = PBR_ROW_CREATED;
    pbrNextHopHwAddRefCntSet(pHop, 0);
    pbrNextHopHwDelRefCntSet(pHop, 0);
    pbrViewMarkList(pNode->pPbrList);
    return pHop;
}

int32_t pbrNextHopEntryDel(PbrNextHopEntry *pHop) {
    nqaRelease(pHop);
    forgetEverywhere(pHop);
    listUnlinkInit(&pHop->nodeLink);
    silMemPoolFree(&gPbrInfo.nextHopPool, pHop);
    return 0;
}

PbrNextHopEntry *pbrNextHopEntryGet(const PbrNodeEntry *pNode, uint32_t index) {
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr; pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (pHop->nextHopIndex == index) {
            return pHop;
        }
    }
    return nullptr;
}

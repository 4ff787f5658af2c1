// The periodic update: see the header.
//
// Three values are carried further than one would expect, all published behaviour that other events
// build on: `changed` counts over a whole list (once a node changed, every later node of the list is
// rewritten), `failed` too (after a failure the flags of later nodes stay set), and the saved best next
// hop over the whole run (a link that was not deleted can receive the value saved for an earlier one, of
// another node or list). pPbrNhopBest is therefore compared here and never read through.
#include "nexthop/pbr_if_node_update.h"

#include "core/pbr_trace.h"
#include "hw/pbr_if_node_hw.h"
#include "nexthop/pbr_nexthop_select.h"
#include "platform/qrv_socket.h"
#include "store/pbr_if_node_chain.h"
#include "store/pbr_records.h"
#include "store/pbr_view_mark.h"

namespace {

constexpr char TEXT_LIST[] = "pbrIfNodeUpdate check ready table,pbr list name:%.*s.\r\n";
constexpr char TEXT_NODE[] = "pbrIfNodeUpdate check ready table,pbr node index:%d.\r\n";
constexpr char TEXT_SELECT[] =
    "pbrIfNodeUpdate select best nexthop %d,curSelected:%d,lastSelected:%d.\r\n";
constexpr char TEXT_NO_CHANGE[] = "pbrIfNodeUpdate no change best nexthop %p.\r\n";
constexpr char TEXT_UPDATE[] =
    "pbr start to update pbrnode,change %d,pPbrNode->stateChangeFlag %d.\r\n";
constexpr char TEXT_IF[] = "check pbr if entry ifUnit:%d\r\n";
constexpr char TEXT_LINK[] = "check pbr IfNode:%p, cmp %p \r\n";
constexpr char TEXT_LINK_SKIP[] = "check change:%d, stateChangeFlag %d \r\n";
constexpr char TEXT_NO_BEST[] = "no best nhop,do not add hw.\r\n";
constexpr char TEXT_ADD[] = "pbr start to add hw.\r\n";

#define TRACE_HARDWARE(...) PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, __VA_ARGS__)
#define TRACE_GENERAL(...) PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_EVENT, __VA_ARGS__)

// What one run carries along.
struct Run {
    PbrNextHopEntry *pSavedBest; // best remembered before the latest delete; null at the start of the run
    uint32_t changed;            // changes seen in the present list so far
    uint32_t failed;             // failed adds in the present list so far
    bool isChained;              // the present list's links are chained by node
};

bool isInputWaiting() PBR_LOCK_HELD {
    uint32_t pending = 0;
    (void)qrv_ioctl(gPbrInfo.rtSock, QRV_FIONREAD, &pending);
    return pending > 0;
}

uint32_t ecmpChangesCount(const PbrNodeEntry *pNode) {
    uint32_t count = 0;
    for (const PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        count += pHop->curSelected != pHop->lastSelected ? 1 : 0;
    }
    return count;
}

// Selects again and stores the choice. Result: 1 when it differs from the one before, else 0.
uint32_t bestUpdate(PbrNodeEntry *pNode) PBR_LOCK_HELD {
    PbrNextHopEntry *pBest = pbrBestNexthopSelect(pNode);
    if (pBest == pNode->pPbrNhopBest) {
        TRACE_HARDWARE(TEXT_NO_CHANGE, static_cast<const void *>(pBest));
        return 0;
    }
    if (pBest != nullptr) {
        TRACE_HARDWARE(TEXT_SELECT, pBest->nextHopIndex, pBest->curSelected, pBest->lastSelected);
    }
    pNode->pPbrNhopBest = pBest;
    return 1;
}

// Removes the link's entry before it is added again; what the delete clears is remembered.
void linkRemove(Run *pRun, PbrNodeEntry *pNode, PbrIfNodeEntry *pLink) PBR_LOCK_HELD {
    pRun->pSavedBest = pNode->pPbrNhopBest;
    (void)pbrIfNodeHwDel(pLink); // a failed delete is counted there and not looked at
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        pbrNextHopHwAddRefCntSet(pHop, pbrNextHopHwAddRefCntGet(pHop) + 1);
        if (pbrNodeIsEcmpGet(pNode) == 1 && pHop->nexthopArpState == 1) {
            pHop->curSelected = 1;
        }
    }
}

void linkAdd(Run *pRun, PbrNodeEntry *pNode, PbrIfNodeEntry *pLink) PBR_LOCK_HELD {
    if (pbrNodeIsEcmpGet(pNode) != 1 && pNode->pPbrNhopBest == nullptr && pRun->pSavedBest == nullptr) {
        // How a node loses its redirect when nothing is usable; nodes without next hops lose theirs too.
        TRACE_GENERAL(TEXT_NO_BEST);
        return;
    }
    TRACE_GENERAL(TEXT_ADD);
    if (pRun->pSavedBest != nullptr) {
        pNode->pPbrNhopBest = pRun->pSavedBest;
    }
    if (pbrIfNodeHwAdd(pLink) != 0) {
        pNode->pPbrNhopBest = nullptr; // the next run sees a change again
        pRun->failed++;
        return;
    }
    pbrIfNodeStateChangeSet(pLink, false);
}

void linkUpdate(Run *pRun, PbrNodeEntry *pNode, PbrIfNodeEntry *pLink) PBR_LOCK_HELD {
    if (pRun->changed == 0 && !pbrIfNodeStateChangeGet(pLink)) {
        TRACE_GENERAL(TEXT_LINK_SKIP, static_cast<int32_t>(pRun->changed), pbrIfNodeStateChangeGet(pLink));
        return;
    }
    uint32_t hwStatus = pbrIfNodeHwStatusGet(pLink);
    if (hwStatus == PBR_HW_PROGRAMMED || hwStatus == PBR_HW_FAILED) {
        linkRemove(pRun, pNode, pLink);
    }
    linkAdd(pRun, pNode, pLink);
}

// The node's links, with the texts that tell of every link looked at.
void linksUpdateTraced(Run *pRun, const PbrListEntry *pList, PbrNodeEntry *pNode) PBR_LOCK_HELD {
    for (const PbrIfEntry *pIf = pbrListBoundIfFirst(pList); pIf != nullptr;
         pIf = pbrListBoundIfNext(pList, pIf)) {
        TRACE_GENERAL(TEXT_IF, static_cast<int32_t>(pIf->ifUnit));
        for (PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr;
             pLink = pbrIfIfNodeNext(pIf, pLink)) {
            TRACE_GENERAL(TEXT_LINK, static_cast<const void *>(pLink->pPbrNode),
                          static_cast<const void *>(pNode));
            if (pLink->pPbrNode == pNode) {
                linkUpdate(pRun, pNode, pLink);
            }
        }
    }
}

// The same links in the same order. Nobody reads the texts, so that links of other nodes need not be looked at.
void linksUpdate(Run *pRun, const PbrListEntry *pList, PbrNodeEntry *pNode) PBR_LOCK_HELD {
    if (!pRun->isChained) {
        pbrIfNodeChainMake(pList);
        pRun->isChained = true;
    }
    for (PbrIfNodeEntry *pLink = pbrIfNodeChainFirst(pNode); pLink != nullptr; pLink = pbrIfNodeChainNext(pLink)) {
        linkUpdate(pRun, pNode, pLink);
    }
}

void nodeUpdate(Run *pRun, const PbrListEntry *pList, PbrNodeEntry *pNode) PBR_LOCK_HELD {
    TRACE_HARDWARE(TEXT_NODE, static_cast<int32_t>(pNode->nodeIndex));
    pRun->changed += pbrNodeIsEcmpGet(pNode) == 1 ? ecmpChangesCount(pNode) : bestUpdate(pNode);
    if (pRun->changed == 0 && !pbrNodeStateChangeGet(pNode)) {
        return;
    }
    TRACE_GENERAL(TEXT_UPDATE, static_cast<int32_t>(pRun->changed), pbrNodeStateChangeGet(pNode));
    if ((gPbrInfo.debugFlags & PBR_DEBUG_GENERAL) != 0) {
        linksUpdateTraced(pRun, pList, pNode);
    } else {
        linksUpdate(pRun, pList, pNode);
    }
    if (pRun->failed == 0) {
        pbrNodeStateChangeSet(pNode, false);
    }
}

void listUpdate(Run *pRun, PbrListEntry *pList) PBR_LOCK_HELD {
    TRACE_HARDWARE(TEXT_LIST, static_cast<int>(pList->nameLen), pList->name);
    pRun->failed = 0;
    pRun->changed = 0;
    pRun->isChained = false;
    for (PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr;
         pNode = pbrListNodeNext(pList, pNode)) {
        nodeUpdate(pRun, pList, pNode);
    }
    if (pRun->isChained) {
        pbrIfNodeChainDrop(pList);
    }
    if (pRun->failed == 0) {
        listUnlinkInit(&pList->readyLink);
    }
    pbrViewMarkList(pList);
}

} // namespace

int32_t pbrIfNodeUpdate() {
    Run run = {};
    PbrListEntry *pNext = nullptr;
    for (PbrListEntry *pList = pbrListFromReadyLink(listFirst(&gPbrInfo.readyTable)); pList != nullptr;
         pList = pNext) {
        pNext = pbrListFromReadyLink(listNext(&gPbrInfo.readyTable, &pList->readyLink)); // may be unlinked
        if (isInputWaiting()) {
            break;
        }
        listUpdate(&run, pList);
    }
    return 0;
}

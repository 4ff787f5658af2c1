// What peer reports do to the store: see the header.
#include "nexthop/pbr_nexthop_state.h"

#include "core/pbr_trace.h"
#include "nexthop/pbr_address.h"
#include "nexthop/pbr_nexthop_select.h"
#include "nexthop/pbr_ready_table.h"
#include "store/pbr_if_node_chain.h"
#include "store/pbr_records.h"
#include "store/pbr_view_mark.h"

namespace {

constexpr char TEXT_REPORT_IPV4[] = "%s ipAddr=%s,vpnVrfid=%d.\r\n";
constexpr char TEXT_REPORT_IPV6[] = "%s ip6Addr=%s,vpnVrfid=%d.\r\n";
constexpr char TEXT_HRD[] = "pbr hrd %s.(pbr=[%.*s/%u], family=[%u], vrId=[%u], ip=[%s])\r\n";
constexpr char TEXT_QUEUED[] = "%s add to ready table.\r\n";
constexpr char TEXT_CHANGE[] = "pbrNextHopStateChange pbr name:%.*s,index:%d.\r\n";
constexpr uint32_t HRD_LOG_FLAGS = 284;

// A report as received.
struct Peer {
    uint32_t family;
    uint32_t vrId;
    const uint8_t *pAddress;
};

void reportTrace(const char *pName, const Peer &peer) PBR_LOCK_HELD {
    PbrAddressText address = pbrAddressPrint(peer.family, peer.pAddress);
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_EVENT,
              peer.family == PBR_IP_VERSION_4 ? TEXT_REPORT_IPV4 : TEXT_REPORT_IPV6, pName, address.text,
              static_cast<int32_t>(peer.vrId));
}

void hrdLog(const char *pState, const PbrNodeEntry *pNode, const PbrNextHopEntry *pHop) {
    if (__atomic_load_n(&gPbrSelfLog, __ATOMIC_RELAXED) == 0) {
        return;
    }
    PbrAddressText address = pbrAddressPrint(pNode->policyRouteIpVer, pHop->nextHop);
    loggingLogOutput(PBR_LOG_EVENT, gPbrDebugPri[2], HRD_LOG_FLAGS, TEXT_HRD, pState,
                     static_cast<int>(pNode->pPbrList->nameLen), pNode->pPbrList->name, pNode->nodeIndex,
                     pNode->policyRouteIpVer, pNode->vrfid, address.text);
}

bool nodeMatches(const PbrNodeEntry *pNode, const Peer &peer) {
    return !listEmpty(&pNode->nextHopList) && pNode->policyRouteIpVer == peer.family &&
           pNode->vrfid == peer.vrId;
}

bool hopMatches(const PbrNextHopEntry *pHop, const Peer &peer) {
    return pbrAddressEqual(peer.family, pHop->nextHop, peer.pAddress);
}

void listQueue(const char *pName, PbrListEntry *pList) PBR_LOCK_HELD {
    pbrReadyTableAdd(pList);
    pbrViewMarkList(pList);
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_EVENT, TEXT_QUEUED, pName);
}

// What one report carries along.
struct Report {
    bool anyUp;     // a matching node with a reachable next hop was seen; through one whole down report
    bool isChained; // the present list's links are chained by node
};

// What a report does to one matching node. Result: how many changes were made.
typedef uint32_t (*NodeOperation)(PbrNodeEntry *pNode, const Peer &peer, Report *pReport);

// Applies a report to every matching node of every bound list and queues the lists that changed.
void report(const char *pName, const Peer &peer, NodeOperation nodeOperation) PBR_LOCK_HELD {
    Report carried = {};
    for (PbrListEntry *pList = pbrListFromUsedLink(listFirst(&gPbrInfo.usedTable)); pList != nullptr;
         pList = pbrListFromUsedLink(listNext(&gPbrInfo.usedTable, &pList->usedLink))) {
        if (pbrListRefCntGet(pList) == 0) {
            continue;
        }
        uint32_t changed = 0;
        for (PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr;
             pNode = pbrListNodeNext(pList, pNode)) {
            if (nodeMatches(pNode, peer)) {
                changed += nodeOperation(pNode, peer, &carried);
            }
        }
        if (carried.isChained) {
            pbrIfNodeChainDrop(pList);
            carried.isChained = false;
        }
        if (changed != 0) {
            listQueue(pName, pList);
        }
    }
}

uint32_t nodeUp(PbrNodeEntry *pNode, const Peer &peer, Report *) {
    uint32_t changed = 0;
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (!hopMatches(pHop, peer)) {
            continue;
        }
        changed++;
        pHop->nexthopArpState = 1;
        pNode->nhopArpUp = 1;
        if (pbrNodeIsEcmpGet(pNode) == 1) {
            pHop->curSelected = 1;
        }
        hrdLog("up", pNode, pHop);
    }
    return changed;
}

bool nodeHasReachable(const PbrNodeEntry *pNode) {
    for (const PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (pHop->nexthopArpState == 1) {
            return true;
        }
    }
    return false;
}

uint32_t nodeDown(PbrNodeEntry *pNode, const Peer &peer, Report *pReport) {
    uint32_t changed = 0;
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (!hopMatches(pHop, peer)) {
            continue;
        }
        pHop->nexthopArpState = 0;
        pHop->curSelected = 0;
        changed++;
        hrdLog("down", pNode, pHop);
    }
    // Once one matching node has a reachable next hop, every later matching node of this report gets 1,
    // in the following lists too: published behaviour, not to be reset a node or a list.
    if (nodeHasReachable(pNode)) {
        pReport->anyUp = true;
    }
    pNode->nhopArpUp = pReport->anyUp ? 1 : 0;
    return changed;
}

void linksMark(const PbrNodeEntry *pNode, Report *pReport) PBR_LOCK_HELD {
    if (!pReport->isChained) {
        pbrIfNodeChainMake(pNode->pPbrList);
        pReport->isChained = true;
    }
    for (PbrIfNodeEntry *pLink = pbrIfNodeChainFirst(pNode); pLink != nullptr; pLink = pbrIfNodeChainNext(pLink)) {
        pbrIfNodeStateChangeSet(pLink, true);
    }
}

uint32_t nodeChange(PbrNodeEntry *pNode, const Peer &peer, Report *pReport) PBR_LOCK_HELD {
    const PbrNextHopEntry *pBest = pbrBestNexthopSelect(pNode); // also refreshes the marks
    if (pBest == nullptr || pbrNodeIsEcmpGet(pNode) == 1) {     // the ECMP marker is no next hop
        return 0;
    }
    if (!hopMatches(pBest, peer)) {
        return 0;
    }
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_EVENT, TEXT_CHANGE, static_cast<int>(pNode->pPbrList->nameLen),
              pNode->pPbrList->name, static_cast<int32_t>(pNode->nodeIndex));
    pbrNodeStateChangeSet(pNode, true);
    linksMark(pNode, pReport);
    return 1;
}

} // namespace

void pbrNextHopStateUp(uint32_t family, uint32_t vrId, const uint8_t *pAddress) {
    const Peer peer = {family, vrId, pAddress};
    reportTrace("pbrNextHopStateUp", peer);
    report("pbrNextHopStateUp", peer, nodeUp);
}

void pbrNextHopStateDown(uint32_t family, uint32_t vrId, const uint8_t *pAddress) {
    const Peer peer = {family, vrId, pAddress};
    reportTrace("pbrNextHopStateDown", peer);
    report("pbrNextHopStateDown", peer, nodeDown);
}

void pbrNextHopStateChange(uint32_t family, uint32_t vrId, const uint8_t *pAddress) {
    const Peer peer = {family, vrId, pAddress};
    reportTrace("pbrNextHopStateChange recv rtm msg", peer);
    report("pbrNextHopStateChange", peer, nodeChange);
}

// Binding a policy list to an interface, and undoing it: see the header.
#include "hw/pbr_if_bind.h"

#include "core/pbr_trace.h"
#include "hw/pbr_if_node_hw.h"
#include "nexthop/pbr_nexthop_detect.h"
#include "platform/acl.h"
#include "platform/qrv_if.h"
#include "store/pbr_if_node_entry.h"
#include "store/pbr_list_entry.h"
#include "store/pbr_view_mark.h"

namespace {

constexpr char TEXT_BIND_ADD[] = "pbrIfEntryBind find nhop start to add hw.\r\n";
constexpr char TEXT_BIND_WAIT[] = "pbrIfEntryBind pPbrNode(%p) is not best nhop,wait for hrd notify.\r\n";
constexpr char TEXT_UNBIND_DEL[] = "pbrIfEntryUnBind start to delete hw,hwStatus:%d.\r\n";
constexpr char TEXT_UNBIND_COUNT[] = "pbrIfEntryUnBind start to delete hwAddRefCnt.\r\n";
constexpr char TEXT_UNBIND_BEST[] = "pbrIfEntryUnBind pPbrNhopBest:%p.\r\n";
constexpr char TEXT_PROTOCOL[] =
    "The interface %s protocol error.(ifName=[%s], proto=[%s], type=[state])\r\n";
constexpr char PROTOCOL_NAME[] = "policy-route"; // of protocol id 206, the only one asked for
constexpr uint32_t NAME_SIZE = 64;

// One direction of the protocol switch.
struct ProtocolSwitch {
    uint32_t command;
    uint32_t logId;
    uint32_t priorityEntry;
    const char *pVerb;
};
constexpr ProtocolSwitch ENABLE = {QRV_IF_PROTO_ENABLE, PBR_LOG_ENABLE, 5, "enable"};
constexpr ProtocolSwitch DISABLE = {QRV_IF_PROTO_DISABLE, PBR_LOG_DISABLE, 6, "disable"};

// A switch that fails is logged and does not change the caller's result.
void protocolSet(uint32_t ifUnit, const ProtocolSwitch &change) {
    uint32_t protocol = QRV_PROTO_POLICY_ROUTE;
    if (qrvIfSetApi(ifUnit, change.command, &protocol) == 0) {
        return;
    }
    char name[NAME_SIZE] = {};
    loggingLogOutput(change.logId, gPbrDebugPri[change.priorityEntry], 0, TEXT_PROTOCOL, change.pVerb,
                     qrvIfUnit2Name(ifUnit, name, sizeof(name)), PROTOCOL_NAME);
}

// One user more (+1) or less (-1) of the node's ACL; the module's result is not used.
void aclUsersChange(const PbrNodeEntry *pNode, int32_t delta) {
    (void)aclLstSyncApi(pNode->aclNum, ACL_LST_USERS, &delta);
}

void addRefCntRaise(const PbrNodeEntry *pNode) {
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        pbrNextHopHwAddRefCntSet(pHop, pbrNextHopHwAddRefCntGet(pHop) + 1);
    }
}

// First binding of the list: its next hops are registered and what is known of them is taken over. The
// entry is written later, when a next hop is reported.
void detectionStart(PbrListEntry *pList, PbrNodeEntry *pNode) PBR_LOCK_HELD {
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        (void)pbrNextHopDetect(pNode->policyRouteIpVer, pNode->vrfid, pHop);
        pbrNextHopUpdateArpState(pList, pNode->policyRouteIpVer, pNode->vrfid, pHop);
        if (pHop->nexthopArpState == 1) {
            pNode->nhopArpUp = 1;
        }
    }
}

void ecmpMark(const PbrNodeEntry *pNode) {
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (pHop->nexthopArpState == 1) {
            pHop->curSelected = 1;
        }
    }
}

// A further binding: the next hops are watched already, so the entry is written now if one can be used.
// A failed add is not retried from here; its link shows it.
void knownNodeBind(const PbrNodeEntry *pNode, PbrIfNodeEntry *pLink) PBR_LOCK_HELD {
    if (pbrNodeIsEcmpGet(pNode) == 1) {
        ecmpMark(pNode);
        (void)pbrIfNodeHwAdd(pLink);
    } else if (pNode->nhopArpUp == 1) {
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_GENERAL, TEXT_BIND_ADD);
        (void)pbrIfNodeHwAdd(pLink);
    } else {
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_GENERAL, TEXT_BIND_WAIT, static_cast<const void *>(pNode));
    }
}

void nodeBind(PbrListEntry *pList, PbrNodeEntry *pNode, PbrIfNodeEntry *pLink) PBR_LOCK_HELD {
    if (listEmpty(&pNode->nextHopList) || pNode->outIfUnit != 0) {
        (void)pbrIfNodeHwAdd(pLink);
        return;
    }
    addRefCntRaise(pNode);
    // The count has four bits: on the sixteenth binding it is 0 and nothing is done for nodes with next
    // hops, and the seventeenth is a first binding again. Published behaviour.
    if (pbrListRefCntGet(pList) == 1) {
        detectionStart(pList, pNode);
    } else if (pbrListRefCntGet(pList) >= 2) {
        knownNodeBind(pNode, pLink);
    }
}

void detectionStop(const PbrIfEntry *pIf, const PbrNodeEntry *pNode) PBR_LOCK_HELD {
    for (const PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (pbrNextHopCheckUnDetect(pIf, pNode->policyRouteIpVer, pNode->vrfid, pHop) == 0) {
            (void)pbrNextHopUnDetect(pNode->policyRouteIpVer, pNode->vrfid, pHop);
        }
    }
}

// Takes back what binding left of a link that never came into the device.
void idleLinkUnBind(const PbrListEntry *pList, PbrNodeEntry *pNode) PBR_LOCK_HELD {
    if (pNode->outIfUnit == 0) {
        for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
             pHop = pbrNodeNextHopNext(pNode, pHop)) {
            PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_GENERAL, TEXT_UNBIND_COUNT);
            pbrNextHopHwAddRefCntSet(pHop, pbrNextHopHwAddRefCntGet(pHop) - 1);
        }
    }
    if (pbrListRefCntGet(pList) == 0) {
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_GENERAL, TEXT_UNBIND_BEST,
                  static_cast<const void *>(pNode->pPbrNhopBest));
        pNode->pPbrNhopBest = nullptr;
    }
}

void linkUnBind(const PbrListEntry *pList, const PbrIfEntry *pIf, PbrIfNodeEntry *pLink) PBR_LOCK_HELD {
    PbrNodeEntry *pNode = pLink->pPbrNode;
    if (pbrListRefCntGet(pList) == 0) {
        detectionStop(pIf, pNode);
    }
    uint32_t hwStatus = pbrIfNodeHwStatusGet(pLink);
    if (hwStatus == PBR_HW_PROGRAMMED || hwStatus == PBR_HW_FAILED) {
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_GENERAL, TEXT_UNBIND_DEL, static_cast<int32_t>(hwStatus));
        (void)pbrIfNodeHwDel(pLink); // counted and logged there; the link goes in any case
    } else {
        idleLinkUnBind(pList, pNode);
    }
    (void)pbrIfNodeEntryDel(pLink); // marks the link's own list, which may be another after a failed binding
}

} // namespace

int32_t pbrIfEntryBind(PbrIfEntry *pIf) {
    PbrListEntry *pList = pbrListEntryGet(pIf->pbrName, pIf->pbrNameLen);
    if (pList == nullptr || pbrListEntryValidate(pList) != 0) {
        return -1;
    }
    pbrListRefCntSet(pList, pbrListRefCntGet(pList) + 1);
    pbrViewMarkList(pList);
    for (PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr;
         pNode = pbrListNodeNext(pList, pNode)) {
        aclUsersChange(pNode, 1);
        PbrIfNodeEntry *pLink = pbrIfNodeEntryAdd(pIf, pNode);
        if (pLink == nullptr) {
            return -1; // no way back for the nodes before, nor for the count: published behaviour
        }
        nodeBind(pList, pNode, pLink);
    }
    listUnlinkInit(&pIf->boundLink);
    listInsertAfter(&pIf->boundLink, &pList->auxList);
    protocolSet(pIf->ifUnit, ENABLE);
    return 0;
}

uint32_t pbrIfEntryUnBind(PbrIfEntry *pIf) {
    PbrListEntry *pList = pbrListEntryGet(pIf->pbrName, pIf->pbrNameLen);
    if (pList == nullptr) {
        return PBR_ERR_UNBIND_NO_LIST;
    }
    for (PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr;
         pNode = pbrListNodeNext(pList, pNode)) {
        aclUsersChange(pNode, -1);
    }
    pbrListRefCntSet(pList, pbrListRefCntGet(pList) - 1);
    pbrViewMarkList(pList);
    PbrIfNodeEntry *pNext = nullptr;
    for (PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr; pLink = pNext) {
        pNext = pbrIfIfNodeNext(pIf, pLink); // the link is freed below
        linkUnBind(pList, pIf, pLink);
    }
    // Also while other interfaces are bound: their pending work then waits for the next event. Meant.
    listUnlinkInit(&pList->readyLink);
    listUnlinkInit(&pIf->boundLink);
    protocolSet(pIf->ifUnit, DISABLE);
    return PBR_OK;
}

// ACL events: see the header.
#include "rtmsg/pbr_acl_msg.h"

#include "core/pbr_bytes.h"
#include "core/pbr_trace.h"
#include "hw/pbr_acl_rule_hw.h"
#include "platform/qrv_rtm.h"
#include "store/pbr_view_mark.h"

namespace {

constexpr char TEXT_ADD[] =
    "pbr receive QRV_RTM_ACL_ADDACLRULE,listNum=%d,ruleNum=%d,name=%.*s,nodeIndex=%d.\r\n";
constexpr char TEXT_ADD_LINK[] = "pbr receive QRV_RTM_ACL_ADDACLRULE,name=%.*s,nodeIndex=%d,pPbrNhopBest:%p,"
                                 "emptyAcl:%d,aclNoAction:%d,outIfUnit:%d.\r\n";
constexpr char TEXT_ADD_HW[] =
    "pbr rule %d start to add hw,name=%.*s,nodeIndex=%d,emptyAcl:%d,outIfUnit:%d,ipPri:%d.\r\n";
constexpr char TEXT_DEL[] = "pbr rcv del acl rule msg,listNum=%d,ruleNum=%d.\r\n";
constexpr char TEXT_DEL_UNBOUND[] = "pbr list %.*s refCnt is 0.ignore\r\n";
constexpr char TEXT_DEL_NODE[] =
    "pbr receive QRV_RTM_ACL_DELACLRULE,listNum=%d,ruleNum=%d,name=%.*s,nodeIndex=%d.\r\n";

#define TRACE(...) PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_EVENT, __VA_ARGS__)
#define LIST_ARGS(pList) static_cast<int>((pList)->nameLen), (pList)->name

// One rule message.
struct RuleEvent {
    uint32_t listNum;
    uint32_t ruleNum;
};

RuleEvent eventOf(const uint8_t *pMessage) {
    const uint8_t *pPayload = pMessage + QRV_RTM_HEADER_BYTES;
    return {pbrLoadU32(pPayload + offsetof(AclRuleMsg, listNum)),
            pbrLoadU32(pPayload + offsetof(AclRuleMsg, ruleNum))};
}

PbrListEntry *firstList() {
    return pbrListFromUsedLink(listFirst(&gPbrInfo.usedTable));
}

PbrListEntry *nextList(const PbrListEntry *pList) {
    return pbrListFromUsedLink(listNext(&gPbrInfo.usedTable, &pList->usedLink));
}

// The list's node that matches the ACL; the node found earlier in this read when the list has none.
void nodeFind(PbrRtmRead *pRead, const PbrListEntry *pList, uint32_t aclNum) {
    for (PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr;
         pNode = pbrListNodeNext(pList, pNode)) {
        if (pNode->aclNum == aclNum) {
            pRead->foundNode = pNode;
            return;
        }
    }
}

// ---- a rule was added ----

bool isWaiting(const PbrIfNodeEntry *pLink) {
    return pLink->emptyAcl == 1 || pLink->aclNoAction == 1;
}

// The interface's first link to the node that is in the device or waits for its first rule.
PbrIfNodeEntry *linkForAdd(const PbrIfEntry *pIf, const PbrNodeEntry *pNode) {
    for (PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr;
         pLink = pbrIfIfNodeNext(pIf, pLink)) {
        const bool isIn = pbrIfNodeHwStatusGet(pLink) == PBR_HW_PROGRAMMED || isWaiting(pLink);
        if (pLink->pPbrNode == pNode && isIn) {
            return pLink;
        }
    }
    return nullptr;
}

void plainAdd(const PbrListEntry *pList, PbrIfNodeEntry *pLink, const RuleEvent &event) PBR_LOCK_HELD {
    const PbrNodeEntry *pNode = pLink->pPbrNode;
    TRACE(TEXT_ADD_HW, static_cast<int32_t>(event.ruleNum), LIST_ARGS(pList),
          static_cast<int32_t>(pNode->nodeIndex), pLink->emptyAcl, static_cast<int32_t>(pNode->outIfUnit),
          static_cast<int32_t>(pbrNodeIpPriGet(pNode)));
    (void)pbrAclRuleHwAdd(pLink, event.listNum, event.ruleNum); // counted and logged there
    if (pLink->emptyAcl == 1) {
        pbrIfNodeHwStatusSet(pLink, PBR_HW_PROGRAMMED);
        pLink->emptyAcl = 0;
    } else if (pLink->aclNoAction == 1) {
        pbrIfNodeHwStatusSet(pLink, PBR_HW_PROGRAMMED);
        pLink->aclNoAction = 0;
    }
}

// The best of a node may be another node's: its index is what counts, published, so the own next hop of
// that index is marked, or none. A best that is nobody's any more was cleared when it was freed.
void chosenMark(const PbrNodeEntry *pNode) {
    const bool isEcmp = pbrNodeIsEcmpGet(pNode) != 0;
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (isEcmp ? pHop->nexthopArpState == 1 : pHop->nextHopIndex == pNode->pPbrNhopBest->nextHopIndex) {
            pHop->curSelected = 1;
        }
    }
}

// A link that had no entry until now has one with its first rule.
void firstRuleMark(PbrIfNodeEntry *pLink) {
    const PbrNodeEntry *pNode = pLink->pPbrNode;
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (pbrNextHopHwAddRefCntGet(pHop) == 1 && pHop->curSelected == 1) {
            pHop->lastSelected = 1;
            pHop->curSelected = 0;
            pHop->nexthopHwState = 1;
        }
        pbrNextHopHwAddRefCntSet(pHop, pbrNextHopHwAddRefCntGet(pHop) - 1);
        pbrNextHopHwDelRefCntSet(pHop, pbrNextHopHwDelRefCntGet(pHop) + 1);
    }
    pbrIfNodeHwStatusSet(pLink, PBR_HW_PROGRAMMED);
    pLink->emptyAcl = 0;
    pLink->aclNoAction = 0;
}

void nextHopAdd(PbrRtmRead *pRead, PbrIfNodeEntry *pLink, const RuleEvent &event) PBR_LOCK_HELD {
    chosenMark(pLink->pPbrNode);
    (void)pbrAclRuleHwAdd(pLink, event.listNum, event.ruleNum); // counted and logged there
    if (isWaiting(pLink)) {
        firstRuleMark(pLink);
    }
    pRead->hwCount++; // not on the path without next hops: published
}

void linkAdd(PbrRtmRead *pRead, const PbrListEntry *pList, PbrIfNodeEntry *pLink, const RuleEvent &event) PBR_LOCK_HELD {
    const PbrNodeEntry *pNode = pLink->pPbrNode;
    TRACE(TEXT_ADD_LINK, LIST_ARGS(pList), static_cast<int32_t>(pNode->nodeIndex),
          static_cast<const void *>(pNode->pPbrNhopBest), pLink->emptyAcl, pLink->aclNoAction,
          static_cast<int32_t>(pNode->outIfUnit));
    const bool isPriorityOnly =
        pbrNodeIpPriGet(pNode) != PBR_IP_PRI_NONE && listEmpty(&pNode->nextHopList);
    if (pNode->outIfUnit != 0 || isPriorityOnly) {
        plainAdd(pList, pLink, event);
    } else if (pNode->pPbrNhopBest != nullptr || pbrNodeIsEcmpGet(pNode) != 0) {
        nextHopAdd(pRead, pLink, event);
    }
}

void listAdd(PbrRtmRead *pRead, const PbrListEntry *pList, const RuleEvent &event) PBR_LOCK_HELD {
    const PbrNodeEntry *pNode = pRead->foundNode;
    TRACE(TEXT_ADD, static_cast<int32_t>(event.listNum), static_cast<int32_t>(event.ruleNum), LIST_ARGS(pList),
          static_cast<int32_t>(pNode->nodeIndex));
    for (const PbrIfEntry *pIf = pbrListBoundIfFirst(pList); pIf != nullptr;
         pIf = pbrListBoundIfNext(pList, pIf)) {
        PbrIfNodeEntry *pLink = linkForAdd(pIf, pNode);
        if (pLink != nullptr) {
            linkAdd(pRead, pList, pLink, event);
        }
    }
}

// ---- a rule was removed ----

PbrIfNodeEntry *linkForDel(const PbrIfEntry *pIf, const PbrNodeEntry *pNode) {
    for (PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr;
         pLink = pbrIfIfNodeNext(pIf, pLink)) {
        const uint32_t hwStatus = pbrIfNodeHwStatusGet(pLink);
        if (pLink->pPbrNode == pNode && (hwStatus == PBR_HW_PROGRAMMED || hwStatus == PBR_HW_FAILED)) {
            return pLink;
        }
    }
    return nullptr;
}

void listDel(PbrRtmRead *pRead, const PbrListEntry *pList, const RuleEvent &event) PBR_LOCK_HELD {
    TRACE(TEXT_DEL_NODE, static_cast<int32_t>(event.listNum), static_cast<int32_t>(event.ruleNum),
          LIST_ARGS(pList), static_cast<int32_t>(pRead->foundNode->nodeIndex));
    for (const PbrIfEntry *pIf = pbrListBoundIfFirst(pList); pIf != nullptr;
         pIf = pbrListBoundIfNext(pList, pIf)) {
        PbrIfNodeEntry *pLink = linkForDel(pIf, pRead->foundNode);
        if (pLink != nullptr) {
            (void)pbrAclRuleHwDel(pLink, event.listNum, event.ruleNum); // counted and logged there
            pRead->hwCount++;
        }
    }
}

} // namespace

bool pbrAclRuleAddMsgRcv(PbrRtmRead *pRead, const uint8_t *pMessage, int32_t) {
    const RuleEvent event = eventOf(pMessage);
    gPbrInfo.rcvRtmAclAddCnt++;
    for (const PbrListEntry *pList = firstList(); pList != nullptr; pList = nextList(pList)) {
        if (pbrListRefCntGet(pList) == 0) {
            continue;
        }
        nodeFind(pRead, pList, event.listNum);
        if (pRead->foundNode == nullptr) {
            continue;
        }
        listAdd(pRead, pList, event);
        if (pRead->hwCount != 0) {
            break;
        }
    }
    return true;
}

bool pbrAclRuleDelMsgRcv(PbrRtmRead *pRead, const uint8_t *pMessage, int32_t) {
    const RuleEvent event = eventOf(pMessage);
    gPbrInfo.rcvRtmAclDelCnt++;
    TRACE(TEXT_DEL, static_cast<int32_t>(event.listNum), static_cast<int32_t>(event.ruleNum));
    for (const PbrListEntry *pList = firstList(); pList != nullptr; pList = nextList(pList)) {
        if (pbrListRefCntGet(pList) == 0) {
            TRACE(TEXT_DEL_UNBOUND, LIST_ARGS(pList));
            continue;
        }
        nodeFind(pRead, pList, event.listNum);
        if (pRead->foundNode == nullptr) {
            continue;
        }
        listDel(pRead, pList, event);
        if (pRead->hwCount != 0) {
            break;
        }
    }
    return true;
}

// Bound lists are not touched: their nodes keep the number, which a new ACL may take again.
bool pbrAclDelMsgRcv(PbrRtmRead *, const uint8_t *pMessage, int32_t) {
    const uint32_t aclNum = pbrLoadU32(pMessage + QRV_RTM_HEADER_BYTES + offsetof(AclNumMsg, aclNum));
    for (PbrListEntry *pList = firstList(); pList != nullptr; pList = nextList(pList)) {
        if (pbrListRefCntGet(pList) != 0) {
            continue;
        }
        for (PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr;
             pNode = pbrListNodeNext(pList, pNode)) {
            pNode->aclNum = pNode->aclNum == aclNum ? 0 : pNode->aclNum;
        }
        pbrViewMarkList(pList);
    }
    return true;
}

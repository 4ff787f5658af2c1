// The entry in the device of one interface-node link: see the header.
#include "hw/pbr_if_node_hw.h"

#include "core/pbr_trace.h"
#include "hw/pbr_hw_acl_content.h"
#include "hw/pbr_if_name.h"
#include "store/pbr_view_mark.h"

namespace {

// The node's settings, at the end of every header text.
#define SETTINGS(equals)                                                                            \
    "aclNum=%d,ipPri=%d,forwardFlag=%d,outIfUnit=%d,vrfid=%d,isEcmp=%d,policyRouteIpVer" equals     \
    "%d.\r\n"
constexpr char TEXT_HEADER[] = "interface %s %s policy route node to hardware:" SETTINGS(" = ");
constexpr char TEXT_DEL_LOG[] = "Interface %s del policy route node to hardware:" SETTINGS("=");
#undef SETTINGS
constexpr char TEXT_NO_NEXT_HOP[] = "nextHop is not exist.\r\n";
constexpr char TEXT_CONTENT[] = "policyroute %s hardware acl content if[%s],lstIndex[%d],direction[%d],"
                                "action[%d],newIpPri[%d],vrfId[%u],len[%u].\r\n";
constexpr char TEXT_RESULT[] = "%s %s return:%d.\r\n";

constexpr uint32_t DEL_LOG_FLAGS = 2;

bool isReachable(const PbrNextHopEntry *pHop) {
    return pHop->nexthopArpState != 0;
}

bool isInDevice(const PbrNextHopEntry *pHop) {
    return pHop->nexthopHwState != 0;
}

constexpr PbrHwOperation ADD = {"pbr if node hardware add", isReachable};
constexpr PbrHwOperation DEL = {"pbr if node hardware del", isInDevice};

// The settings of a node as the header texts print them.
#define SETTINGS_ARGS(pNode)                                                                        \
    static_cast<int32_t>((pNode)->aclNum), static_cast<int32_t>(pbrNodeIpPriGet(pNode)),            \
        static_cast<int32_t>(pbrNodeForwardFlagGet(pNode)), static_cast<int32_t>((pNode)->outIfUnit), \
        static_cast<int32_t>((pNode)->vrfid), static_cast<int32_t>(pbrNodeIsEcmpGet(pNode)),        \
        (pNode)->policyRouteIpVer

void headerTrace(const PbrIfNodeEntry *pLink, const char *pVerb) PBR_LOCK_HELD {
    PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, TEXT_HEADER, pbrIfNameGet(pLink->ifUnit).text, pVerb,
              SETTINGS_ARGS(pLink->pPbrNode));
}

// Every removal leaves a log record, also one that sends nothing.
void delLog(const PbrIfNodeEntry *pLink) {
    loggingLogOutput(PBR_LOG_HARDWARE, gPbrDebugPri[3], DEL_LOG_FLAGS, TEXT_DEL_LOG,
                     pbrIfNameGet(pLink->ifUnit).text, SETTINGS_ARGS(pLink->pPbrNode));
}
#undef SETTINGS_ARGS

// Whether there is nothing to hand to the device: no ACL, or forwardFlag 2. The latter sets hwStatus 1,
// on a delete too: an intended mirror of the add.
bool isPassedOver(PbrIfNodeEntry *pLink) PBR_LOCK_HELD {
    const PbrNodeEntry *pNode = pLink->pPbrNode;
    if (listEmpty(&pNode->nextHopList)) {
        PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, TEXT_NO_NEXT_HOP);
    }
    if (pNode->aclNum == 0) {
        return true;
    }
    if (pbrNodeForwardFlagGet(pNode) == PBR_FORWARD_FLAG_NO_DEVICE) {
        pbrIfNodeHwStatusSet(pLink, PBR_HW_PROGRAMMED);
        return true;
    }
    return false;
}

// Builds the record of the link and hands it to the ACL module, whose result is returned.
int32_t contentSend(const PbrIfNodeEntry *pLink, const PbrHwOperation *pOperation, const char *pVerb,
                    uint32_t command) PBR_LOCK_HELD {
    PbrHwAclContent content;
    pbrHwAclContentBuild(pLink->pPbrNode, pLink->ifUnit, pOperation, &content);
    PbrHwAclDesc desc = {content.bytes, PBR_HW_ACL_CONTENT_BYTES};
    PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, TEXT_CONTENT, pVerb, pbrIfNameGet(pLink->ifUnit).text,
              static_cast<int32_t>(pLink->pPbrNode->aclNum), content.bytes[PBR_HW_ACL_DIRECTION],
              content.action, content.newIpPri, content.vrfId, desc.len);
    int32_t result = aclIfSetApi(pLink->ifUnit, command, &desc);
    // The device did as it was told, which may differ from what should happen to packets now.
    pbrViewMarkList(pLink->pPbrNode->pPbrList);
    return result;
}

void resultTrace(const PbrHwOperation *pOperation, int32_t result) PBR_LOCK_HELD {
    PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, TEXT_RESULT, pOperation->pPrefix,
              result == 0 ? "success" : "fail", result);
}

// What a successful add leaves on the next hops. Marks are taken over for every resolved next hop of the
// node, not only for the one chosen, and counters move for all: meant, others read them so.
void addedMark(PbrNodeEntry *pNode) {
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (pbrNodeIsEcmpGet(pNode) == 0 && pHop->nexthopArpState == 1) {
            pHop->lastSelected = pHop->curSelected;
            pHop->curSelected = 0;
            pHop->nexthopHwState = 1;
        }
        pbrNextHopHwAddRefCntSet(pHop, pbrNextHopHwAddRefCntGet(pHop) - 1);
        pbrNextHopHwDelRefCntSet(pHop, pbrNextHopHwDelRefCntGet(pHop) + 1);
    }
}

// What a successful delete leaves on the node and its next hops; hwAddRefCnt is not touched.
void deletedMark(PbrNodeEntry *pNode) {
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (pbrNodeIsEcmpGet(pNode) == 0 && pHop->lastSelected == 1) {
            pHop->lastSelected = 0;
            pHop->nexthopHwState = 0;
        }
        pbrNextHopHwDelRefCntSet(pHop, pbrNextHopHwDelRefCntGet(pHop) - 1);
    }
    if (pbrNodeIsEcmpGet(pNode) == 0) { // whichever next hop was in the device: the marks may not tell
        pNode->pPbrNhopBest = nullptr;
    }
}

} // namespace

int32_t pbrIfNodeHwAdd(PbrIfNodeEntry *pLink) {
    headerTrace(pLink, "add");
    if (isPassedOver(pLink)) {
        return 0;
    }
    int32_t result = contentSend(pLink, &ADD, "add", PBR_HW_ACL_ADD);
    if (result != 0) {
        pbrIfNodeHwStatusSet(pLink, PBR_HW_FAILED);
        resultTrace(&ADD, result);
        gPbrInfo.hwAclAddErr++;
        return result;
    }
    addedMark(pLink->pPbrNode);
    pbrIfNodeHwStatusSet(pLink, PBR_HW_PROGRAMMED);
    resultTrace(&ADD, result);
    gPbrInfo.hwAclAddCnt++;
    return result;
}

int32_t pbrIfNodeHwDel(PbrIfNodeEntry *pLink) {
    headerTrace(pLink, "del");
    delLog(pLink);
    if (isPassedOver(pLink)) {
        return 0;
    }
    int32_t result = contentSend(pLink, &DEL, "del", PBR_HW_ACL_DEL);
    if (result != 0) {
        resultTrace(&DEL, result);
        gPbrInfo.hwAclDelErr++;
        return result;
    }
    deletedMark(pLink->pPbrNode);
    pbrIfNodeHwStatusSet(pLink, PBR_HW_NONE);
    resultTrace(&DEL, result);
    gPbrInfo.hwAclDelCnt++;
    return result;
}

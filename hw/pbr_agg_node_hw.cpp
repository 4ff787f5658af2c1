// Entries on member ports of an aggregation: see the header.
#include "hw/pbr_agg_node_hw.h"

#include "core/pbr_trace.h"
#include "hw/pbr_hw_acl_content.h"
#include "hw/pbr_if_name.h"

namespace {

#define SETTINGS                                                                                    \
    "aclNum=%d,ipPri=%d,forwardFlag=%d,outIfUnit=%d,vrfid=%d,isEcmp=%d,policyRouteIpVer = %d.\r\n"
constexpr char TEXT_JOIN[] =
    "physical interface %s join agg interface %s,add policy route node to hardware:" SETTINGS;
constexpr char TEXT_QUIT[] =
    "physical interface %s quit agg interface %s,del policy route node to hardware:" SETTINGS;
#undef SETTINGS
constexpr char TEXT_NO_NEXT_HOP[] = "nextHop is not exist.\r\n";
constexpr char TEXT_CONTENT[] = "policyroute %s hardware acl content if[%s],lstIndex[%d],direction[%d],"
                                "action[%d],newIpPri[%d],vrfId[%u].\r\n"; // no length, unlike the link's own
constexpr char TEXT_RESULT[] = "%s %s return:%d.\r\n";

constexpr uint32_t QUIT_LOG_FLAGS = 2;
constexpr uint32_t NO_NEXT_HOP_LOG_FLAGS = 3;

bool isWritten(const PbrNextHopEntry *pHop) {
    return pHop->lastSelected != 0;
}

bool isInDevice(const PbrNextHopEntry *pHop) {
    return pHop->nexthopHwState != 0;
}

// One direction: what differs between joining and leaving.
struct MemberChange {
    PbrHwOperation operation;
    const char *pVerb;
    uint32_t command;
};
constexpr MemberChange JOIN = {{"pbr agg if node hardware add", isWritten}, "add", PBR_HW_ACL_ADD};
constexpr MemberChange QUIT = {{"pbr agg if node hardware del", isInDevice}, "del", PBR_HW_ACL_DEL};

// The names and settings that both header texts print.
#define HEADER_ARGS(pLink, portUnit)                                                                \
    pbrIfNameGet(portUnit).text, pbrIfNameGet((pLink)->ifUnit).text,                                      \
        static_cast<int32_t>((pLink)->pPbrNode->aclNum),                                            \
        static_cast<int32_t>(pbrNodeIpPriGet((pLink)->pPbrNode)),                                   \
        static_cast<int32_t>(pbrNodeForwardFlagGet((pLink)->pPbrNode)),                             \
        static_cast<int32_t>((pLink)->pPbrNode->outIfUnit),                                         \
        static_cast<int32_t>((pLink)->pPbrNode->vrfid),                                             \
        static_cast<int32_t>(pbrNodeIsEcmpGet((pLink)->pPbrNode)), (pLink)->pPbrNode->policyRouteIpVer

// Whether there is nothing to hand to the device. forwardFlag 2 sets the aggregation link's hwStatus 1,
// when a port leaves too: the same mirror as on the link's own entry, to be kept.
bool isPassedOver(PbrIfNodeEntry *pLink) PBR_LOCK_HELD {
    const PbrNodeEntry *pNode = pLink->pPbrNode;
    if (listEmpty(&pNode->nextHopList)) {
        PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, TEXT_NO_NEXT_HOP);
        loggingLogOutput(PBR_LOG_HARDWARE, gPbrDebugPri[3], NO_NEXT_HOP_LOG_FLAGS, TEXT_NO_NEXT_HOP);
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

int32_t memberSend(const PbrIfNodeEntry *pLink, uint32_t portUnit, const MemberChange &change) PBR_LOCK_HELD {
    PbrHwAclContent content;
    pbrHwAclContentBuild(pLink->pPbrNode, portUnit, &change.operation, &content);
    PbrHwAclDesc desc = {content.bytes, PBR_HW_ACL_CONTENT_BYTES};
    PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, TEXT_CONTENT, change.pVerb, pbrIfNameGet(portUnit).text,
              static_cast<int32_t>(pLink->pPbrNode->aclNum), content.bytes[PBR_HW_ACL_DIRECTION],
              content.action, content.newIpPri, content.vrfId);
    const int32_t result = aclIfSetApi(portUnit, change.command, &desc);
    PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, TEXT_RESULT, change.operation.pPrefix,
              result == 0 ? "success" : "fail", result);
    return result;
}

} // namespace

int32_t pbrAggNodeHwAdd(PbrIfNodeEntry *pLink, uint32_t portUnit) {
    PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, TEXT_JOIN, HEADER_ARGS(pLink, portUnit));
    return isPassedOver(pLink) ? 0 : memberSend(pLink, portUnit, JOIN);
}

int32_t pbrAggNodeHwDel(PbrIfNodeEntry *pLink, uint32_t portUnit) {
    PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, TEXT_QUIT, HEADER_ARGS(pLink, portUnit));
    loggingLogOutput(PBR_LOG_HARDWARE, gPbrDebugPri[3], QUIT_LOG_FLAGS, TEXT_QUIT,
                     HEADER_ARGS(pLink, portUnit));
    return isPassedOver(pLink) ? 0 : memberSend(pLink, portUnit, QUIT);
}

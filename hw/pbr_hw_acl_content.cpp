// The redirect record of one (interface, node): see the header.
#include "hw/pbr_hw_acl_content.h"

#include <cstring>

#include "core/pbr_bytes.h"
#include "core/pbr_trace.h"
#include "nexthop/pbr_address.h"

namespace {

constexpr char TEXT_TARGET[] = "ifUnit %u acl list %d \n\r";
constexpr char TEXT_IPV4[] = "%s nextHop%d=0x%x.\r\n";
constexpr char TEXT_IPV6[] = "%s ipv6 nextHop%d=%s\r\n";

void slotTrace(const PbrHwOperation *pOperation, bool isIpv4, uint32_t slot, const uint8_t *pAddress) PBR_LOCK_HELD {
    if (isIpv4) {
        PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, TEXT_IPV4, pOperation->pPrefix,
                  static_cast<int32_t>(slot), pbrLoadBe32(pAddress));
        return;
    }
    PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, TEXT_IPV6, pOperation->pPrefix,
              static_cast<int32_t>(slot), pbrAddressPrint(PBR_IP_VERSION_6, pAddress).text);
}

// Writes the next hops taken into the area, as far as they fit. Result: how many were taken.
uint32_t nextHopsWrite(const PbrNodeEntry *pNode, const PbrHwOperation *pOperation, uint8_t *pArea) PBR_LOCK_HELD {
    const bool isIpv4 = pNode->policyRouteIpVer == PBR_IP_VERSION_4;
    const uint32_t size = pbrAddressSize(pNode->policyRouteIpVer);
    const uint32_t slots = isIpv4 ? PBR_HW_ACL_MAX_IPV4 : PBR_HW_ACL_MAX_IPV6;
    uint32_t taken = 0;
    for (const PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (pbrNodeIsEcmpGet(pNode) != 0 && !pOperation->isMember(pHop)) {
            continue;
        }
        if (taken < slots) {
            memcpy(pArea + taken * size, pHop->nextHop, size);
        }
        slotTrace(pOperation, isIpv4, taken, pHop->nextHop);
        taken++;
    }
    return taken;
}

// The action follows the full count, also of addresses that did not fit.
uint8_t actionChoose(const PbrNodeEntry *pNode, uint32_t taken) {
    const bool isIpv4 = pNode->policyRouteIpVer == PBR_IP_VERSION_4;
    if (pbrNodeIsEcmpGet(pNode) != 0) {
        // One member or none has no code of its own: action 0, as published.
        return taken < 2 ? PBR_HW_ACTION_NONE
                         : (isIpv4 ? PBR_HW_ACTION_IPV4_ECMP : PBR_HW_ACTION_IPV6_ECMP);
    }
    return taken != 1 ? PBR_HW_ACTION_NONE : (isIpv4 ? PBR_HW_ACTION_IPV4 : PBR_HW_ACTION_IPV6);
}

} // namespace

void pbrHwAclContentBuild(const PbrNodeEntry *pNode, uint32_t ifUnit, const PbrHwOperation *pOperation,
                          PbrHwAclContent *pContent) {
    *pContent = {};
    uint8_t *pBytes = pContent->bytes;
    pbrStoreBe32(pBytes + PBR_HW_ACL_IF_UNIT, ifUnit);
    pbrStoreBe32(pBytes + PBR_HW_ACL_LST_INDEX, pNode->aclNum);
    PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, TEXT_TARGET, ifUnit,
              static_cast<int32_t>(pNode->aclNum));
    if (pbrNodeIpPriGet(pNode) != PBR_IP_PRI_NONE) {
        pContent->newIpPri = static_cast<uint8_t>(pbrNodeIpPriGet(pNode));
    }
    if (pNode->outIfUnit != 0) { // the VRF stays 0
        pContent->action = PBR_HW_ACTION_OUT_IF;
        pbrStoreBe32(pBytes + PBR_HW_ACL_NEXT_HOPS, pNode->outIfUnit);
    } else {
        pContent->vrfId = pNode->vrfid;
        if (pNode->policyRouteIpVer == PBR_IP_VERSION_4 || pNode->policyRouteIpVer == PBR_IP_VERSION_6) {
            uint32_t taken = nextHopsWrite(pNode, pOperation, pBytes + PBR_HW_ACL_NEXT_HOPS);
            pContent->action = actionChoose(pNode, taken);
        }
    }
    pBytes[PBR_HW_ACL_ACTION] = pContent->action;
    pBytes[PBR_HW_ACL_NEW_IP_PRI] = pContent->newIpPri;
    pbrStoreBe32(pBytes + PBR_HW_ACL_VRF_ID, pContent->vrfId);
}

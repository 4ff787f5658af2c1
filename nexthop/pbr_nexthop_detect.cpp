// Registration of next hops as peers: see the header.
#include "nexthop/pbr_nexthop_detect.h"

#include "core/pbr_bytes.h"
#include "core/pbr_trace.h"
#include "nexthop/pbr_address.h"
#include "nexthop/pbr_ready_table.h"
#include "platform/hrd.h"
#include "store/pbr_list_entry.h"
#include "store/pbr_view_mark.h"

namespace {

constexpr char TEXT_ADD_IPV4[] = "pbr add hrd peer ipAddr=%s,vrfid:%d!\r\n";
constexpr char TEXT_ADD_IPV6[] = "pbr add hrd peer ip6Addr=%s,vrfid:%d.\r\n";
constexpr char TEXT_DELETE_IPV4[] = "pbr delete hrd peer ipAddr=%s!\r\n"; // no VRF in this pair, as published
constexpr char TEXT_DELETE_IPV6[] = "pbr delete hrd peer ip6Addr=%s.\r\n";
constexpr char TEXT_KEEP_IPV4[] = "pbr did peer not need unbind ipAddr=%s,vrfid:%d!\r\n";
constexpr char TEXT_KEEP_IPV6[] = "pbr did peer not need unbind ip6Addr=%s,vrfid:%d.\r\n";
constexpr char TEXT_ARP_IPV4[] = "nexthop ipAddr=%s,vrfid:%d arp state update to %d !\r\n";
constexpr char TEXT_ARP_IPV6[] = "nexthop ip6Addr=%s,vrfid:%d arp state update to %d ! \r\n";
constexpr char TEXT_QUEUED[] = "arp state update add pbr to ready table.\r\n";

constexpr uint32_t PEER_BUFFER_BYTES = 200;
constexpr uint8_t PEER_ADD = 1;
constexpr uint8_t PEER_DELETE = 0;
constexpr uint8_t PEER_KIND = 7;
constexpr uint8_t PEER_IPV4 = 1;
constexpr uint8_t PEER_IPV6 = 2;

// Hands one registration record to the service, whose result is not looked at.
void peerSend(uint8_t operation, uint32_t ipVer, uint32_t vrfid, const PbrNextHopEntry *pHop) {
    const bool isIpv4 = ipVer == PBR_IP_VERSION_4;
    uint8_t record[PEER_BUFFER_BYTES] = {};
    record[HRD_PEER_OPERATION] = operation;
    record[HRD_PEER_FAMILY] = isIpv4 ? PEER_IPV4 : PEER_IPV6;
    record[HRD_PEER_KIND] = PEER_KIND;
    pbrStoreBe32(record + HRD_PEER_VRF, vrfid);
    memcpy(record + HRD_PEER_ADDRESS, pHop->nextHop, pbrAddressSize(ipVer));
    HrdPeerDesc desc = {record, isIpv4 ? HRD_PEER_IPV4_BYTES : HRD_PEER_IPV6_BYTES};
    (void)hrdScalarSetApi(0, HRD_OBJECT_PEER, &desc);
}

bool sameAddress(const PbrNextHopEntry *pA, const PbrNextHopEntry *pB) {
    return memcmp(pA->nextHop, pB->nextHop, PBR_ADDRESS_BYTES) == 0; // all 16 bytes, IPv4 too
}

// The first next hop of the list that is the same peer, or null.
const PbrNextHopEntry *peerFind(const PbrListEntry *pList, uint32_t ipVer, uint32_t vrfid,
                                const PbrNextHopEntry *pWanted) {
    for (const PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr;
         pNode = pbrListNodeNext(pList, pNode)) {
        if (pNode->policyRouteIpVer != ipVer || pNode->vrfid != vrfid) {
            continue;
        }
        for (const PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
             pHop = pbrNodeNextHopNext(pNode, pHop)) {
            if (sameAddress(pHop, pWanted)) {
                return pHop;
            }
        }
    }
    return nullptr;
}

// The first next hop of another list, in name order, that is the same peer, or null.
const PbrNextHopEntry *peerFindInOtherLists(const PbrListEntry *pList, uint32_t ipVer, uint32_t vrfid,
                                            const PbrNextHopEntry *pWanted) {
    for (const PbrListEntry *pOther = pbrListFromUsedLink(listFirst(&gPbrInfo.usedTable));
         pOther != nullptr;
         pOther = pbrListFromUsedLink(listNext(&gPbrInfo.usedTable, &pOther->usedLink))) {
        const PbrNextHopEntry *pFound =
            pOther == pList ? nullptr : peerFind(pOther, ipVer, vrfid, pWanted);
        if (pFound != nullptr) {
            return pFound;
        }
    }
    return nullptr;
}

} // namespace

int32_t pbrNextHopDetect(uint32_t ipVer, uint32_t vrfid, const PbrNextHopEntry *pHop) {
    peerSend(PEER_ADD, ipVer, vrfid, pHop);
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_GENERAL,
              ipVer == PBR_IP_VERSION_4 ? TEXT_ADD_IPV4 : TEXT_ADD_IPV6,
              pbrAddressPrint(ipVer, pHop->nextHop).text, static_cast<int32_t>(vrfid));
    return 0;
}

int32_t pbrNextHopUnDetect(uint32_t ipVer, uint32_t vrfid, const PbrNextHopEntry *pHop) {
    peerSend(PEER_DELETE, ipVer, vrfid, pHop);
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_GENERAL,
              ipVer == PBR_IP_VERSION_4 ? TEXT_DELETE_IPV4 : TEXT_DELETE_IPV6,
              pbrAddressPrint(ipVer, pHop->nextHop).text);
    return 0;
}

int32_t pbrNextHopCheckUnDetect(const PbrIfEntry *pIf, uint32_t ipVer, uint32_t vrfid,
                                const PbrNextHopEntry *pHop) {
    for (const void *pElement = avl_first(&gPbrInfo.ifTree); pElement != nullptr;
         pElement = avl_next(&gPbrInfo.ifTree, pElement)) {
        const PbrIfEntry *pOther = static_cast<const PbrIfEntry *>(pElement);
        if (pOther == pIf) {
            continue;
        }
        const PbrListEntry *pList = pbrListEntryGet(pOther->pbrName, pOther->pbrNameLen);
        if (pList == nullptr || peerFind(pList, ipVer, vrfid, pHop) == nullptr) {
            continue;
        }
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_GENERAL,
                  ipVer == PBR_IP_VERSION_4 ? TEXT_KEEP_IPV4 : TEXT_KEEP_IPV6,
                  pbrAddressPrint(ipVer, pHop->nextHop).text, static_cast<int32_t>(vrfid));
        return -1;
    }
    return 0;
}

void pbrNextHopUpdateArpState(PbrListEntry *pList, uint32_t ipVer, uint32_t vrfid,
                              PbrNextHopEntry *pHop) {
    const PbrNextHopEntry *pKnown = peerFindInOtherLists(pList, ipVer, vrfid, pHop);
    if (pKnown == nullptr) {
        return;
    }
    // Also from a list that is bound nowhere, where the state may be old: a second list with a known
    // peer goes live at once, and the service reports the present state after the registration.
    pHop->nexthopArpState = pKnown->nexthopArpState;
    pbrViewMarkList(pList);
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_GENERAL,
              ipVer == PBR_IP_VERSION_4 ? TEXT_ARP_IPV4 : TEXT_ARP_IPV6,
              pbrAddressPrint(ipVer, pHop->nextHop).text, static_cast<int32_t>(vrfid),
              pHop->nexthopArpState);
    if (pHop->nexthopArpState == 1) {
        pbrReadyTableAdd(pList);
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_EVENT, TEXT_QUEUED);
    }
}

// The redirect view: see the header.
#include "hw/pbr_redirect_view.h"

#include <cstring>

#include "nexthop/pbr_address.h"
#include "nexthop/pbr_nexthop_select.h"
#include "store/pbr_if_entry.h"
#include "store/pbr_view_mark.h"

namespace {

void hopAppend(PbrRedirect *pRedirect, const PbrNextHopEntry *pHop) {
    if (pRedirect->nextHopCount == PBR_REDIRECT_MAX_NEXT_HOPS) {
        return;
    }
    uint8_t *pAddress = pRedirect->nextHops[pRedirect->nextHopCount];
    memset(pAddress, 0, PBR_ADDRESS_BYTES);
    memcpy(pAddress, pHop->nextHop, pbrAddressSize(pRedirect->ipVer));
    pRedirect->nextHopCount++;
}

// FNV-1a.
void hashAdd(uint64_t *pHash, const void *pBytes, size_t size) {
    const auto *pByte = static_cast<const uint8_t *>(pBytes);
    for (size_t i = 0; i < size; i++) {
        *pHash = (*pHash ^ pByte[i]) * 0x100000001b3u;
    }
}

void nameAdd(uint64_t *pHash, const uint8_t *pName, uint16_t nameLen) {
    hashAdd(pHash, &nameLen, sizeof(nameLen));
    hashAdd(pHash, pName, nameLen);
}

uint64_t choiceHash(const PbrRedirect *pRedirect, const PbrNodeEntry *pNode) {
    uint64_t hash = 0xcbf29ce484222325u;
    const uint8_t isEcmp = pRedirect->isEcmp != 0 ? 1 : 0;
    hashAdd(&hash, &pRedirect->ipVer, sizeof(pRedirect->ipVer));
    hashAdd(&hash, &isEcmp, sizeof(isEcmp));
    hashAdd(&hash, &pRedirect->vrfid, sizeof(pRedirect->vrfid));
    for (const PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        hashAdd(&hash, pHop->nextHop, pbrAddressSize(pRedirect->ipVer));
        nameAdd(&hash, pHop->nqaAdminName, pHop->nqaAdminNameLen);
        nameAdd(&hash, pHop->nqaTestName, pHop->nqaTestNameLen);
    }
    return hash | 1;
}

// The first behind the chosen one that would be chosen alone.
void standbyFill(PbrRedirect *pRedirect, const PbrNodeEntry *pNode, const PbrNextHopEntry *pChosen) PBR_LOCK_HELD {
    for (PbrNextHopEntry *pHop = pbrNodeNextHopNext(pNode, pChosen); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (pbrNhopSelect(nullptr, pHop) != nullptr) {
            memset(pRedirect->standby, 0, PBR_ADDRESS_BYTES);
            memcpy(pRedirect->standby, pHop->nextHop, pbrAddressSize(pRedirect->ipVer));
            pRedirect->hasStandby = 1;
            return;
        }
    }
}

// Members of an ECMP node, by the device records' own test; probes do not count for them.
void membersAppend(PbrRedirect *pRedirect, const PbrNodeEntry *pNode) {
    for (const PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (pHop->nexthopArpState != 0) {
            hopAppend(pRedirect, pHop);
        }
    }
}

PbrRedirectKind nextHopsDecide(PbrRedirect *pRedirect, const PbrNodeEntry *pNode) PBR_LOCK_HELD {
    pRedirect->choice = choiceHash(pRedirect, pNode);
    if (pRedirect->isEcmp != 0) {
        membersAppend(pRedirect, pNode);
    } else {
        const PbrNextHopEntry *pChosen = pbrBestNexthopPeek(pNode);
        if (pChosen != nullptr) {
            hopAppend(pRedirect, pChosen);
            standbyFill(pRedirect, pNode, pChosen);
        }
    }
    return pRedirect->nextHopCount != 0 ? PBR_REDIRECT_NEXT_HOPS : PBR_REDIRECT_INERT;
}

// The order of these questions is the contract.
PbrRedirectKind kindDecide(PbrRedirect *pRedirect, const PbrNodeEntry *pNode) PBR_LOCK_HELD {
    if (pNode->aclNum == 0 || pbrNodeForwardFlagGet(pNode) == PBR_FORWARD_FLAG_NO_DEVICE) {
        return PBR_REDIRECT_ABSENT;
    }
    if (pbrNodeTimeRangeClosed(pNode)) {
        return PBR_REDIRECT_ABSENT;
    }
    if (pNode->outIfUnit != 0) {
        pRedirect->outIfUnit = pNode->outIfUnit;
        return PBR_REDIRECT_OUT_IF;
    }
    if (listEmpty(&pNode->nextHopList)) {
        return PBR_REDIRECT_PRIORITY_ONLY;
    }
    if (pRedirect->ipVer == 0) {
        return PBR_REDIRECT_INERT;
    }
    return nextHopsDecide(pRedirect, pNode);
}

uint32_t nextHopsCount(const PbrNodeEntry *pNode) {
    uint32_t count = 0;
    for (const PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        count++;
    }
    return count;
}

void redirectFill(PbrRedirect *pRedirect, const PbrIfNodeEntry *pLink) PBR_LOCK_HELD {
    const PbrNodeEntry *pNode = pLink->pPbrNode;
    const bool hasVersion =
        pNode->policyRouteIpVer == PBR_IP_VERSION_4 || pNode->policyRouteIpVer == PBR_IP_VERSION_6;
    const uint32_t ipPri = pbrNodeIpPriGet(pNode);
    pRedirect->outIfUnit = 0;
    pRedirect->choice = 0;
    pRedirect->hasStandby = 0;
    pRedirect->nextHopCount = 0; // the addresses behind the count are left alone: they are 4 KB
    pRedirect->pListName = pNode->pPbrList->name;
    pRedirect->listNameLen = pNode->pPbrList->nameLen;
    pRedirect->ifUnit = pLink->ifUnit;
    pRedirect->nodeIndex = pNode->nodeIndex;
    pRedirect->aclNum = pNode->aclNum;
    pRedirect->ipVer = hasVersion ? pNode->policyRouteIpVer : 0;
    pRedirect->isEcmp = static_cast<uint8_t>(pbrNodeIsEcmpGet(pNode));
    pRedirect->newIpPri = static_cast<uint8_t>(ipPri == PBR_IP_PRI_NONE ? 0 : ipPri);
    pRedirect->vrfid = pNode->vrfid;
    pRedirect->configuredCount = nextHopsCount(pNode);
    pRedirect->kind = kindDecide(pRedirect, pNode);
}

// Every link of the list, on whatever interface and whatever its hwStatus: also one that a binding left
// when it ran out of links half-way, whose interface is not in the list's chain.
void listVisit(const PbrListEntry *pList, const PbrRedirectVisitor *pVisitor) PBR_LOCK_HELD {
    PbrRedirect redirect;
    pVisitor->listBegin(pVisitor->pContext, pList->name, pList->nameLen);
    for (const void *pElement = avl_first(&gPbrInfo.ifTree); pElement != nullptr;
         pElement = avl_next(&gPbrInfo.ifTree, pElement)) {
        const PbrIfEntry *pIf = static_cast<const PbrIfEntry *>(pElement);
        for (const PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr;
             pLink = pbrIfIfNodeNext(pIf, pLink)) {
            if (pLink->pPbrNode->pPbrList == pList) {
                redirectFill(&redirect, pLink);
                pVisitor->entry(pVisitor->pContext, &redirect);
            }
        }
    }
}

} // namespace

uint32_t pbrRedirectViewChanged() {
    if ((gPbrInfo.viewMarks & PBR_VIEW_ALL) != 0) {
        return 2;
    }
    return gPbrInfo.viewMarks != 0 ? 1 : 0;
}

bool pbrRedirectViewTake(bool all, const PbrRedirectVisitor *pVisitor) {
    const bool isAll = all || (gPbrInfo.viewMarks & PBR_VIEW_ALL) != 0;
    for (PbrListEntry *pList = pbrListFromUsedLink(listFirst(&gPbrInfo.usedTable)); pList != nullptr;
         pList = pbrListFromUsedLink(listNext(&gPbrInfo.usedTable, &pList->usedLink))) {
        if (isAll || pList->viewMark != 0) {
            pList->viewMark = 0;
            listVisit(pList, pVisitor);
        }
    }
    gPbrInfo.viewMarks = 0;
    return isAll;
}

bool pbrRedirectViewGet(uint32_t ifUnit, uint32_t aclNum, PbrRedirect *pRedirect) {
    const PbrIfEntry *pIf = pbrIfEntryGet(ifUnit);
    if (pIf == nullptr) {
        return false;
    }
    for (const PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr;
         pLink = pbrIfIfNodeNext(pIf, pLink)) {
        if (pLink->pPbrNode->aclNum == aclNum) {
            redirectFill(pRedirect, pLink);
            return true;
        }
    }
    return false;
}

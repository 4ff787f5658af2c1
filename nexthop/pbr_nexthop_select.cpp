// The choice of next hops: see the header.
#include "nexthop/pbr_nexthop_select.h"

#include "core/pbr_trace.h"
#include "store/pbr_nqa_entry.h"

namespace {

constexpr char TEXT_TIME_RANGE[] = "pbrIfNodeUpdate set timerang but not in time,return NULL."
                                   "timeRangeId[%d],timeRangeMatched[%d].\r\n";

bool hasProbe(const PbrNextHopEntry *pHop) {
    return pHop->nqaAdminNameLen != 0 && pHop->nqaTestNameLen != 0;
}

// Status of the probe test that the next hop names; a test without record counts as failing.
uint32_t probeStatus(const PbrNextHopEntry *pHop) PBR_LOCK_HELD {
    const PbrNqaEntry *pNqa = pbrNqaEntryGet(pHop->nqaAdminName, pHop->nqaAdminNameLen & 0xFFu,
                                             pHop->nqaTestName, pHop->nqaTestNameLen & 0xFFu);
    return pNqa == nullptr ? PBR_NQA_STATUS_FAILING : pNqa->status;
}

bool isUsableAlone(const PbrNextHopEntry *pHop) PBR_LOCK_HELD {
    return pHop->nexthopArpState != 0 &&
           !(hasProbe(pHop) && probeStatus(pHop) == PBR_NQA_STATUS_FAILING);
}

bool isFullyUp(const PbrNextHopEntry *pHop) PBR_LOCK_HELD {
    return pHop->nexthopArpState == 1 && hasProbe(pHop) && probeStatus(pHop) == PBR_NQA_STATUS_PASSING;
}

// The ECMP marker: an address inside the node, so never null and never a next hop's.
PbrNextHopEntry *ecmpSelect(PbrNodeEntry *pNode) {
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (pHop->nexthopArpState == 1) {
            pHop->curSelected = 1; // the others keep theirs: nothing is cleared here, as published
        }
    }
    return reinterpret_cast<PbrNextHopEntry *>(&pNode->nextHopList);
}

} // namespace

PbrNextHopEntry *pbrNhopSelect(PbrNextHopEntry *pBest, PbrNextHopEntry *pCandidate) {
    if (pBest == nullptr || pCandidate == nullptr) {
        PbrNextHopEntry *pOnly = pBest != nullptr ? pBest : pCandidate;
        return pOnly != nullptr && isUsableAlone(pOnly) ? pOnly : nullptr;
    }
    // With two candidates a next hop without a probe never wins, although it may win alone: meant.
    if (!isFullyUp(pBest)) {
        return isFullyUp(pCandidate) ? pCandidate : nullptr;
    }
    if (isFullyUp(pCandidate) && pCandidate->nextHopIndex <= pBest->nextHopIndex) {
        return pCandidate;
    }
    return pBest;
}

bool pbrNodeTimeRangeClosed(const PbrNodeEntry *pNode) {
    // An id of 0 is stored and shown, but never gates.
    return pNode->timeRangeId != 0 && pNode->timeRangeId != PBR_TIME_RANGE_NONE &&
           pNode->timeRangeMatched == 0;
}

const PbrNextHopEntry *pbrBestNexthopPeek(const PbrNodeEntry *pNode) {
    if (pbrNodeTimeRangeClosed(pNode)) {
        return nullptr;
    }
    for (const PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (isUsableAlone(pHop)) {
            return pHop;
        }
    }
    return nullptr;
}

PbrNextHopEntry *pbrBestNexthopSelect(PbrNodeEntry *pNode) {
    if (pbrNodeIsEcmpGet(pNode) == 1) {
        return ecmpSelect(pNode);
    }
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (pbrNodeTimeRangeClosed(pNode)) { // asked inside the walk: an empty node has no text
            PBR_TRACE(PBR_DEBUG_HARDWARE, PBR_LOG_HARDWARE, TEXT_TIME_RANGE,
                      static_cast<int32_t>(pNode->timeRangeId),
                      static_cast<int32_t>(pNode->timeRangeMatched));
            return nullptr;
        }
        // The walk stops at the first hit, so the best so far is always none here; next hops behind it
        // keep the mark of an earlier choice.
        PbrNextHopEntry *pBest = pbrNhopSelect(nullptr, pHop);
        pHop->curSelected = 0;
        if (pBest != nullptr) {
            pBest->curSelected = 1;
            return pBest;
        }
    }
    return nullptr;
}

// The six kinds of records of the policy store, and how to get from a link to its record.
//
// Records are plain structures in their published field order; the slot sizes are part of the design
// and are proved below wherever pointers have 4 bytes. All integers are in machine order. Names are
// bytes with a separate length, without terminator. A fresh slot is all zero. Sub-byte fields are
// reached through the named helpers only. Records are read and written with the daemon's mutex held.
#ifndef STORE_PBR_RECORDS_H
#define STORE_PBR_RECORDS_H

#include <cstddef>
#include <cstdint>

#include "core/pbr_link.h"
#include "core/pbr_types.h"
#include "platform/avl.h"

struct PbrNextHopEntry;

// One policy list.
struct PbrListEntry {
    PbrLink usedLink;              // in gPbrInfo.usedTable, in name order
    PbrLink readyLink;             // in gPbrInfo.readyTable, most recently queued first; zero on creation
    PbrLink nodeList;              // head: PbrNodeEntry.listLink, ascending nodeIndex
    PbrLink auxList;               // head: PbrIfEntry.boundLink, most recently bound first
    uint8_t name[PBR_NAME_BYTES];  // compared over nameLen bytes
    uint16_t nameLen;              // 1..16
    uint8_t statusRefCnt;          // bits 7-6 status, bits 3-0 refCnt
    uint8_t viewMark;              // non-zero: the redirect view of the list may have changed (set by
                                   // store/pbr_view_mark, cleared by the redirect view)
};

// One numbered node of a list.
struct PbrNodeEntry {
    PbrLink listLink;              // in the owning list's nodeList
    PbrLink auxLink;               // in no list; zero but while store/pbr_if_node_chain stands
    PbrLink nextHopList;           // head: PbrNextHopEntry.nodeLink, ascending nextHopIndex
    PbrListEntry *pPbrList;        // owning list
    PbrNextHopEntry *pPbrNhopBest; // next hop selected as best, or null; may be another node's (see
                                   // the periodic update): compare it, do not read through it unproved
    uint32_t nodeIndex;            // key within the list, from 1
    uint16_t matchValue1;          // further if-match value, 0 not set
    uint16_t matchValue2;          // further if-match value, 0 not set
    uint32_t aclNum;               // ACL that the node matches, 0 none
    uint8_t flagByte;              // bits 7-6 forwardFlag, 5-4 isEcmp, 3-0 ipPri
    uint8_t policyRouteIpVer;      // 0 unset, 1 IPv4, 2 IPv6
    uint8_t nhopArpUp;             // 1: a next hop was found reachable (binding, peer reports)
    uint8_t nodeField12;           // carried, not read
    uint16_t flagWord;             // bit 15 stateChangeFlag; no other bit is used
    uint16_t status;               // row state, 2 on creation
    uint32_t vrfid;                // VRF of the next hops
    uint32_t outIfUnit;            // interface to send out of, 0 none
    uint32_t nodeField7;           // carried, not read
    uint32_t timeRangeId;          // all ones none (the value on creation)
    uint32_t timeRangeMatched;     // non-zero while the time range is active
};

// One next hop of a node.
struct PbrNextHopEntry {
    PbrLink nodeLink;              // in the node's nextHopList
    uint16_t status;               // row state, 2 on creation
    uint8_t nextHopIndex;          // key within the node, from 1
    uint8_t pad11;
    alignas(4) uint8_t nextHop[16];// address, network order: IPv4 in the first 4 bytes, or IPv6
    uint8_t nqaAdminName[33];      // up to 32 bytes
    uint8_t pad61;
    uint16_t nqaAdminNameLen;      // 0: no probe
    uint8_t nqaTestName[32];
    uint16_t nqaTestNameLen;       // 0: no probe
    uint8_t nexthopArpState;       // 1 reachable as reported, 0 not
    uint8_t nexthopHwState;        // 1: resolved when the node was last written to the device
    uint8_t lastSelected;          // 1: chosen when the node was last written to the device
    uint8_t curSelected;           // 1: chosen by the latest selection
    uint8_t refCntByte;            // bits 7-4 hwDelRefCnt, 3-0 hwAddRefCnt
    uint8_t pad103;
};

// One interface that the daemon knows, with at most one list bound.
struct PbrIfEntry {
    AvlNode avlNode;               // in gPbrInfo.ifTree, ascending unit; the first member
    PbrLink ifNodeList;            // head: PbrIfNodeEntry.ifLink, in the order they were made
    PbrLink boundLink;             // in the bound list's auxList; zero on creation
    uint32_t ifUnit;               // key, compared unsigned
    uint8_t pbrName[PBR_NAME_BYTES]; // bound list
    uint16_t pbrNameLen;           // 0: none bound
    uint8_t status;                // 1 on creation
    uint8_t pad55;
};

// One node as programmed for one interface.
struct PbrIfNodeEntry {
    PbrLink ifLink;                // in the interface's ifNodeList
    PbrLink nodeLink;              // in no list; zero but while store/pbr_if_node_chain stands
    PbrNodeEntry *pPbrNode;        // the node
    uint32_t ifUnit;               // the interface's unit
    uint32_t hwWord;               // bits 30-29 hwStatus, bit 26 stateChangeFlag
    uint8_t emptyAcl;              // 1: waiting for its ACL's first rule; nobody sets it
    uint8_t aclNoAction;           // 1: likewise; nobody sets it
    uint8_t pad30[2];
};

// One probe test that a next hop names.
struct PbrNqaEntry {
    PbrLink nqaLink;               // in gPbrInfo.nqaTable
    uint8_t adminName[32];
    uint16_t adminNameLen;
    uint8_t testName[32];
    uint16_t testNameLen;
    uint32_t status;               // last reported status; 2 on creation
};

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(PbrListEntry) == 52 && offsetof(PbrListEntry, readyLink) == 8 &&
              offsetof(PbrListEntry, nodeList) == 16 && offsetof(PbrListEntry, auxList) == 24 &&
              offsetof(PbrListEntry, name) == 32 && offsetof(PbrListEntry, nameLen) == 48 &&
              offsetof(PbrListEntry, statusRefCnt) == 50 && offsetof(PbrListEntry, viewMark) == 51);
static_assert(sizeof(PbrNodeEntry) == 72 && offsetof(PbrNodeEntry, auxLink) == 8 &&
              offsetof(PbrNodeEntry, nextHopList) == 16 && offsetof(PbrNodeEntry, pPbrList) == 24 &&
              offsetof(PbrNodeEntry, pPbrNhopBest) == 28 && offsetof(PbrNodeEntry, nodeIndex) == 32 &&
              offsetof(PbrNodeEntry, matchValue1) == 36 && offsetof(PbrNodeEntry, aclNum) == 40 &&
              offsetof(PbrNodeEntry, flagByte) == 44 && offsetof(PbrNodeEntry, nodeField12) == 47 &&
              offsetof(PbrNodeEntry, flagWord) == 48 && offsetof(PbrNodeEntry, status) == 50 &&
              offsetof(PbrNodeEntry, vrfid) == 52 && offsetof(PbrNodeEntry, outIfUnit) == 56 &&
              offsetof(PbrNodeEntry, nodeField7) == 60 && offsetof(PbrNodeEntry, timeRangeId) == 64 &&
              offsetof(PbrNodeEntry, timeRangeMatched) == 68);
static_assert(sizeof(PbrNextHopEntry) == 104 && offsetof(PbrNextHopEntry, status) == 8 &&
              offsetof(PbrNextHopEntry, nextHopIndex) == 10 && offsetof(PbrNextHopEntry, nextHop) == 12 &&
              offsetof(PbrNextHopEntry, nqaAdminName) == 28 &&
              offsetof(PbrNextHopEntry, nqaAdminNameLen) == 62 &&
              offsetof(PbrNextHopEntry, nqaTestName) == 64 &&
              offsetof(PbrNextHopEntry, nqaTestNameLen) == 96 &&
              offsetof(PbrNextHopEntry, nexthopArpState) == 98 &&
              offsetof(PbrNextHopEntry, refCntByte) == 102);
static_assert(sizeof(PbrIfEntry) == 56 && offsetof(PbrIfEntry, ifNodeList) == 16 &&
              offsetof(PbrIfEntry, boundLink) == 24 && offsetof(PbrIfEntry, ifUnit) == 32 &&
              offsetof(PbrIfEntry, pbrName) == 36 && offsetof(PbrIfEntry, pbrNameLen) == 52 &&
              offsetof(PbrIfEntry, status) == 54);
static_assert(sizeof(PbrIfNodeEntry) == 32 && offsetof(PbrIfNodeEntry, pPbrNode) == 16 &&
              offsetof(PbrIfNodeEntry, ifUnit) == 20 && offsetof(PbrIfNodeEntry, hwWord) == 24 &&
              offsetof(PbrIfNodeEntry, emptyAcl) == 28 && offsetof(PbrIfNodeEntry, aclNoAction) == 29);
static_assert(sizeof(PbrNqaEntry) == 80 && offsetof(PbrNqaEntry, adminName) == 8 &&
              offsetof(PbrNqaEntry, adminNameLen) == 40 && offsetof(PbrNqaEntry, testName) == 42 &&
              offsetof(PbrNqaEntry, testNameLen) == 74 && offsetof(PbrNqaEntry, status) == 76);
#endif

// ---- sub-byte fields; a set keeps the neighbours and takes the value modulo the field's width ----

inline uint32_t pbrListStatusGet(const PbrListEntry *p) { return p->statusRefCnt >> 6; }
inline void pbrListStatusSet(PbrListEntry *p, uint32_t v) {
    p->statusRefCnt = static_cast<uint8_t>((p->statusRefCnt & 0x3Fu) | ((v & 3u) << 6));
}
inline uint32_t pbrListRefCntGet(const PbrListEntry *p) { return p->statusRefCnt & 0x0Fu; }
inline void pbrListRefCntSet(PbrListEntry *p, uint32_t v) { // wraps modulo 16, as published
    p->statusRefCnt = static_cast<uint8_t>((p->statusRefCnt & 0xF0u) | (v & 0x0Fu));
}

constexpr uint32_t PBR_FORWARD_FLAG_NO_DEVICE = 2; // forwardFlag: the node's entries stay out of the device
inline uint32_t pbrNodeForwardFlagGet(const PbrNodeEntry *p) { return p->flagByte >> 6; }
inline void pbrNodeForwardFlagSet(PbrNodeEntry *p, uint32_t v) {
    p->flagByte = static_cast<uint8_t>((p->flagByte & 0x3Fu) | ((v & 3u) << 6));
}
inline uint32_t pbrNodeIsEcmpGet(const PbrNodeEntry *p) { return (p->flagByte >> 4) & 3u; }
inline void pbrNodeIsEcmpSet(PbrNodeEntry *p, uint32_t v) {
    p->flagByte = static_cast<uint8_t>((p->flagByte & 0xCFu) | ((v & 3u) << 4));
}
inline uint32_t pbrNodeIpPriGet(const PbrNodeEntry *p) { return p->flagByte & 0x0Fu; }
inline void pbrNodeIpPriSet(PbrNodeEntry *p, uint32_t v) {
    p->flagByte = static_cast<uint8_t>((p->flagByte & 0xF0u) | (v & 0x0Fu));
}
inline bool pbrNodeStateChangeGet(const PbrNodeEntry *p) { return (p->flagWord & 0x8000u) != 0; }
inline void pbrNodeStateChangeSet(PbrNodeEntry *p, bool on) {
    p->flagWord = static_cast<uint16_t>(on ? (p->flagWord | 0x8000u) : (p->flagWord & 0x7FFFu));
}

inline uint32_t pbrNextHopHwDelRefCntGet(const PbrNextHopEntry *p) { return p->refCntByte >> 4; }
inline void pbrNextHopHwDelRefCntSet(PbrNextHopEntry *p, uint32_t v) { // wraps modulo 16
    p->refCntByte = static_cast<uint8_t>((p->refCntByte & 0x0Fu) | ((v & 0x0Fu) << 4));
}
inline uint32_t pbrNextHopHwAddRefCntGet(const PbrNextHopEntry *p) { return p->refCntByte & 0x0Fu; }
inline void pbrNextHopHwAddRefCntSet(PbrNextHopEntry *p, uint32_t v) { // wraps modulo 16
    p->refCntByte = static_cast<uint8_t>((p->refCntByte & 0xF0u) | (v & 0x0Fu));
}

constexpr uint32_t PBR_HW_NONE = 0;       // hwStatus: nothing in the device
constexpr uint32_t PBR_HW_PROGRAMMED = 1; // hwStatus: entry written (or forwardFlag 2)
constexpr uint32_t PBR_HW_FAILED = 2;     // hwStatus: the last add failed
inline uint32_t pbrIfNodeHwStatusGet(const PbrIfNodeEntry *p) { return (p->hwWord >> 29) & 3u; }
inline void pbrIfNodeHwStatusSet(PbrIfNodeEntry *p, uint32_t v) {
    p->hwWord = (p->hwWord & ~(3u << 29)) | ((v & 3u) << 29);
}
inline bool pbrIfNodeStateChangeGet(const PbrIfNodeEntry *p) { return (p->hwWord & (1u << 26)) != 0; }
inline void pbrIfNodeStateChangeSet(PbrIfNodeEntry *p, bool on) {
    p->hwWord = on ? (p->hwWord | (1u << 26)) : (p->hwWord & ~(1u << 26));
}

// ---- from link to record; null gives null ----

#define PBR_LINK_TO_RECORD(name, Record, member)                                                    \
    inline Record *name(const PbrLink *pLink) {                                                     \
        return pLink == nullptr ? nullptr                                                           \
                                : reinterpret_cast<Record *>(reinterpret_cast<uintptr_t>(pLink) -   \
                                                             offsetof(Record, member));             \
    }
PBR_LINK_TO_RECORD(pbrListFromUsedLink, PbrListEntry, usedLink)
PBR_LINK_TO_RECORD(pbrListFromReadyLink, PbrListEntry, readyLink)
PBR_LINK_TO_RECORD(pbrNodeFromListLink, PbrNodeEntry, listLink)
PBR_LINK_TO_RECORD(pbrNextHopFromNodeLink, PbrNextHopEntry, nodeLink)
PBR_LINK_TO_RECORD(pbrIfFromBoundLink, PbrIfEntry, boundLink)
PBR_LINK_TO_RECORD(pbrIfNodeFromIfLink, PbrIfNodeEntry, ifLink)
PBR_LINK_TO_RECORD(pbrIfNodeFromNodeLink, PbrIfNodeEntry, nodeLink)
PBR_LINK_TO_RECORD(pbrNqaFromNqaLink, PbrNqaEntry, nqaLink)
#undef PBR_LINK_TO_RECORD

// ---- typed walks; null at the end; the Next of a record must be taken before it is removed ----

inline PbrNodeEntry *pbrListNodeFirst(const PbrListEntry *pList) {
    return pbrNodeFromListLink(listFirst(&pList->nodeList));
}
inline PbrNodeEntry *pbrListNodeNext(const PbrListEntry *pList, const PbrNodeEntry *pNode) {
    return pbrNodeFromListLink(listNext(&pList->nodeList, &pNode->listLink));
}
inline PbrNextHopEntry *pbrNodeNextHopFirst(const PbrNodeEntry *pNode) {
    return pbrNextHopFromNodeLink(listFirst(&pNode->nextHopList));
}
inline PbrNextHopEntry *pbrNodeNextHopNext(const PbrNodeEntry *pNode, const PbrNextHopEntry *pHop) {
    return pbrNextHopFromNodeLink(listNext(&pNode->nextHopList, &pHop->nodeLink));
}
inline PbrIfEntry *pbrListBoundIfFirst(const PbrListEntry *pList) { // most recently bound first
    return pbrIfFromBoundLink(listFirst(&pList->auxList));
}
inline PbrIfEntry *pbrListBoundIfNext(const PbrListEntry *pList, const PbrIfEntry *pIf) {
    return pbrIfFromBoundLink(listNext(&pList->auxList, &pIf->boundLink));
}
inline PbrIfNodeEntry *pbrIfIfNodeFirst(const PbrIfEntry *pIf) {
    return pbrIfNodeFromIfLink(listFirst(&pIf->ifNodeList));
}
inline PbrIfNodeEntry *pbrIfIfNodeNext(const PbrIfEntry *pIf, const PbrIfNodeEntry *pLink) {
    return pbrIfNodeFromIfLink(listNext(&pIf->ifNodeList, &pLink->ifLink));
}

#endif

// Intrusive circular doubly linked lists; every collection of the store but the interface tree.
//
// A link is in one of three states: zero (never linked: both words null), self (made empty: both words
// point to the link), linked. A head is a link on its own; an empty head is in state self.
// Link words are touched in this header only. From link to record only through the typed functions at
// the end of store/pbr_records.h.
// Lock: held by caller, for all of them.
#ifndef CORE_PBR_LINK_H
#define CORE_PBR_LINK_H

struct PbrLink {
    PbrLink *pNext;
    PbrLink *pPrev;
};

// Accepts any state of the link; leaves it self.
inline void listInit(PbrLink *pHead) {
    pHead->pNext = pHead;
    pHead->pPrev = pHead;
}

// Puts pLink (zero or self) directly behind pAfter (a head or a linked link): behind the head is the
// front, behind the head's pPrev is the end.
inline void listInsertAfter(PbrLink *pLink, PbrLink *pAfter) {
    pLink->pNext = pAfter->pNext;
    pLink->pPrev = pAfter;
    pAfter->pNext->pPrev = pLink;
    pAfter->pNext = pLink;
}

// Takes pLink out of its list. Accepts zero (does nothing), self and linked; the link's own words keep
// their values, so that it must not be unlinked again.
inline void listUnlink(PbrLink *pLink) {
    if (pLink->pNext != nullptr) {
        pLink->pNext->pPrev = pLink->pPrev;
    }
    if (pLink->pPrev != nullptr) {
        pLink->pPrev->pNext = pLink->pNext;
    }
}

// Takes pLink out of its list and leaves it self. Accepts any state.
inline void listUnlinkInit(PbrLink *pLink) {
    listUnlink(pLink);
    listInit(pLink);
}

// Whether a head (self or linked) holds nothing.
inline bool listEmpty(const PbrLink *pHead) {
    return pHead->pNext == pHead;
}

// Walks: `for (p = listFirst(h); p != nullptr; p = listNext(h, p))`. A walk that may remove the current
// link fetches the next one first.
inline PbrLink *listFirst(const PbrLink *pHead) {
    return pHead->pNext == pHead ? nullptr : pHead->pNext;
}
inline PbrLink *listNext(const PbrLink *pHead, const PbrLink *pLink) {
    return pLink->pNext == pHead ? nullptr : pLink->pNext;
}

#endif

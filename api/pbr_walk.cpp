// The eight table walks: see the header.
//
// A walk over nodes or next hops is a position in the key order: rows that sort before the key are
// passed over, the key's own list is entered behind the key, later lists from their start.
#include "api/pbr_walk.h"

#include "api/pbr_row_lookup.h"
#include "store/pbr_if_entry.h"
#include "store/pbr_node_entry.h"

namespace {

PbrListEntry *listAt(const PbrLink *pLink) { return pbrListFromUsedLink(pLink); }
PbrListEntry *firstList() { return listAt(listFirst(&gPbrInfo.usedTable)); }
PbrListEntry *nextList(const PbrListEntry *pList) {
    return listAt(listNext(&gPbrInfo.usedTable, &pList->usedLink));
}

// -1, 0 or 1 as the list sorts before, at or after a key's name: bytes over the shorter length, then the
// shorter name first. Never reads more than the 16 name bytes of either.
int listCompare(const PbrListEntry *pList, const uint8_t *pName, uint32_t nameLen) {
    const uint32_t shorter = pList->nameLen < nameLen ? pList->nameLen : nameLen;
    const int bytes = memcmp(pList->name, pName, shorter);
    if (bytes != 0) {
        return bytes < 0 ? -1 : 1;
    }
    return (pList->nameLen > nameLen) - (pList->nameLen < nameLen);
}

int listCompare(const PbrListEntry *pList, const PbrNodeKey &key) {
    return listCompare(pList, key.listName, key.listNameLen);
}

// ---- the filters of node and next-hop walks ----

bool listWanted(const PbrListEntry *pList, const PbrNodeKey &key) {
    return (key.keyMask & PBR_KEY_LIST_FIXED) == 0 || listCompare(pList, key) == 0;
}

bool nodeWanted(const PbrNodeEntry *pNode, const PbrNodeKey &key) {
    return (key.keyMask & PBR_KEY_NODE_FIXED) == 0 || pNode->nodeIndex == key.nodeIndex;
}

// The list's first node of at least that index that can be a wanted one, or null.
PbrNodeEntry *nodeFrom(const PbrListEntry *pList, const PbrNodeKey &key, uint64_t from) PBR_LOCK_HELD {
    const bool isFixed = (key.keyMask & PBR_KEY_NODE_FIXED) != 0;
    return pbrNodeEntryFrom(pList, isFixed && key.nodeIndex > from ? key.nodeIndex : from);
}

// The list's first wanted node of an index above `above` (-1: any), or null.
PbrNodeEntry *nodeAbove(const PbrListEntry *pList, const PbrNodeKey &key, int64_t above) PBR_LOCK_HELD {
    PbrNodeEntry *pNode = nodeFrom(pList, key, static_cast<uint64_t>(above + 1));
    return pNode != nullptr && nodeWanted(pNode, key) ? pNode : nullptr;
}

PbrNodeEntry *nodeAny(const PbrListEntry *pList, const PbrNodeKey &key) PBR_LOCK_HELD {
    return nodeAbove(pList, key, -1);
}

// Names the node in the key; mask, next-hop index and reserved bytes stay.
void nodeKeySet(PbrNodeKey *pKey, const PbrNodeEntry *pNode) {
    const PbrListEntry *pList = pNode->pPbrList;
    memcpy(pKey->listName, pList->name, sizeof pKey->listName);
    pKey->listNameLen = pList->nameLen;
    pKey->nodeIndex = pNode->nodeIndex;
}

// Writes what a next walk answers: the node's name, the input's mask, and a next-hop index.
void nodeKeyWrite(void *pOutKey, const PbrNodeKey &in, const PbrNodeEntry *pNode, uint8_t hopIndex) {
    PbrNodeKey out = pbrApiKey<PbrNodeKey>(pOutKey);
    nodeKeySet(&out, pNode);
    out.keyMask = in.keyMask;
    out.nextHopIndex = hopIndex;
    memcpy(pOutKey, &out, sizeof out);
}

// ---- lists and interfaces ----

void listKeyWrite(void *pOutKey, const PbrListEntry *pList) {
    PbrListKey key;
    memcpy(key.listName, pList->name, sizeof key.listName);
    key.listNameLen = pList->nameLen;
    memcpy(pOutKey, &key, sizeof key);
}

uint32_t unitWrite(void *pOutKey, const PbrIfEntry *pIf) {
    if (pIf == nullptr) {
        return PBR_FAIL;
    }
    memcpy(pOutKey, &pIf->ifUnit, sizeof pIf->ifUnit);
    return PBR_OK;
}

const PbrIfEntry *unitAfter(uint32_t ifUnit) {
    PbrIfEntry search;
    memset(&search, 0, sizeof search);
    search.ifUnit = ifUnit;
    const void *pFound = avl_find(&gPbrInfo.ifTree, &search);
    return static_cast<const PbrIfEntry *>(pFound != nullptr
                                               ? avl_next(&gPbrInfo.ifTree, pFound)
                                               : avl_nearest(&gPbrInfo.ifTree, &search, 1));
}

// ---- nodes ----

// The first wanted node of a list at or behind the key's, taken behind the key in the key's own list.
const PbrNodeEntry *nodeAfter(const PbrNodeKey &key) PBR_LOCK_HELD {
    for (const PbrListEntry *pList = firstList(); pList != nullptr; pList = nextList(pList)) {
        const int order = listCompare(pList, key);
        if (order < 0 || !listWanted(pList, key)) {
            continue;
        }
        const PbrNodeEntry *pNode =
            order == 0 ? nodeAbove(pList, key, key.nodeIndex) : nodeAny(pList, key);
        if (pNode != nullptr) {
            return pNode;
        }
    }
    return nullptr;
}

const PbrNodeEntry *nodeFirst(const PbrNodeKey &key) PBR_LOCK_HELD {
    for (const PbrListEntry *pList = firstList(); pList != nullptr; pList = nextList(pList)) {
        const PbrNodeEntry *pNode = listWanted(pList, key) ? nodeAny(pList, key) : nullptr;
        if (pNode != nullptr) {
            return pNode;
        }
    }
    return nullptr;
}

// ---- next hops ----

// Where a next-hop walk stands: what it answers with, and the next hop that it looked at last.
struct HopPosition {
    const PbrNodeEntry *pNode; // null: nothing found
    uint8_t hopIndex;          // of the next hop examined last in this call; 0: none was
};

// The first next hop of the list's wanted nodes.
bool hopFirstOfList(const PbrListEntry *pList, const PbrNodeKey &key, HopPosition *pPosition) {
    for (const PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr;
         pNode = pbrListNodeNext(pList, pNode)) {
        const PbrNextHopEntry *pHop = nodeWanted(pNode, key) ? pbrNodeNextHopFirst(pNode) : nullptr;
        if (pHop != nullptr) {
            *pPosition = {pNode, pHop->nextHopIndex};
            return true;
        }
    }
    return false;
}

// The node's first next hop of an index above `above`; every one looked at is noted.
bool hopAbove(const PbrNodeEntry *pNode, int32_t above, HopPosition *pPosition) {
    for (const PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        pPosition->hopIndex = pHop->nextHopIndex;
        if (pHop->nextHopIndex > above) {
            pPosition->pNode = pNode;
            return true;
        }
    }
    return false;
}

// The next hop behind the key in the key's own list.
bool hopAfterInList(const PbrListEntry *pList, const PbrNodeKey &key, HopPosition *pPosition) PBR_LOCK_HELD {
    for (const PbrNodeEntry *pNode = nodeFrom(pList, key, key.nodeIndex); pNode != nullptr;
         pNode = pbrListNodeNext(pList, pNode)) {
        if (!nodeWanted(pNode, key)) {
            return false; // a fixed index, and this one is greater
        }
        const int32_t above = pNode->nodeIndex == key.nodeIndex ? key.nextHopIndex : -1;
        if (hopAbove(pNode, above, pPosition)) {
            return true;
        }
    }
    return false;
}

// In a later list the first wanted node is the answer whether or not it has next hops, with the index
// examined last: published, management planes rely on seeing every list.
HopPosition hopAfter(const PbrNodeKey &key) PBR_LOCK_HELD {
    HopPosition position = {nullptr, 0};
    for (const PbrListEntry *pList = firstList(); pList != nullptr; pList = nextList(pList)) {
        const int order = listCompare(pList, key);
        if (order < 0 || !listWanted(pList, key)) {
            continue;
        }
        if (order == 0) {
            if (hopAfterInList(pList, key, &position)) {
                return position;
            }
            continue;
        }
        position.pNode = nodeAny(pList, key);
        if (position.pNode != nullptr) {
            return position;
        }
    }
    return position;
}

} // namespace

uint32_t pbrListGetFirst(void *pKey) {
    if (pKey == nullptr) {
        return PBR_FAIL;
    }
    const PbrApiLock lock;
    const PbrListEntry *pList = firstList();
    if (pList == nullptr) {
        return PBR_FAIL;
    }
    listKeyWrite(pKey, pList);
    return PBR_OK;
}

uint32_t pbrListGetNext(const void *pInKey, void *pOutKey) {
    if (pInKey == nullptr || pOutKey == nullptr) {
        return PBR_FAIL;
    }
    const PbrListKey key = pbrApiKey<PbrListKey>(pInKey);
    const PbrApiLock lock;
    for (const PbrListEntry *pList = firstList(); pList != nullptr; pList = nextList(pList)) {
        if (listCompare(pList, key.listName, key.listNameLen) > 0) {
            listKeyWrite(pOutKey, pList);
            return PBR_OK;
        }
    }
    return PBR_FAIL;
}

uint32_t pbrNodeGetFirst(void *pKey) {
    if (pKey == nullptr) {
        return PBR_FAIL;
    }
    PbrNodeKey key = pbrApiKey<PbrNodeKey>(pKey);
    const PbrApiLock lock;
    const PbrNodeEntry *pNode = nodeFirst(key);
    if (pNode == nullptr) {
        return PBR_FAIL;
    }
    nodeKeySet(&key, pNode);
    memcpy(pKey, &key, sizeof key);
    return PBR_OK;
}

uint32_t pbrNodeGetNext(const void *pInKey, void *pOutKey) {
    if (pInKey == nullptr || pOutKey == nullptr) {
        return PBR_FAIL;
    }
    const PbrNodeKey key = pbrApiKey<PbrNodeKey>(pInKey);
    const PbrApiLock lock;
    const PbrNodeEntry *pNode = nodeAfter(key);
    if (pNode == nullptr) {
        return PBR_FAIL;
    }
    nodeKeyWrite(pOutKey, key, pNode, key.nextHopIndex);
    return PBR_OK;
}

uint32_t pbrIfGetFirst(void *pKey) {
    if (pKey == nullptr) {
        return PBR_FAIL;
    }
    const PbrApiLock lock;
    return unitWrite(pKey, pbrIfEntryFirst());
}

uint32_t pbrIfGetNext(const void *pInKey, void *pOutKey) {
    if (pInKey == nullptr || pOutKey == nullptr) {
        return PBR_FAIL;
    }
    const PbrApiLock lock;
    return unitWrite(pOutKey, unitAfter(pbrApiKey<uint32_t>(pInKey)));
}

uint32_t pbrNextHopGetFirst(void *pKey) {
    if (pKey == nullptr) {
        return PBR_FAIL;
    }
    PbrNodeKey key = pbrApiKey<PbrNodeKey>(pKey);
    const PbrApiLock lock;
    HopPosition position = {nullptr, 0};
    for (const PbrListEntry *pList = firstList(); pList != nullptr; pList = nextList(pList)) {
        if (listWanted(pList, key) && hopFirstOfList(pList, key, &position)) {
            nodeKeySet(&key, position.pNode);
            key.nextHopIndex = position.hopIndex;
            memcpy(pKey, &key, sizeof key);
            return PBR_OK;
        }
    }
    return PBR_FAIL;
}

uint32_t pbrNextHopGetNext(const void *pInKey, void *pOutKey) {
    if (pInKey == nullptr || pOutKey == nullptr) {
        return PBR_FAIL;
    }
    const PbrNodeKey key = pbrApiKey<PbrNodeKey>(pInKey);
    if (key.listNameLen == 0) {
        return PBR_FAIL;
    }
    const PbrApiLock lock;
    const HopPosition position = hopAfter(key);
    if (position.pNode == nullptr) {
        return PBR_FAIL;
    }
    nodeKeyWrite(pOutKey, key, position.pNode, position.hopIndex);
    return PBR_OK;
}

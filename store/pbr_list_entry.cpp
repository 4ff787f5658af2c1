// The table of policy lists.
#include "store/pbr_list_entry.h"

#include <cstring>

#include "core/pbr_mem.h"
#include "core/pbr_trace.h"
#include "store/pbr_view_mark.h"

namespace {

const char TEXT_NO_POOLS[] = "pbr malloc malloc error !\r\n"; // the word twice, as published
const char TEXT_NO_SLOT[] = "pbr list free table is empty !\r\n";
const char TEXT_NO_MATCH[] = "pbr if bind ,but no if-match!\r\n";
const char TEXT_NO_APPLY[] = "pbr if bind ,but no apply!\r\n";

// Whether the list stands behind a new list of that name.
bool standsBehind(const PbrListEntry *pList, const uint8_t *pName, uint32_t nameLen) {
    const uint32_t common = nameLen < pList->nameLen ? nameLen : pList->nameLen;
    const int order = memcmp(pList->name, pName, common);
    return order > 0 || (order == 0 && nameLen < pList->nameLen);
}

// The link behind which a new list of that name goes: the last list passed, or the head.
PbrLink *listPlace(const uint8_t *pName, uint32_t nameLen) {
    PbrLink *pAfter = &gPbrInfo.usedTable;
    for (PbrLink *pLink = listFirst(&gPbrInfo.usedTable); pLink != nullptr;
         pLink = listNext(&gPbrInfo.usedTable, pLink)) {
        if (standsBehind(pbrListFromUsedLink(pLink), pName, nameLen)) {
            break;
        }
        pAfter = pLink;
    }
    return pAfter;
}

uint32_t nodeValidate(const PbrNodeEntry *pNode) PBR_LOCK_HELD {
    if (pNode->aclNum == 0 && pNode->matchValue1 == 0 && pNode->matchValue2 == 0) {
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_TABLE, TEXT_NO_MATCH);
        return PBR_ERR_NO_MATCH;
    }
    if (listEmpty(&pNode->nextHopList) && pNode->outIfUnit == 0 && pbrNodeIpPriGet(pNode) == PBR_IP_PRI_NONE) {
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_TABLE, TEXT_NO_APPLY);
        return PBR_ERR_NO_APPLY;
    }
    return PBR_OK;
}

} // namespace

PbrListEntry *pbrListEntryAdd(const uint8_t *pName, uint32_t nameLen) {
    if (nameLen > PBR_NAME_BYTES) {
        return nullptr; // the callers check; a record has no room for it
    }
    if (pbrMemAlloc() != 0) {
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_TABLE, TEXT_NO_POOLS);
        return nullptr;
    }
    PbrListEntry *pList = static_cast<PbrListEntry *>(silMemPoolAlloc(&gPbrInfo.listPool, 0));
    if (pList == nullptr) {
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_TABLE, TEXT_NO_SLOT);
        return nullptr;
    }
    listInit(&pList->nodeList);
    listInit(&pList->auxList);
    memcpy(pList->name, pName, nameLen);
    pList->nameLen = static_cast<uint16_t>(nameLen);
    listInsertAfter(&pList->usedLink, listPlace(pName, nameLen));
    pbrListStatusSet(pList, PBR_ROW_CREATED);
    // Whole, for the guard of the interface handlers, which reads it without the mutex.
    __atomic_store_n(&gPbrInfo.listCount, gPbrInfo.listCount + 1, __ATOMIC_RELAXED);
    return pList;
}

PbrListEntry *pbrListEntryGet(const uint8_t *pName, uint32_t nameLen) {
    if (pName == nullptr) {
        return nullptr;
    }
    const uint16_t len = static_cast<uint16_t>(nameLen);
    for (PbrLink *pLink = listFirst(&gPbrInfo.usedTable); pLink != nullptr;
         pLink = listNext(&gPbrInfo.usedTable, pLink)) {
        PbrListEntry *pList = pbrListFromUsedLink(pLink);
        if (pList->nameLen == len && memcmp(pList->name, pName, len) == 0) {
            return pList;
        }
    }
    return nullptr;
}

uint32_t pbrListEntryValidate(const PbrListEntry *pList) {
    for (PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr; pNode = pbrListNodeNext(pList, pNode)) {
        const uint32_t result = nodeValidate(pNode);
        if (result != PBR_OK) {
            return result;
        }
    }
    return PBR_OK;
}

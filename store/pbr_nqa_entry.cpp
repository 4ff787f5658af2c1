// The table of probe tests.
#include "store/pbr_nqa_entry.h"

#include <cstring>

#include "core/pbr_trace.h"
#include "rtmsg/pbr_nqa_request.h"

namespace {

const char TEXT_NO_SLOT[] = "pbr nqa free table is empty!\r\n";
const char TEXT_ADD[] = "pbr nqa add %.*s %.*s\r\n";
const char TEXT_DEL[] = "pbr nqa del %.*s %.*s\r\n";

// -1, 0 or 1: the shorter name first, equal lengths by their bytes.
int nameOrder(const uint8_t *pA, uint32_t lenA, const uint8_t *pB, uint32_t lenB) {
    if (lenA != lenB) {
        return lenA < lenB ? -1 : 1;
    }
    return memcmp(pA, pB, lenA);
}

// Whether the other record stands behind the new one.
bool standsBehind(const PbrNqaEntry *pOther, const PbrNqaEntry *pNew) {
    const int admin = nameOrder(pNew->adminName, pNew->adminNameLen, pOther->adminName, pOther->adminNameLen);
    if (admin != 0) {
        return admin < 0;
    }
    return nameOrder(pNew->testName, pNew->testNameLen, pOther->testName, pOther->testNameLen) < 0;
}

// The link behind which the new record goes: the last one passed, or the head.
PbrLink *nqaPlace(const PbrNqaEntry *pNew) {
    PbrLink *pAfter = &gPbrInfo.nqaTable;
    for (PbrLink *pLink = listFirst(&gPbrInfo.nqaTable); pLink != nullptr;
         pLink = listNext(&gPbrInfo.nqaTable, pLink)) {
        if (standsBehind(pbrNqaFromNqaLink(pLink), pNew)) {
            break;
        }
        pAfter = pLink;
    }
    return pAfter;
}

bool sameTest(const PbrNextHopEntry *pA, const PbrNextHopEntry *pB) {
    return nameOrder(pA->nqaAdminName, pA->nqaAdminNameLen, pB->nqaAdminName, pB->nqaAdminNameLen) == 0 &&
           nameOrder(pA->nqaTestName, pA->nqaTestNameLen, pB->nqaTestName, pB->nqaTestNameLen) == 0;
}

bool nodeNamesTest(const PbrNodeEntry *pNode, const PbrNextHopEntry *pExcept) {
    for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr; pHop = pbrNodeNextHopNext(pNode, pHop)) {
        if (pHop != pExcept && sameTest(pHop, pExcept)) {
            return true;
        }
    }
    return false;
}

} // namespace

PbrNqaEntry *pbrNqaEntryAdd(const uint8_t *pAdmin, uint8_t adminLen, const uint8_t *pTest, uint8_t testLen) {
    if (adminLen > PBR_NQA_NAME_BYTES || testLen > PBR_NQA_NAME_BYTES) {
        return nullptr; // the callers check; a record has no room for it
    }
    PbrNqaEntry *pNqa = static_cast<PbrNqaEntry *>(silMemPoolAlloc(&gPbrInfo.nqaPool, 0));
    if (pNqa == nullptr) {
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_TABLE, TEXT_NO_SLOT);
        return nullptr;
    }
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_TABLE, TEXT_ADD, adminLen, reinterpret_cast<const char *>(pAdmin),
              testLen, reinterpret_cast<const char *>(pTest));
    memcpy(pNqa->adminName, pAdmin, adminLen);
    pNqa->adminNameLen = adminLen;
    memcpy(pNqa->testName, pTest, testLen);
    pNqa->testNameLen = testLen;
    pNqa->status = PBR_NQA_STATUS_FAILING;
    listInsertAfter(&pNqa->nqaLink, nqaPlace(pNqa));
    (void)pbrNqaStatusReqRtmsgSend(pNqa); // without an answer the test counts as failing
    return pNqa;
}

PbrNqaEntry *pbrNqaEntryGet(const uint8_t *pAdmin, uint32_t adminLen, const uint8_t *pTest, uint32_t testLen) {
    for (PbrLink *pLink = listFirst(&gPbrInfo.nqaTable); pLink != nullptr;
         pLink = listNext(&gPbrInfo.nqaTable, pLink)) {
        PbrNqaEntry *pNqa = pbrNqaFromNqaLink(pLink);
        if (nameOrder(pNqa->adminName, pNqa->adminNameLen, pAdmin, adminLen & 0xFFu) == 0 &&
            nameOrder(pNqa->testName, pNqa->testNameLen, pTest, testLen & 0xFFu) == 0) {
            return pNqa;
        }
    }
    return nullptr;
}

int32_t pbrNqaEntryDel(PbrNqaEntry *pNqa) {
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_TABLE, TEXT_DEL, pNqa->adminNameLen,
              reinterpret_cast<const char *>(pNqa->adminName), pNqa->testNameLen,
              reinterpret_cast<const char *>(pNqa->testName));
    listUnlinkInit(&pNqa->nqaLink);
    silMemPoolFree(&gPbrInfo.nqaPool, pNqa);
    return 0;
}

int32_t pbrNqaCheckNoUsed(const PbrNextHopEntry *pHop) {
    for (PbrLink *pLink = listFirst(&gPbrInfo.usedTable); pLink != nullptr;
         pLink = listNext(&gPbrInfo.usedTable, pLink)) {
        const PbrListEntry *pList = pbrListFromUsedLink(pLink);
        for (PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr; pNode = pbrListNodeNext(pList, pNode)) {
            if (nodeNamesTest(pNode, pHop)) {
                return -1;
            }
        }
    }
    return 0;
}

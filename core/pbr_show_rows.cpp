// The rows of the store's report: see the header.
#include "core/pbr_show_rows.h"

#include "core/pbr_info.h"
#include "store/pbr_if_entry.h"

namespace {

// Yields the rows of one link. Result: the number of the next row.
uint32_t linkRows(uint32_t number, const PbrIfEntry *pIf, const PbrIfNodeEntry *pLink,
                  void (*render)(const PbrShowIfBindRow *pRow)) {
    const PbrNodeEntry *pNode = pLink->pPbrNode;
    const PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode);
    do {
        const PbrShowIfBindRow row = {number++, pIf, pLink, pNode, pHop};
        render(&row);
        pHop = pHop == nullptr ? nullptr : pbrNodeNextHopNext(pNode, pHop);
    } while (pHop != nullptr);
    return number;
}

} // namespace

void pbrShowIfBindRows(void (*render)(const PbrShowIfBindRow *pRow)) {
    uint32_t number = 1;
    for (const PbrIfEntry *pIf = pbrIfEntryFirst(); pIf != nullptr; pIf = pbrIfEntryNext(pIf)) {
        for (const PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr;
             pLink = pbrIfIfNodeNext(pIf, pLink)) {
            number = linkRows(number, pIf, pLink, render);
        }
    }
}

void pbrShowReadyRows(void (*render)(const PbrShowListRow *pRow)) {
    uint32_t number = 1;
    for (const PbrListEntry *pList = pbrListFromReadyLink(listFirst(&gPbrInfo.readyTable)); pList != nullptr;
         pList = pbrListFromReadyLink(listNext(&gPbrInfo.readyTable, &pList->readyLink))) {
        const PbrShowListRow row = {number++, pList};
        render(&row);
    }
}

void pbrShowUsedRows(void (*render)(const PbrShowListRow *pRow)) {
    uint32_t number = 1;
    for (const PbrListEntry *pList = pbrListFromUsedLink(listFirst(&gPbrInfo.usedTable)); pList != nullptr;
         pList = pbrListFromUsedLink(listNext(&gPbrInfo.usedTable, &pList->usedLink))) {
        const PbrShowListRow row = {number++, pList};
        render(&row);
    }
}

void pbrShowNqaRows(void (*render)(const PbrNqaEntry *pNqa)) {
    for (const PbrNqaEntry *pNqa = pbrNqaFromNqaLink(listFirst(&gPbrInfo.nqaTable)); pNqa != nullptr;
         pNqa = pbrNqaFromNqaLink(listNext(&gPbrInfo.nqaTable, &pNqa->nqaLink))) {
        render(pNqa);
    }
}

// The tree of interface entries.
#include "store/pbr_if_entry.h"

#include "core/pbr_mem.h"
#include "core/pbr_trace.h"
#include "platform/qrv_if.h"
#include "store/pbr_view_mark.h"

namespace {

const char TEXT_NO_POOLS[] = "pbr malloc malloc error !\r\n"; // the word twice, as published
const char TEXT_NO_SLOT[] = "pbr if free table is empty !\r\n";
const char TEXT_ADD[] = "pbrIfEntry Add if(%s)\r\n";
const char TEXT_DEL[] = "pbrIfEntry delete\r\n";

constexpr uint32_t NAME_BYTES = 64;

} // namespace

int32_t pbrIfEntryCompare(const void *pA, const void *pB) {
    const uint32_t a = static_cast<const PbrIfEntry *>(pA)->ifUnit;
    const uint32_t b = static_cast<const PbrIfEntry *>(pB)->ifUnit;
    if (a == b) {
        return 0;
    }
    return a > b ? 1 : -1;
}

PbrIfEntry *pbrIfEntryAdd(uint32_t ifUnit) {
    if (pbrMemAlloc() != 0) {
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_TABLE, TEXT_NO_POOLS);
        return nullptr;
    }
    PbrIfEntry *pIf = static_cast<PbrIfEntry *>(silMemPoolAlloc(&gPbrInfo.ifPool, 0));
    if (pIf == nullptr) {
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_TABLE, TEXT_NO_SLOT);
        return nullptr;
    }
    char name[NAME_BYTES] = {};
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_GENERAL, TEXT_ADD, qrvIfUnit2Name(ifUnit, name, sizeof(name)));
    pIf->ifUnit = ifUnit;
    pIf->status = PBR_IF_CREATE;
    listInit(&pIf->ifNodeList);
    avl_add(&gPbrInfo.ifTree, pIf);
    return pIf;
}

int32_t pbrIfEntryDel(PbrIfEntry *pIf) {
    avl_remove(&gPbrInfo.ifTree, pIf);
    silMemPoolFree(&gPbrInfo.ifPool, pIf);
    pbrViewMarkAll();
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_GENERAL, TEXT_DEL);
    if (listEmpty(&gPbrInfo.usedTable) && avl_is_empty(&gPbrInfo.ifTree) != 0) {
        (void)pbrMemFree(); // 0 always
    }
    return 0;
}

PbrIfEntry *pbrIfEntryGet(uint32_t ifUnit) {
    PbrIfEntry search = {};
    search.ifUnit = ifUnit;
    return static_cast<PbrIfEntry *>(avl_find(&gPbrInfo.ifTree, &search));
}

PbrIfEntry *pbrIfEntryFirst() {
    return static_cast<PbrIfEntry *>(avl_first(&gPbrInfo.ifTree));
}

PbrIfEntry *pbrIfEntryNext(const PbrIfEntry *pIf) {
    return static_cast<PbrIfEntry *>(avl_next(&gPbrInfo.ifTree, pIf));
}

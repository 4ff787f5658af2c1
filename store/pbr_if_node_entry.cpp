// The interface-node links.
#include "store/pbr_if_node_entry.h"

#include "core/pbr_trace.h"
#include "store/pbr_view_mark.h"

namespace {

const char TEXT_NO_SLOT[] = "pbr if node free table is empty !\r\n";
const char TEXT_DEL[] = "pbrIfnode delete\r\n";

} // namespace

PbrIfNodeEntry *pbrIfNodeEntryAdd(PbrIfEntry *pIf, PbrNodeEntry *pNode) {
    PbrIfNodeEntry *pLink = static_cast<PbrIfNodeEntry *>(silMemPoolAlloc(&gPbrInfo.ifNodePool, 0));
    if (pLink == nullptr) {
        PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_TABLE, TEXT_NO_SLOT);
        return nullptr;
    }
    pLink->ifUnit = pIf->ifUnit;
    pLink->pPbrNode = pNode;
    listInsertAfter(&pLink->ifLink, pIf->ifNodeList.pPrev); // the end
    pbrViewMarkList(pNode->pPbrList);
    return pLink;
}

int32_t pbrIfNodeEntryDel(PbrIfNodeEntry *pLink) {
    pbrViewMarkList(pLink->pPbrNode->pPbrList);
    listUnlinkInit(&pLink->ifLink);
    silMemPoolFree(&gPbrInfo.ifNodePool, pLink);
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_GENERAL, TEXT_DEL);
    return 0;
}

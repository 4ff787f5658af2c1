// Deletes a policy list with everything below it.
#include "store/pbr_list_entry_del.h"

#include "core/pbr_mem.h"
#include "store/pbr_node_entry.h"
#include "store/pbr_view_mark.h"

int32_t pbrListEntryDel(PbrListEntry *pList) {
    PbrNodeEntry *pNext = nullptr;
    for (PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr; pNode = pNext) {
        pNext = pbrListNodeNext(pList, pNode);
        (void)pbrNodeEntryDel(pNode); // 0 always
    }
    // Whole, as in pbrListEntryAdd.
    __atomic_store_n(&gPbrInfo.listCount, gPbrInfo.listCount - 1, __ATOMIC_RELAXED);
    listUnlink(&pList->usedLink);
    silMemPoolFree(&gPbrInfo.listPool, pList);
    pbrViewMarkAll();
    if (listEmpty(&gPbrInfo.usedTable) && avl_is_empty(&gPbrInfo.ifTree) != 0) {
        (void)pbrMemFree(); // 0 always
    }
    return 0;
}

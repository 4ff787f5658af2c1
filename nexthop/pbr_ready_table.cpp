// The ready table: see the header.
#include "nexthop/pbr_ready_table.h"

#include "core/pbr_info.h"

void pbrReadyTableAdd(PbrListEntry *pList) {
    listUnlinkInit(&pList->readyLink);
    listInsertAfter(&pList->readyLink, &gPbrInfo.readyTable);
}

// The way of a policy list out of the table (gPbrInfo.usedTable): the half of the table of lists that needs
// the tables below it, which themselves find their list by name.
//
// Called by the management handlers (api/pbr_row_free.h).
#ifndef STORE_PBR_LIST_ENTRY_DEL_H
#define STORE_PBR_LIST_ENTRY_DEL_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Deletes a list with its nodes and their next hops. Its readyLink is left as it is: the caller takes a
// waiting list out of the ready table first. listCount - 1; the pools go with the last list when there
// is no interface entry either. Result: 0. Lock: held by caller
int32_t pbrListEntryDel(PbrListEntry *pList) PBR_LOCK_HELD;

#endif

// The rows of the store's report: a walk that yields them one by one, without any text.
//
// The built-in report (core/pbr_show) renders them. Called with the daemon's mutex held; a row is valid
// during the call.
#ifndef CORE_PBR_SHOW_ROWS_H
#define CORE_PBR_SHOW_ROWS_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// One link of a bound interface, with one of its node's next hops.
struct PbrShowIfBindRow {
    uint32_t number;                // from 1, across the whole table
    const PbrIfEntry *pIf;
    const PbrIfNodeEntry *pLink;
    const PbrNodeEntry *pNode;
    const PbrNextHopEntry *pNextHop; // null: the node has none, and this is its only row
};

// One list of the ready or the used table.
struct PbrShowListRow {
    uint32_t number; // from 1
    const PbrListEntry *pList;
};

// Interfaces in ascending unit, their links in order, a row a next hop. Lock: held by caller
void pbrShowIfBindRows(void (*render)(const PbrShowIfBindRow *pRow)) PBR_LOCK_HELD;

// Lists of the ready table from its head; of the used table in name order. Lock: held by caller
void pbrShowReadyRows(void (*render)(const PbrShowListRow *pRow)) PBR_LOCK_HELD;
void pbrShowUsedRows(void (*render)(const PbrShowListRow *pRow)) PBR_LOCK_HELD;

// Probe records in table order. Lock: held by caller
void pbrShowNqaRows(void (*render)(const PbrNqaEntry *pNqa)) PBR_LOCK_HELD;

#endif

// The tree of interface entries (gPbrInfo.ifTree), in ascending unsigned unit: add, delete, find.
//
// Called by the interface commands; deleting also by link and aggregation events.
#ifndef STORE_PBR_IF_ENTRY_H
#define STORE_PBR_IF_ENTRY_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Order of the tree. pA, pB: PbrIfEntry. Result: 1, -1 or 0. Lock: none
int32_t pbrIfEntryCompare(const void *pA, const void *pB);

// Makes an entry for a unit that has none (the caller has looked); the pools are made when they do not
// exist. Result: the entry (status 1, no list, no links), which lives until pbrIfEntryDel; null when
// the pools cannot be made or are used up. Lock: held by caller
PbrIfEntry *pbrIfEntryAdd(uint32_t ifUnit) PBR_LOCK_HELD;

// Deletes an entry, whose links the caller has deleted and which is in no list's chain. The pools go
// with the last entry when there is no list either. Result: 0. Lock: held by caller
int32_t pbrIfEntryDel(PbrIfEntry *pIf) PBR_LOCK_HELD;

// Finds the entry of a unit. Result: the entry or null. Lock: held by caller
PbrIfEntry *pbrIfEntryGet(uint32_t ifUnit) PBR_LOCK_HELD;

// First entry, and the one behind pIf (which is in the tree); null at the end. Lock: held by caller
PbrIfEntry *pbrIfEntryFirst() PBR_LOCK_HELD;
PbrIfEntry *pbrIfEntryNext(const PbrIfEntry *pIf) PBR_LOCK_HELD;

#endif

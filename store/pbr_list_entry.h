// The table of policy lists (gPbrInfo.usedTable): add, find, validate. The way out is
// store/pbr_list_entry_del.h.
//
// Called by the management handlers, binding and event handlers. Lists are kept in byte order of their
// names, a name before every longer name that it begins. Names and limits are checked by the callers.
// Row states of a list: created (pbrListEntryAdd) -> active, inactive (management handlers).
#ifndef STORE_PBR_LIST_ENTRY_H
#define STORE_PBR_LIST_ENTRY_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Makes a list and puts it in its place; the pools are made when they do not exist. A list of an equal
// name goes behind the existing one. pName: nameLen bytes, 1..16, not null.
// Result: the list (status created, refCnt 0), which lives until pbrListEntryDel; null when the pools
// cannot be made or are used up. listCount + 1 on success. Lock: held by caller
PbrListEntry *pbrListEntryAdd(const uint8_t *pName, uint32_t nameLen) PBR_LOCK_HELD;

// Finds the first list of that name. pName: may be null (no list). nameLen: its low 16 bits count.
// Result: the list or null. Lock: held by caller
PbrListEntry *pbrListEntryGet(const uint8_t *pName, uint32_t nameLen) PBR_LOCK_HELD;

// Checks whether the list may be bound: every node matches something and does something.
// Result: 0; PBR_ERR_NO_MATCH or PBR_ERR_NO_APPLY for the first node that does not. An empty list
// passes. Lock: held by caller
uint32_t pbrListEntryValidate(const PbrListEntry *pList) PBR_LOCK_HELD;

#endif

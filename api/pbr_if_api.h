// The interface commands: get, set and sync of interface entries, and binding a list to an interface.
//
// Called by the command server. Fields are PbrIfField: status 1 (commands create 1, destroy 2); pbrName 2
// (byte string, at most 16 bytes: the bound list; setting it binds, after unbinding another one); 3 reads
// as empty; the whole row 4. A list is unbound by destroying the entry or by binding another list.
// While there are more lists than maxListNum both answer PBR_ERR_LIST_LIMIT, before the lock is taken.
// pKey: u32 interface unit, machine order, any alignment.
#ifndef API_PBR_IF_API_H
#define API_PBR_IF_API_H

#include "platform/icm.h"

// Reads a field. pValue: number, or byte buffer with its capacity. The name record of the whole row
// needs 12 free bytes only and is written whole (up to 24 bytes).
// Result: 0; PBR_ERR_BAD_ARGUMENT null key, value or buffer; PBR_ERR_NO_ROW no such entry;
// PBR_ERR_LIST_LIMIT also when the name does not fit; PBR_FAIL unknown field, the row without buffer.
// Lock: takes
[[nodiscard]] uint32_t pbrIfGetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue);

// Creates or destroys an entry, or binds a list. Every accepted field is synchronised before anything
// else is looked at. A failed bind leaves the entry without a list.
// Result: 0; PBR_ERR_BAD_ARGUMENT null key or value, bytes without buffer; PBR_ERR_NO_ROW no such entry;
// PBR_ERR_NO_RECORD no room; PBR_ERR_NO_LIST, PBR_ERR_NO_MATCH, PBR_ERR_NO_APPLY the new list while
// another is bound; PBR_ERR_UNBIND_NO_LIST the bound list has gone; PBR_ERR_BIND binding failed;
// PBR_FAIL a field that cannot be set, an unknown command; codes of the synchronisation service.
// Lock: takes
[[nodiscard]] uint32_t pbrIfSetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue);

// As pbrIfSetApi, with the origin "sync" in the synchronisation record. Lock: takes
[[nodiscard]] uint32_t pbrIfSyncApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue);

#endif

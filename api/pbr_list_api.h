// The list commands: get, set and sync of policy lists.
//
// Called by the command server. Fields are PbrListField: status (1) is set with the commands activate 1,
// create 2, deactivate 3, destroy 4 and read as 1, 2 or 3; refCnt (2) and the whole row (3) are read
// only. A list that is bound to an interface (refCnt not 0) refuses every set but a create.
// pKey: PbrListKey, machine order, any alignment.
#ifndef API_PBR_LIST_API_H
#define API_PBR_LIST_API_H

#include "platform/icm.h"

// Reads a field. pValue: number, or for the whole row a byte buffer with its capacity.
// Result: 0; PBR_ERR_BAD_ARGUMENT null key or value; PBR_ERR_NO_ROW no such list; PBR_FAIL unknown
// field, or the row without buffer. Lock: takes
[[nodiscard]] uint32_t pbrListGetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue);

// Sets a field, or creates or destroys the list. Creating a list that exists and destroying one that
// does not succeed without change. Refusals change nothing; what the synchronisation service answers
// other than 0 is passed on. Destroying a list destroys its nodes and next hops.
// Result: 0; PBR_ERR_BAD_ARGUMENT null key or value, or create with a name of 0 or more than 16 bytes;
// PBR_ERR_IN_USE bound; PBR_ERR_NO_ROW no such list; PBR_ERR_NO_RECORD no room; PBR_FAIL a field that
// cannot be set, an unknown command. Lock: takes
[[nodiscard]] uint32_t pbrListSetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue);

// As pbrListSetApi, with the origin "sync" in the synchronisation record. Lock: takes
[[nodiscard]] uint32_t pbrListSyncApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue);

#endif

// From the key of a management command to the records that it names, and what every table's set asks of
// a call first.
//
// A key is copied out before use: keys come in at any alignment. No list has a name of more than 16
// bytes, so a longer length names none, and nothing behind the key's 16 name bytes is ever read.
#ifndef API_PBR_ROW_LOOKUP_H
#define API_PBR_ROW_LOOKUP_H

#include <cstring>

#include "api/pbr_field.h"
#include "api/pbr_keys.h"
#include "store/pbr_list_entry.h"
#include "store/pbr_node_entry.h"

// Copies a key (PbrListKey, PbrNodeKey, u32 unit). pKey: not null. Lock: none
template <class Key> Key pbrApiKey(const void *pKey) {
    Key key;
    memcpy(&key, pKey, sizeof key);
    return key;
}

// Whether a name length is one that a list can have. Lock: none
inline bool pbrApiNameValid(uint32_t nameLen) { return nameLen >= 1 && nameLen <= PBR_NAME_BYTES; }

// The list of that name, or null. Lock: held by caller
inline PbrListEntry *pbrApiListGet(const uint8_t *pName, uint32_t nameLen) PBR_LOCK_HELD {
    return pbrApiNameValid(nameLen) ? pbrListEntryGet(pName, nameLen) : nullptr;
}

// The node that the key names, or null. Lock: held by caller
inline PbrNodeEntry *pbrApiNodeGet(const PbrNodeKey *pKey) PBR_LOCK_HELD {
    return pbrApiNameValid(pKey->listNameLen)
               ? pbrNodeEntryGet(pKey->listName, pKey->listNameLen, pKey->nodeIndex)
               : nullptr;
}

// Whether the call is that command to the status field, which is field 1 of every table. Lock: none
inline bool pbrApiIsCommand(const PbrApiCall *pCall, uint32_t command) {
    return pCall->fieldId == 1 && pbrApiNumber(pCall->pValue) == command;
}

#endif

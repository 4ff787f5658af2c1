// Get, set and sync of interface entries: the field table and its special functions.
//
// Every accepted field asks the synchronisation service first; creating, destroying and binding check
// afterwards. That order is published.
#include "api/pbr_if_api.h"

#include "api/pbr_row_free.h"
#include "api/pbr_row_lookup.h"
#include "hw/pbr_if_bind.h"
#include "store/pbr_if_entry.h"
#include "store/pbr_view_mark.h"

namespace {

constexpr char TEXT_MISSING_SET[] = "pbrIfSetApi:pbrIfEntry is NULL.\r\n";
constexpr char TEXT_MISSING_GET[] = "pbrIfGetApi: pbrIfEntry is NULL.\r\n";
constexpr char TEXT_BIND_ERROR[] = "pbrIfSetApi: pbr bind error.\r\n";

constexpr PbrApiTable IF_TABLE = {0x04128000u, sizeof(uint32_t), PBR_SYNC_FLAG_IF};

struct IfRow {
    uint32_t ifUnit;
    PbrIfEntry *pIf; // null: no such entry
};

// ---- status ----

uint32_t statusGet(const IfRow *pRow, PbrApiValue *pValue) {
    pValue->word0 = pRow->pIf->status;
    return PBR_OK;
}

uint32_t ifCreate(const IfRow *pRow) PBR_LOCK_HELD {
    if (pRow->pIf != nullptr) {
        return PBR_OK;
    }
    return pbrIfEntryAdd(pRow->ifUnit) == nullptr ? PBR_ERR_NO_RECORD : PBR_OK;
}

// Only a generic failure of the unbind stops it: an entry whose list has gone can be destroyed.
uint32_t ifDestroy(const IfRow *pRow) PBR_LOCK_HELD {
    if (pRow->pIf == nullptr) {
        return PBR_OK;
    }
    if (pRow->pIf->pbrNameLen != 0 && pbrIfEntryUnBind(pRow->pIf) == PBR_FAIL) {
        return PBR_FAIL;
    }
    return pbrIfFree(pRow->pIf);
}

uint32_t statusSet(const PbrApiCall *pCall, IfRow *pRow) PBR_LOCK_HELD {
    switch (pbrApiNumber(pCall->pValue)) {
    case PBR_IF_CREATE:
        return ifCreate(pRow);
    case PBR_IF_DESTROY:
        return ifDestroy(pRow);
    default:
        return PBR_FAIL;
    }
}

// ---- the bound list ----

uint32_t nameGet(const IfRow *pRow, PbrApiValue *pValue) {
    const PbrIfEntry *pIf = pRow->pIf;
    if (pValue->word1 < pIf->pbrNameLen) {
        return PBR_ERR_LIST_LIMIT; // 22 is also the code of a short buffer here
    }
    return pbrApiBytesGet(pIf->pbrName, pIf->pbrNameLen, pValue);
}

uint32_t emptyGet(const IfRow *, PbrApiValue *pValue) {
    pValue->word1 = 0;
    return PBR_OK;
}

bool nameIsBound(const PbrIfEntry *pIf, const PbrApiValue *pValue) {
    return pValue->word1 == pIf->pbrNameLen &&
           memcmp(pIf->pbrName, pbrApiBytes(pValue), pIf->pbrNameLen) == 0;
}

// Makes room for another list: it must exist and be fit to be bound before the present one is let go.
uint32_t otherRelease(PbrIfEntry *pIf, const PbrApiValue *pValue) PBR_LOCK_HELD {
    const PbrListEntry *pList = pbrApiListGet(pbrApiBytes(pValue), pValue->word1);
    if (pList == nullptr) {
        return PBR_ERR_NO_LIST;
    }
    const uint32_t result = pbrListEntryValidate(pList);
    if (result != PBR_OK) {
        return result;
    }
    return pbrIfEntryUnBind(pIf);
}

void nameStore(PbrIfEntry *pIf, const PbrApiValue *pValue) {
    memset(pIf->pbrName, 0, PBR_NAME_BYTES);
    if (pValue->word1 != 0) {
        memcpy(pIf->pbrName, pbrApiBytes(pValue), pValue->word1);
    }
    pIf->pbrNameLen = static_cast<uint16_t>(pValue->word1);
}

// A name that fits no record names no list, so it is not stored to find that out.
bool nameBind(PbrIfEntry *pIf, const PbrApiValue *pValue) PBR_LOCK_HELD {
    if (pValue->word1 > PBR_NAME_BYTES) {
        return false;
    }
    nameStore(pIf, pValue);
    return pbrIfEntryBind(pIf) != -1;
}

uint32_t nameSet(const PbrApiCall *pCall, IfRow *pRow) PBR_LOCK_HELD {
    PbrIfEntry *pIf = pRow->pIf;
    const PbrApiValue *pValue = pCall->pValue;
    if (pIf->pbrNameLen != 0) {
        if (nameIsBound(pIf, pValue)) {
            return PBR_OK;
        }
        const uint32_t result = otherRelease(pIf, pValue);
        if (result != PBR_OK) {
            return result;
        }
    }
    if (nameBind(pIf, pValue)) {
        return PBR_OK;
    }
    PBR_API_TRACE(TEXT_BIND_ERROR);
    memset(pIf->pbrName, 0, PBR_NAME_BYTES);
    pIf->pbrNameLen = 0;
    pbrViewMarkAll(); // a bind that ran out of links leaves some behind
    return PBR_ERR_BIND;
}

constexpr PbrField<IfRow> IF_FIELDS[] = {
    {PBR_IF_STATUS, "status", PBR_FIELD_NUMBER, 8, 1, statusGet, statusSet, nullptr},
    {PBR_IF_PBR_NAME, "pbrName", PBR_FIELD_BYTES, 0, 2, nameGet, nameSet, nullptr},
    {PBR_IF_EMPTY, "empty", PBR_FIELD_BYTES, 0, 0, emptyGet, nullptr, nullptr},
    {PBR_IF_ROW, "row", PBR_FIELD_ROW, 0, 0, nullptr, nullptr, nullptr},
};

// ---- the handlers ----

// Guard of both handlers, made before the lock is taken: 32-bit reads that may be a moment old.
bool listLimitExceeded() {
    return __atomic_load_n(&gPbrInfo.maxListNum, __ATOMIC_RELAXED) <
           __atomic_load_n(&gPbrInfo.listCount, __ATOMIC_RELAXED);
}

uint32_t _pbrIfSetApi(const void *pKey, uint32_t fieldId, const PbrApiValue *pValue, uint32_t origin) {
    if (listLimitExceeded()) {
        return PBR_ERR_LIST_LIMIT;
    }
    if (pKey == nullptr || pValue == nullptr) {
        return PBR_ERR_BAD_ARGUMENT;
    }
    if (fieldId == PBR_IF_PBR_NAME && pbrApiBytesMissing(pValue)) {
        return PBR_ERR_BAD_ARGUMENT;
    }
    const PbrApiCall call = {&IF_TABLE, pKey, fieldId, pValue, origin};
    IfRow row = {pbrApiKey<uint32_t>(pKey), nullptr};
    const PbrApiLock lock;
    row.pIf = pbrIfEntryGet(row.ifUnit);
    if (row.pIf == nullptr && fieldId != PBR_IF_STATUS) {
        PBR_API_TRACE(TEXT_MISSING_SET);
        return PBR_ERR_NO_ROW;
    }
    return pbrFieldSet(IF_FIELDS, &call, &row);
}

} // namespace

uint32_t pbrIfGetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue) {
    if (listLimitExceeded()) {
        return PBR_ERR_LIST_LIMIT;
    }
    if (pKey == nullptr || pValue == nullptr) {
        return PBR_ERR_BAD_ARGUMENT;
    }
    IfRow row = {pbrApiKey<uint32_t>(pKey), nullptr};
    const PbrApiLock lock;
    row.pIf = pbrIfEntryGet(row.ifUnit);
    if (row.pIf == nullptr) {
        PBR_API_TRACE(TEXT_MISSING_GET);
        return PBR_ERR_NO_ROW;
    }
    return pbrFieldGet(IF_FIELDS, fieldId, &row, pValue);
}

uint32_t pbrIfSetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue) {
    return _pbrIfSetApi(pKey, fieldId, pValue, PBR_ORIGIN_SET);
}

uint32_t pbrIfSyncApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue) {
    return _pbrIfSetApi(pKey, fieldId, pValue, PBR_ORIGIN_SYNC);
}

// Get, set and sync of policy lists: the field table and its special functions.
#include "api/pbr_list_api.h"

#include "api/pbr_row_free.h"
#include "api/pbr_row_lookup.h"

namespace {

constexpr char TEXT_EXISTS[] = "pbrListSetApi: pbr list %.*s is exist.\r\n";
constexpr char TEXT_IN_USE[] = "pbrListSetApi: pbr list %.*s can not modify.\r\n";
constexpr char TEXT_MISSING_SET[] = "pbrListSetApi: pbr list %.*s is not exist.\r\n";
constexpr char TEXT_MISSING_GET[] = "pbr list %.*s is not exist.\r\n";

constexpr PbrApiTable LIST_TABLE = {0x070A8000u, sizeof(PbrListKey), 0};

struct ListRow {
    PbrListKey key;
    PbrListEntry *pList; // null: no such list
};

uint32_t statusGet(const ListRow *pRow, PbrApiValue *pValue) {
    pValue->word0 = pbrListStatusGet(pRow->pList);
    return PBR_OK;
}

uint32_t refCntGet(const ListRow *pRow, PbrApiValue *pValue) {
    pValue->word0 = pbrListRefCntGet(pRow->pList);
    return PBR_OK;
}

uint32_t listAdd(const ListRow *pRow) PBR_LOCK_HELD {
    return pbrListEntryAdd(pRow->key.listName, pRow->key.listNameLen) == nullptr ? PBR_ERR_NO_RECORD
                                                                                : PBR_OK;
}

uint32_t statusSet(const PbrApiCall *pCall, ListRow *pRow) PBR_LOCK_HELD {
    const uint32_t command = pbrApiNumber(pCall->pValue);
    switch (command) {
    case PBR_ROW_CREATED:
        return listAdd(pRow);
    case PBR_ROW_ACTIVE:
    case PBR_ROW_INACTIVE:
        pbrListStatusSet(pRow->pList, command);
        return PBR_OK;
    case PBR_ROW_DESTROY:
        return pbrListFree(pRow->pList);
    default:
        return PBR_FAIL; // the service has seen it: published order
    }
}

constexpr PbrField<ListRow> LIST_FIELDS[] = {
    {PBR_LIST_STATUS, "status", PBR_FIELD_NUMBER, 2, 1, statusGet, statusSet, nullptr},
    {PBR_LIST_REF_CNT, "refCnt", PBR_FIELD_NUMBER, 4, 2, refCntGet, nullptr, nullptr},
    {PBR_LIST_ROW, "row", PBR_FIELD_ROW, 0, 0, nullptr, nullptr, nullptr},
};

// What a set of a list that exists, or does not, is answered before its field is looked at.
// Result: whether the answer is known, in *pResult.
bool existingSettles(const PbrApiCall *pCall, const ListRow *pRow, uint32_t *pResult) PBR_LOCK_HELD {
    if (pbrApiIsCommand(pCall, PBR_ROW_CREATED)) {
        PBR_API_TRACE(TEXT_EXISTS, pbrApiNameLen(pRow->key.listNameLen), pRow->key.listName);
        *pResult = PBR_OK;
        return true;
    }
    if (pbrListRefCntGet(pRow->pList) != 0) {
        PBR_API_TRACE(TEXT_IN_USE, pbrApiNameLen(pRow->key.listNameLen), pRow->key.listName);
        *pResult = PBR_ERR_IN_USE;
        return true;
    }
    return false;
}

bool missingSettles(const PbrApiCall *pCall, const ListRow *pRow, uint32_t *pResult) PBR_LOCK_HELD {
    if (pbrApiIsCommand(pCall, PBR_ROW_CREATED)) {
        return false;
    }
    PBR_API_TRACE(TEXT_MISSING_SET, pbrApiNameLen(pRow->key.listNameLen), pRow->key.listName);
    *pResult = pbrApiIsCommand(pCall, PBR_ROW_DESTROY) ? PBR_OK : PBR_ERR_NO_ROW;
    return true;
}

uint32_t _pbrListSetApi(const void *pKey, uint32_t fieldId, const PbrApiValue *pValue, uint32_t origin) {
    if (pKey == nullptr || pValue == nullptr) {
        return PBR_ERR_BAD_ARGUMENT;
    }
    const PbrApiCall call = {&LIST_TABLE, pKey, fieldId, pValue, origin};
    ListRow row = {pbrApiKey<PbrListKey>(pKey), nullptr};
    if (pbrApiIsCommand(&call, PBR_ROW_CREATED) && !pbrApiNameValid(row.key.listNameLen)) {
        return PBR_ERR_BAD_ARGUMENT; // such a name fits no record
    }
    const PbrApiLock lock;
    row.pList = pbrApiListGet(row.key.listName, row.key.listNameLen);
    uint32_t result = PBR_OK;
    const bool settled = row.pList != nullptr ? existingSettles(&call, &row, &result)
                                              : missingSettles(&call, &row, &result);
    return settled ? result : pbrFieldSet(LIST_FIELDS, &call, &row);
}

} // namespace

uint32_t pbrListGetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue) {
    if (pKey == nullptr || pValue == nullptr) {
        return PBR_ERR_BAD_ARGUMENT;
    }
    ListRow row = {pbrApiKey<PbrListKey>(pKey), nullptr};
    const PbrApiLock lock;
    row.pList = pbrApiListGet(row.key.listName, row.key.listNameLen);
    if (row.pList == nullptr) {
        PBR_API_TRACE(TEXT_MISSING_GET, pbrApiNameLen(row.key.listNameLen), row.key.listName);
        return PBR_ERR_NO_ROW;
    }
    return pbrFieldGet(LIST_FIELDS, fieldId, &row, pValue);
}

uint32_t pbrListSetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue) {
    return _pbrListSetApi(pKey, fieldId, pValue, PBR_ORIGIN_SET);
}

uint32_t pbrListSyncApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue) {
    return _pbrListSetApi(pKey, fieldId, pValue, PBR_ORIGIN_SYNC);
}

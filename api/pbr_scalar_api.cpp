// Get, set and sync of the scalars: the field table and its special functions.
#include "api/pbr_scalar_api.h"

#include "api/pbr_field.h"
#include "api/pbr_keys.h"

namespace {

constexpr PbrApiTable SCALAR_TABLE = {0x001F4000u, 0, 0};
constexpr uint32_t VERSION_BYTES = sizeof PBR_VERSION_TEXT - 1;

// Pending work: machine order, as the handlers' values are.
constexpr uint32_t PENDING_NONE[3] = {1, 0, 2};
constexpr uint32_t PENDING_SOME[3] = {2, 2, 2};

struct ScalarRow {}; // the scalars are those of gPbrInfo

uint32_t maxListNumGet(const ScalarRow *, PbrApiValue *pValue) PBR_LOCK_HELD {
    pValue->word0 = gPbrInfo.maxListNum;
    return PBR_OK;
}

uint32_t maxNodeNumGet(const ScalarRow *, PbrApiValue *pValue) PBR_LOCK_HELD {
    pValue->word0 = gPbrInfo.maxNodeNum;
    return PBR_OK;
}

uint32_t listCountGet(const ScalarRow *, PbrApiValue *pValue) PBR_LOCK_HELD {
    pValue->word0 = gPbrInfo.listCount;
    return PBR_OK;
}

uint32_t debugFlagsGet(const ScalarRow *, PbrApiValue *pValue) PBR_LOCK_HELD {
    pValue->word0 = gPbrInfo.debugFlags;
    return PBR_OK;
}

uint32_t debugFlagsSet(const PbrApiCall *pCall, ScalarRow *) PBR_LOCK_HELD {
    gPbrInfo.debugFlags = pbrApiNumber(pCall->pValue);
    return PBR_OK;
}

// Cut to the capacity.
uint32_t versionGet(const ScalarRow *, PbrApiValue *pValue) {
    if (pValue->word0 == 0) {
        return PBR_ERR_BAD_ARGUMENT;
    }
    const uint32_t len = pValue->word1 < VERSION_BYTES ? pValue->word1 : VERSION_BYTES;
    return pbrApiBytesGet(PBR_VERSION_TEXT, len, pValue);
}

uint32_t pendingGet(const ScalarRow *, PbrApiValue *pValue) {
    if (pValue->word0 == 0 || pValue->word1 < sizeof PENDING_NONE) {
        return PBR_FAIL;
    }
    return pbrApiBytesGet(listEmpty(&gPbrInfo.readyTable) ? PENDING_NONE : PENDING_SOME,
                          sizeof PENDING_NONE, pValue);
}

constexpr PbrField<ScalarRow> SCALAR_FIELDS[] = {
    {PBR_SCALAR_MAX_LIST_NUM, "maxListNum", PBR_FIELD_NUMBER, 32, 1, maxListNumGet, nullptr, nullptr},
    {PBR_SCALAR_MAX_NODE_NUM, "maxNodeNum", PBR_FIELD_NUMBER, 32, 2, maxNodeNumGet, nullptr, nullptr},
    {PBR_SCALAR_LIST_COUNT, "listCount", PBR_FIELD_NUMBER, 32, 3, listCountGet, nullptr, nullptr},
    {PBR_SCALAR_DEBUG_FLAGS, "debugFlags", PBR_FIELD_NUMBER, 32, 4, debugFlagsGet, debugFlagsSet,
     nullptr},
    {PBR_SCALAR_VERSION, "version", PBR_FIELD_BYTES, VERSION_BYTES, 5, versionGet, nullptr, nullptr},
    {PBR_SCALAR_PENDING, "pending", PBR_FIELD_BYTES, sizeof PENDING_NONE, 0, pendingGet, nullptr,
     nullptr},
    {PBR_SCALAR_ROW, "row", PBR_FIELD_ROW, 0, 0, nullptr, nullptr, nullptr},
};

uint32_t _pbrScalarSetApi(uint32_t fieldId, const PbrApiValue *pValue, uint32_t origin) {
    if (pValue == nullptr) {
        return PBR_ERR_BAD_ARGUMENT;
    }
    const PbrApiCall call = {&SCALAR_TABLE, nullptr, fieldId, pValue, origin};
    ScalarRow row;
    const PbrApiLock lock;
    return pbrFieldSet(SCALAR_FIELDS, &call, &row);
}

} // namespace

uint32_t pbrScalarGetApi(const void *, uint32_t fieldId, PbrApiValue *pValue) {
    if (pbrFieldFind(SCALAR_FIELDS, fieldId) == nullptr) {
        return PBR_OK; // an id without scalar succeeds and leaves the value: published
    }
    if (pValue == nullptr) {
        return fieldId == PBR_SCALAR_PENDING ? PBR_FAIL : PBR_ERR_BAD_ARGUMENT;
    }
    const ScalarRow row = {};
    const PbrApiLock lock;
    return pbrFieldGet(SCALAR_FIELDS, fieldId, &row, pValue);
}

uint32_t pbrScalarSetApi(const void *, uint32_t fieldId, PbrApiValue *pValue) {
    return _pbrScalarSetApi(fieldId, pValue, PBR_ORIGIN_SET);
}

uint32_t pbrScalarSyncApi(const void *, uint32_t fieldId, PbrApiValue *pValue) {
    return _pbrScalarSetApi(fieldId, pValue, PBR_ORIGIN_SYNC);
}

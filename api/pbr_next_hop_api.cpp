// Get, set and sync of next hops: the field table and its special functions.
//
// Every field asks the synchronisation service before its length and content are checked; that order is
// published, so the checks stand in the set functions here.
#include "api/pbr_next_hop_api.h"

#include "api/pbr_row_lookup.h"
#include "nexthop/pbr_address.h"
#include "store/pbr_next_hop_entry.h"
#include "store/pbr_nqa_entry.h"
#include "store/pbr_view_mark.h"

namespace {

constexpr char TEXT_IN_USE[] = "_pbrNextHopSetApi: pbr list %.*s can't be modified.\r\n";
constexpr char TEXT_NO_NODE_SET[] = "_pbrNextHopSetApi: pbr list %.*s index %d is not exist.cmd %d\r\n";
constexpr char TEXT_MISSING_SET[] = "_pbrNextHopSetApi: pbr nexthop index %d is not exist, cmd %d.\r\n";
constexpr char TEXT_EXISTS[] = "_pbrNextHopSetApi: pbr nexthop index %d is exist.\r\n";
constexpr char TEXT_FORMAT[] = "_pbrNextHopSetApi:the format of nextHop is wrong!\r\n";
constexpr char TEXT_ZERO[] = "_pbrNextHopSetApi:nextHop is zero!\r\n";
constexpr char TEXT_ADDRESS4[] = "_pbrNextHopSetApi ipAddr=%d.%d.%d.%d!\r\n";
constexpr char TEXT_ADDRESS6[] = "_pbrNextHopSetApi ip6Addr=%s.\r\n";
constexpr char TEXT_ADMIN_LONG[] = "_pbrNextHopSetApi:the nqa admin name too long!\r\n";
constexpr char TEXT_TEST_LONG[] = "_pbrNextHopSetApi:the nqa operatTag name too long!\r\n";
constexpr char TEXT_NO_NODE_GET[] = "pbrNextHopGetApi: pbr list %.*s index %d is not exist.\r\n";
constexpr char TEXT_MISSING_GET[] = "pbrNextHopGetApi: pbr nexthop index %d is not exist.\r\n";

constexpr PbrApiTable NEXT_HOP_TABLE = {0x0CC60000u, sizeof(PbrNodeKey), 0};

struct NextHopRow {
    PbrNodeKey key;
    PbrListEntry *pList;   // null: no such list
    PbrNodeEntry *pNode;   // null: no such node
    PbrNextHopEntry *pHop; // null: no such next hop
};

// ---- status ----

uint32_t statusGet(const NextHopRow *pRow, PbrApiValue *pValue) {
    pValue->word0 = pRow->pHop->status;
    return PBR_OK;
}

uint32_t hopAdd(const NextHopRow *pRow) PBR_LOCK_HELD {
    PbrNodeEntry *pNode = pRow->pNode;
    if (pNode->policyRouteIpVer == 0) {
        return PBR_FAIL;
    }
    if (pNode->outIfUnit != 0) {
        return PBR_ERR_HAS_OUT_IF;
    }
    if (!listEmpty(&pNode->nextHopList) && pRow->key.nextHopIndex == 1) {
        return PBR_ERR_FIRST_NEXT_HOP;
    }
    return pbrNextHopEntryAdd(pNode, pRow->key.nextHopIndex) == nullptr ? PBR_ERR_NO_RECORD : PBR_OK;
}

// A probe is followed from the activation of the first next hop that names it.
uint32_t hopActivate(PbrNextHopEntry *pHop) PBR_LOCK_HELD {
    pHop->status = PBR_ROW_ACTIVE;
    const uint16_t adminLen = pHop->nqaAdminNameLen;
    const uint16_t testLen = pHop->nqaTestNameLen;
    if (adminLen != 0 && testLen != 0 &&
        pbrNqaEntryGet(pHop->nqaAdminName, adminLen, pHop->nqaTestName, testLen) == nullptr) {
        // Without room the next hop has no status record; the result is not reported: published.
        (void)pbrNqaEntryAdd(pHop->nqaAdminName, static_cast<uint8_t>(adminLen), pHop->nqaTestName,
                             static_cast<uint8_t>(testLen));
    }
    return PBR_OK;
}

uint32_t statusSet(const PbrApiCall *pCall, NextHopRow *pRow) PBR_LOCK_HELD {
    switch (pbrApiNumber(pCall->pValue)) {
    case PBR_ROW_CREATED:
        return hopAdd(pRow);
    case PBR_ROW_ACTIVE:
        return hopActivate(pRow->pHop);
    case PBR_ROW_INACTIVE:
        pRow->pHop->status = PBR_ROW_INACTIVE;
        return PBR_OK;
    case PBR_ROW_DESTROY:
        return static_cast<uint32_t>(pbrNextHopEntryDel(pRow->pHop));
    default:
        return PBR_FAIL;
    }
}

// ---- address ----

uint32_t addressGet(const NextHopRow *pRow, PbrApiValue *pValue) {
    const uint32_t size = pbrAddressSize(pRow->pNode->policyRouteIpVer);
    return pValue->word1 < size ? PBR_FAIL : pbrApiBytesGet(pRow->pHop->nextHop, size, pValue);
}

bool addressIsZero(const uint8_t *pAddress, uint32_t size) {
    constexpr uint8_t ZERO[PBR_ADDRESS_BYTES] = {};
    return memcmp(pAddress, ZERO, size) == 0;
}

void addressTrace(uint32_t ipVer, const uint8_t *pAddress) PBR_LOCK_HELD {
    if (ipVer == PBR_IP_VERSION_4) {
        PBR_API_TRACE(TEXT_ADDRESS4, pAddress[0], pAddress[1], pAddress[2], pAddress[3]);
        return;
    }
    const PbrAddressText text = pbrAddressPrint(ipVer, pAddress);
    PBR_API_TRACE(TEXT_ADDRESS6, text.text);
}

uint32_t addressSet(const PbrApiCall *pCall, NextHopRow *pRow) PBR_LOCK_HELD {
    const uint32_t ipVer = pRow->pNode->policyRouteIpVer;
    if (ipVer != PBR_IP_VERSION_4 && ipVer != PBR_IP_VERSION_6) {
        return PBR_OK; // accepted and not stored: published
    }
    const uint32_t size = pbrAddressSize(ipVer);
    if (pCall->pValue->word1 != size) {
        PBR_API_TRACE(TEXT_FORMAT);
        return PBR_FAIL;
    }
    const uint8_t *pAddress = pbrApiBytes(pCall->pValue);
    if (addressIsZero(pAddress, size)) {
        PBR_API_TRACE(TEXT_ZERO);
        return PBR_ERR_ZERO_NEXT_HOP;
    }
    uint8_t *pStored = pRow->pHop->nextHop;
    memset(pStored, 0, PBR_ADDRESS_BYTES); // addresses are compared over all 16 bytes elsewhere
    memcpy(pStored, pAddress, size);
    addressTrace(ipVer, pStored);
    return PBR_OK;
}

// ---- probe names ----

// The capacity is not looked at: published, callers provide at least 32 bytes.
uint32_t adminNameGet(const NextHopRow *pRow, PbrApiValue *pValue) {
    return pbrApiBytesGet(pRow->pHop->nqaAdminName, pRow->pHop->nqaAdminNameLen, pValue);
}

uint32_t testNameGet(const NextHopRow *pRow, PbrApiValue *pValue) {
    return pbrApiBytesGet(pRow->pHop->nqaTestName, pRow->pHop->nqaTestNameLen, pValue);
}

// Stores a name of at most 32 bytes. Result: false, with nothing stored, when it is longer.
bool nameSet(const PbrApiValue *pValue, uint8_t *pName, uint16_t *pNameLen) {
    if (pValue->word1 > PBR_NQA_NAME_BYTES) {
        return false;
    }
    memset(pName, 0, PBR_NQA_NAME_BYTES);
    if (pValue->word1 != 0) {
        memcpy(pName, pbrApiBytes(pValue), pValue->word1);
    }
    *pNameLen = static_cast<uint16_t>(pValue->word1);
    return true;
}

uint32_t adminNameSet(const PbrApiCall *pCall, NextHopRow *pRow) PBR_LOCK_HELD {
    if (!nameSet(pCall->pValue, pRow->pHop->nqaAdminName, &pRow->pHop->nqaAdminNameLen)) {
        PBR_API_TRACE(TEXT_ADMIN_LONG);
        return PBR_FAIL;
    }
    return PBR_OK;
}

uint32_t testNameSet(const PbrApiCall *pCall, NextHopRow *pRow) PBR_LOCK_HELD {
    if (!nameSet(pCall->pValue, pRow->pHop->nqaTestName, &pRow->pHop->nqaTestNameLen)) {
        PBR_API_TRACE(TEXT_TEST_LONG);
        return PBR_FAIL;
    }
    return PBR_OK;
}

constexpr PbrField<NextHopRow> NEXT_HOP_FIELDS[] = {
    {PBR_NEXT_HOP_STATUS, "status", PBR_FIELD_NUMBER, 16, 0, statusGet, statusSet, nullptr},
    {PBR_NEXT_HOP_ADDRESS, "nextHop", PBR_FIELD_BYTES, 0, 0, addressGet, addressSet, nullptr},
    {PBR_NEXT_HOP_NQA_ADMIN_NAME, "nqaAdminName", PBR_FIELD_BYTES, 0, 0, adminNameGet, adminNameSet,
     nullptr},
    {PBR_NEXT_HOP_NQA_TEST_NAME, "nqaTestName", PBR_FIELD_BYTES, 0, 0, testNameGet, testNameSet,
     nullptr},
};

// ---- the handlers ----

void rowFind(NextHopRow *pRow) PBR_LOCK_HELD {
    pRow->pList = pbrApiListGet(pRow->key.listName, pRow->key.listNameLen);
    pRow->pNode = pbrApiNodeGet(&pRow->key);
    if (pRow->pNode != nullptr) {
        pRow->pHop = pbrNextHopEntryGet(pRow->pNode, pRow->key.nextHopIndex);
    }
}

// What a set is answered for the state of its list and node. Result: whether the answer is known.
bool parentSettles(const PbrApiCall *pCall, const NextHopRow *pRow, uint32_t *pResult) PBR_LOCK_HELD {
    if (pRow->pList != nullptr && pbrListRefCntGet(pRow->pList) > 0) {
        PBR_API_TRACE(TEXT_IN_USE, pbrApiNameLen(pRow->key.listNameLen), pRow->key.listName);
        *pResult = PBR_ERR_IN_USE;
        return true;
    }
    if (pRow->pNode == nullptr) {
        PBR_API_TRACE(TEXT_NO_NODE_SET, pbrApiNameLen(pRow->key.listNameLen), pRow->key.listName,
                      static_cast<int32_t>(pRow->key.nodeIndex), static_cast<int32_t>(pCall->fieldId));
        *pResult = PBR_ERR_NO_ROW;
        return true;
    }
    return false;
}

// The same for the next hop itself. A destroy of a missing one is refused too, unlike in other tables.
bool hopSettles(const PbrApiCall *pCall, const NextHopRow *pRow, uint32_t *pResult) PBR_LOCK_HELD {
    const bool create = pbrApiIsCommand(pCall, PBR_ROW_CREATED);
    if (pRow->pHop == nullptr && !create) {
        PBR_API_TRACE(TEXT_MISSING_SET, pRow->key.nextHopIndex, static_cast<int32_t>(pCall->fieldId));
        *pResult = PBR_ERR_NO_ROW;
        return true;
    }
    if (pRow->pHop != nullptr && create) {
        PBR_API_TRACE(TEXT_EXISTS, pRow->key.nextHopIndex);
        *pResult = PBR_OK;
        return true;
    }
    return false;
}

uint32_t fieldRun(const PbrApiCall *pCall, NextHopRow *pRow) PBR_LOCK_HELD {
    const uint32_t result = pbrFieldSet(NEXT_HOP_FIELDS, pCall, pRow);
    if (result == PBR_OK) {
        pbrViewMarkList(pRow->pNode->pPbrList);
    }
    return result;
}

bool bytesMissing(const PbrApiCall *pCall) {
    const PbrField<NextHopRow> *pField = pbrFieldFind(NEXT_HOP_FIELDS, pCall->fieldId);
    return pField != nullptr && pField->kind == PBR_FIELD_BYTES && pbrApiBytesMissing(pCall->pValue);
}

uint32_t _pbrNextHopSetApi(const void *pKey, uint32_t fieldId, const PbrApiValue *pValue,
                           uint32_t origin) {
    if (pKey == nullptr || pValue == nullptr) {
        return PBR_ERR_BAD_ARGUMENT;
    }
    const PbrApiCall call = {&NEXT_HOP_TABLE, pKey, fieldId, pValue, origin};
    NextHopRow row = {pbrApiKey<PbrNodeKey>(pKey), nullptr, nullptr, nullptr};
    if (row.key.nextHopIndex == 0 || bytesMissing(&call)) {
        return PBR_ERR_BAD_ARGUMENT;
    }
    const PbrApiLock lock;
    rowFind(&row);
    uint32_t result = PBR_OK;
    if (parentSettles(&call, &row, &result) || hopSettles(&call, &row, &result)) {
        return result;
    }
    return fieldRun(&call, &row);
}

} // namespace

uint32_t pbrNextHopGetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue) {
    if (pKey == nullptr || pValue == nullptr) {
        return PBR_ERR_BAD_ARGUMENT;
    }
    NextHopRow row = {pbrApiKey<PbrNodeKey>(pKey), nullptr, nullptr, nullptr};
    const PbrApiLock lock;
    rowFind(&row);
    if (row.pNode == nullptr) {
        PBR_API_TRACE(TEXT_NO_NODE_GET, pbrApiNameLen(row.key.listNameLen), row.key.listName,
                      static_cast<int32_t>(row.key.nodeIndex));
        return PBR_FAIL;
    }
    if (row.pHop == nullptr) {
        PBR_API_TRACE(TEXT_MISSING_GET, row.key.nextHopIndex);
        return PBR_FAIL;
    }
    return pbrFieldGet(NEXT_HOP_FIELDS, fieldId, &row, pValue);
}

uint32_t pbrNextHopSetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue) {
    return _pbrNextHopSetApi(pKey, fieldId, pValue, PBR_ORIGIN_SET);
}

uint32_t pbrNextHopSyncApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue) {
    return _pbrNextHopSetApi(pKey, fieldId, pValue, PBR_ORIGIN_SYNC);
}

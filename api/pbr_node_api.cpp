// Get, set and sync of nodes: the field table and its special functions.
//
// The published order of a set: the time-range events; the list's use; the node's existence; then per
// field the checks, the synchronisation service, the change. Field 6 asks the service before it checks.
#include "api/pbr_node_api.h"

#include <type_traits>

#include "api/pbr_node_acl.h"
#include "api/pbr_node_time_range.h"
#include "api/pbr_row_free.h"
#include "api/pbr_row_lookup.h"
#include "nexthop/pbr_timerange.h"
#include "platform/acl.h"
#include "store/pbr_next_hop_entry.h"
#include "store/pbr_view_mark.h"

namespace {

constexpr char TEXT_EVENT_MISSING[] =
    "pbrNodeSetApi: pbr list %.*s index %d, timerange set can't find pbrnode.\r\n";
constexpr char TEXT_IN_USE[] = "pbrNodeSetApi: pbr list %.*s can't be modified.\r\n";
constexpr char TEXT_EXISTS[] = "pbrNodeSetApi: pbr list %.*s index %d is exist.\r\n";
constexpr char TEXT_MISSING_SET[] = "pbrNodeSetApi: pbr list %.*s index %d is not exist.\r\n";
constexpr char TEXT_MISSING_GET[] = "pbrNodeGetApi: pbr list %.*s index %d is not exist.\r\n";
constexpr char TEXT_ACL_MISSING[] = "pbrNodeSetApi: acl %d is not exist.\r\n";
constexpr char TEXT_ACL_USED[] = "pbrNodeSetApi: acl %d is already binded.\r\n";
constexpr char TEXT_ACL_RANGE[] = "pbrNodeSetApi:can't bind acl:%d.\r\n";
constexpr char TEXT_ACL_VERSION[] = "pbrNodeSetApi: acl %d is not match ip address version %d.\r\n";
constexpr char TEXT_VERSION_SET[] = "pbrNodeSetApi: ip version is exist.\r\n";
constexpr char TEXT_VRF[] = "pbrNodeSetApi: pbr list %.*s index %d vrfid %d.\r\n";

constexpr PbrApiTable NODE_TABLE = {0x08F04000u, sizeof(PbrNodeKey), 0};

struct NodeRow {
    PbrNodeKey key;
    PbrListEntry *pList; // null: no such list
    PbrNodeEntry *pNode; // null: no such node
};

// ---- plain fields ----

template <auto Member> uint32_t memberGet(const NodeRow *pRow, PbrApiValue *pValue) {
    pValue->word0 = pRow->pNode->*Member;
    return PBR_OK;
}

template <auto Member> uint32_t memberSet(const PbrApiCall *pCall, NodeRow *pRow) {
    auto &field = pRow->pNode->*Member;
    field = static_cast<std::remove_reference_t<decltype(field)>>(pbrApiNumber(pCall->pValue));
    return PBR_OK;
}

template <uint32_t (*Get)(const PbrNodeEntry *)>
uint32_t bitsGet(const NodeRow *pRow, PbrApiValue *pValue) {
    pValue->word0 = Get(pRow->pNode);
    return PBR_OK;
}

template <void (*Set)(PbrNodeEntry *, uint32_t)>
uint32_t bitsSet(const PbrApiCall *pCall, NodeRow *pRow) {
    Set(pRow->pNode, pbrApiNumber(pCall->pValue));
    return PBR_OK;
}

template <uint32_t (*Event)(PbrNodeEntry *)> uint32_t eventSet(const PbrApiCall *, NodeRow *pRow) PBR_LOCK_HELD {
    (void)Event(pRow->pNode); // always 0
    return PBR_OK;
}

// ---- status ----

// A missing list adds nothing: the same code as an empty pool, as published.
uint32_t nodeAdd(const NodeRow *pRow) PBR_LOCK_HELD {
    if (pRow->pList == nullptr) {
        return PBR_ERR_NO_RECORD;
    }
    const PbrNodeEntry *pNode =
        pbrNodeEntryAdd(pRow->key.listName, pRow->key.listNameLen, pRow->key.nodeIndex);
    return pNode == nullptr ? PBR_ERR_NO_RECORD : PBR_OK;
}

uint32_t statusSet(const PbrApiCall *pCall, NodeRow *pRow) PBR_LOCK_HELD {
    const uint32_t command = pbrApiNumber(pCall->pValue);
    switch (command) {
    case PBR_ROW_CREATED:
        return nodeAdd(pRow);
    case PBR_ROW_ACTIVE:
    case PBR_ROW_INACTIVE:
        pRow->pNode->status = static_cast<uint16_t>(command);
        return PBR_OK;
    case PBR_ROW_DESTROY:
        return pbrNodeFree(pRow->pNode);
    default:
        return PBR_FAIL; // the service has seen it: published order
    }
}

// ---- ACL and IP version ----

uint32_t aclUseCheck(uint32_t aclNum) PBR_LOCK_HELD {
    uint32_t rules = 0;
    if (aclLstGetApi(aclNum, ACL_LST_READ, &rules) != 0) {
        PBR_API_TRACE(TEXT_ACL_MISSING, static_cast<int32_t>(aclNum));
        return PBR_ERR_ACL_MISSING;
    }
    if (pbrNodeAclNumCheck(aclNum) == -1) { // also when this node is the one that uses it: published
        PBR_API_TRACE(TEXT_ACL_USED, static_cast<int32_t>(aclNum));
        return PBR_ERR_ACL_USED;
    }
    return PBR_OK;
}

uint32_t aclCheck(const PbrApiCall *pCall, const NodeRow *pRow) PBR_LOCK_HELD {
    const uint32_t aclNum = pbrApiNumber(pCall->pValue);
    const uint32_t result = aclNum == 0 ? PBR_OK : aclUseCheck(aclNum);
    if (result != PBR_OK) {
        return result;
    }
    if (pbrAclUnbindable(aclNum)) {
        PBR_API_TRACE(TEXT_ACL_RANGE, static_cast<int32_t>(aclNum));
        return PBR_ERR_ACL_RANGE;
    }
    if (!pbrAclFitsVersion(aclNum, pRow->pNode->policyRouteIpVer)) {
        // The second number is the node's present ACL, not its version: published, kept for log readers.
        PBR_API_TRACE(TEXT_ACL_VERSION, static_cast<int32_t>(aclNum),
                      static_cast<int32_t>(pRow->pNode->aclNum));
        return PBR_ERR_ACL_VERSION;
    }
    return PBR_OK;
}

uint32_t versionCheck(const PbrApiCall *pCall, const NodeRow *pRow) PBR_LOCK_HELD {
    const PbrNodeEntry *pNode = pRow->pNode;
    const uint32_t version = pbrApiNumber(pCall->pValue);
    if (pNode->policyRouteIpVer != 0 && pNode->policyRouteIpVer != version) {
        PBR_API_TRACE(TEXT_VERSION_SET);
        return PBR_ERR_VERSION_SET;
    }
    // What will be stored decides: 8 bits of the value.
    if (!pbrAclFitsVersion(pNode->aclNum, static_cast<uint8_t>(version))) {
        PBR_API_TRACE(TEXT_ACL_VERSION, static_cast<int32_t>(pNode->aclNum),
                      static_cast<int32_t>(version));
        return PBR_ERR_ACL_VERSION;
    }
    return PBR_OK;
}

// ---- priority, interface, VRF, clear, time range ----

uint32_t ipPriSet(const PbrApiCall *pCall, NodeRow *pRow) {
    const uint32_t priority = pbrApiNumber(pCall->pValue);
    pbrNodeIpPriSet(pRow->pNode, priority == 0 ? PBR_IP_PRI_NONE : priority);
    return PBR_OK;
}

// The service has seen the set when this refuses it: published order.
uint32_t outIfUnitSet(const PbrApiCall *pCall, NodeRow *pRow) {
    if (!listEmpty(&pRow->pNode->nextHopList)) {
        return PBR_ERR_HAS_NEXT_HOP;
    }
    pRow->pNode->outIfUnit = pbrApiNumber(pCall->pValue);
    return PBR_OK;
}

// No check: the place where the text with the old VRF is written, before anything else.
uint32_t vrfTrace(const PbrApiCall *, const NodeRow *pRow) PBR_LOCK_HELD {
    PBR_API_TRACE(TEXT_VRF, pbrApiNameLen(pRow->key.listNameLen), pRow->key.listName,
                  static_cast<int32_t>(pRow->key.nodeIndex), static_cast<int32_t>(pRow->pNode->vrfid));
    return PBR_OK;
}

// Version and VRF are cleared also when the next hops stay: published.
uint32_t clearSet(const PbrApiCall *pCall, NodeRow *pRow) PBR_LOCK_HELD {
    PbrNodeEntry *pNode = pRow->pNode;
    if (pbrApiNumber(pCall->pValue) != 0) {
        PbrNextHopEntry *pNext = nullptr;
        for (PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr; pHop = pNext) {
            pNext = pbrNodeNextHopNext(pNode, pHop);
            (void)pbrNextHopEntryDel(pHop); // always 0
        }
    }
    pNode->policyRouteIpVer = 0;
    pNode->vrfid = 0;
    return PBR_OK;
}

uint32_t timeRangeSet(const PbrApiCall *pCall, NodeRow *pRow) PBR_LOCK_HELD {
    return pbrNodeTimeRangeSet(pRow->pNode, &pRow->key, pbrApiNumber(pCall->pValue));
}

constexpr PbrField<NodeRow> NODE_FIELDS[] = {
    {PBR_NODE_STATUS, "status", PBR_FIELD_NUMBER, 16, 1, memberGet<&PbrNodeEntry::status>, statusSet,
     nullptr},
    {PBR_NODE_MATCH_VALUE1, "matchValue1", PBR_FIELD_NUMBER, 16, 2,
     memberGet<&PbrNodeEntry::matchValue1>, memberSet<&PbrNodeEntry::matchValue1>, nullptr},
    {PBR_NODE_MATCH_VALUE2, "matchValue2", PBR_FIELD_NUMBER, 16, 3,
     memberGet<&PbrNodeEntry::matchValue2>, memberSet<&PbrNodeEntry::matchValue2>, nullptr},
    {PBR_NODE_ACL_NUM, "aclNum", PBR_FIELD_NUMBER, 32, 4, memberGet<&PbrNodeEntry::aclNum>,
     memberSet<&PbrNodeEntry::aclNum>, aclCheck},
    {PBR_NODE_IP_PRI, "ipPri", PBR_FIELD_NUMBER, 4, 6, bitsGet<pbrNodeIpPriGet>, ipPriSet, nullptr},
    {PBR_NODE_OUT_IF_UNIT, "outIfUnit", PBR_FIELD_NUMBER, 32, 7, memberGet<&PbrNodeEntry::outIfUnit>,
     outIfUnitSet, nullptr},
    {PBR_NODE_FIELD7, "nodeField7", PBR_FIELD_NUMBER, 32, 9, memberGet<&PbrNodeEntry::nodeField7>,
     memberSet<&PbrNodeEntry::nodeField7>, nullptr},
    {PBR_NODE_FORWARD_FLAG, "forwardFlag", PBR_FIELD_NUMBER, 2, 10, bitsGet<pbrNodeForwardFlagGet>,
     bitsSet<pbrNodeForwardFlagSet>, nullptr},
    {PBR_NODE_IS_ECMP, "isEcmp", PBR_FIELD_NUMBER, 2, 11, bitsGet<pbrNodeIsEcmpGet>,
     bitsSet<pbrNodeIsEcmpSet>, nullptr},
    {PBR_NODE_IP_VERSION, "policyRouteIpVer", PBR_FIELD_NUMBER, 8, 5,
     memberGet<&PbrNodeEntry::policyRouteIpVer>, memberSet<&PbrNodeEntry::policyRouteIpVer>,
     versionCheck},
    {PBR_NODE_VRF_ID, "vrfid", PBR_FIELD_NUMBER, 32, 8, memberGet<&PbrNodeEntry::vrfid>,
     memberSet<&PbrNodeEntry::vrfid>, vrfTrace},
    {PBR_NODE_FIELD12, "nodeField12", PBR_FIELD_NUMBER, 8, 0, nullptr,
     memberSet<&PbrNodeEntry::nodeField12>, nullptr},
    {PBR_NODE_CLEAR, "clear", PBR_FIELD_NUMBER, 32, 0, nullptr, clearSet, nullptr},
    {PBR_NODE_ROW, "row", PBR_FIELD_ROW, 0, 0, nullptr, nullptr, nullptr},
    {PBR_NODE_TIME_RANGE_START, "timeRangeStart", PBR_FIELD_EVENT, 32, 0, nullptr,
     eventSet<pbrStartTimerange>, nullptr},
    {PBR_NODE_TIME_RANGE_STOP, "timeRangeStop", PBR_FIELD_EVENT, 32, 0, nullptr,
     eventSet<pbrStopTimerange>, nullptr},
    {PBR_NODE_TIME_RANGE_UNBIND, "timeRangeUnbind", PBR_FIELD_EVENT, 32, 0, nullptr,
     eventSet<pbrUnBindTimerange>, nullptr},
    {PBR_NODE_TIME_RANGE_ID, "timeRangeId", PBR_FIELD_NUMBER, 32, 0,
     memberGet<&PbrNodeEntry::timeRangeId>, timeRangeSet, nullptr},
};

// ---- the handlers ----

// A text of the form "... list %.*s index %d ..." about the row.
#define NODE_TRACE(text, pRow)                                                                      \
    PBR_API_TRACE(text, pbrApiNameLen((pRow)->key.listNameLen), (pRow)->key.listName,               \
                  static_cast<int32_t>((pRow)->key.nodeIndex))

void rowFind(NodeRow *pRow) PBR_LOCK_HELD {
    pRow->pList = pbrApiListGet(pRow->key.listName, pRow->key.listNameLen);
    pRow->pNode = pbrApiNodeGet(&pRow->key);
}

// Events come from the time-range service's side: they pass also while the list is bound.
uint32_t eventRun(const PbrField<NodeRow> *pField, const PbrApiCall *pCall, NodeRow *pRow) PBR_LOCK_HELD {
    if (pRow->pNode == nullptr) {
        NODE_TRACE(TEXT_EVENT_MISSING, pRow);
        return PBR_ERR_NO_ROW;
    }
    return pField->set(pCall, pRow);
}

// What a set is answered before its field is looked at. Result: whether the answer is known.
bool stateSettles(const PbrApiCall *pCall, const NodeRow *pRow, uint32_t *pResult) PBR_LOCK_HELD {
    if (pRow->pList != nullptr && pbrListRefCntGet(pRow->pList) > 0) {
        PBR_API_TRACE(TEXT_IN_USE, pbrApiNameLen(pRow->key.listNameLen), pRow->key.listName);
        *pResult = PBR_ERR_IN_USE;
        return true;
    }
    const bool create = pbrApiIsCommand(pCall, PBR_ROW_CREATED);
    if (pRow->pNode == nullptr && !create) {
        NODE_TRACE(TEXT_MISSING_SET, pRow);
        *pResult = pbrApiIsCommand(pCall, PBR_ROW_DESTROY) ? PBR_OK : PBR_ERR_NO_ROW;
        return true;
    }
    if (pRow->pNode != nullptr && create) {
        NODE_TRACE(TEXT_EXISTS, pRow);
        *pResult = PBR_OK;
        return true;
    }
    return false;
}

uint32_t fieldRun(const PbrApiCall *pCall, NodeRow *pRow) PBR_LOCK_HELD {
    const uint32_t result = pbrFieldSet(NODE_FIELDS, pCall, pRow);
    if (result == PBR_OK && pRow->pList != nullptr) {
        pbrViewMarkList(pRow->pList);
    }
    return result;
}

uint32_t _pbrNodeSetApi(const void *pKey, uint32_t fieldId, const PbrApiValue *pValue, uint32_t origin) {
    if (pKey == nullptr || pValue == nullptr) {
        return PBR_ERR_BAD_ARGUMENT;
    }
    const PbrApiCall call = {&NODE_TABLE, pKey, fieldId, pValue, origin};
    NodeRow row = {pbrApiKey<PbrNodeKey>(pKey), nullptr, nullptr};
    if (row.key.nodeIndex == 0) {
        return PBR_ERR_BAD_ARGUMENT;
    }
    const PbrField<NodeRow> *pField = pbrFieldFind(NODE_FIELDS, fieldId);
    const PbrApiLock lock;
    rowFind(&row);
    if (pField != nullptr && pField->kind == PBR_FIELD_EVENT) {
        return eventRun(pField, &call, &row);
    }
    uint32_t result = PBR_OK;
    return stateSettles(&call, &row, &result) ? result : fieldRun(&call, &row);
}

} // namespace

uint32_t pbrNodeGetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue) {
    if (pKey == nullptr || pValue == nullptr) {
        return PBR_ERR_BAD_ARGUMENT;
    }
    NodeRow row = {pbrApiKey<PbrNodeKey>(pKey), nullptr, nullptr};
    const PbrApiLock lock;
    rowFind(&row);
    if (row.pNode == nullptr) {
        NODE_TRACE(TEXT_MISSING_GET, &row);
        return PBR_FAIL;
    }
    return pbrFieldGet(NODE_FIELDS, fieldId, &row, pValue);
}

uint32_t pbrNodeSetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue) {
    return _pbrNodeSetApi(pKey, fieldId, pValue, PBR_ORIGIN_SET);
}

uint32_t pbrNodeSyncApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue) {
    return _pbrNodeSetApi(pKey, fieldId, pValue, PBR_ORIGIN_SYNC);
}

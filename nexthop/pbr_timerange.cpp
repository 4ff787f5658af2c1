// Start, stop and end of a node's time range: see the header.
#include "nexthop/pbr_timerange.h"

#include <cstring>

#include "api/pbr_keys.h"
#include "core/pbr_trace.h"
#include "nexthop/pbr_ready_table.h"
#include "store/pbr_node_entry.h"
#include "store/pbr_view_mark.h"

namespace {

constexpr char TEXT_TIME_RANGE[] = "pbr %.*s node %d timerange %d %s \r\n";

// Records the state of the range and queues the node's list; a null node is passed over.
uint32_t timerangeSet(PbrNodeEntry *pNode, const char *pWhat, uint32_t matched) PBR_LOCK_HELD {
    if (pNode == nullptr) {
        return PBR_OK;
    }
    PbrListEntry *pList = pNode->pPbrList;
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_EVENT, TEXT_TIME_RANGE, static_cast<int>(pList->nameLen),
              pList->name, static_cast<int32_t>(pNode->nodeIndex),
              static_cast<int32_t>(pNode->timeRangeId), pWhat);
    pNode->timeRangeMatched = matched;
    pbrReadyTableAdd(pList);
    pbrViewMarkList(pList);
    return PBR_OK;
}

// Turns the service's context into the node, with the mutex around the operation.
uint32_t deliver(const void *pKey, uint32_t (*operation)(PbrNodeEntry *pNode)) {
    PbrNodeKey key;
    memcpy(&key, pKey, sizeof(key));
    (void)pbrLock();
    uint32_t result = operation(pbrNodeEntryGet(key.listName, key.listNameLen, key.nodeIndex));
    (void)pbrUnlock();
    return result;
}

} // namespace

uint32_t pbrStartTimerange(PbrNodeEntry *pNode) {
    return timerangeSet(pNode, "start", 1);
}

uint32_t pbrStopTimerange(PbrNodeEntry *pNode) {
    return timerangeSet(pNode, "stop", 0);
}

uint32_t pbrUnBindTimerange(PbrNodeEntry *pNode) {
    return timerangeSet(pNode, "unbind", 0);
}

uint32_t pbrTimerangeDeliverStart(void *pKey) {
    return deliver(pKey, pbrStartTimerange);
}

uint32_t pbrTimerangeDeliverStop(void *pKey) {
    return deliver(pKey, pbrStopTimerange);
}

uint32_t pbrTimerangeDeliverUnBind(void *pKey) {
    return deliver(pKey, pbrUnBindTimerange);
}

// Binding a node to a time range: see the header.
#include "api/pbr_node_time_range.h"

#include <cstdio>
#include <cstring>

#include "api/pbr_field.h"
#include "nexthop/pbr_timerange.h"
#include "platform/timerange.h"

namespace {

constexpr char TEXT_NAME[] = "pbr\ttimerange name %s.\r\n";
constexpr char TEXT_UNBIND[] = "pbr unbind timerange %d.\r\n";
constexpr char TEXT_UNBIND_ERROR[] = "pbr unbind timerange ERROR.\r\n";
constexpr char TEXT_BIND[] = "pbr bind timerange %d.\r\n";
constexpr char TEXT_BIND_SAME[] = "pbr bind same timerange %d alreaey.\r\n";
constexpr char TEXT_BIND_OTHER[] = "pbr bind timerange %d alreaey.\r\n";
constexpr char TEXT_BIND_ERROR[] = "pbr bind timerange ERROR.\r\n";

constexpr uint32_t UNBIND_FLAGS = 1;
constexpr size_t NAME_SIZE = 128;
constexpr size_t LIST_NAME_SIZE = 64;

// The node's name towards the service.
struct TimeRangeName {
    char text[NAME_SIZE];
    uint32_t len; // what snprintf counted
};

TimeRangeName nameOf(const PbrNodeEntry *pNode) {
    char list[LIST_NAME_SIZE] = {};
    memcpy(list, pNode->pPbrList->name, sizeof pNode->pPbrList->name);
    TimeRangeName name = {};
    name.len = static_cast<uint32_t>(snprintf(name.text, sizeof name.text, "pbr%s-%d", list,
                                              static_cast<int32_t>(pNode->nodeIndex)));
    return name;
}

uint32_t rangeUnBind(PbrNodeEntry *pNode, const TimeRangeName &name) PBR_LOCK_HELD {
    if (pNode->timeRangeId != 0) { // id 0 was never told to be dropped: published, the service keeps it
        PBR_API_TRACE(TEXT_UNBIND, static_cast<int32_t>(pNode->timeRangeId));
        const uint32_t result = timerangeUnbind(pNode->timeRangeId, name.text, name.len, UNBIND_FLAGS);
        if (result != 0) {
            PBR_API_TRACE(TEXT_UNBIND_ERROR);
            return result;
        }
    }
    pNode->timeRangeId = PBR_TIME_RANGE_NONE;
    return PBR_OK;
}

uint32_t rangeBind(PbrNodeEntry *pNode, const PbrNodeKey *pKey, uint32_t id, const TimeRangeName &name) PBR_LOCK_HELD {
    PBR_API_TRACE(TEXT_BIND, static_cast<int32_t>(id));
    if (pNode->timeRangeId == id) {
        PBR_API_TRACE(TEXT_BIND_SAME, static_cast<int32_t>(id));
        return PBR_OK;
    }
    if (pNode->timeRangeId < PBR_TIME_RANGE_NONE) {
        PBR_API_TRACE(TEXT_BIND_OTHER, static_cast<int32_t>(pNode->timeRangeId));
        return PBR_FAIL;
    }
    const uint32_t result =
        timerangeBind(id, name.text, name.len, pbrTimerangeDeliverStart, pbrTimerangeDeliverStop,
                      pbrTimerangeDeliverUnBind, pKey, sizeof *pKey);
    if (result != 0) {
        PBR_API_TRACE(TEXT_BIND_ERROR);
        return PBR_ERR_BAD_ARGUMENT;
    }
    pNode->timeRangeId = id;
    pNode->timeRangeMatched = 0;
    return PBR_OK;
}

} // namespace

uint32_t pbrNodeTimeRangeSet(PbrNodeEntry *pNode, const PbrNodeKey *pKey, uint32_t timeRangeId) {
    const TimeRangeName name = nameOf(pNode);
    PBR_API_TRACE(TEXT_NAME, name.text);
    return timeRangeId == PBR_TIME_RANGE_NONE ? rangeUnBind(pNode, name)
                                              : rangeBind(pNode, pKey, timeRangeId, name);
}

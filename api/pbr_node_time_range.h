// Binding a node to a time range of the platform's service, and undoing it: node field 19.
#ifndef API_PBR_NODE_TIME_RANGE_H
#define API_PBR_NODE_TIME_RANGE_H

#include "api/pbr_keys.h"
#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Binds time range timeRangeId, or unbinds when it is PBR_TIME_RANGE_NONE. The service knows the node as
// "pbr<list>-<index>" and keeps a copy of *pKey for its callbacks.
// Binding: the same id again is 0 without a call; while another id is bound (0 counts) PBR_FAIL; a
// refusal of the service PBR_ERR_BAD_ARGUMENT; done: timeRangeId the id, timeRangeMatched 0.
// Unbinding: a bound id 0 is dropped without telling the service, as published; a failure of the
// service is passed on with nothing changed; done: timeRangeId PBR_TIME_RANGE_NONE.
// Lock: held by caller
[[nodiscard]] uint32_t pbrNodeTimeRangeSet(PbrNodeEntry *pNode, const PbrNodeKey *pKey,
                                           uint32_t timeRangeId) PBR_LOCK_HELD;

#endif

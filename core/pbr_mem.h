// The six record pools: made together by the first list or interface entry, destroyed together when
// the last one is gone.
//
// Called by the table operations of store/ only. States: absent (memAllocated 0) and present (1).
//   absent -> present  pbrMemAlloc
//   present -> absent  pbrMemFree; a pbrMemAlloc that failed half-way leaves nothing behind
#ifndef CORE_PBR_MEM_H
#define CORE_PBR_MEM_H

#include <cstdint>

#include "core/pbr_store_lock.h"

// Makes the pools "pbr_if", "pbr_list", "pbr_node", "pbr_nexthop", "pbr_ifnode" and "pbr_nqa", in this
// order, sized by the limits of gPbrInfo; does nothing while they exist.
// Result: 0 the pools exist, -1 not enough memory (no pool exists then). Changes memAllocated.
// Lock: held by caller
[[nodiscard]] int32_t pbrMemAlloc() PBR_LOCK_HELD;

// Destroys the six pools with whatever they hold. Probe records that no next hop names any more do not
// keep the pools alive: nqaTable is empty afterwards. Result: 0. Lock: held by caller
int32_t pbrMemFree() PBR_LOCK_HELD;

#endif

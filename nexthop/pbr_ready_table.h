// The ready table: the lists whose entries in the device should be looked at again.
//
// gPbrInfo.readyTable is the only hand-over between events and the device: peer reports, probe results,
// time ranges and bindings queue a list here, and the periodic update works the table off. A list stands
// in it once, the most recently queued first. It leaves when an update run finished it without a failed
// add, or when an interface is unbound from it.
#ifndef NEXTHOP_PBR_READY_TABLE_H
#define NEXTHOP_PBR_READY_TABLE_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Queues a list at the front of the ready table, wherever it stood before; its readyLink may be zero,
// self or linked. Lock: held by caller
void pbrReadyTableAdd(PbrListEntry *pList) PBR_LOCK_HELD;

#endif

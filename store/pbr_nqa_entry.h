// The table of probe tests that next hops name (gPbrInfo.nqaTable), with their last reported status.
//
// Called by the next-hop commands, the deletion of next hops, the probe event and selection. Names are
// bytes with lengths. Order: administrator-name length, its bytes, test-name length, its bytes; a
// shorter name stands before any longer one, which is meant and unlike the order of policy lists.
#ifndef STORE_PBR_NQA_ENTRY_H
#define STORE_PBR_NQA_ENTRY_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Makes a record and asks the probe service for the test's status. An equal pair goes behind the
// existing one; callers look first. adminLen, testLen: 0..32.
// Result: the record (status failing), which lives until pbrNqaEntryDel; null when the pool is used up
// (nothing is asked then). Lock: held by caller
PbrNqaEntry *pbrNqaEntryAdd(const uint8_t *pAdmin, uint8_t adminLen, const uint8_t *pTest,
                            uint8_t testLen) PBR_LOCK_HELD;

// Finds a record. adminLen, testLen: their low 8 bits count. Result: the record or null.
// Lock: held by caller
PbrNqaEntry *pbrNqaEntryGet(const uint8_t *pAdmin, uint32_t adminLen, const uint8_t *pTest,
                            uint32_t testLen) PBR_LOCK_HELD;

// Deletes a record. Result: 0. Lock: held by caller
int32_t pbrNqaEntryDel(PbrNqaEntry *pNqa) PBR_LOCK_HELD;

// Whether another next hop names the same test as pHop, in any list. Result: -1 another does, 0 none.
// Lock: held by caller
int32_t pbrNqaCheckNoUsed(const PbrNextHopEntry *pHop) PBR_LOCK_HELD;

#endif

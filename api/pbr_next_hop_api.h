// The next-hop commands: get, set and sync of the next hops of a node.
//
// Called by the command server. Fields are PbrNextHopField: status 1 (number; commands activate 1,
// create 2, deactivate 3, destroy 4); as byte strings nextHop 2 (4 bytes in a node of IP version 1, 16 of
// version 2, network order), nqaAdminName 4 and nqaTestName 5 (at most 32 bytes each, 0: no probe).
// There is no whole row. The synchronisation service sees a set before its length and content are
// checked; this order is meant: a standby sees what the operator asked for.
// pKey: PbrNodeKey, machine order, any alignment; nextHopIndex from 1.
#ifndef API_PBR_NEXT_HOP_API_H
#define API_PBR_NEXT_HOP_API_H

#include "platform/icm.h"

// Reads a field. pValue: number, or byte buffer with its capacity; the names (4, 5) are written whole
// whatever the capacity, so that buffer has at least 32 bytes.
// Result: 0; PBR_ERR_BAD_ARGUMENT null key, value or buffer; PBR_FAIL no such node or next hop, an
// unknown field, the address does not fit. Lock: takes
[[nodiscard]] uint32_t pbrNextHopGetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue);

// Sets a field, or creates or destroys the next hop. Activating one that names a probe adds the probe's
// record unless it exists. An address for a node without IP version is accepted and not stored.
// Result: 0; PBR_ERR_BAD_ARGUMENT null key or value, nextHopIndex 0, bytes without buffer; PBR_ERR_IN_USE
// the list is bound; PBR_ERR_NO_ROW no such node or next hop; PBR_ERR_NO_RECORD no room;
// PBR_ERR_FIRST_NEXT_HOP index 1 beside other next hops; PBR_ERR_HAS_OUT_IF; PBR_ERR_ZERO_NEXT_HOP;
// PBR_FAIL create in a node without IP version, wrong length, an unknown field or command; codes of the
// synchronisation service. Lock: takes
[[nodiscard]] uint32_t pbrNextHopSetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue);

// As pbrNextHopSetApi, with the origin "sync" in the synchronisation record. Lock: takes
[[nodiscard]] uint32_t pbrNextHopSyncApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue);

#endif

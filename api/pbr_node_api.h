// The node commands: get, set and sync of the numbered nodes of a list.
//
// Called by the command server. Fields are PbrNodeField, all numbers but the whole row (15):
//   status 1 (commands activate 1, create 2, deactivate 3, destroy 4), matchValue1 2, matchValue2 3,
//   aclNum 4, ipPri 5 (a set of 0 stores 9, none), outIfUnit 6, nodeField7 7, forwardFlag 8, isEcmp 9,
//   policyRouteIpVer 10, vrfid 11, timeRangeId 19 (all ones: none);
//   set only: nodeField12 12; clear 13 (non-zero: the next hops go; version and VRF become 0 either way);
//   time range start 16, stop 17, unbind 18 (events: also while the list is bound, and not synchronised).
// ACLs: 1001..2000 IPv4, 3001..4000 IPv6, 5001 upwards any; an ACL belongs to at most one node.
// pKey: PbrNodeKey, machine order, any alignment; nodeIndex from 1.
#ifndef API_PBR_NODE_API_H
#define API_PBR_NODE_API_H

#include "platform/icm.h"

// Reads a field. pValue: number, or for the whole row a byte buffer with its capacity.
// Result: 0; PBR_ERR_BAD_ARGUMENT null key or value; PBR_FAIL no such node, a field that cannot be read,
// or the row without buffer. Lock: takes
[[nodiscard]] uint32_t pbrNodeGetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue);

// Sets a field, or creates or destroys the node. Creating a node that exists and destroying one that
// does not succeed without change. Refusals change nothing; codes of the synchronisation service and of
// the time-range service's unbind are passed on.
// Result: 0; PBR_ERR_BAD_ARGUMENT null key or value, nodeIndex 0, or the time-range service refused;
// PBR_ERR_NO_ROW no such node; PBR_ERR_IN_USE the list is bound; PBR_ERR_NO_RECORD no room, or create in
// a list that does not exist; PBR_ERR_ACL_MISSING, PBR_ERR_ACL_USED, PBR_ERR_ACL_RANGE,
// PBR_ERR_ACL_VERSION (field 4, the last also field 10); PBR_ERR_HAS_NEXT_HOP (field 6);
// PBR_ERR_VERSION_SET (field 10); PBR_FAIL a field that cannot be set, an unknown command, another time
// range bound. Lock: takes
[[nodiscard]] uint32_t pbrNodeSetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue);

// As pbrNodeSetApi, with the origin "sync" in the synchronisation record. Lock: takes
[[nodiscard]] uint32_t pbrNodeSyncApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue);

#endif

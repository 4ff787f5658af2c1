// The redirect record of one (interface, node): how it is built from the store.
//
// Shared by the device operations on the node's own interface and on members of an aggregation; they
// differ in the interface that the record names, in the words of their texts and in which next hops of
// an ECMP node count as members. The record is an 80-byte big-endian image (platform/acl.h). Its action
// is decided by the number of next hops taken; addresses that do not fit its 64-byte area are counted
// and not written.
#ifndef HW_PBR_HW_ACL_CONTENT_H
#define HW_PBR_HW_ACL_CONTENT_H

#include "core/pbr_store_lock.h"
#include "platform/acl.h"
#include "store/pbr_records.h"

// How many addresses the area of the record holds.
constexpr uint32_t PBR_HW_ACL_MAX_IPV4 = PBR_HW_ACL_NEXT_HOPS_BYTES / 4;
constexpr uint32_t PBR_HW_ACL_MAX_IPV6 = PBR_HW_ACL_NEXT_HOPS_BYTES / 16;

// One kind of device operation, as far as its records differ.
struct PbrHwOperation {
    const char *pPrefix;                             // opens its texts, "pbr if node hardware add"
    bool (*isMember)(const PbrNextHopEntry *pNextHop); // members of an ECMP node
};

// A record and what a text says about it.
struct PbrHwAclContent {
    uint8_t bytes[PBR_HW_ACL_CONTENT_BYTES];
    uint8_t action;   // PbrHwAction
    uint8_t newIpPri; // new priority, 0 unchanged
    uint32_t vrfId;   // VRF of the record
};

// Builds the record of a node for one interface and writes the texts of its parts (interface and ACL,
// one line a next hop taken). pContent: overwritten. ifUnit: the interface that the record names.
// Lock: held by caller
void pbrHwAclContentBuild(const PbrNodeEntry *pNode, uint32_t ifUnit, const PbrHwOperation *pOperation,
                          PbrHwAclContent *pContent) PBR_LOCK_HELD;

#endif

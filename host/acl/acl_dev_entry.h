// The device rule record of one ACL rule: what the published layout of its match fields can hold.
//
// 508 bytes, big-endian. Only match fields, the ACL number, the rule number and the priority are
// written; actions and everything else are the caller's. What the published fields leave open (which
// bits of a byte are compared, whether a type is asked for, the packet's length) stands in bytes that are
// the ACL module's own, below, so that every rule of the text form fits and none reads wider than it is.
#ifndef HOST_ACL_ACL_DEV_ENTRY_H
#define HOST_ACL_ACL_DEV_ENTRY_H

#include <cstdint>

#include "host/acl/acl_rule.h"
#include "platform/acl_dev_entry.h"

namespace host {

// Bytes of the ACL module's own, all 0 in a rule that does not ask for them.
enum AclDevHostOffset : uint32_t {
    ACL_DEV_HOST_FLAGS_MASK = 96,    // u8, bits of the TCP flags that are compared with ACL_DEV_TCP_FSM
    ACL_DEV_HOST_FLAGS_SOME = 97,    // u8, TCP flags of which one at least must be set
    ACL_DEV_HOST_TOS_MASK = 98,      // u8, bits of the TOS byte that are compared with ACL_DEV_TOS_DSCP
    ACL_DEV_HOST_PRESENT = 99,       // u8, ACL_DEV_HOST_HAS_...
    ACL_DEV_HOST_LENGTH_FIRST = 100, // u32, least bytes of the packet
    ACL_DEV_HOST_LENGTH_LAST = 104,  // u32, most bytes of the packet; 0: any length
};
constexpr uint8_t ACL_DEV_HOST_HAS_TYPE = 1; // the ICMP type is compared
constexpr uint8_t ACL_DEV_HOST_HAS_CODE = 2; // the ICMP code is compared

// Fills a zeroed record of ACL_DEV_ENTRY_BYTES bytes at any address. Lock: none
void aclDevEntryFill(uint32_t aclNum, uint32_t ruleNum, const AclRule &rule, uint8_t *pEntry);

// Writes the ACL number, the rule number and the priority only. Lock: none
void aclDevEntryName(uint32_t aclNum, uint32_t ruleNum, uint8_t *pEntry);

} // namespace host

#endif

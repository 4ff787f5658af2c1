// The device rule record of one ACL rule: what the published layout of its match fields can hold.
//
// 508 bytes, big-endian. Only match fields, the ACL number, the rule number and the priority are
// written; actions and everything else are the caller's. The record holds one prefix and one port range
// an end, so every rule of the text form fits.
#ifndef HOST_ACL_ACL_DEV_ENTRY_H
#define HOST_ACL_ACL_DEV_ENTRY_H

#include <cstdint>

#include "host/acl/acl_rule.h"
#include "platform/acl_dev_entry.h"

namespace host {

// Fills a zeroed record of ACL_DEV_ENTRY_BYTES bytes at any address. Lock: none
void aclDevEntryFill(uint32_t aclNum, uint32_t ruleNum, const AclRule &rule, uint8_t *pEntry);

// Writes the ACL number, the rule number and the priority only. Lock: none
void aclDevEntryName(uint32_t aclNum, uint32_t ruleNum, uint8_t *pEntry);

} // namespace host

#endif

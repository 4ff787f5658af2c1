// The device rule record of one ACL rule: what the published layout of its match fields can hold.
//
// 508 bytes, big-endian. Only match fields, the ACL number, the rule number and the priority are
// written; actions and everything else are the caller's. The record holds one prefix and one port range
// an end, so every rule of the text form fits.
#ifndef HOST_ACL_ACL_DEV_ENTRY_H
#define HOST_ACL_ACL_DEV_ENTRY_H

#include <cstdint>

#include "host/acl/acl_rule.h"

namespace host {

constexpr uint32_t ACL_DEV_ENTRY_BYTES = 508;
constexpr uint32_t ACL_DEV_PROTO_TYPE = 0;       // u16 protocol number, 0 every protocol
constexpr uint32_t ACL_DEV_PROTO_SUB_TYPE = 2;   // u16, 1: ICMP
constexpr uint32_t ACL_DEV_SRC_ADDR = 4;         // 16 bytes, IPv4 in the first 4
constexpr uint32_t ACL_DEV_DEST_ADDR = 20;       // 16 bytes
constexpr uint32_t ACL_DEV_SRC_MASK = 36;        // 16 bytes
constexpr uint32_t ACL_DEV_DEST_MASK = 52;       // 16 bytes
constexpr uint32_t ACL_DEV_SRC_PREFIX = 68;      // u8 length
constexpr uint32_t ACL_DEV_DEST_PREFIX = 69;     // u8 length
constexpr uint32_t ACL_DEV_LAYER_TYPE = 71;      // u8, 2: the fields of layers 3 and 4 are valid
constexpr uint32_t ACL_DEV_IP_VER = 72;          // u8, 1 IPv4, 2 IPv6, 0 both
constexpr uint32_t ACL_DEV_SRC_PORT = 74;        // u16
constexpr uint32_t ACL_DEV_SRC_END_PORT = 76;    // u16
constexpr uint32_t ACL_DEV_DEST_PORT = 78;       // u16
constexpr uint32_t ACL_DEV_DEST_END_PORT = 80;   // u16
constexpr uint32_t ACL_DEV_NEXT_HEADER = 92;     // u8, IPv6: the protocol
constexpr uint32_t ACL_DEV_LST_IDX = 476;        // u32 ACL number
constexpr uint32_t ACL_DEV_RULE_IDX = 480;       // u32 rule number
constexpr uint32_t ACL_DEV_PRIORITY = 484;       // u16, the rule number's low 16 bits

// Fills a zeroed record of ACL_DEV_ENTRY_BYTES bytes at any address. Lock: none
void aclDevEntryFill(uint32_t aclNum, uint32_t ruleNum, const AclRule &rule, uint8_t *pEntry);

} // namespace host

#endif

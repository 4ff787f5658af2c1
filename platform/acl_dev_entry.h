// The device rule record of one ACL rule: 508 bytes, big-endian, at the byte offsets below.
//
// The ACL module's translation (aclRuleDevTrans) fills the match fields; the daemon adds the action and
// hands the record to the interface layer (QRV_IF_RULE_DEVICE). Bytes not named are the ACL module's.
// Bit sets are numbered from the most significant bit of their first byte.
#ifndef PLATFORM_ACL_DEV_ENTRY_H
#define PLATFORM_ACL_DEV_ENTRY_H

#include "platform/platform_types.h"

constexpr uint32_t ACL_DEV_ENTRY_BYTES = 508;

// name, offset, and in the comment width and meaning
enum AclDevEntryOffset : uint32_t {
    ACL_DEV_PROTO_TYPE = 0,          // u16 protocol number
    ACL_DEV_PROTO_SUB_TYPE = 2,      // u16, 1: ICMP, the port fields hold type and code
    ACL_DEV_SRC_ADDR = 4,            // 4 x u32
    ACL_DEV_DEST_ADDR = 20,          // 4 x u32
    ACL_DEV_SRC_STR_PREFIX = 36,     // 16 bytes, source mask
    ACL_DEV_DEST_STR_PREFIX = 52,    // 16 bytes, destination mask
    ACL_DEV_SRC_PREFIX = 68,         // u8
    ACL_DEV_DEST_PREFIX = 69,        // u8
    ACL_DEV_ENCAP_TYPE = 70,         // u8
    ACL_DEV_LAYER_TYPE = 71,         // u8, bit value 2: fields of layers 3 and 4 are valid
    ACL_DEV_IP_VER = 72,             // u8, 1 IPv4, 2 IPv6
    ACL_DEV_TCP_FSM = 73,            // u8
    ACL_DEV_SRC_PORT = 74,           // u16, or ICMP type
    ACL_DEV_SRC_END_PORT = 76,       // u16
    ACL_DEV_DEST_PORT = 78,          // u16, or ICMP code
    ACL_DEV_DEST_END_PORT = 80,      // u16
    ACL_DEV_IP_TTL = 82,             // u8, IPv6: hop limit
    ACL_DEV_TOS_DSCP = 83,           // u8, IPv6: traffic class
    ACL_DEV_IP_OPTIONS = 84,         // u8
    ACL_DEV_IP_FRAG = 85,            // u8
    ACL_DEV_FLOW_LABEL = 88,         // u32
    ACL_DEV_NEXT_HEADER = 92,        // u8
    ACL_DEV_USER_DATA_NUM = 94,      // u8
    ACL_DEV_OPERATORS = 95,          // u8
    ACL_DEV_SRC_MAC = 144,           // 6 bytes
    ACL_DEV_SRC_MAC_PREFIX = 150,    // u8
    ACL_DEV_DEST_MAC = 151,          // 6 bytes
    ACL_DEV_DEST_MAC_PREFIX = 157,   // u8
    ACL_DEV_DTAG = 158,              // u8
    ACL_DEV_INNER_DOT1P = 159,       // u8
    ACL_DEV_OUTER_DOT1P = 160,       // u8
    ACL_DEV_SRC_MAC_STR_PREFIX = 162,// 6 bytes
    ACL_DEV_DEST_MAC_STR_PREFIX = 168, // 6 bytes
    ACL_DEV_OUTER_VID = 174,         // u16
    ACL_DEV_OUTER_END_VID = 176,     // u16
    ACL_DEV_INNER_VID = 178,         // u16
    ACL_DEV_INNER_END_VID = 180,     // u16
    ACL_DEV_ETH_TYPE = 182,          // u16
    ACL_DEV_APP = 184,               // u16
    ACL_DEV_STATUS_BIT = 186,        // u16
    ACL_DEV_STATUS_BIT_MASK = 188,   // u16
    ACL_DEV_BITS = 212,              // 12 bytes, bit set
    ACL_DEV_ACTION = 224,            // 8 bytes, action bit set
    ACL_DEV_PARAMETERS = 232,        // action parameters, up to 407
    ACL_DEV_NEW_PRIORITY = 232,      // u32, with action bit 15
    ACL_DEV_IPV4_NEXT_HOPS = 276,    // 4 x 4 bytes; slot 0 also the out interface
    ACL_DEV_VRF = 316,               // u32, with action bit 41
    ACL_DEV_IPV6_NEXT_HOPS = 324,    // 4 x 16 bytes
    ACL_DEV_PARAMETERS_END = 408,
    ACL_DEV_OUT_ACTION = 408,        // 2 bytes
    ACL_DEV_OWN_AREA = 412,          // 24 bytes, cleared before an action is set
    ACL_DEV_OWN_AREA_END = 436,
    ACL_DEV_COUNTER_SHARED = 436,    // u8
    ACL_DEV_COUNTER_TYPE = 437,      // u8
    ACL_DEV_COUNTER_COLOR = 438,     // u8
    ACL_DEV_METER_SHARED = 439,      // u8
    ACL_DEV_METER = 440,             // 5 x u32: cir, pir, cbs, ebs, pbs
    ACL_DEV_METER_TYPE = 460,        // u8
    ACL_DEV_METER_MODE = 461,        // u8
    ACL_DEV_DIR = 467,               // u8, 0: inbound
    ACL_DEV_LST_IDX = 476,           // u32 ACL number
    ACL_DEV_RULE_IDX = 480,          // u32 rule number
    ACL_DEV_PRIORITY = 484,          // u16
    ACL_DEV_AGG_IF_INDEX = 488,      // u32, only when a port leaves an aggregation
};

constexpr uint32_t ACL_DEV_NEXT_HOP_SLOTS = 4;
constexpr uint32_t ACL_DEV_LAYER_3_4 = 2; // of ACL_DEV_LAYER_TYPE

// Bits of ACL_DEV_ACTION; the codes of the redirect record, except that an IPv4 set is bit 7 too.
constexpr uint32_t ACL_DEV_ACTION_OUT_IF = 4;
constexpr uint32_t ACL_DEV_ACTION_IPV4 = 7;
constexpr uint32_t ACL_DEV_ACTION_PRIORITY = 15;
constexpr uint32_t ACL_DEV_ACTION_VRF = 41;
constexpr uint32_t ACL_DEV_ACTION_IPV6 = 46;
constexpr uint32_t ACL_DEV_ACTION_IPV6_ECMP = 50;

extern "C" {

// Carries a device rule record to the interface layer; 20 bytes where pointers have 4.
struct PbrDevRuleDesc {
    uint32_t type;          // ACL_DEV_RULE_ADD or ACL_DEV_RULE_DEL
    const void *pEntry;     // ACL_DEV_ENTRY_BYTES bytes, read during the call
    uint16_t zero;          // 0
    uint16_t len;           // ACL_DEV_ENTRY_BYTES
    uint32_t reserved[2];   // 0
};
}

constexpr uint32_t ACL_DEV_RULE_ADD = 0x03E80135u; // 65536309
constexpr uint32_t ACL_DEV_RULE_DEL = 0x03E80136u; // 65536310

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(PbrDevRuleDesc) == 20 && offsetof(PbrDevRuleDesc, pEntry) == 4 &&
              offsetof(PbrDevRuleDesc, len) == 10);
#endif

#endif

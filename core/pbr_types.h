// Codes and constants of the whole daemon: result codes, log modules, debug bits, row states.
#ifndef CORE_PBR_TYPES_H
#define CORE_PBR_TYPES_H

#include "platform/platform_types.h"

// Result codes of the daemon's own module (0x044B), beside the platform's general codes.
constexpr uint32_t PBR_OK = QRV_OK;
constexpr uint32_t PBR_FAIL = QRV_FAIL;                     // unknown field or value, walk at its end
constexpr uint32_t PBR_ERR_LIST_LIMIT = 22;                 // interface commands: more lists than the limit; short buffer
constexpr uint32_t PBR_ERR_NO_RECORD = QRV_ERR_NO_RECORD;   // pool exhausted
constexpr uint32_t PBR_ERR_NO_ROW = QRV_ERR_NO_ROW;         // no such row
constexpr uint32_t PBR_ERR_IN_USE = QRV_ERR_IN_USE;         // list in use
constexpr uint32_t PBR_ERR_BAD_ARGUMENT = QRV_ERR_BAD_ARGUMENT;
constexpr uint32_t PBR_ERR_FIRST_NEXT_HOP = 0x044B0001u;    // next hop 1 added to a node that has next hops
constexpr uint32_t PBR_ERR_BIND = 0x044B0003u;              // binding the list failed
constexpr uint32_t PBR_ERR_ACL_MISSING = 0x044B0004u;       // ACL does not exist
constexpr uint32_t PBR_ERR_ACL_USED = 0x044B0005u;          // ACL already used by a node
constexpr uint32_t PBR_ERR_ZERO_NEXT_HOP = 0x044B0006u;     // next-hop address is zero
constexpr uint32_t PBR_ERR_ACL_RANGE = 0x044B0007u;         // ACL number that can never be bound
constexpr uint32_t PBR_ERR_NO_LIST = 0x044B0008u;           // list to bind does not exist
constexpr uint32_t PBR_ERR_NO_MATCH = 0x044B0009u;          // a node of the list matches nothing
constexpr uint32_t PBR_ERR_NO_APPLY = 0x044B000Au;          // a node of the list does nothing
constexpr uint32_t PBR_ERR_HAS_OUT_IF = 0x044B000Bu;        // next hop added to a node with an out interface
constexpr uint32_t PBR_ERR_HAS_NEXT_HOP = 0x044B000Cu;      // out interface set on a node with next hops
constexpr uint32_t PBR_ERR_ACL_VERSION = 0x044B000Du;       // ACL number and IP version disagree
constexpr uint32_t PBR_ERR_VERSION_SET = 0x044B000Eu;       // IP version already set to another value
constexpr uint32_t PBR_ERR_UNBIND_NO_LIST = 65536002u;      // unbind: the named list does not exist (1000 << 16 | 2)

// Log modules.
constexpr uint32_t PBR_LOG_GENERAL = 0x044B0000u;  // general, management, binding
constexpr uint32_t PBR_LOG_EVENT = 0x044B0002u;    // route messages, next-hop events, time ranges
constexpr uint32_t PBR_LOG_HARDWARE = 0x044B0003u; // hardware programming, selection
constexpr uint32_t PBR_LOG_TABLE = 0x044B0004u;    // pools and records
constexpr uint32_t PBR_LOG_ENABLE = 0x044B0005u;   // protocol enable errors
constexpr uint32_t PBR_LOG_DISABLE = 0x044B0006u;  // protocol disable errors

// Bits of gPbrInfo.debugFlags.
constexpr uint32_t PBR_DEBUG_HARDWARE = 4;  // hardware programming, selection, update
constexpr uint32_t PBR_DEBUG_DUMP = 8;      // device rule records
constexpr uint32_t PBR_DEBUG_GENERAL = 64;  // events, tables, memory, binding, management

// Row states of lists, nodes and next hops, and the commands that set them.
constexpr uint32_t PBR_ROW_ACTIVE = 1;   // command: activate
constexpr uint32_t PBR_ROW_CREATED = 2;  // command: create
constexpr uint32_t PBR_ROW_INACTIVE = 3; // command: deactivate
constexpr uint32_t PBR_ROW_DESTROY = 4;  // command only
constexpr uint32_t PBR_IF_CREATE = 1;    // interface command, and the state of an entry
constexpr uint32_t PBR_IF_DESTROY = 2;   // interface command only

constexpr uint32_t PBR_IP_VERSION_4 = 1;
constexpr uint32_t PBR_IP_VERSION_6 = 2;
constexpr uint32_t PBR_IP_PRI_NONE = 9;                 // node: no priority set
constexpr uint32_t PBR_TIME_RANGE_NONE = 0xFFFFFFFFu;   // node: no time range
constexpr uint32_t PBR_NAME_BYTES = 16;                 // list name
constexpr uint32_t PBR_NQA_NAME_BYTES = 32;             // probe names
constexpr uint32_t PBR_NQA_STATUS_PASSING = 1;
constexpr uint32_t PBR_NQA_STATUS_FAILING = 2;

#endif

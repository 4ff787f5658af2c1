// Keys, command ids and field ids of the command socket. Also for management planes: `client/` and
// `cli/` include this header and core/pbr_types.h, never the tables.
#ifndef API_PBR_KEYS_H
#define API_PBR_KEYS_H

#include <cstddef>
#include <cstdint>

// Commands, in the order of gPbrFuncMap: name, id.
#define PBR_COMMANDS(X)                                                                             \
    X(NONE, 0) X(LIST_GET_FIRST, 1) X(LIST_GET_NEXT, 2) X(NODE_GET_FIRST, 3) X(NODE_GET_NEXT, 4)    \
    X(IF_GET_FIRST, 5) X(IF_GET_NEXT, 6) X(NEXT_HOP_GET_FIRST, 7) X(NEXT_HOP_GET_NEXT, 8)           \
    X(LIST_GET, 9) X(LIST_SET, 10) X(LIST_SYNC, 11) X(NODE_GET, 12) X(NODE_SET, 13)                 \
    X(NODE_SYNC, 14) X(IF_GET, 15) X(IF_SET, 16) X(IF_SYNC, 17) X(NEXT_HOP_GET, 18)                 \
    X(NEXT_HOP_SET, 19) X(NEXT_HOP_SYNC, 20) X(SCALAR_GET, 21) X(SCALAR_SET, 22) X(SCALAR_SYNC, 23)
enum PbrCommandId : uint32_t {
#define PBR_COMMAND_ID(name, id) PBR_CMD_##name = id,
    PBR_COMMANDS(PBR_COMMAND_ID)
#undef PBR_COMMAND_ID
};
constexpr uint32_t PBR_COMMAND_COUNT = 24;

// Key of the list commands; 18 bytes, no padding; machine order.
struct PbrListKey {
    uint8_t listName[16];
    uint16_t listNameLen; // 1..16
};
static_assert(sizeof(PbrListKey) == 18);

// Key of the node and next-hop commands; 28 bytes; machine order.
struct PbrNodeKey {
    uint8_t listName[16];
    uint16_t listNameLen;
    uint8_t reserved18[2];
    uint32_t nodeIndex;
    uint8_t keyMask;      // PBR_KEY_ bits, for walks
    uint8_t nextHopIndex; // next-hop commands only
    uint8_t reserved26[2];
};
static_assert(sizeof(PbrNodeKey) == 28 && offsetof(PbrNodeKey, nodeIndex) == 20 &&
              offsetof(PbrNodeKey, keyMask) == 24 && offsetof(PbrNodeKey, nextHopIndex) == 25);
constexpr uint8_t PBR_KEY_LIST_FIXED = 0x80; // the walk stays in the key's list
constexpr uint8_t PBR_KEY_NODE_FIXED = 0x40; // the walk visits only nodes of the key's index

// Fields.
enum PbrListField : uint32_t { PBR_LIST_STATUS = 1, PBR_LIST_REF_CNT = 2, PBR_LIST_ROW = 3 };
enum PbrNodeField : uint32_t {
    PBR_NODE_STATUS = 1,
    PBR_NODE_MATCH_VALUE1 = 2,
    PBR_NODE_MATCH_VALUE2 = 3,
    PBR_NODE_ACL_NUM = 4,
    PBR_NODE_IP_PRI = 5,
    PBR_NODE_OUT_IF_UNIT = 6,
    PBR_NODE_FIELD7 = 7,
    PBR_NODE_FORWARD_FLAG = 8,
    PBR_NODE_IS_ECMP = 9,
    PBR_NODE_IP_VERSION = 10,
    PBR_NODE_VRF_ID = 11,
    PBR_NODE_FIELD12 = 12,
    PBR_NODE_CLEAR = 13,
    PBR_NODE_ROW = 15,
    PBR_NODE_TIME_RANGE_START = 16,
    PBR_NODE_TIME_RANGE_STOP = 17,
    PBR_NODE_TIME_RANGE_UNBIND = 18,
    PBR_NODE_TIME_RANGE_ID = 19,
};
enum PbrNextHopField : uint32_t {
    PBR_NEXT_HOP_STATUS = 1,
    PBR_NEXT_HOP_ADDRESS = 2,
    PBR_NEXT_HOP_NQA_ADMIN_NAME = 4,
    PBR_NEXT_HOP_NQA_TEST_NAME = 5,
};
enum PbrIfField : uint32_t { PBR_IF_STATUS = 1, PBR_IF_PBR_NAME = 2, PBR_IF_EMPTY = 3, PBR_IF_ROW = 4 };
enum PbrScalarField : uint32_t {
    PBR_SCALAR_MAX_LIST_NUM = 1,
    PBR_SCALAR_MAX_NODE_NUM = 2,
    PBR_SCALAR_LIST_COUNT = 3,
    PBR_SCALAR_DEBUG_FLAGS = 4,
    PBR_SCALAR_VERSION = 5,
    PBR_SCALAR_PENDING = 6,
    PBR_SCALAR_ROW = 7,
};

#endif

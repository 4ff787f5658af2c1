// The command map and the commands' shapes, expanded from one list.
#include "api/pbr_func_map.h"

#include "api/pbr_if_api.h"
#include "api/pbr_list_api.h"
#include "api/pbr_next_hop_api.h"
#include "api/pbr_node_api.h"
#include "api/pbr_scalar_api.h"
#include "api/pbr_walk.h"

namespace {

// A handler of the type that its kind of command is called with; another type does not compile.
IcmHandler first(IcmFirstHandler handler) { return reinterpret_cast<IcmHandler>(handler); }
IcmHandler next(IcmNextHandler handler) { return reinterpret_cast<IcmHandler>(handler); }
IcmHandler field(IcmFieldHandler handler) { return reinterpret_cast<IcmHandler>(handler); }

constexpr uint8_t LIST_KEY = sizeof(PbrListKey);
constexpr uint8_t NODE_KEY = sizeof(PbrNodeKey);
constexpr uint8_t UNIT_KEY = sizeof(uint32_t);
constexpr uint8_t NO_KEY = 0;

// Byte-string fields of each table, one bit a field id: those that a get reads, and those that a set
// writes. A set of a field that is read only comes with any number and is refused by its handler.
constexpr uint32_t bit(uint32_t fieldId) { return 1u << fieldId; }
constexpr uint32_t LIST_READ = bit(PBR_LIST_ROW);
constexpr uint32_t NODE_READ = bit(PBR_NODE_ROW);
constexpr uint32_t NEXT_HOP_BYTES =
    bit(PBR_NEXT_HOP_ADDRESS) | bit(PBR_NEXT_HOP_NQA_ADMIN_NAME) | bit(PBR_NEXT_HOP_NQA_TEST_NAME);
constexpr uint32_t IF_READ = bit(PBR_IF_PBR_NAME) | bit(PBR_IF_EMPTY) | bit(PBR_IF_ROW);
constexpr uint32_t IF_WRITE = bit(PBR_IF_PBR_NAME);
constexpr uint32_t SCALAR_READ = bit(PBR_SCALAR_VERSION) | bit(PBR_SCALAR_PENDING) | bit(PBR_SCALAR_ROW);

} // namespace

// Command, handler with its calling form, kind, key bytes, byte-string fields; in id order.
#define PBR_FUNC_ROWS(X)                                                                            \
    X(LIST_GET_FIRST, first(pbrListGetFirst), FIRST, LIST_KEY, 0)                                   \
    X(LIST_GET_NEXT, next(pbrListGetNext), NEXT, LIST_KEY, 0)                                       \
    X(NODE_GET_FIRST, first(pbrNodeGetFirst), FIRST, NODE_KEY, 0)                                   \
    X(NODE_GET_NEXT, next(pbrNodeGetNext), NEXT, NODE_KEY, 0)                                       \
    X(IF_GET_FIRST, first(pbrIfGetFirst), FIRST, UNIT_KEY, 0)                                       \
    X(IF_GET_NEXT, next(pbrIfGetNext), NEXT, UNIT_KEY, 0)                                           \
    X(NEXT_HOP_GET_FIRST, first(pbrNextHopGetFirst), FIRST, NODE_KEY, 0)                            \
    X(NEXT_HOP_GET_NEXT, next(pbrNextHopGetNext), NEXT, NODE_KEY, 0)                                \
    X(LIST_GET, field(pbrListGetApi), GET, LIST_KEY, LIST_READ)                                     \
    X(LIST_SET, field(pbrListSetApi), SET, LIST_KEY, 0)                                             \
    X(LIST_SYNC, field(pbrListSyncApi), SET, LIST_KEY, 0)                                           \
    X(NODE_GET, field(pbrNodeGetApi), GET, NODE_KEY, NODE_READ)                                     \
    X(NODE_SET, field(pbrNodeSetApi), SET, NODE_KEY, 0)                                             \
    X(NODE_SYNC, field(pbrNodeSyncApi), SET, NODE_KEY, 0)                                           \
    X(IF_GET, field(pbrIfGetApi), GET, UNIT_KEY, IF_READ)                                           \
    X(IF_SET, field(pbrIfSetApi), SET, UNIT_KEY, IF_WRITE)                                          \
    X(IF_SYNC, field(pbrIfSyncApi), SET, UNIT_KEY, IF_WRITE)                                        \
    X(NEXT_HOP_GET, field(pbrNextHopGetApi), GET, NODE_KEY, NEXT_HOP_BYTES)                         \
    X(NEXT_HOP_SET, field(pbrNextHopSetApi), SET, NODE_KEY, NEXT_HOP_BYTES)                         \
    X(NEXT_HOP_SYNC, field(pbrNextHopSyncApi), SET, NODE_KEY, NEXT_HOP_BYTES)                       \
    X(SCALAR_GET, field(pbrScalarGetApi), GET, NO_KEY, SCALAR_READ)                                 \
    X(SCALAR_SET, field(pbrScalarSetApi), SET, NO_KEY, 0)                                           \
    X(SCALAR_SYNC, field(pbrScalarSyncApi), SET, NO_KEY, 0)

const IcmCommand gPbrFuncMap[PBR_COMMAND_COUNT] = {
    {PBR_CMD_NONE, nullptr},
#define PBR_MAP_ROW(command, handler, kind, keyBytes, byteFields) {PBR_CMD_##command, handler},
    PBR_FUNC_ROWS(PBR_MAP_ROW)
#undef PBR_MAP_ROW
};

const IcmCommandShape gIcmCommandShapes[] = {
    {ICM_SHAPE_NONE, 0, 0},
#define PBR_SHAPE_ROW(command, handler, kind, keyBytes, byteFields)                                 \
    {ICM_SHAPE_##kind, keyBytes, byteFields},
    PBR_FUNC_ROWS(PBR_SHAPE_ROW)
#undef PBR_SHAPE_ROW
};

static_assert(sizeof gIcmCommandShapes / sizeof gIcmCommandShapes[0] == PBR_COMMAND_COUNT);
const uint32_t gIcmCommandShapeCount = PBR_COMMAND_COUNT;

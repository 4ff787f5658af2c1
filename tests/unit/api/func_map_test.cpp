// The command map: api/pbr_func_map.cpp. One suite calls every command as the command server does, from
// the map and the shapes alone.
#include "tests/unit/api/api_calls.h"

using namespace api_test;

namespace {

class FuncMap : public ApiTest {};

// A command as the server sees it.
struct Served {
    uint32_t code;
    uint32_t number; // number, or length of the bytes
    Key key;
    std::string bytes;
};

bool isBytes(uint32_t command, uint32_t field) {
    return field < 32 && (gIcmCommandShapes[command].byteFields >> field & 1) != 0;
}

// Casts the handler back to the type that the shape names, and calls it.
Served serve(uint32_t command, Key key, uint32_t field = 0, uint32_t number = 0, const std::string &bytes = "") {
    const IcmCommandShape &shape = gIcmCommandShapes[command];
    const IcmHandler handler = gPbrFuncMap[command].handler;
    EXPECT_EQ(key.size(), shape.keyBytes) << command;
    std::vector<uint8_t> buffer(512, 0);
    memcpy(buffer.data(), bytes.data(), bytes.size());
    PbrApiValue value = {number, 0};
    if (isBytes(command, field)) {
        const size_t len = shape.kind == ICM_SHAPE_SET ? bytes.size() : 256;
        value = {reinterpret_cast<uintptr_t>(buffer.data()), static_cast<uint32_t>(len)};
    }
    void *pKey = key.empty() ? nullptr : key.data();
    switch (shape.kind) {
    case ICM_SHAPE_FIRST: {
        const uint32_t code = reinterpret_cast<IcmFirstHandler>(handler)(pKey);
        return {code, 0, key, ""};
    }
    case ICM_SHAPE_NEXT: {
        Key out(key.size());
        const uint32_t code = reinterpret_cast<IcmNextHandler>(handler)(pKey, out.data());
        return {code, 0, out, ""};
    }
    default: {
        const uint32_t code = reinterpret_cast<IcmFieldHandler>(handler)(pKey, field, &value);
        return {code, isBytes(command, field) ? value.word1 : static_cast<uint32_t>(value.word0), key,
                std::string(buffer.begin(), buffer.begin() + (isBytes(command, field) ? value.word1 : 0))};
    }
    }
}

TEST_F(FuncMap, EveryEntryStandsAtItsId) {
    for (uint32_t id = 0; id < PBR_COMMAND_COUNT; ++id) {
        EXPECT_EQ(gPbrFuncMap[id].id, id);
        EXPECT_EQ(gPbrFuncMap[id].handler == nullptr, id == 0) << id;
    }
    EXPECT_EQ(gIcmCommandShapeCount, 24u);
}

TEST_F(FuncMap, EveryIdHasItsPublishedHandler) {
    const IcmHandler published[] = {
        nullptr,
        reinterpret_cast<IcmHandler>(pbrListGetFirst),    reinterpret_cast<IcmHandler>(pbrListGetNext),
        reinterpret_cast<IcmHandler>(pbrNodeGetFirst),    reinterpret_cast<IcmHandler>(pbrNodeGetNext),
        reinterpret_cast<IcmHandler>(pbrIfGetFirst),      reinterpret_cast<IcmHandler>(pbrIfGetNext),
        reinterpret_cast<IcmHandler>(pbrNextHopGetFirst), reinterpret_cast<IcmHandler>(pbrNextHopGetNext),
        reinterpret_cast<IcmHandler>(pbrListGetApi),      reinterpret_cast<IcmHandler>(pbrListSetApi),
        reinterpret_cast<IcmHandler>(pbrListSyncApi),     reinterpret_cast<IcmHandler>(pbrNodeGetApi),
        reinterpret_cast<IcmHandler>(pbrNodeSetApi),      reinterpret_cast<IcmHandler>(pbrNodeSyncApi),
        reinterpret_cast<IcmHandler>(pbrIfGetApi),        reinterpret_cast<IcmHandler>(pbrIfSetApi),
        reinterpret_cast<IcmHandler>(pbrIfSyncApi),       reinterpret_cast<IcmHandler>(pbrNextHopGetApi),
        reinterpret_cast<IcmHandler>(pbrNextHopSetApi),   reinterpret_cast<IcmHandler>(pbrNextHopSyncApi),
        reinterpret_cast<IcmHandler>(pbrScalarGetApi),    reinterpret_cast<IcmHandler>(pbrScalarSetApi),
        reinterpret_cast<IcmHandler>(pbrScalarSyncApi),
    };
    static_assert(sizeof published / sizeof published[0] == PBR_COMMAND_COUNT);
    for (uint32_t id = 0; id < PBR_COMMAND_COUNT; ++id) {
        EXPECT_EQ(gPbrFuncMap[id].handler, published[id]) << id;
    }
}

TEST_F(FuncMap, TheShapesTellHowEachCommandIsCalled) {
    struct Shape {
        uint8_t kind, keyBytes;
        uint32_t byteFields;
    };
    const uint32_t list = 1u << 3, nodeRow = 1u << 15, hopBytes = 1u << 2 | 1u << 4 | 1u << 5, ifName = 1u << 2,
                   ifBytes = 1u << 2 | 1u << 3 | 1u << 4, scalarBytes = 1u << 5 | 1u << 6 | 1u << 7;
    const Shape shapes[] = {
        {ICM_SHAPE_NONE, 0, 0},         {ICM_SHAPE_FIRST, 18, 0},       {ICM_SHAPE_NEXT, 18, 0},
        {ICM_SHAPE_FIRST, 28, 0},       {ICM_SHAPE_NEXT, 28, 0},        {ICM_SHAPE_FIRST, 4, 0},
        {ICM_SHAPE_NEXT, 4, 0},         {ICM_SHAPE_FIRST, 28, 0},       {ICM_SHAPE_NEXT, 28, 0},
        {ICM_SHAPE_GET, 18, list},      {ICM_SHAPE_SET, 18, 0},         {ICM_SHAPE_SET, 18, 0},
        {ICM_SHAPE_GET, 28, nodeRow},   {ICM_SHAPE_SET, 28, 0},         {ICM_SHAPE_SET, 28, 0},
        {ICM_SHAPE_GET, 4, ifBytes},    {ICM_SHAPE_SET, 4, ifName},     {ICM_SHAPE_SET, 4, ifName},
        {ICM_SHAPE_GET, 28, hopBytes},  {ICM_SHAPE_SET, 28, hopBytes},  {ICM_SHAPE_SET, 28, hopBytes},
        {ICM_SHAPE_GET, 0, scalarBytes}, {ICM_SHAPE_SET, 0, 0},           {ICM_SHAPE_SET, 0, 0},
    };
    for (uint32_t id = 0; id < PBR_COMMAND_COUNT; ++id) {
        EXPECT_EQ(gIcmCommandShapes[id].kind, shapes[id].kind) << id;
        EXPECT_EQ(gIcmCommandShapes[id].keyBytes, shapes[id].keyBytes) << id;
        EXPECT_EQ(gIcmCommandShapes[id].byteFields, shapes[id].byteFields) << id;
    }
}

TEST_F(FuncMap, APolicyIsBuiltReadWalkedAndRemovedThroughTheMapAlone) {
    const Key list = listKey("web"), node10 = nodeKey("web", 10), hop1 = nodeKey("web", 10, 1), if7 = unitKey(7);

    EXPECT_EQ(serve(PBR_CMD_LIST_SET, list, PBR_LIST_STATUS, PBR_ROW_CREATED).code, PBR_OK);
    EXPECT_EQ(serve(PBR_CMD_LIST_SYNC, list, PBR_LIST_STATUS, PBR_ROW_ACTIVE).code, PBR_OK);
    EXPECT_EQ(serve(PBR_CMD_NODE_SET, node10, PBR_NODE_STATUS, PBR_ROW_CREATED).code, PBR_OK);
    EXPECT_EQ(serve(PBR_CMD_NODE_SYNC, node10, PBR_NODE_ACL_NUM, 1501).code, PBR_OK);
    EXPECT_EQ(serve(PBR_CMD_NODE_SET, node10, PBR_NODE_IP_VERSION, 1).code, PBR_OK);
    EXPECT_EQ(serve(PBR_CMD_NEXT_HOP_SET, hop1, PBR_NEXT_HOP_STATUS, PBR_ROW_CREATED).code, PBR_OK);
    EXPECT_EQ(serve(PBR_CMD_NEXT_HOP_SYNC, hop1, PBR_NEXT_HOP_ADDRESS, 0, address("10.0.0.1")).code, PBR_OK);
    EXPECT_EQ(serve(PBR_CMD_IF_SET, if7, PBR_IF_STATUS, PBR_IF_CREATE).code, PBR_OK);
    EXPECT_EQ(serve(PBR_CMD_IF_SYNC, if7, PBR_IF_PBR_NAME, 0, "web").code, PBR_OK);
    EXPECT_EQ(serve(PBR_CMD_SCALAR_SET, {}, PBR_SCALAR_DEBUG_FLAGS, 8).code, PBR_OK);
    EXPECT_EQ(serve(PBR_CMD_SCALAR_SYNC, {}, PBR_SCALAR_DEBUG_FLAGS, 4).code, PBR_OK);

    EXPECT_EQ(serve(PBR_CMD_LIST_GET, list, PBR_LIST_REF_CNT).number, 1u);
    EXPECT_EQ(serve(PBR_CMD_LIST_GET, list, PBR_LIST_ROW).number, 24u);
    EXPECT_EQ(serve(PBR_CMD_NODE_GET, node10, PBR_NODE_ACL_NUM).number, 1501u);
    EXPECT_EQ(serve(PBR_CMD_NODE_GET, node10, PBR_NODE_ROW).number, 11u * 12);
    EXPECT_EQ(serve(PBR_CMD_NEXT_HOP_GET, hop1, PBR_NEXT_HOP_ADDRESS).bytes, address("10.0.0.1"));
    EXPECT_EQ(serve(PBR_CMD_IF_GET, if7, PBR_IF_PBR_NAME).bytes, "web");
    EXPECT_EQ(serve(PBR_CMD_IF_GET, if7, PBR_IF_EMPTY).number, 0u);
    EXPECT_EQ(serve(PBR_CMD_IF_GET, if7, PBR_IF_ROW).number, 12u + 11);
    EXPECT_EQ(serve(PBR_CMD_SCALAR_GET, {}, PBR_SCALAR_DEBUG_FLAGS).number, 4u);
    EXPECT_EQ(serve(PBR_CMD_SCALAR_GET, {}, PBR_SCALAR_VERSION).bytes, "PBR_V7.00.00.00");

    EXPECT_EQ(listName(serve(PBR_CMD_LIST_GET_FIRST, listKey("")).key), "web");
    EXPECT_EQ(serve(PBR_CMD_LIST_GET_NEXT, list).code, PBR_FAIL);
    EXPECT_EQ(show(serve(PBR_CMD_NODE_GET_FIRST, nodeKey("", 0)).key), "web\\10\\0");
    EXPECT_EQ(show(serve(PBR_CMD_NODE_GET_NEXT, nodeKey("web", 9)).key), "web\\10\\0");
    EXPECT_EQ(unit(serve(PBR_CMD_IF_GET_FIRST, unitKey(0)).key), 7u);
    EXPECT_EQ(unit(serve(PBR_CMD_IF_GET_NEXT, unitKey(6)).key), 7u);
    EXPECT_EQ(show(serve(PBR_CMD_NEXT_HOP_GET_FIRST, nodeKey("", 0)).key), "web\\10\\1");
    EXPECT_EQ(show(serve(PBR_CMD_NEXT_HOP_GET_NEXT, nodeKey("web", 10, 0)).key), "web\\10\\1");

    EXPECT_EQ(serve(PBR_CMD_IF_SET, if7, PBR_IF_STATUS, PBR_IF_DESTROY).code, PBR_OK);
    EXPECT_EQ(serve(PBR_CMD_LIST_SET, list, PBR_LIST_STATUS, PBR_ROW_DESTROY).code, PBR_OK);
    EXPECT_EQ(serve(PBR_CMD_LIST_GET_FIRST, listKey("")).code, PBR_FAIL);
    EXPECT_FALSE(fake::poolExists("pbr_list"));
}

TEST_F(FuncMap, ASetOfAReadOnlyFieldGetsItsPublishedCode) {
    haveList("web");
    haveNode("web", 10);
    haveInterface(7);
    (void)fake::takeTrace();

    EXPECT_EQ(serve(PBR_CMD_LIST_SET, listKey("web"), PBR_LIST_ROW, 1).code, PBR_FAIL);
    EXPECT_EQ(serve(PBR_CMD_NODE_SYNC, nodeKey("web", 10), PBR_NODE_ROW, 1).code, PBR_FAIL);
    EXPECT_EQ(serve(PBR_CMD_IF_SET, unitKey(7), PBR_IF_EMPTY, 1).code, PBR_FAIL);
    EXPECT_EQ(serve(PBR_CMD_IF_SYNC, unitKey(7), PBR_IF_ROW, 1).code, PBR_FAIL);
    for (uint32_t field : {PBR_SCALAR_VERSION, PBR_SCALAR_PENDING, PBR_SCALAR_ROW}) {
        EXPECT_EQ(serve(PBR_CMD_SCALAR_SET, {}, field, 1).code, PBR_FAIL);
    }
    EXPECT_EQ(fake::takeTrace(), Lines{});
}

TEST_F(FuncMap, TheServerIsStartedWithTheMap) {
    const auto servers = fake::commandServers();

    ASSERT_EQ(servers.size(), 1u);
    EXPECT_EQ(servers[0].pCommands, gPbrFuncMap);
    EXPECT_EQ(servers[0].count, PBR_COMMAND_COUNT);
}

// Keys of noise, every field id near the known ones and far away: a code comes back, the mutex is free,
// the store stays whole. (Bytes of a get that exceed the capacity go into the server's room behind it.)
TEST_F(FuncMap, NoisyKeysAndFieldsDisturbNothing) {
    haveList("web");
    haveNode("web", 10, 1501, 1);
    haveNextHop("web", 10, 1, "10.0.0.1");
    haveBinding(7, "web");
    gPbrInfo.debugFlags = 0xFFFFFFFF;
    uint32_t noise = 1;
    for (uint32_t round = 0; round < 3000; ++round) {
        const uint32_t command = 1 + round % (PBR_COMMAND_COUNT - 1);
        Key key(gIcmCommandShapes[command].keyBytes);
        for (uint8_t &byte : key) {
            noise = noise * 1664525 + 1013904223;
            byte = static_cast<uint8_t>((noise >> 24) % 3 == 0 ? 0 : noise >> 16);
        }
        if (key.size() >= 18 && round % 2 == 0) {
            memcpy(key.data(), "web", 3);
            const uint16_t len = static_cast<uint16_t>(round % 4 == 0 ? 3 : noise);
            memcpy(key.data() + 16, &len, sizeof len);
        }
        const uint32_t field = round % 5 == 0 ? noise : (noise >> 8) % 22;
        (void)serve(command, key, field, noise % 7, std::string(noise % 70, 'x'));
        ASSERT_FALSE(fake::locked()) << command;
        fake::takeTrace();
    }
    EXPECT_NE(list("web"), nullptr) << "bound, so it cannot be destroyed";
}

} // namespace

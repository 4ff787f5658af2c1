// Scalars as the management plane sees them: api/pbr_scalar_api.cpp.
#include "tests/unit/api/api_calls.h"

using namespace api_test;

namespace {

class ScalarApi : public ApiTest {};

uint32_t get(uint32_t field) {
    const Answer answer = getNumber(pbrScalarGetApi, {}, field);
    EXPECT_EQ(answer.code, PBR_OK) << field;
    return answer.number;
}
Answer getText(uint32_t field, uint32_t capacity) { return getBytes(pbrScalarGetApi, {}, field, capacity); }

std::string words(std::initializer_list<uint32_t> values) {
    std::string out;
    for (uint32_t value : values) {
        out.append(reinterpret_cast<const char *>(&value), sizeof value);
    }
    return out;
}

TEST_F(ScalarApi, LimitsAndListCountAreRead) {
    haveList("a");
    haveList("b");
    gPbrInfo.maxNodeNum = 0xFFFFFFFF;

    EXPECT_EQ(get(PBR_SCALAR_MAX_LIST_NUM), 64u);
    EXPECT_EQ(get(PBR_SCALAR_MAX_NODE_NUM), 0xFFFFFFFFu);
    EXPECT_EQ(get(PBR_SCALAR_LIST_COUNT), 2u);
    EXPECT_EQ(get(PBR_SCALAR_DEBUG_FLAGS), 0u);
}

TEST_F(ScalarApi, SettingTheDebugFlagsReplacesThemAsAWhole) {
    EXPECT_EQ(setNumber(pbrScalarSetApi, {}, PBR_SCALAR_DEBUG_FLAGS, 0xFFFFFFFF), PBR_OK);
    EXPECT_EQ(get(PBR_SCALAR_DEBUG_FLAGS), 0xFFFFFFFFu);
    (void)fake::takeTrace();

    EXPECT_EQ(setNumber(pbrScalarSetApi, {}, PBR_SCALAR_DEBUG_FLAGS, 12), PBR_OK);

    EXPECT_EQ(gPbrInfo.debugFlags, 12u);
    EXPECT_EQ(fake::takeTrace(), Lines{syncLine("none", 0x001F4004u, 3, 12)});
}

TEST_F(ScalarApi, SettingSixtyFourTurnsOnTheTextsOfTheManagementPlane) {
    (void)getNumber(pbrListGetApi, listKey("no"), 1);
    EXPECT_EQ(fake::takeTexts(), Lines{});

    ASSERT_EQ(setNumber(pbrScalarSetApi, {}, PBR_SCALAR_DEBUG_FLAGS, 64), PBR_OK);
    (void)getNumber(pbrListGetApi, listKey("no"), 1);

    EXPECT_EQ(fake::takeTexts(), Lines{debugLine("pbr list no is not exist.")});
}

TEST_F(ScalarApi, TheSyncCommandDiffersOnlyInTheOrigin) {
    EXPECT_EQ(setNumber(pbrScalarSyncApi, {}, PBR_SCALAR_DEBUG_FLAGS, 4), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), Lines{syncLine("none", 0x001F4004u, 1, 4)});
    EXPECT_EQ(gPbrInfo.debugFlags, 4u);
}

TEST_F(ScalarApi, TheKeyIsNotReadAndNotPassedOn) {
    PbrApiValue value = {8, 0};

    EXPECT_EQ(pbrScalarSetApi(reinterpret_cast<const void *>(1), PBR_SCALAR_DEBUG_FLAGS, &value), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), Lines{syncLine("none", 0x001F4004u, 3, 8)});
    EXPECT_EQ(pbrScalarGetApi(reinterpret_cast<const void *>(1), PBR_SCALAR_DEBUG_FLAGS, &value), PBR_OK);
}

TEST_F(ScalarApi, OnlyTheDebugFlagsCanBeSet) {
    for (uint32_t field : {0u, 1u, 2u, 3u, 5u, 6u, 7u, 8u, 0xFFFFFFFFu}) {
        EXPECT_EQ(setNumber(pbrScalarSetApi, {}, field, 1), PBR_FAIL) << field;
    }
    EXPECT_EQ(fake::takeTrace(), Lines{});
}

TEST_F(ScalarApi, ARejectedSynchronisationKeepsTheFlags) {
    fake::answer("qrvHwilCmdSyncApi", 0x00C0FFEE);

    EXPECT_EQ(setNumber(pbrScalarSetApi, {}, PBR_SCALAR_DEBUG_FLAGS, 64), 0x00C0FFEEu);

    EXPECT_EQ(gPbrInfo.debugFlags, 0u);
}

TEST_F(ScalarApi, TheVersionIsCutToTheBuffer) {
    const std::string version = "PBR_V7.00.00.00";
    for (uint32_t capacity = 0; capacity <= 20; ++capacity) {
        const Answer answer = getText(PBR_SCALAR_VERSION, capacity);
        EXPECT_EQ(answer.code, PBR_OK);
        EXPECT_EQ(answer.bytes, version.substr(0, capacity)) << capacity;
    }
    EXPECT_EQ(getText(PBR_SCALAR_VERSION, 4).bytes, "PBR_");
}

TEST_F(ScalarApi, PendingWorkTellsWhetherListsWaitForTheUpdate) {
    EXPECT_EQ(getText(PBR_SCALAR_PENDING, 12).bytes, words({1, 0, 2}));

    haveList("web");
    haveNode("web", 10);
    ASSERT_EQ(setNumber(pbrNodeSetApi, nodeKey("web", 10), PBR_NODE_TIME_RANGE_START, 0), PBR_OK);

    EXPECT_EQ(getText(PBR_SCALAR_PENDING, 64).bytes, words({2, 2, 2}));
    EXPECT_EQ(getText(PBR_SCALAR_PENDING, 11).code, PBR_FAIL);
    EXPECT_EQ(getText(PBR_SCALAR_PENDING, 0).code, PBR_FAIL);
}

TEST_F(ScalarApi, IdsWithoutAScalarSucceedAndLeaveTheValue) {
    for (uint32_t field : {0u, 8u, 9u, 0xFFFFFFFFu}) {
        EXPECT_EQ(get(field), 0x5A5A5A5Au) << field;
        EXPECT_EQ(pbrScalarGetApi(nullptr, field, nullptr), PBR_OK);
    }
}

TEST_F(ScalarApi, MissingValuesAndBuffersHaveTheirOwnCodes) {
    PbrApiValue noBuffer = {0, 64};

    EXPECT_EQ(pbrScalarGetApi(nullptr, PBR_SCALAR_VERSION, nullptr), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(pbrScalarGetApi(nullptr, PBR_SCALAR_VERSION, &noBuffer), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(pbrScalarGetApi(nullptr, PBR_SCALAR_PENDING, nullptr), PBR_FAIL);
    EXPECT_EQ(pbrScalarGetApi(nullptr, PBR_SCALAR_PENDING, &noBuffer), PBR_FAIL);
    EXPECT_EQ(pbrScalarGetApi(nullptr, PBR_SCALAR_ROW, &noBuffer), PBR_FAIL);
    for (uint32_t field : {1u, 2u, 3u, 4u, 7u}) {
        EXPECT_EQ(pbrScalarGetApi(nullptr, field, nullptr), PBR_ERR_BAD_ARGUMENT) << field;
    }
    EXPECT_EQ(pbrScalarSetApi(nullptr, PBR_SCALAR_DEBUG_FLAGS, nullptr), PBR_ERR_BAD_ARGUMENT);
    EXPECT_FALSE(fake::locked());
}

} // namespace

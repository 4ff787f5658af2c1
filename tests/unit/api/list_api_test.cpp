// Lists as the management plane sees them: api/pbr_list_api.cpp.
#include "tests/unit/api/api_calls.h"

using namespace api_test;

namespace {

constexpr uint32_t CODE = 0x070A8001u;
class ListApi : public ApiTest {};

uint32_t setStatus(const std::string &name, uint32_t command) {
    return setNumber(pbrListSetApi, listKey(name), PBR_LIST_STATUS, command);
}

TEST_F(ListApi, CreatingAddsAListInStateCreated) {
    EXPECT_EQ(setStatus("web", PBR_ROW_CREATED), PBR_OK);

    ASSERT_NE(list("web"), nullptr);
    EXPECT_EQ(pbrListStatusGet(list("web")), PBR_ROW_CREATED);
    EXPECT_EQ(pbrListRefCntGet(list("web")), 0u);
    EXPECT_EQ(gPbrInfo.listCount, 1u);
}

TEST_F(ListApi, CreatingAnExistingListChangesNothingAndSucceeds) {
    haveList("web");
    EXPECT_EQ(setStatus("web", PBR_ROW_ACTIVE), PBR_OK);
    const std::string before = storeImage();
    (void)fake::takeTrace();

    EXPECT_EQ(setStatus("web", PBR_ROW_CREATED), PBR_OK);

    EXPECT_EQ(storeImage(), before);
    EXPECT_EQ(fake::takeTrace(), Lines{}) << "the synchronisation service is not told";
}

TEST_F(ListApi, CreatingAnExistingListInUseStillSucceeds) {
    haveList("web");
    haveBinding(7, "web");

    EXPECT_EQ(setStatus("web", PBR_ROW_CREATED), PBR_OK);
}

TEST_F(ListApi, DestroyingAMissingListChangesNothingAndSucceeds) {
    haveList("other");
    const std::string before = storeImage();
    (void)fake::takeTrace();

    EXPECT_EQ(setStatus("web", PBR_ROW_DESTROY), PBR_OK);

    EXPECT_EQ(storeImage(), before);
    EXPECT_EQ(fake::takeTrace(), Lines{});
}

TEST_F(ListApi, ActivatingOrDeactivatingAMissingListIsRefused) {
    EXPECT_EQ(setStatus("web", PBR_ROW_ACTIVE), PBR_ERR_NO_ROW);
    EXPECT_EQ(setStatus("web", PBR_ROW_INACTIVE), PBR_ERR_NO_ROW);
    EXPECT_EQ(setStatus("web", 9), PBR_ERR_NO_ROW);
    EXPECT_EQ(setNumber(pbrListSetApi, listKey("web"), PBR_LIST_REF_CNT, PBR_ROW_CREATED), PBR_ERR_NO_ROW);
    EXPECT_EQ(fake::takeTrace(), Lines{});
}

TEST_F(ListApi, ActivateAndDeactivateStoreTheState) {
    haveList("web");

    EXPECT_EQ(setStatus("web", PBR_ROW_ACTIVE), PBR_OK);
    EXPECT_EQ(getNumber(pbrListGetApi, listKey("web"), PBR_LIST_STATUS).number, PBR_ROW_ACTIVE);
    EXPECT_EQ(setStatus("web", PBR_ROW_INACTIVE), PBR_OK);
    EXPECT_EQ(getNumber(pbrListGetApi, listKey("web"), PBR_LIST_STATUS).number, PBR_ROW_INACTIVE);
}

TEST_F(ListApi, DestroyingTakesNodesAndNextHopsAlong) {
    haveList("web");
    haveNode("web", 10, 1501, 1);
    haveNextHop("web", 10, 1, "10.0.0.1");
    haveList("other");

    EXPECT_EQ(setStatus("web", PBR_ROW_DESTROY), PBR_OK);

    EXPECT_EQ(list("web"), nullptr);
    EXPECT_EQ(fake::slotsTaken("pbr_list"), 1u);
    EXPECT_EQ(fake::slotsTaken("pbr_node"), 0u);
    EXPECT_EQ(fake::slotsTaken("pbr_nexthop"), 0u);
}

TEST_F(ListApi, AListInUseCanBeNeitherDeactivatedNorDestroyed) {
    haveList("web");
    haveBinding(7, "web");
    const std::string before = storeImage();
    (void)fake::takeTrace();

    for (uint32_t command : {PBR_ROW_ACTIVE, PBR_ROW_INACTIVE, PBR_ROW_DESTROY, 9u}) {
        EXPECT_EQ(setStatus("web", command), PBR_ERR_IN_USE) << command;
    }
    EXPECT_EQ(setNumber(pbrListSetApi, listKey("web"), PBR_LIST_REF_CNT, 0), PBR_ERR_IN_USE);

    EXPECT_EQ(storeImage(), before);
    EXPECT_EQ(fake::takeTrace(), Lines{});
}

TEST_F(ListApi, OnlyTheStatusCanBeSet) {
    haveList("web");
    (void)fake::takeTrace();

    for (uint32_t field : {0u, 2u, 3u, 4u, 0xFFFFFFFFu}) {
        EXPECT_EQ(setNumber(pbrListSetApi, listKey("web"), field, 1), PBR_FAIL) << field;
    }
    EXPECT_EQ(fake::takeTrace(), Lines{}) << "an unknown field is not synchronised";
}

TEST_F(ListApi, AnUnknownCommandIsSynchronisedAndThenRefused) {
    haveList("web");
    const std::string before = storeImage();
    (void)fake::takeTrace();

    EXPECT_EQ(setStatus("web", 9), PBR_FAIL);

    EXPECT_EQ(fake::takeTrace(), Lines{syncLine("list(\"web\")", CODE, 3, 9)});
    EXPECT_EQ(storeImage(), before);
}

TEST_F(ListApi, TheSynchronisationServiceIsToldWithTheOrigin) {
    EXPECT_EQ(setStatus("web", PBR_ROW_CREATED), PBR_OK);
    EXPECT_EQ(setNumber(pbrListSyncApi, listKey("web"), PBR_LIST_STATUS, PBR_ROW_ACTIVE), PBR_OK);

    const Lines calls = fake::takeCalls();
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ(calls.front(), syncLine("list(\"web\")", CODE, 3, 2));
    EXPECT_EQ(calls.back(), syncLine("list(\"web\")", CODE, 1, 1));
    EXPECT_EQ(pbrListStatusGet(list("web")), PBR_ROW_ACTIVE);
}

TEST_F(ListApi, TheServiceIsAskedUnderTheLockBeforeAnythingChanges) {
    bool held = false;
    uint32_t lists = 99;
    fake::answerWith("qrvHwilCmdSyncApi", [&](const std::string &) {
        held = fake::locked();
        lists = gPbrInfo.listCount;
        return 0;
    });

    EXPECT_EQ(setStatus("web", PBR_ROW_CREATED), PBR_OK);

    EXPECT_TRUE(held);
    EXPECT_EQ(lists, 0u);
    EXPECT_EQ(gPbrInfo.listCount, 1u);
}

TEST_F(ListApi, ARejectedSynchronisationLeavesANewListUncreated) {
    fake::answer("qrvHwilCmdSyncApi", 0x12345678);

    EXPECT_EQ(setStatus("web", PBR_ROW_CREATED), 0x12345678u);

    EXPECT_EQ(list("web"), nullptr);
    EXPECT_EQ(gPbrInfo.listCount, 0u);
    EXPECT_FALSE(fake::poolExists("pbr_list"));
}

TEST_F(ListApi, ARejectedSynchronisationLeavesAnExistingListAlone) {
    haveList("web");
    const std::string before = storeImage();
    fake::answer("qrvHwilCmdSyncApi", -1);

    for (uint32_t command : {PBR_ROW_ACTIVE, PBR_ROW_INACTIVE, PBR_ROW_DESTROY, 9u}) {
        EXPECT_EQ(setStatus("web", command), PBR_FAIL);
        EXPECT_EQ(storeImage(), before);
    }
}

TEST_F(ListApi, AFullPoolIsReported) {
    for (uint32_t i = 0; i < gPbrInfo.maxListNum; ++i) {
        haveList(std::to_string(i));
    }

    EXPECT_EQ(setStatus("one-too-many", PBR_ROW_CREATED), PBR_ERR_NO_RECORD);

    EXPECT_EQ(gPbrInfo.listCount, gPbrInfo.maxListNum);
}

TEST_F(ListApi, MissingKeyOrValueIsABadArgument) {
    PbrApiValue value = {PBR_ROW_CREATED, 0};
    Key key = listKey("web");

    EXPECT_EQ(pbrListSetApi(nullptr, PBR_LIST_STATUS, &value), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(pbrListSyncApi(nullptr, PBR_LIST_STATUS, &value), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(pbrListGetApi(nullptr, PBR_LIST_STATUS, &value), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(pbrListSetApi(key.data(), PBR_LIST_STATUS, nullptr), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(pbrListGetApi(key.data(), PBR_LIST_STATUS, nullptr), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(gPbrInfo.listCount, 0u);
    EXPECT_EQ(fake::takeTrace(), Lines{});
}

TEST_F(ListApi, NamesOfOneAndSixteenBytesAreTaken) {
    haveList("a");
    haveList("0123456789abcdef");

    EXPECT_EQ(gPbrInfo.listCount, 2u);
    EXPECT_NE(list("0123456789abcdef"), nullptr);
}

TEST_F(ListApi, NamesThatFitNoRecordAreRefusedBeforeTheServiceIsAsked) {
    for (uint16_t len : {uint16_t(0), uint16_t(17), uint16_t(0x8001), uint16_t(65535)}) {
        const Key key = listKey("0123456789abcdef", len);
        EXPECT_EQ(setNumber(pbrListSetApi, key, PBR_LIST_STATUS, PBR_ROW_CREATED), PBR_ERR_BAD_ARGUMENT) << len;
        EXPECT_EQ(setNumber(pbrListSetApi, key, PBR_LIST_STATUS, PBR_ROW_DESTROY), PBR_OK) << len;
        EXPECT_EQ(setNumber(pbrListSetApi, key, PBR_LIST_STATUS, PBR_ROW_ACTIVE), PBR_ERR_NO_ROW) << len;
        EXPECT_EQ(getNumber(pbrListGetApi, key, PBR_LIST_STATUS).code, PBR_ERR_NO_ROW) << len;
    }
    EXPECT_EQ(fake::takeTrace(), Lines{});
    EXPECT_EQ(gPbrInfo.listCount, 0u);
}

TEST_F(ListApi, BytesBehindTheNameDoNotCount) {
    haveList("web");

    EXPECT_EQ(getNumber(pbrListGetApi, listKey("webXYZ", 3), PBR_LIST_STATUS).code, PBR_OK);
    EXPECT_EQ(getNumber(pbrListGetApi, listKey("web", 4), PBR_LIST_STATUS).code, PBR_ERR_NO_ROW);
}

TEST_F(ListApi, StateAndUseCountAreRead) {
    haveList("web");
    haveBinding(7, "web");
    haveBinding(8, "web");

    EXPECT_EQ(getNumber(pbrListGetApi, listKey("web"), PBR_LIST_STATUS).number, PBR_ROW_CREATED);
    EXPECT_EQ(getNumber(pbrListGetApi, listKey("web"), PBR_LIST_REF_CNT).number, 2u);
    for (uint32_t field : {0u, 4u, 0x80000001u}) {
        const Answer answer = getNumber(pbrListGetApi, listKey("web"), field);
        EXPECT_EQ(answer.code, PBR_FAIL) << field;
        EXPECT_EQ(answer.number, 0x5A5A5A5Au) << "the value stays";
    }
    EXPECT_EQ(getNumber(pbrListGetApi, listKey("we"), PBR_LIST_STATUS).code, PBR_ERR_NO_ROW);
}

TEST_F(ListApi, EveryRefusalIsToldWhileTheDebugFlagIsSet) {
    haveList("web");
    haveBinding(7, "web");
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    (void)fake::takeTrace();

    (void)setStatus("web", PBR_ROW_CREATED);
    (void)setStatus("web", PBR_ROW_DESTROY);
    (void)setStatus("sixteen-bytes-16", PBR_ROW_DESTROY);
    (void)setStatus("no", PBR_ROW_ACTIVE);
    (void)getNumber(pbrListGetApi, listKey("no"), PBR_LIST_STATUS);

    EXPECT_EQ(fake::takeTrace(), (Lines{
                                     debugLine("pbrListSetApi: pbr list web is exist."),
                                     debugLine("pbrListSetApi: pbr list web can not modify."),
                                     debugLine("pbrListSetApi: pbr list sixteen-bytes-16 is not exist."),
                                     debugLine("pbrListSetApi: pbr list no is not exist."),
                                     debugLine("pbr list no is not exist."),
                                 }));
}

TEST_F(ListApi, TextsNeedTheGeneralDebugFlag) {
    gPbrInfo.debugFlags = ~PBR_DEBUG_GENERAL;

    (void)setStatus("no", PBR_ROW_ACTIVE);

    EXPECT_EQ(fake::takeTexts(), Lines{});
}

TEST_F(ListApi, AWildNameLengthPrintsNothingBehindTheKey) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;

    (void)setNumber(pbrListSetApi, listKey("0123456789abcdef", 65535), PBR_LIST_STATUS, PBR_ROW_ACTIVE);

    EXPECT_EQ(fake::takeTrace(), Lines{debugLine("pbrListSetApi: pbr list 0123456789abcdef is not exist.")});
}

TEST_F(ListApi, AListThatWaitsForTheUpdateLeavesTheReadyTableWhenDestroyed) {
    haveList("web");
    haveNode("web", 10);
    haveList("other");
    EXPECT_EQ(setNumber(pbrNodeSetApi, nodeKey("web", 10), PBR_NODE_TIME_RANGE_START, 0), PBR_OK);
    ASSERT_FALSE(listEmpty(&gPbrInfo.readyTable));

    EXPECT_EQ(setStatus("web", PBR_ROW_DESTROY), PBR_OK);

    EXPECT_TRUE(listEmpty(&gPbrInfo.readyTable));
}

} // namespace

// A list on sixteen interfaces has use count 0 again and can be changed and destroyed: published. Nothing
// may then be left that points into a free slot: api/pbr_row_free.cpp.
#include "store/pbr_view_mark.h"
#include "tests/support/store_checker.h"
#include "tests/unit/api/api_calls.h"

using namespace api_test;

namespace {

class WrappedUseCount : public ApiTest {
protected:
    void SetUp() override {
        ApiTest::SetUp();
        haveList("web");
        haveNode("web", 10, 1501, 1);
        haveNextHop("web", 10, 1, "10.0.0.1");
        haveNode("web", 20, 1502, 1);
        node("web", 20)->outIfUnit = 99;
        for (uint32_t i = 0; i < 16; ++i) {
            haveBinding(100 + i, "web");
        }
        ASSERT_EQ(pbrListRefCntGet(list("web")), 0u);
        ASSERT_EQ(fake::slotsTaken("pbr_ifnode"), 32u);
        haveList("other");
        haveNode("other", 1, 1503);
        node("other", 1)->outIfUnit = 98;
        haveBinding(50, "other");
        gPbrInfo.viewMarks = 0;
        list("web")->viewMark = 0;
        (void)fake::takeTrace();
    }
};

TEST_F(WrappedUseCount, DestroyingTheListFreesTheLinksToItsNodes) {
    EXPECT_EQ(setNumber(pbrListSetApi, listKey("web"), PBR_LIST_STATUS, PBR_ROW_DESTROY), PBR_OK);

    EXPECT_EQ(fake::slotsTaken("pbr_ifnode"), 1u) << "the other list's link stays";
    EXPECT_NE(gPbrInfo.viewMarks & PBR_VIEW_ALL, 0u);
    for (uint32_t i = 0; i < 16; ++i) {
        const PbrIfEntry *pIf = interface(100 + i);
        EXPECT_EQ(pIf->pbrNameLen, 3) << "the entries keep the name";
        EXPECT_EQ(pIf->boundLink.pNext, &pIf->boundLink) << "and leave the list's chain";
    }
}

TEST_F(WrappedUseCount, InterfacesOfADestroyedListCanBeDestroyed) {
    ASSERT_EQ(setNumber(pbrListSetApi, listKey("web"), PBR_LIST_STATUS, PBR_ROW_DESTROY), PBR_OK);

    EXPECT_EQ(setBytes(pbrIfSetApi, unitKey(100), PBR_IF_PBR_NAME, "other"), PBR_ERR_UNBIND_NO_LIST);
    for (uint32_t i = 0; i < 16; ++i) {
        EXPECT_EQ(setNumber(pbrIfSetApi, unitKey(100 + i), PBR_IF_STATUS, PBR_IF_DESTROY), PBR_OK);
    }
    EXPECT_EQ(fake::slotsTaken("pbr_if"), 1u);
}

TEST_F(WrappedUseCount, DestroyingANodeFreesOnlyTheLinksToIt) {
    EXPECT_EQ(setNumber(pbrNodeSetApi, nodeKey("web", 10), PBR_NODE_STATUS, PBR_ROW_DESTROY), PBR_OK);

    EXPECT_EQ(fake::slotsTaken("pbr_ifnode"), 17u);
    EXPECT_NE(gPbrInfo.viewMarks & PBR_VIEW_ALL, 0u);
    EXPECT_EQ(pbrIfIfNodeFirst(interface(115))->pPbrNode, node("web", 20));
}

TEST_F(WrappedUseCount, EverySetOfANodeOrNextHopMarksTheRedirectView) {
    const auto expectMarked = [&](uint32_t code, const char *what) {
        EXPECT_EQ(code, PBR_OK) << what;
        EXPECT_EQ(list("web")->viewMark, 1) << what;
        EXPECT_NE(gPbrInfo.viewMarks & PBR_VIEW_LISTS, 0u) << what;
        list("web")->viewMark = 0;
        gPbrInfo.viewMarks = 0;
    };
    const Key node10 = nodeKey("web", 10), hop1 = nodeKey("web", 10, 1);

    expectMarked(setNumber(pbrNodeSetApi, node10, PBR_NODE_ACL_NUM, 1600), "aclNum");
    expectMarked(setNumber(pbrNodeSetApi, node10, PBR_NODE_IP_PRI, 3), "ipPri");
    expectMarked(setNumber(pbrNodeSetApi, node10, PBR_NODE_IS_ECMP, 1), "isEcmp");
    expectMarked(setNumber(pbrNodeSetApi, node10, PBR_NODE_VRF_ID, 1), "vrfid");
    expectMarked(setNumber(pbrNodeSetApi, node10, PBR_NODE_TIME_RANGE_ID, 5), "timeRangeId");
    expectMarked(setBytes(pbrNextHopSetApi, hop1, PBR_NEXT_HOP_ADDRESS, address("10.0.0.2")), "address");
    expectMarked(setNumber(pbrNextHopSetApi, hop1, PBR_NEXT_HOP_STATUS, PBR_ROW_DESTROY), "destroy");
}

TEST_F(WrappedUseCount, ANodeWhoseOnlyTrackedNextHopGoesHasNoBestNextHop) {
    node("web", 10)->pPbrNhopBest = hop("web", 10, 1);

    EXPECT_EQ(setNumber(pbrNodeSetApi, nodeKey("web", 10), PBR_NODE_CLEAR, 1), PBR_OK);

    EXPECT_EQ(node("web", 10)->pPbrNhopBest, nullptr);
}

// ---- a bind that ran out of links ----

class HalfBound : public ApiTest {
protected:
    void SetUp() override {
        ApiTest::SetUp();
        haveList("web");
        for (uint32_t index : {10u, 20u, 30u}) {
            haveNode("web", index, 1500 + index);
            node("web", index)->outIfUnit = 99;
        }
        haveInterface(7);
        fake::answerNth("silMemPoolAlloc", 3, 0); // the third node's link
        PbrApiValue value = {reinterpret_cast<uintptr_t>("web"), 3};
        Key key = unitKey(7);
        ASSERT_EQ(pbrIfSetApi(key.data(), PBR_IF_PBR_NAME, &value), PBR_ERR_BIND);
        ASSERT_EQ(fake::slotsTaken("pbr_ifnode"), 2u);
        ASSERT_EQ(pbrListRefCntGet(list("web")), 1u);
        ASSERT_EQ(interface(7)->pbrNameLen, 0);
    }
    void TearDown() override {}
    static uint32_t set(IcmFieldHandler handler, Key key, uint32_t field, uint32_t number) {
        PbrApiValue value = {number, 0};
        const uint32_t code = handler(key.data(), field, &value);
        checkStore(STORE_ALLOW_COUNTS); // the use count stays raised: published
        EXPECT_FALSE(fake::locked());
        return code;
    }
};

TEST_F(HalfBound, DestroyingTheInterfaceFreesTheLinksThatWereLeft) {
    gPbrInfo.viewMarks = 0;

    EXPECT_EQ(set(pbrIfSetApi, unitKey(7), PBR_IF_STATUS, PBR_IF_DESTROY), PBR_OK);

    EXPECT_EQ(fake::slotsTaken("pbr_ifnode"), 0u);
    EXPECT_NE(gPbrInfo.viewMarks & PBR_VIEW_ALL, 0u);
}

TEST_F(HalfBound, DestroyingTheListLaterFreesLinksOfInterfacesOutsideItsChain) {
    pbrListRefCntSet(list("web"), 0); // as fifteen more bindings would

    EXPECT_EQ(set(pbrListSetApi, listKey("web"), PBR_LIST_STATUS, PBR_ROW_DESTROY), PBR_OK);

    EXPECT_EQ(fake::slotsTaken("pbr_ifnode"), 0u);
}

TEST_F(HalfBound, TheListStaysInUse) {
    EXPECT_EQ(set(pbrListSetApi, listKey("web"), PBR_LIST_STATUS, PBR_ROW_DESTROY), PBR_ERR_IN_USE);
}

} // namespace

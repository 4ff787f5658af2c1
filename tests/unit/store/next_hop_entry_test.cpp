// The next hops of a node.
#include "store/pbr_next_hop_entry.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "core/pbr_info.h"
#include "store/pbr_list_entry.h"
#include "store/pbr_node_entry.h"
#include "store/pbr_nqa_entry.h"
#include "store/pbr_view_mark.h"
#include "tests/fake/fake.h"
#include "tests/support/builders.h"
#include "tests/support/store_checker.h"

namespace {

using Indexes = std::vector<uint32_t>;
using Texts = std::vector<std::string>;

class NextHopEntry : public ::testing::Test {
protected:
    void SetUp() override {
        startDaemon();
        makeList("a");
        pNode = makeNode("a", 1);
    }
    void TearDown() override { checkStore(); }
    PbrNodeEntry *pNode = nullptr;
};

Indexes indexes(const PbrNodeEntry *pNode) {
    Indexes all;
    for (PbrNextHopEntry *p = pbrNodeNextHopFirst(pNode); p != nullptr; p = pbrNodeNextHopNext(pNode, p)) {
        all.push_back(p->nextHopIndex);
    }
    return all;
}

PbrNqaEntry *test(const std::string &admin, const std::string &name) {
    return pbrNqaEntryGet(bytes(admin).data(), static_cast<uint32_t>(admin.size()), bytes(name).data(),
                          static_cast<uint32_t>(name.size()));
}

TEST_F(NextHopEntry, ANewNextHopIsCreatedWithBothCountsZero) {
    PbrNextHopEntry *pHop = pbrNextHopEntryAdd(pNode, 3);

    ASSERT_NE(pHop, nullptr);
    EXPECT_EQ(pHop->nextHopIndex, 3u);
    EXPECT_EQ(pHop->status, PBR_ROW_CREATED);
    EXPECT_EQ(pbrNextHopHwAddRefCntGet(pHop), 0u);
    EXPECT_EQ(pbrNextHopHwDelRefCntGet(pHop), 0u);
    EXPECT_EQ(pHop->nqaAdminNameLen, 0u);
    EXPECT_EQ(pHop->nexthopArpState, 0u);
}

TEST_F(NextHopEntry, NextHopsStandInAscendingIndexWhateverTheOrderOfCreation) {
    Indexes order = {1, 2, 7, 128, 255};
    do {
        startDaemon();
        makeList("a");
        pNode = makeNode("a", 1);
        for (uint32_t index : order) {
            makeNextHop(pNode, index, "10.0.0.1");
            checkStore();
        }
        ASSERT_EQ(indexes(pNode), (Indexes{1, 2, 7, 128, 255}));
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(NextHopEntry, AnEqualIndexGoesBehindTheExistingNextHop) {
    PbrNextHopEntry *pFirst = makeNextHop(pNode, 1, "10.0.0.1");
    PbrNextHopEntry *pSecond = makeNextHop(pNode, 1, "10.0.0.2");

    EXPECT_EQ(pbrNodeNextHopFirst(pNode), pFirst);
    EXPECT_EQ(pbrNodeNextHopNext(pNode, pFirst), pSecond);
}

TEST_F(NextHopEntry, OnlyTheLowEightBitsOfAnIndexAreKept) {
    makeNextHop(pNode, 2, "10.0.0.2");
    makeNextHop(pNode, 257, "10.0.0.1");

    EXPECT_EQ(indexes(pNode), (Indexes{1, 2}));
}

TEST_F(NextHopEntry, AnIndexBeyondEightBitsFindsNothing) {
    PbrNextHopEntry *pHop = makeNextHop(pNode, 1, "10.0.0.1");

    EXPECT_EQ(pbrNextHopEntryGet(pNode, 1), pHop);
    EXPECT_EQ(pbrNextHopEntryGet(pNode, 257), nullptr);
    EXPECT_EQ(pbrNextHopEntryGet(pNode, 2), nullptr);
}

TEST_F(NextHopEntry, WithoutANodeNoneIsMadeAndNothingIsLogged) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;

    EXPECT_EQ(pbrNextHopEntryAdd(nullptr, 1), nullptr);

    EXPECT_EQ(fake::takeTexts(), Texts{});
}

TEST_F(NextHopEntry, TheNodeSetsNoLimitButThePoolDoes) {
    startDaemon(0, 2);
    makeList("a");
    pNode = makeNode("a", 1);
    for (uint32_t i = 1; i <= 8; ++i) {
        makeNextHop(pNode, i, "10.0.0.1");
    }
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;

    EXPECT_EQ(pbrNextHopEntryAdd(pNode, 9), nullptr);

    EXPECT_EQ(fake::takeTexts(), (Texts{"debug 0x044B0000 7 0 \"pbr nexthop entry add 9!\\r\\n\"",
                                        "debug 0x044B0004 7 0 \"pbr nexthop free table is empty!\\r\\n\""}));
    EXPECT_EQ(fake::slotsTaken("pbr_nexthop"), 8u);
}

TEST_F(NextHopEntry, ATestIsKeptWhileAnotherNextHopNamesIt) {
    PbrNodeEntry *pOther = makeNode("a", 2);
    PbrNextHopEntry *pFirst = makeNextHop(pNode, 1, "10.0.0.1");
    PbrNextHopEntry *pSecond = makeNextHop(pOther, 1, "10.0.0.2");
    nameTest(pFirst, "ops", "isp");
    nameTest(pSecond, "ops", "isp");
    makeNqa("ops", "isp");

    pbrNextHopEntryDel(pFirst);
    EXPECT_NE(test("ops", "isp"), nullptr);
    checkStore();

    pbrNextHopEntryDel(pSecond);
    EXPECT_EQ(test("ops", "isp"), nullptr);
}

TEST_F(NextHopEntry, ATestOfWhichOnlyOneNameIsGivenIsNotDeleted) {
    makeNqa("ops", "");
    PbrNextHopEntry *pHop = makeNextHop(pNode, 1, "10.0.0.1");
    nameTest(pHop, "ops", "");

    pbrNextHopEntryDel(pHop);

    EXPECT_NE(test("ops", ""), nullptr);
}

TEST_F(NextHopEntry, ANextHopWithoutRecordOfItsTestIsDeletedAllTheSame) {
    PbrNextHopEntry *pHop = makeNextHop(pNode, 1, "10.0.0.1");
    nameTest(pHop, "ops", "isp");

    EXPECT_EQ(pbrNextHopEntryDel(pHop), 0);

    EXPECT_TRUE(listEmpty(&pNode->nextHopList));
}

TEST_F(NextHopEntry, NoNodeKeepsADeletedNextHopAsItsBest) {
    makeList("b");
    PbrNodeEntry *pOther = makeNode("b", 1);
    PbrNextHopEntry *pHop = makeNextHop(pNode, 1, "10.0.0.1");
    PbrNextHopEntry *pKept = makeNextHop(pNode, 2, "10.0.0.2");
    PbrNodeEntry *pThird = makeNode("b", 2);
    pNode->pPbrNhopBest = pHop;
    pOther->pPbrNhopBest = pHop; // carried over by an update run
    pThird->pPbrNhopBest = pKept;

    pbrNextHopEntryDel(pHop);

    EXPECT_EQ(pNode->pPbrNhopBest, nullptr);
    EXPECT_EQ(pOther->pPbrNhopBest, nullptr);
    EXPECT_EQ(pThird->pPbrNhopBest, pKept);
}

TEST_F(NextHopEntry, DeletingANodeTakesItsNextHopsOutOfOtherNodesToo) {
    makeList("b");
    PbrNodeEntry *pOther = makeNode("b", 1);
    pOther->pPbrNhopBest = makeNextHop(pNode, 1, "10.0.0.1");

    pbrNodeEntryDel(pNode);

    EXPECT_EQ(pOther->pPbrNhopBest, nullptr);
}

TEST_F(NextHopEntry, AChangeMarksTheOwnersListForTheRedirectView) {
    PbrListEntry *pOther = makeList("b");
    PbrNextHopEntry *pHop = makeNextHop(pNode, 1, "10.0.0.1");
    EXPECT_EQ(pNode->pPbrList->viewMark, 1u);
    pNode->pPbrList->viewMark = 0;
    gPbrInfo.viewMarks = 0;

    pbrNextHopEntryDel(pHop);

    EXPECT_EQ(pNode->pPbrList->viewMark, 1u);
    EXPECT_EQ(pOther->viewMark, 0u);
    EXPECT_EQ(gPbrInfo.viewMarks, PBR_VIEW_LISTS);
}

TEST_F(NextHopEntry, TheTwoCountsShareAByteAndWrapAtSixteen) {
    PbrNextHopEntry *pHop = makeNextHop(pNode, 1, "10.0.0.1");

    pbrNextHopHwAddRefCntSet(pHop, 17);
    pbrNextHopHwDelRefCntSet(pHop, static_cast<uint32_t>(-1));

    EXPECT_EQ(pbrNextHopHwAddRefCntGet(pHop), 1u);
    EXPECT_EQ(pbrNextHopHwDelRefCntGet(pHop), 15u);
    EXPECT_EQ(pHop->refCntByte, 0xF1u);
}

TEST_F(NextHopEntry, AFailedCreationLeavesTheNodeAsItWas) {
    makeNextHop(pNode, 1, "10.0.0.1");
    fake::failNth(1);

    EXPECT_EQ(pbrNextHopEntryAdd(pNode, 2), nullptr);

    EXPECT_TRUE(fake::faultHit());
    EXPECT_EQ(indexes(pNode), Indexes{1});
}

} // namespace

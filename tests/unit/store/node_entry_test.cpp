// The nodes of policy lists.
#include "store/pbr_node_entry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "core/pbr_info.h"
#include "store/pbr_list_entry.h"
#include "tests/fake/fake.h"
#include "tests/support/builders.h"
#include "tests/support/store_checker.h"

namespace {

using Indexes = std::vector<uint32_t>;
using Texts = std::vector<std::string>;

class NodeEntry : public ::testing::Test {
protected:
    void SetUp() override {
        startDaemon();
        pList = makeList("a");
    }
    void TearDown() override { checkStore(); }
    PbrListEntry *pList = nullptr;
};

Indexes indexes(const PbrListEntry *pList) {
    Indexes all;
    for (PbrNodeEntry *p = pbrListNodeFirst(pList); p != nullptr; p = pbrListNodeNext(pList, p)) {
        all.push_back(p->nodeIndex);
    }
    return all;
}

PbrNodeEntry *find(const std::string &name, uint32_t index) {
    return pbrNodeEntryGet(bytes(name).data(), static_cast<uint32_t>(name.size()), index);
}

TEST_F(NodeEntry, ANewNodeHasNoPriorityNoTimeRangeAndNoBestNextHop) {
    PbrNodeEntry *pNode = pbrNodeEntryAdd(bytes("a").data(), 1, 10);

    ASSERT_NE(pNode, nullptr);
    EXPECT_EQ(pNode->pPbrList, pList);
    EXPECT_EQ(pNode->nodeIndex, 10u);
    EXPECT_EQ(pbrNodeIpPriGet(pNode), 9u);
    EXPECT_EQ(pNode->timeRangeId, 0xFFFFFFFFu);
    EXPECT_EQ(pNode->status, PBR_ROW_CREATED);
    EXPECT_EQ(pNode->pPbrNhopBest, nullptr);
    EXPECT_EQ(pbrNodeIsEcmpGet(pNode), 0u);
    EXPECT_EQ(pbrNodeForwardFlagGet(pNode), 0u);
    EXPECT_EQ(pNode->policyRouteIpVer, 0u);
    EXPECT_TRUE(listEmpty(&pNode->nextHopList));
    EXPECT_EQ(pNode->auxLink.pNext, nullptr);
    EXPECT_FALSE(pbrNodeStateChangeGet(pNode));
}

TEST_F(NodeEntry, NodesStandInAscendingIndexWhateverTheOrderOfCreation) {
    Indexes order = {1, 5, 10, 20, 0xFFFFFFFFu};
    do {
        startDaemon();
        pList = makeList("a");
        for (uint32_t index : order) {
            makeNode("a", index);
            checkStore();
        }
        ASSERT_EQ(indexes(pList), (Indexes{1, 5, 10, 20, 0xFFFFFFFFu}));
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(NodeEntry, NodesMadeTwentyFiveTenAreWalkedFiveTenTwenty) {
    makeNode("a", 20);
    makeNode("a", 5);
    makeNode("a", 10);

    EXPECT_EQ(indexes(pList), (Indexes{5, 10, 20}));
}

TEST_F(NodeEntry, AnEqualIndexGoesBehindTheExistingNode) {
    PbrNodeEntry *pFirst = makeNode("a", 5);
    PbrNodeEntry *pSecond = makeNode("a", 5);

    EXPECT_EQ(pbrListNodeFirst(pList), pFirst);
    EXPECT_EQ(pbrListNodeNext(pList, pFirst), pSecond);
    EXPECT_EQ(find("a", 5), pFirst);
}

TEST_F(NodeEntry, ANodeOfAMissingListIsRefusedSilently) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    fake::takeTrace();

    EXPECT_EQ(pbrNodeEntryAdd(bytes("b").data(), 1, 1), nullptr);

    EXPECT_EQ(fake::takeTrace(), Texts{});
}

TEST_F(NodeEntry, TheNodesOfTheLimitFitAndOneMoreIsRefusedWithItsText) {
    startDaemon(0, 2);
    pList = makeList("a");
    makeNode("a", 1);
    makeNode("a", 2);
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;

    EXPECT_EQ(pbrNodeEntryAdd(bytes("a").data(), 1, 3), nullptr);

    EXPECT_EQ(fake::takeTexts(), (Texts{"debug 0x044B0004 7 0 \"pbr node free table is empty!\\r\\n\""}));
    EXPECT_EQ(indexes(pList), (Indexes{1, 2}));
}

TEST_F(NodeEntry, DeletingANodeDeletesItsNextHopsAndKeepsTheOthers) {
    PbrNodeEntry *pNode = makeNode("a", 5);
    makeNextHop(pNode, 1, "10.0.0.1");
    makeNextHop(pNode, 2, "10.0.0.2");
    makeNode("a", 10);

    EXPECT_EQ(pbrNodeEntryDel(pNode), 0);

    EXPECT_EQ(indexes(pList), Indexes{10});
    EXPECT_EQ(fake::slotsTaken("pbr_nexthop"), 0u);
}

TEST_F(NodeEntry, ANodeIsFoundByListAndIndex) {
    makeList("b");
    PbrNodeEntry *pA = makeNode("a", 5);
    PbrNodeEntry *pB = makeNode("b", 5);

    EXPECT_EQ(find("a", 5), pA);
    EXPECT_EQ(find("b", 5), pB);
    EXPECT_EQ(find("a", 6), nullptr);
    EXPECT_EQ(find("c", 5), nullptr);
    EXPECT_EQ(pbrNodeEntryGet(nullptr, 1, 5), nullptr);
    EXPECT_EQ(pbrNodeEntryGet(bytes("a").data(), 0x10001, 5), nullptr) << "the length counts in full";
}

TEST_F(NodeEntry, ANodeIsLookedForInEveryListOfThatName) {
    makeNode("a", 1);
    PbrListEntry *pSecond = makeList("a");
    PbrNodeEntry *pNode = makeNode("a", 2); // goes to the first list
    listUnlink(&pNode->listLink);
    listInsertAfter(&pNode->listLink, &pSecond->nodeList);
    pNode->pPbrList = pSecond;

    EXPECT_EQ(find("a", 2), pNode);
}

TEST_F(NodeEntry, AnAclIsInUseWhenAnyNodeOfAnyListHasIt) {
    makeList("b");
    makeNode("a", 1, {.acl = 1501});
    makeNode("b", 1, {.acl = 1502});

    EXPECT_EQ(pbrNodeAclNumCheck(1501), -1);
    EXPECT_EQ(pbrNodeAclNumCheck(1502), -1);
    EXPECT_EQ(pbrNodeAclNumCheck(1503), 0);
    EXPECT_EQ(pbrNodeAclNumCheck(0), 0);
    makeNode("b", 2);
    EXPECT_EQ(pbrNodeAclNumCheck(0), -1) << "nodes without an ACL are found by 0";
}

TEST_F(NodeEntry, TheSubByteFieldsKeepEachOther) {
    PbrNodeEntry *pNode = makeNode("a", 1);

    pbrNodeForwardFlagSet(pNode, 2);
    pbrNodeIsEcmpSet(pNode, 1);
    pbrNodeIpPriSet(pNode, 15);

    EXPECT_EQ(pNode->flagByte, (2u << 6) | (1u << 4) | 15u);
    pbrNodeIsEcmpSet(pNode, 0);
    EXPECT_EQ(pbrNodeForwardFlagGet(pNode), 2u);
    EXPECT_EQ(pbrNodeIpPriGet(pNode), 15u);
}

TEST_F(NodeEntry, AFailedCreationLeavesTheListAsItWas) {
    makeNode("a", 1);
    fake::failNth(1);

    EXPECT_EQ(pbrNodeEntryAdd(bytes("a").data(), 1, 2), nullptr);

    EXPECT_TRUE(fake::faultHit());
    EXPECT_EQ(indexes(pList), Indexes{1});
}

// What the look-up from an index on answers, found by asking every node.
PbrNodeEntry *fromByAsking(const PbrListEntry *pList, uint64_t from) {
    PbrNodeEntry *p = pbrListNodeFirst(pList);
    while (p != nullptr && p->nodeIndex < from) {
        p = pbrListNodeNext(pList, p);
    }
    return p;
}

TEST_F(NodeEntry, TheFirstNodeFromAnIndexOnIsFoundWhateverWasLookedUpBefore) {
    PbrListEntry *pOther = makeList("b");
    std::mt19937 dice(20261122);
    for (uint32_t step = 0; step < 20000; ++step) {
        PbrListEntry *pAsked = dice() % 4 != 0 ? pList : pOther;
        const uint32_t index = 1 + dice() % 40;
        switch (dice() % 6) {
        case 0:
            (void)pbrNodeEntryAdd(pAsked->name, pAsked->nameLen, index); // also one that is there already
            break;
        case 1:
            if (PbrNodeEntry *pNode = fromByAsking(pAsked, index); pNode != nullptr) {
                ASSERT_EQ(0, pbrNodeEntryDel(pNode));
            }
            break;
        default:
            ASSERT_EQ(fromByAsking(pAsked, index), pbrNodeEntryFrom(pAsked, index)) << "step " << step;
        }
        const Indexes present = indexes(pAsked);
        ASSERT_TRUE(std::is_sorted(present.begin(), present.end())) << "step " << step;
    }
    EXPECT_EQ(nullptr, pbrNodeEntryFrom(pList, uint64_t{0xFFFFFFFFu} + 1));
}

TEST_F(NodeEntry, OfTwoNodesWithOneIndexTheEarlierOneIsFoundAlsoComingFromTheLaterOne) {
    PbrNodeEntry *pEarlier = pbrNodeEntryAdd(bytes("a").data(), 1, 10);
    (void)pbrNodeEntryAdd(bytes("a").data(), 1, 10);
    ASSERT_EQ(nullptr, find("a", 11)); // ends at the later one
    EXPECT_EQ(pEarlier, find("a", 10));
}

} // namespace

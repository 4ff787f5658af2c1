// The table of policy lists.
#include "store/pbr_list_entry.h"
#include "store/pbr_list_entry_del.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "core/pbr_info.h"
#include "nexthop/pbr_ready_table.h"
#include "tests/fake/fake.h"
#include "tests/support/builders.h"
#include "tests/support/store_checker.h"

namespace {

using Names = std::vector<std::string>;

class ListEntry : public ::testing::Test {
protected:
    void SetUp() override { startDaemon(); }
    void TearDown() override { checkStore(); }
};

Names names() {
    Names all;
    for (PbrListEntry *pList : usedLists()) {
        all.push_back(nameOf(pList));
    }
    return all;
}

PbrListEntry *find(const std::string &name) {
    return pbrListEntryGet(bytes(name).data(), static_cast<uint32_t>(name.size()));
}

TEST_F(ListEntry, ANewListIsCreatedUnusedAndEmpty) {
    PbrListEntry *pList = makeList("wan");

    EXPECT_EQ(nameOf(pList), "wan");
    EXPECT_EQ(pbrListStatusGet(pList), PBR_ROW_CREATED);
    EXPECT_EQ(pbrListRefCntGet(pList), 0u);
    EXPECT_TRUE(listEmpty(&pList->nodeList));
    EXPECT_TRUE(listEmpty(&pList->auxList));
    EXPECT_EQ(pList->readyLink.pNext, nullptr);
    EXPECT_EQ(pList->readyLink.pPrev, nullptr);
    EXPECT_EQ(gPbrInfo.listCount, 1u);
}

TEST_F(ListEntry, AnEqualNameGoesBehindTheExistingList) {
    PbrListEntry *pB = makeList("b");
    PbrListEntry *pFirst = makeList("a");
    PbrListEntry *pAb = makeList("ab");
    PbrListEntry *pSecond = makeList("a");

    EXPECT_EQ(usedLists(), (std::vector<PbrListEntry *>{pFirst, pSecond, pAb, pB}));
    EXPECT_EQ(find("a"), pFirst);
}

TEST_F(ListEntry, ListsStandInByteOrderWhateverTheOrderOfCreation) {
    const Names sorted = {"A", "a", "aa", "aaaaaaaaaaaaaaaa", "ab", "b", "\xff"};
    Names order = {"\xff", "b", "ab", "aa", "a"};
    std::sort(order.begin(), order.end());
    do {
        startDaemon();
        for (const std::string &name : order) {
            makeList(name);
            checkStore();
        }
        makeList("aaaaaaaaaaaaaaaa");
        makeList("A");
        ASSERT_EQ(names(), sorted);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(ListEntry, BytesAreComparedUnsigned) {
    makeList("\x80");
    makeList("\x7f");

    EXPECT_EQ(names(), (Names{"\x7f", "\x80"}));
}

TEST_F(ListEntry, AListIsFoundByItsWholeNameOnly) {
    makeList("abc");

    EXPECT_NE(find("abc"), nullptr);
    EXPECT_EQ(find("ab"), nullptr);
    EXPECT_EQ(find("abcd"), nullptr);
    EXPECT_EQ(find("abd"), nullptr);
    EXPECT_EQ(pbrListEntryGet(nullptr, 3), nullptr);
}

TEST_F(ListEntry, TheLengthOfALookUpCountsWithItsLowSixteenBits) {
    PbrListEntry *pList = makeList("abc");

    EXPECT_EQ(pbrListEntryGet(bytes("abc").data(), 0x10003), pList);
}

TEST_F(ListEntry, ANameOfSixteenBytesFitsAndOneMoreDoesNot) {
    EXPECT_NE(pbrListEntryAdd(bytes("0123456789abcdef").data(), 16), nullptr);

    EXPECT_EQ(pbrListEntryAdd(bytes("0123456789abcdefg").data(), 17), nullptr);
    EXPECT_EQ(gPbrInfo.listCount, 1u);
}

TEST_F(ListEntry, TheListsOfTheLimitFitAndOneMoreIsRefusedWithItsText) {
    startDaemon(2);
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    makeList("a");
    makeList("b");
    fake::takeTrace();

    EXPECT_EQ(pbrListEntryAdd(bytes("c").data(), 1), nullptr);

    EXPECT_EQ(fake::takeTrace(), (Names{"debug 0x044B0004 7 0 \"pbr list free table is empty !\\r\\n\""}));
    EXPECT_EQ(names(), (Names{"a", "b"}));
}

TEST_F(ListEntry, PoolsThatCannotBeMadeAreReportedAndLeaveNothing) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    fake::answerNth("silMemPoolInit", 1, -1);

    EXPECT_EQ(pbrListEntryAdd(bytes("a").data(), 1), nullptr);

    EXPECT_EQ(fake::takeTexts(), (Names{"debug 0x044B0004 7 0 \"pbr malloc malloc error !\\r\\n\""}));
    EXPECT_EQ(gPbrInfo.memAllocated, 0u);
}

TEST_F(ListEntry, NothingIsLoggedWhileTheGeneralBitIsClear) {
    startDaemon(1);
    gPbrInfo.debugFlags = ~PBR_DEBUG_GENERAL;
    makeList("a");
    pbrListEntryAdd(bytes("b").data(), 1);

    EXPECT_EQ(fake::takeTexts(), Names{});
}

TEST_F(ListEntry, DeletingAListDeletesItsNodesAndNextHops) {
    makeList("a");
    makeList("b");
    makeNextHop(makeNode("a", 1), 1, "10.0.0.1");
    makeNextHop(makeNode("a", 2), 1, "10.0.0.2");
    makeNextHop(makeNode("b", 1), 1, "10.0.0.3");

    EXPECT_EQ(pbrListEntryDel(find("a")), 0);

    EXPECT_EQ(names(), Names{"b"});
    EXPECT_EQ(gPbrInfo.listCount, 1u);
    EXPECT_EQ(fake::slotsTaken("pbr_node"), 1u);
    EXPECT_EQ(fake::slotsTaken("pbr_nexthop"), 1u);
}

TEST_F(ListEntry, TheLastListTakesThePoolsWithItAndTheNextOneMakesThemAgain) {
    PbrListEntry *pList = makeList("a");
    pbrListStatusSet(pList, PBR_ROW_ACTIVE);

    pbrListEntryDel(pList);
    EXPECT_FALSE(fake::poolExists("pbr_list"));
    EXPECT_EQ(gPbrInfo.memAllocated, 0u);
    checkStore();

    EXPECT_EQ(pbrListStatusGet(makeList("a")), PBR_ROW_CREATED);
}

TEST_F(ListEntry, AnInterfaceEntryKeepsThePoolsWhenTheLastListGoes) {
    PbrListEntry *pList = makeList("a");
    makeIf(7);

    pbrListEntryDel(pList);

    EXPECT_TRUE(fake::poolExists("pbr_list"));
}

TEST_F(ListEntry, DeletingTouchesNoPlaceInTheReadyTable) {
    PbrListEntry *pA = makeList("a");
    PbrListEntry *pB = makeList("b");
    pbrReadyTableAdd(pB);

    pbrListEntryDel(pA);

    EXPECT_EQ(readyLists(), std::vector<PbrListEntry *>{pB});
}

TEST_F(ListEntry, ARecordReachedThroughItsReadyLinkIsTheSame) {
    PbrListEntry *pList = makeList("a");
    pbrReadyTableAdd(pList);

    EXPECT_EQ(pbrListFromReadyLink(listFirst(&gPbrInfo.readyTable)),
              pbrListFromUsedLink(listFirst(&gPbrInfo.usedTable)));
    EXPECT_EQ(readyLists(), usedLists());
}

TEST_F(ListEntry, AnEmptyListMayBeBound) {
    EXPECT_EQ(pbrListEntryValidate(makeList("a")), PBR_OK);
}

TEST_F(ListEntry, ANodeThatMatchesNothingIsRefused) {
    PbrListEntry *pList = makeList("a");
    makeNode("a", 1, {.pri = 3});
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;

    EXPECT_EQ(pbrListEntryValidate(pList), PBR_ERR_NO_MATCH);

    EXPECT_EQ(fake::takeTexts(), (Names{"debug 0x044B0004 7 0 \"pbr if bind ,but no if-match!\\r\\n\""}));
}

TEST_F(ListEntry, ANodeThatDoesNothingIsRefused) {
    PbrListEntry *pList = makeList("a");
    makeNode("a", 1, {.acl = 1501});
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;

    EXPECT_EQ(pbrListEntryValidate(pList), PBR_ERR_NO_APPLY);

    EXPECT_EQ(fake::takeTexts(), (Names{"debug 0x044B0004 7 0 \"pbr if bind ,but no apply!\\r\\n\""}));
}

TEST_F(ListEntry, EveryKindOfMatchAndActionPassesAlone) {
    PbrListEntry *pList = makeList("a");
    makeNode("a", 1, {.acl = 1501, .outIf = 7});
    makeNode("a", 2, {.pri = 0, .match1 = 1});
    makeNextHop(makeNode("a", 3, {.match2 = 1}), 1, "10.0.0.1");

    EXPECT_EQ(pbrListEntryValidate(pList), PBR_OK);
}

TEST_F(ListEntry, TheFirstRefusedNodeDecides) {
    PbrListEntry *pList = makeList("a");
    makeNode("a", 1, {.acl = 1501, .pri = 1});
    makeNode("a", 2, {.acl = 1502});
    makeNode("a", 3);

    EXPECT_EQ(pbrListEntryValidate(pList), PBR_ERR_NO_APPLY);
}

TEST_F(ListEntry, AUseCountWrapsAtSixteenAndKeepsTheStatus) {
    PbrListEntry *pList = makeList("a");
    pbrListStatusSet(pList, PBR_ROW_INACTIVE);

    pbrListRefCntSet(pList, 16);

    EXPECT_EQ(pbrListRefCntGet(pList), 0u);
    EXPECT_EQ(pbrListStatusGet(pList), PBR_ROW_INACTIVE);
}

TEST_F(ListEntry, EveryFailureOfTheFirstCreationLeavesNothingBehind) {
    for (uint32_t n = 1;; ++n) {
        startDaemon();
        fake::failNth(n);
        PbrListEntry *pList = pbrListEntryAdd(bytes("a").data(), 1);
        if (!fake::faultHit()) {
            EXPECT_EQ(n, 8u) << "six pools and a slot can fail";
            EXPECT_NE(pList, nullptr);
            return;
        }
        EXPECT_EQ(pList, nullptr) << fake::faultCall();
        EXPECT_EQ(gPbrInfo.listCount, 0u);
        checkStore();
    }
}

} // namespace

// Sequences that leave the device of the calls with a stale or missing entry.
//
// That is how the calls are published, and it is pinned here. The view is right in all of them, which is
// why a forwarding plane that follows the store uses it.
#include "tests/unit/nexthop/walk_through.h"

namespace {

using namespace walk;

// ---- failures ----

TEST_F(WalkThrough, AFailedAddIsRetriedWithADeleteOfWhatIsNotThere) {
    bound({1});
    up(A);
    watchDevice([](uint32_t, uint32_t command, uint32_t) { return command == 20 ? -1 : 0; });
    update();
    EXPECT_EQ(Lines{"ADD if1 n10 best=A cur=10 last=00 hw=00 view=A"}, takeSteps());
    EXPECT_EQ("best=- cur=10 last=00 hw=00", marks(pNode_));
    EXPECT_EQ("a", readyLists());
    EXPECT_EQ(2u, hwStatus(1, pNode_));
    EXPECT_EQ("01 01", refCnts());

    watchDevice([](uint32_t, uint32_t, uint32_t) { return 0; });
    update();
    EXPECT_EQ((Lines{"DEL if1 n10 best=A cur=10 last=00 hw=00 view=A", "ADD if1 n10 best=A cur=10 last=00 hw=00 view=A"}),
              takeSteps());
    EXPECT_EQ("01 01", refCnts()); // the delete of an absent entry counted too: 15, then 0
    EXPECT_EQ("", readyLists());
}

TEST_F(WalkThrough, TheFirstWalkedInterfaceFailingTakesTheOthersEntryAwayAndIsGivenUpInTheEnd) {
    bound({1, 2});
    up(A);
    up(B);
    update();
    (void)takeSteps();
    watchDevice([](uint32_t unit, uint32_t command, uint32_t) { return unit == 2 && command == 20 ? -1 : 0; });
    down(A);

    update(); // interface 1's entry is removed too and not added again
    EXPECT_EQ((Lines{"DEL if2 n10", "ADD if2 n10", "DEL if1 n10"}), takeShortSteps());
    EXPECT_EQ(2u, hwStatus(2, pNode_));
    EXPECT_EQ(0u, hwStatus(1, pNode_));
    EXPECT_EQ("a", readyLists());

    update(); // adds it back
    EXPECT_EQ((Lines{"DEL if2 n10", "ADD if2 n10", "ADD if1 n10"}), takeShortSteps());
    EXPECT_EQ(1u, hwStatus(1, pNode_));
    EXPECT_EQ("a", readyLists());

    update(); // nothing changed any more: the list leaves, interface 2 stays without entry
    EXPECT_TRUE(takeShortSteps().empty());
    EXPECT_EQ(2u, hwStatus(2, pNode_));
    EXPECT_EQ("", readyLists());
    EXPECT_EQ("B", view(1, 1501)); // the view never lost either
    EXPECT_EQ("B", view(2, 1501));
}

TEST_F(WalkThrough, TheLastWalkedInterfaceFailingRewritesTheGoodOneAtEachRun) {
    bound({1, 2});
    up(A);
    watchDevice([](uint32_t unit, uint32_t command, uint32_t) { return unit == 1 && command == 20 ? -1 : 0; });
    update();
    (void)takeSteps();
    for (int run = 0; run < 3; run++) {
        update();
        EXPECT_EQ((Lines{"DEL if2 n10", "ADD if2 n10", "DEL if1 n10", "ADD if1 n10"}), takeShortSteps());
        EXPECT_EQ("a", readyLists());
        EXPECT_EQ("A", view(1, 1501));
    }
}

TEST_F(WalkThrough, AFailedAddInsideABindingIsNeverRetried) {
    PbrNodeEntry *pOut = node(20, 1502, {});
    pOut->outIfUnit = 99;
    watchDevice([](uint32_t, uint32_t, uint32_t) { return -1; });
    bound({1});
    EXPECT_EQ(Lines{"ADD if1 n20"}, takeShortSteps());
    EXPECT_EQ(2u, hwStatus(1, pOut));
    EXPECT_EQ("", readyLists());
    update();
    EXPECT_TRUE(takeShortSteps().empty());
    EXPECT_EQ("out 99", view(1, 1502));
}

TEST_F(WalkThrough, AFailedDeleteOfANodeThatLostEverythingLeavesItsEntry) {
    bound({1});
    up(A);
    update();
    (void)takeSteps();
    watchDevice([](uint32_t, uint32_t command, uint32_t) { return command == 21 ? -1 : 0; });
    down(A);
    update();
    EXPECT_EQ(Lines{"DEL if1 n10"}, takeShortSteps());
    EXPECT_EQ(1u, hwStatus(1, pNode_));
    EXPECT_EQ("", readyLists());
    pbrReadyTableAdd(pList_);
    update(); // none before, none now: no change
    EXPECT_TRUE(takeShortSteps().empty());
    EXPECT_EQ("inert", view(1, 1501));
}

TEST_F(WalkThrough, ANodeWithNothingUsableReceivesTheBestOfAnEarlierNode) {
    PbrNodeEntry *pLater = node(20, 1502, {X, Y});
    bound({1});
    up(A);
    up(B);
    update();
    (void)takeSteps();
    down(A);
    update();
    EXPECT_EQ((Lines{"DEL if1 n10 best=B cur=01 last=10 hw=11 view=B", "ADD if1 n10 best=B cur=01 last=00 hw=01 view=B",
                     "ADD if1 n20 best=B cur=00 last=00 hw=00 view=inert"}),
              takeSteps());
    EXPECT_EQ(1u, hwStatus(1, pLater));
    EXPECT_EQ("B", steps::hopName(pLater->pPbrNhopBest));
}

TEST_F(WalkThrough, TheBestIsCarriedAcrossListsOfOneRun) {
    makeList("b");
    PbrNodeEntry *pOther = makeNode("b", 10, {.acl = 1600, .ipVer = 1});
    makeNextHop(pOther, 1, X);
    makeNextHop(pOther, 2, Y);
    bound({1});
    ASSERT_EQ(0, bind(2, "b"));
    up(A);
    up(B);
    up(X);
    update(); // b is worked off first, being queued last
    down(X);
    update(); // b: its entry is removed, nothing is saved
    (void)takeSteps();
    pOther->pPbrNhopBest = hop(pOther, 2); // a choice that goes away in this run: a change
    pbrReadyTableAdd(pOther->pPbrList);
    down(A); // a stands before b
    update();
    EXPECT_EQ("ADD if2 n10 best=B cur=00 last=00 hw=00 view=inert", takeSteps().back());
}

TEST_F(WalkThrough, NodesBehindAChangingNodeLoseTheirOutInterfaceAndPriorityEntries) {
    PbrNodeEntry *pOut = node(20, 1502, {});
    pOut->outIfUnit = 99;
    PbrNodeEntry *pPriority = node(30, 1503, {});
    pbrNodeIpPriSet(pPriority, 3);
    PbrNodeEntry *pBefore = node(5, 1500, {});
    pBefore->outIfUnit = 98;
    bound({1});
    EXPECT_EQ((Lines{"ADD if1 n5", "ADD if1 n20", "ADD if1 n30"}), takeShortSteps());

    up(A); // a first up is a change: the nodes behind are deleted and not added
    update();

    EXPECT_EQ((Lines{"ADD if1 n10", "DEL if1 n20", "DEL if1 n30"}), takeShortSteps());
    EXPECT_EQ(0u, hwStatus(1, pOut));
    EXPECT_EQ(0u, hwStatus(1, pPriority));
    EXPECT_EQ(1u, hwStatus(1, pBefore));
    EXPECT_EQ("out 98", view(1, 1500));
    EXPECT_EQ("out 99", view(1, 1502));
    EXPECT_EQ("priority 3", view(1, 1503));
}

TEST_F(WalkThrough, ARemovalAndAddOutsideARunFindsNoBest) {
    bound({1, 2});
    up(A);
    update();
    (void)takeSteps();
    for (uint32_t unit : {2u, 1u}) { // what a slot that starts does to every link
        (void)pbrIfNodeHwDel(link(unit, pNode_));
        (void)pbrIfNodeHwAdd(link(unit, pNode_));
    }
    const Lines steps = takeSteps();
    ASSERT_EQ(4u, steps.size());
    EXPECT_EQ("ADD if2 n10 best=-", steps[1].substr(0, 18));
    EXPECT_EQ("ADD if1 n10 best=-", steps[3].substr(0, 18));
    EXPECT_EQ("view=A", steps[1].substr(steps[1].size() - 6));
    EXPECT_EQ("view=A", steps[3].substr(steps[3].size() - 6));
}

// ---- unbinding ----

TEST_F(WalkThrough, UnbindingOneOfTwoTakesTheBestAwayFromTheOtherUntilTheNextEvent) {
    bound({1, 2});
    up(A);
    update();
    (void)takeSteps();
    EXPECT_EQ(0u, unbind(2));
    EXPECT_EQ(Lines{"DEL if2 n10 best=A cur=00 last=00 hw=10 view=A"}, takeSteps());
    EXPECT_EQ(nullptr, pNode_->pPbrNhopBest);
    EXPECT_EQ(1u, hwStatus(1, pNode_));
    EXPECT_EQ("A", view(1, 1501));
    EXPECT_EQ("none", view(2, 1501));
    up(A);
    update();
    EXPECT_EQ((Lines{"DEL if1 n10", "ADD if1 n10"}), takeShortSteps());
}

TEST_F(WalkThrough, UnbindingOneOfTwoDropsTheOthersPendingChange) {
    bound({1, 2});
    up(A);
    up(B);
    update();
    down(A);
    EXPECT_EQ("a", readyLists());
    EXPECT_EQ(0u, unbind(2));
    (void)takeSteps();
    EXPECT_EQ("", readyLists());
    update();
    EXPECT_TRUE(takeSteps().empty()); // interface 1 keeps A in the device of the calls
    EXPECT_EQ("B", view(1, 1501));
}

TEST_F(WalkThrough, TheLastUnbindRemovesTheEntry) {
    bound({1});
    up(A);
    update();
    (void)takeSteps();
    EXPECT_EQ(0u, unbind(1));
    EXPECT_EQ(Lines{"DEL if1 n10 best=A cur=00 last=10 hw=10 view=A"}, takeSteps());
    EXPECT_EQ("none", view(1, 1501));
    EXPECT_TRUE(mirror_.lists().empty());
}

TEST_F(WalkThrough, AFailedDeleteAtTheLastUnbindHidesTheNextFirstChoice) {
    bound({1});
    up(A);
    update();
    watchDevice([](uint32_t, uint32_t command, uint32_t) { return command == 21 ? -1 : 0; });
    EXPECT_EQ(0u, unbind(1));
    EXPECT_EQ("A", steps::hopName(pNode_->pPbrNhopBest));
    watchDevice([](uint32_t, uint32_t, uint32_t) { return 0; });
    bound({1});
    up(A);
    (void)takeSteps();
    update();
    EXPECT_TRUE(takeSteps().empty()); // "no change"
    EXPECT_EQ("A", view(1, 1501));
}

TEST_F(WalkThrough, ReachabilityIsKeptOverAnUnbindUntilTheServiceReportsAgain) {
    bound({1});
    up(A);
    update();
    EXPECT_EQ(0u, unbind(1));
    down(A); // nobody listens
    EXPECT_EQ(1, hop(pNode_, 1)->nexthopArpState);
    bound({1});
    EXPECT_EQ("A", view(1, 1501)); // as stale as the store
    down(A);                       // the report that follows each registration
    EXPECT_EQ("inert", view(1, 1501));
}

} // namespace

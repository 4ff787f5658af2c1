// The periodic update: what one run does with the ready table.
#include "nexthop/pbr_if_node_update.h"

#include "nexthop/pbr_ready_table.h"
#include "tests/unit/hw/steps.h"

namespace {

using steps::eventText;
using steps::hwText;
using steps::Lines;
using steps::pointerText;

class IfNodeUpdate : public steps::StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        pList_ = makeList("a");
        pNode_ = node(10, 1501, "10.0.0.", 2);
    }
    // A node of list "a" with `count` next hops <prefix>1, <prefix>2, ...
    PbrNodeEntry *node(uint32_t index, uint32_t acl, const std::string &prefix, uint32_t count) {
        PbrNodeEntry *pNode = makeNode("a", index, {.acl = acl, .ipVer = 1});
        for (uint32_t i = 1; i <= count; i++) {
            makeNextHop(pNode, i, (prefix + std::to_string(i)).c_str());
        }
        return pNode;
    }
    void bound(std::initializer_list<uint32_t> units) {
        for (uint32_t unit : units) {
            ASSERT_EQ(0, bind(unit, "a"));
        }
        clear();
    }
    void clear() {
        (void)takeSteps();
        (void)fake::takeTrace();
    }
    static PbrNextHopEntry *hop(const PbrNodeEntry *pNode, uint32_t index) {
        PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode);
        while (pHop != nullptr && pHop->nextHopIndex != index) {
            pHop = pbrNodeNextHopNext(pNode, pHop);
        }
        return pHop;
    }
    PbrListEntry *pList_ = nullptr;
    PbrNodeEntry *pNode_ = nullptr;
};

TEST_F(IfNodeUpdate, AnEmptyReadyTableIsDoneAtOnce) {
    bound({1});
    update();
    EXPECT_TRUE(fake::takeTrace().empty());
}

TEST_F(IfNodeUpdate, WaitingInputEndsTheRunAndKeepsEveryListQueued) {
    bound({1});
    up("10.0.0.1");
    makeList("z");
    pbrReadyTableAdd(pbrListEntryGet(bytes("z").data(), 1));
    fake::whenPeerGoesUp("10.0.0.2", 0);
    clear();

    update();

    EXPECT_EQ("z,a", readyLists());
    EXPECT_EQ(fake::takeTrace(), Lines{"qrv_ioctl(3, 0x4004667f)"});
    EXPECT_EQ(nullptr, pNode_->pPbrNhopBest);
}

TEST_F(IfNodeUpdate, InputIsAskedForBeforeEachListAndEndsTheRunBetweenTwo) {
    bound({1});
    makeList("z");
    pbrReadyTableAdd(pbrListEntryGet(bytes("z").data(), 1));
    up("10.0.0.1"); // a stands before z
    clear();
    watchDevice([](uint32_t, uint32_t, uint32_t) {
        fake::whenPeerGoesUp("10.0.0.2", 0); // arrives while a is worked on
        return 0;
    });
    update();
    EXPECT_EQ("z", readyLists());
    EXPECT_EQ(Lines{"ADD if1 n10"}, takeShortSteps());
}

TEST_F(IfNodeUpdate, AListWithoutChangeLeavesWithoutADeviceCall) {
    bound({1});
    up("10.0.0.1");
    update();
    clear();
    pbrReadyTableAdd(pList_);

    update();

    EXPECT_TRUE(takeSteps().empty());
    EXPECT_EQ("", readyLists());
}

TEST_F(IfNodeUpdate, AChangedBestIsRewrittenOnEveryInterfaceTheLatestBoundFirst) {
    bound({1, 2});
    up("10.0.0.1");
    update();
    up("10.0.0.2");
    down("10.0.0.1");
    clear();

    update();

    EXPECT_EQ((Lines{"DEL if2 n10", "ADD if2 n10", "DEL if1 n10", "ADD if1 n10"}), takeShortSteps());
    EXPECT_EQ(hop(pNode_, 2), pNode_->pPbrNhopBest);
    EXPECT_EQ("", readyLists());
    EXPECT_EQ(1u, hwStatus(1, pNode_));
    EXPECT_EQ(1u, hwStatus(2, pNode_));
}

TEST_F(IfNodeUpdate, AFailedAddOfTheLastWalkedInterfaceKeepsTheListAndBothAreRewrittenNext) {
    bound({1, 2});
    up("10.0.0.1");
    update();
    up("10.0.0.2");
    down("10.0.0.1");
    watchDevice([](uint32_t unit, uint32_t command, uint32_t) { return unit == 1 && command == 20 ? -1 : 0; });
    clear();

    update();

    EXPECT_EQ((Lines{"DEL if2 n10", "ADD if2 n10", "DEL if1 n10", "ADD if1 n10"}), takeShortSteps());
    EXPECT_EQ(nullptr, pNode_->pPbrNhopBest);
    EXPECT_EQ("a", readyLists());
    EXPECT_EQ(2u, hwStatus(1, pNode_));

    watchDevice([](uint32_t, uint32_t, uint32_t) { return 0; });
    update();

    EXPECT_EQ((Lines{"DEL if2 n10", "ADD if2 n10", "DEL if1 n10", "ADD if1 n10"}), takeShortSteps());
    EXPECT_EQ(hop(pNode_, 2), pNode_->pPbrNhopBest);
    EXPECT_EQ("", readyLists());
    EXPECT_EQ(1u, hwStatus(1, pNode_));
}

TEST_F(IfNodeUpdate, ANodeThatLostAllItsNextHopsIsRemovedAndNotAddedAgain) {
    bound({1});
    up("10.0.0.1");
    update();
    down("10.0.0.1");
    gPbrInfo.debugFlags = 64;
    clear();

    update();

    EXPECT_EQ(Lines{"DEL if1 n10"}, takeShortSteps());
    EXPECT_EQ(0u, hwStatus(1, pNode_));
    EXPECT_EQ("", readyLists());
    const Lines texts = fake::takeTexts();
    EXPECT_EQ(eventText("no best nhop,do not add hw.\r\n"), texts.back());
    EXPECT_EQ("inert", steps::view(1, 1501));
}

TEST_F(IfNodeUpdate, AnInactiveTimeRangeRemovesTheRedirectInTheSameWay) {
    bound({1});
    up("10.0.0.1");
    update();
    pNode_->timeRangeId = 7;
    pbrReadyTableAdd(pList_);
    pList_->viewMark = 1;
    gPbrInfo.viewMarks = 1;
    clear();

    update();

    EXPECT_EQ(Lines{"DEL if1 n10"}, takeShortSteps());
    EXPECT_EQ(nullptr, pNode_->pPbrNhopBest);
    EXPECT_EQ("absent", steps::view(1, 1501));
}

TEST_F(IfNodeUpdate, OnceANodeChangedEveryLaterNodeOfTheListIsRewritten) {
    PbrNodeEntry *pEarlier = node(5, 1500, "10.0.5.", 1);
    PbrNodeEntry *pLater = node(15, 1502, "10.0.6.", 1);
    bound({1});
    up("10.0.5.1");
    up("10.0.0.1");
    up("10.0.6.1");
    update();
    up("10.0.0.2");
    down("10.0.0.1");
    clear();

    update();

    EXPECT_EQ((Lines{"DEL if1 n10", "ADD if1 n10", "DEL if1 n15", "ADD if1 n15"}), takeShortSteps());
    EXPECT_EQ(hop(pLater, 1), pLater->pPbrNhopBest);
    EXPECT_EQ(hop(pEarlier, 1), pEarlier->pPbrNhopBest);
}

TEST_F(IfNodeUpdate, ChangesAndFailuresOfOneListDoNotReachTheNext) {
    makeList("b");
    PbrNodeEntry *pOther = makeNode("b", 10, {.acl = 1600, .ipVer = 1});
    makeNextHop(pOther, 1, "10.0.6.1");
    bound({1});
    ASSERT_EQ(0, bind(2, "b"));
    up("10.0.0.1");
    up("10.0.6.1");
    update();
    pbrReadyTableAdd(pOther->pPbrList);
    up("10.0.0.2");
    down("10.0.0.1"); // a stands before b
    watchDevice([](uint32_t, uint32_t command, uint32_t) { return command == 20 ? -1 : 0; });
    clear();
    update();
    EXPECT_EQ((Lines{"DEL if1 n10", "ADD if1 n10"}), takeShortSteps());
    EXPECT_EQ("a", readyLists());
}

TEST_F(IfNodeUpdate, AMarkedNodeRewritesItsMarkedLinksAndClearsTheFlags) {
    PbrNodeEntry *pOther = node(15, 1502, "10.0.6.", 1);
    bound({1, 2});
    up("10.0.0.1");
    up("10.0.6.1");
    update();
    change("10.0.0.1");
    clear();

    update();

    EXPECT_EQ((Lines{"DEL if2 n10", "ADD if2 n10", "DEL if1 n10", "ADD if1 n10"}), takeShortSteps());
    EXPECT_FALSE(pbrNodeStateChangeGet(pNode_));
    EXPECT_FALSE(pbrIfNodeStateChangeGet(link(1, pNode_)));
    EXPECT_FALSE(pbrIfNodeStateChangeGet(link(2, pNode_)));
    EXPECT_EQ(1u, hwStatus(1, pOther));
    EXPECT_EQ("", readyLists());
}

TEST_F(IfNodeUpdate, AnUnmarkedLinkOfAMarkedNodeIsSkipped) {
    bound({1, 2});
    up("10.0.0.1");
    update();
    change("10.0.0.1");
    pbrIfNodeStateChangeSet(link(2, pNode_), false);
    gPbrInfo.debugFlags = 64;
    clear();

    update();

    EXPECT_EQ((Lines{"DEL if1 n10", "ADD if1 n10"}), takeShortSteps());
    const std::string cmp =
        "check pbr IfNode:" + pointerText(pNode_) + ", cmp " + pointerText(pNode_) + " \r\n";
    EXPECT_EQ(fake::takeTexts(),
              (Lines{eventText("pbr start to update pbrnode,change 0,pPbrNode->stateChangeFlag 1.\r\n"),
                     eventText("check pbr if entry ifUnit:2\r\n"), eventText(cmp),
                     eventText("check change:0, stateChangeFlag 0 \r\n"),
                     eventText("check pbr if entry ifUnit:1\r\n"), eventText(cmp),
                     steps::logText(0x044B0003, 6, 2,
                                    "Interface if1 del policy route node to hardware:aclNum=1501,ipPri=9,"
                                    "forwardFlag=0,outIfUnit=0,vrfid=0,isEcmp=0,policyRouteIpVer=1.\r\n"),
                     eventText("pbr start to add hw.\r\n")}));
}

TEST_F(IfNodeUpdate, AfterAFailureTheFlagsOfLaterNodesStaySet) {
    PbrNodeEntry *pLater = node(15, 1502, "10.0.6.", 1);
    bound({1});
    up("10.0.0.1");
    up("10.0.6.1");
    update();
    change("10.0.0.1");
    change("10.0.6.1");
    watchDevice([](uint32_t, uint32_t command, uint32_t acl) { return command == 20 && acl == 1501 ? -1 : 0; });
    clear();

    update();

    EXPECT_EQ((Lines{"DEL if1 n10", "ADD if1 n10", "DEL if1 n15", "ADD if1 n15"}), takeShortSteps());
    EXPECT_TRUE(pbrNodeStateChangeGet(pNode_));
    EXPECT_TRUE(pbrIfNodeStateChangeGet(link(1, pNode_)));
    EXPECT_TRUE(pbrNodeStateChangeGet(pLater)); // although its own add succeeded
    EXPECT_FALSE(pbrIfNodeStateChangeGet(link(1, pLater)));
    EXPECT_EQ("a", readyLists());
}

TEST_F(IfNodeUpdate, AnEcmpNodeChangesWhenTheMarksOfItsNextHopsDiffer) {
    pbrNodeIsEcmpSet(pNode_, 1);
    bound({1});
    up("10.0.0.1");
    EXPECT_EQ(1, hop(pNode_, 1)->curSelected);
    clear();
    update();
    EXPECT_EQ(Lines{"ADD if1 n10"}, takeShortSteps());
    EXPECT_EQ(nullptr, pNode_->pPbrNhopBest);
    hop(pNode_, 1)->lastSelected = 1; // all alike: no change
    pbrReadyTableAdd(pList_);
    update();
    EXPECT_TRUE(takeShortSteps().empty());
}

TEST_F(IfNodeUpdate, ARewriteOfAnEcmpNodeMarksItsResolvedNextHopsAgain) {
    pbrNodeIsEcmpSet(pNode_, 1);
    bound({1});
    up("10.0.0.1");
    up("10.0.0.2");
    update();
    hop(pNode_, 1)->curSelected = 0;
    pbrReadyTableAdd(pList_);
    clear();
    update();
    EXPECT_EQ((Lines{"DEL if1 n10", "ADD if1 n10"}), takeShortSteps());
    EXPECT_EQ(1, hop(pNode_, 1)->curSelected);
}

TEST_F(IfNodeUpdate, AnEcmpValueOfTwoWithNothingUsableIsRemovedAndNotAdded) {
    pbrNodeIsEcmpSet(pNode_, 2);
    bound({1});
    up("10.0.0.1");
    update();
    down("10.0.0.1");
    clear();
    update();
    EXPECT_EQ(Lines{"DEL if1 n10"}, takeShortSteps());
    EXPECT_EQ("inert", steps::view(1, 1501));
}

TEST_F(IfNodeUpdate, EveryListWorkedOnIsMarkedForTheRedirectViewAndNoOther) {
    bound({1});
    up("10.0.0.1");
    update();
    PbrListEntry *pOther = makeList("z");
    pbrReadyTableAdd(pList_);
    checked();
    EXPECT_EQ(0, pbrIfNodeUpdate()); // nothing changed: no device call
    EXPECT_EQ(1, pList_->viewMark);
    EXPECT_EQ(0, pOther->viewMark);
    EXPECT_EQ(1u, pbrRedirectViewChanged());
}

TEST_F(IfNodeUpdate, ADeleteBeforeAnAddRaisesTheAddCountOfEveryNextHop) {
    bound({1});
    up("10.0.0.1");
    update(); // add: 1 - 1 = 0, del count 1
    EXPECT_EQ(0x10, hop(pNode_, 1)->refCntByte);
    up("10.0.0.2");
    down("10.0.0.1");
    update(); // delete: del 0; +1; add: -1, del 1
    EXPECT_EQ(0x10, hop(pNode_, 1)->refCntByte);
    EXPECT_EQ(0x10, hop(pNode_, 2)->refCntByte);
    down("10.0.0.2");
    update(); // delete without add
    EXPECT_EQ(0x01, hop(pNode_, 1)->refCntByte);
    EXPECT_EQ(0x01, hop(pNode_, 2)->refCntByte);
}

TEST_F(IfNodeUpdate, TheFirstRunOfAnUpReportIsSaidLineByLine) {
    bound({1});
    up("10.0.0.1");
    gPbrInfo.debugFlags = 4 | 64;
    clear();

    update();

    const Lines texts = fake::takeTexts();
    const Lines expected = {
        hwText("pbrIfNodeUpdate check ready table,pbr list name:a.\r\n"),
        hwText("pbrIfNodeUpdate check ready table,pbr node index:10.\r\n"),
        hwText("pbrIfNodeUpdate select best nexthop 1,curSelected:1,lastSelected:0.\r\n"),
        eventText("pbr start to update pbrnode,change 1,pPbrNode->stateChangeFlag 0.\r\n"),
        eventText("check pbr if entry ifUnit:1\r\n"),
        eventText("check pbr IfNode:" + pointerText(pNode_) + ", cmp " + pointerText(pNode_) + " \r\n"),
        eventText("pbr start to add hw.\r\n"),
        hwText("interface if1 add policy route node to hardware:aclNum=1501,ipPri=9,forwardFlag=0,outIfUnit=0,"
               "vrfid=0,isEcmp=0,policyRouteIpVer = 1.\r\n")};
    ASSERT_LE(expected.size(), texts.size());
    EXPECT_EQ(expected, Lines(texts.begin(), texts.begin() + static_cast<long>(expected.size())));
}

TEST_F(IfNodeUpdate, ARunWithoutChangeIsSaidWithTheBestThatStays) {
    bound({1});
    up("10.0.0.1");
    update();
    pbrReadyTableAdd(pList_);
    gPbrInfo.debugFlags = 4 | 64;
    clear();
    update();
    EXPECT_EQ(fake::takeTexts(),
              (Lines{hwText("pbrIfNodeUpdate check ready table,pbr list name:a.\r\n"),
                     hwText("pbrIfNodeUpdate check ready table,pbr node index:10.\r\n"),
                     hwText("pbrIfNodeUpdate no change best nexthop " + pointerText(hop(pNode_, 1)) + ".\r\n")}));
}

TEST_F(IfNodeUpdate, AnEcmpNodeSaysNothingOfItsSelection) {
    pbrNodeIsEcmpSet(pNode_, 1);
    bound({1});
    pbrReadyTableAdd(pList_);
    gPbrInfo.debugFlags = 4 | 64;
    clear();
    update();
    EXPECT_EQ(fake::takeTexts(), (Lines{hwText("pbrIfNodeUpdate check ready table,pbr list name:a.\r\n"),
                                        hwText("pbrIfNodeUpdate check ready table,pbr node index:10.\r\n")}));
}

// Every device call of a change on two nodes and two interfaces fails once: the store stays sound, the
// view right, and the table empties once the device works again.
TEST_F(IfNodeUpdate, AnyDeviceFailureLeavesASoundStoreAndIsWorkedOffLater) {
    PbrNodeEntry *pLater = node(15, 1502, "10.0.6.", 2);
    bound({1, 2});
    up("10.0.0.1");
    up("10.0.6.1");
    update();
    bool isHit = true;
    for (uint32_t n = 1; isHit; n++) {
        ASSERT_LT(n, 100u);
        const char *const from = n % 2 == 1 ? "1" : "2";
        const char *const to = n % 2 == 1 ? "2" : "1";
        for (const char *prefix : {"10.0.0.", "10.0.6."}) {
            up(std::string(prefix) + to);
            down(std::string(prefix) + from);
        }
        fake::failNth(n);
        update();
        isHit = fake::faultHit();
        fake::failNth(0);
        const char *const letter = n % 2 == 1 ? "B" : "A";
        for (uint32_t unit : {1u, 2u}) {
            EXPECT_EQ(letter, steps::view(unit, 1501));
            EXPECT_EQ(letter, steps::view(unit, 1502));
        }
        for (int run = 0; run < 4; run++) {
            update();
        }
        EXPECT_EQ("", readyLists()) << n;
        // A rewrite of everything heals what a failing first-walked interface left behind.
        for (PbrNodeEntry *pNode : {pNode_, pLater}) {
            pNode->pPbrNhopBest = nullptr;
        }
        pbrReadyTableAdd(pList_);
        update();
        for (PbrNodeEntry *pNode : {pNode_, pLater}) {
            EXPECT_EQ(1u, hwStatus(1, pNode));
            EXPECT_EQ(1u, hwStatus(2, pNode));
        }
    }
}

} // namespace
